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
    : m_previousConfig(qgetenv("XDG_CONFIG_HOME"))
    , m_previousData(qgetenv("XDG_DATA_HOME"))
    , m_previousCache(qgetenv("XDG_CACHE_HOME"))
    , m_previousSecretStore(qgetenv("KELO_SECRET_STORE"))
{
    for (const QString &sub : {QStringLiteral("config"), QStringLiteral("data"), QStringLiteral("cache")})
        QDir(m_dir.path()).mkpath(sub);
    qputenv("XDG_CONFIG_HOME", configHome().toUtf8());
    qputenv("XDG_DATA_HOME", dataHome().toUtf8());
    qputenv("XDG_CACHE_HOME", cacheHome().toUtf8());
    qputenv("KELO_SECRET_STORE", "file");
    pointSettingsAt(configHome());
}

TemporaryHome::~TemporaryHome()
{
    const auto restore = [](const char *name, const QByteArray &value) {
        if (value.isEmpty())
            qunsetenv(name);
        else
            qputenv(name, value);
    };
    restore("XDG_CONFIG_HOME", m_previousConfig);
    restore("XDG_DATA_HOME", m_previousData);
    restore("XDG_CACHE_HOME", m_previousCache);
    restore("KELO_SECRET_STORE", m_previousSecretStore);
    pointSettingsAt(m_previousConfig.isEmpty() ? QDir::homePath() + QStringLiteral("/.config")
                                               : QString::fromUtf8(m_previousConfig));
}

QString TemporaryHome::configHome() const
{
    return m_dir.path() + QStringLiteral("/config");
}

QString TemporaryHome::dataHome() const
{
    return m_dir.path() + QStringLiteral("/data");
}

QString TemporaryHome::cacheHome() const
{
    return m_dir.path() + QStringLiteral("/cache");
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
