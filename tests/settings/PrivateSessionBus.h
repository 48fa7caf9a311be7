#pragma once

#include <QProcess>
#include <QStandardPaths>
#include <QTemporaryDir>

// A dbus-daemon of the test's own, made the session bus of this process. Call start() before
// anything in the process has touched D-Bus: Qt, GLib and QtKeychain keep their first connection.
class PrivateSessionBus
{
public:
    ~PrivateSessionBus()
    {
        m_daemon.terminate();
        m_daemon.waitForFinished(5'000);
    }

    static bool available() { return !QStandardPaths::findExecutable(QStringLiteral("dbus-daemon")).isEmpty(); }

    // Services the bus starts on demand (a keyring daemon) keep their data in a temporary folder.
    bool start()
    {
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(QStringLiteral("XDG_DATA_HOME"), m_home.path());
        environment.insert(QStringLiteral("XDG_RUNTIME_DIR"), m_home.path());
        m_daemon.setProcessEnvironment(environment);
        m_daemon.start(QStringLiteral("dbus-daemon"),
            { QStringLiteral("--session"), QStringLiteral("--nofork"), QStringLiteral("--print-address=1") });
        if (!m_daemon.waitForReadyRead(10'000))
            return false;
        m_address = m_daemon.readLine().trimmed();
        qputenv("DBUS_SESSION_BUS_ADDRESS", m_address);
        return !m_address.isEmpty();
    }

    QString address() const { return QString::fromUtf8(m_address); }

private:
    QTemporaryDir m_home;
    QProcess m_daemon;
    QByteArray m_address;
};
