#pragma once

#include <QByteArray>
#include <QString>
#include <QTemporaryDir>

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
    QString configHome() const;
    QString dataHome() const;
    QString cacheHome() const;

private:
    QTemporaryDir m_dir;
    QByteArray m_previousConfig;
    QByteArray m_previousData;
    QByteArray m_previousCache;
    QByteArray m_previousSecretStore;
};

// Sets an environment variable for one scope and restores it afterwards.
class ScopedEnvironment
{
public:
    ScopedEnvironment(const char *name, const QString &value);
    ~ScopedEnvironment();

    ScopedEnvironment(const ScopedEnvironment &) = delete;
    ScopedEnvironment &operator=(const ScopedEnvironment &) = delete;

private:
    QByteArray m_name;
    QByteArray m_previous;
    bool m_wasSet;
};
