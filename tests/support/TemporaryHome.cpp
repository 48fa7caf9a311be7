#include "TemporaryHome.h"

#include <QDir>
#include <QSettings>

namespace {
void pointSettingsAt(const QString &configDir)
{
    // QSettings caches the user path on first use, so the environment alone is not enough.
    QSettings::setPath(QSettings::NativeFormat, QSettings::UserScope, configDir);
    QSettings::setPath(QSettings::IniFormat, QSettings::UserScope, configDir);
}
} // namespace

TemporaryHome::TemporaryHome()
    : m_config("XDG_CONFIG_HOME", configHome())
    , m_data("XDG_DATA_HOME", dataHome())
    , m_cache("XDG_CACHE_HOME", cacheHome())
    , m_secretStore("KELO_SECRET_STORE", QStringLiteral("file"))
{
    for (const QString &home : { configHome(), dataHome(), cacheHome() })
        QDir().mkpath(home);
    pointSettingsAt(configHome());
}

TemporaryHome::~TemporaryHome()
{
    // The variables are put back after this body, by their members.
    const QString previous = m_config.previous();
    pointSettingsAt(previous.isEmpty() ? QDir::homePath() + QStringLiteral("/.config") : previous);
}

ScopedEnvironment::ScopedEnvironment(const char *name, const QString &value)
    : m_name(name)
    , m_previous(qgetenv(name))
    , m_wasSet(qEnvironmentVariableIsSet(name))
{
    qputenv(name, value.toUtf8());
}

ScopedEnvironment::~ScopedEnvironment()
{
    if (m_wasSet)
        qputenv(m_name.constData(), m_previous);
    else
        qunsetenv(m_name.constData());
}
