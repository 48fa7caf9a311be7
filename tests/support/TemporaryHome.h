#pragma once

#include <QByteArray>
#include <QString>
#include <QTemporaryDir>

// Sets an environment variable for one scope and restores it afterwards.
class ScopedEnvironment
{
public:
    ScopedEnvironment(const char *name, const QString &value);
    ~ScopedEnvironment();

    ScopedEnvironment(const ScopedEnvironment &) = delete;
    ScopedEnvironment &operator=(const ScopedEnvironment &) = delete;

    // The value before this scope, empty when it was unset.
    QString previous() const { return QString::fromUtf8(m_previous); }

private:
    QByteArray m_name;
    QByteArray m_previous;
    bool m_wasSet;
};

// Points the XDG directories (and QSettings) at a fresh temporary folder for one test, and puts
// them back afterwards, so no test reads or writes the developer's real files. Secrets go to the
// file store inside that folder (KELO_SECRET_STORE=file), never to the developer's keychain; a test
// of the keychain itself clears the variable with a ScopedEnvironment.
class TemporaryHome
{
public:
    TemporaryHome();
    ~TemporaryHome();

    TemporaryHome(const TemporaryHome &) = delete;
    TemporaryHome &operator=(const TemporaryHome &) = delete;

    QString path() const { return m_dir.path(); }
    QString configHome() const { return m_dir.path() + QStringLiteral("/config"); }
    QString dataHome() const { return m_dir.path() + QStringLiteral("/data"); }
    QString cacheHome() const { return m_dir.path() + QStringLiteral("/cache"); }

private:
    QTemporaryDir m_dir;
    ScopedEnvironment m_config;
    ScopedEnvironment m_data;
    ScopedEnvironment m_cache;
    ScopedEnvironment m_secretStore;
};
