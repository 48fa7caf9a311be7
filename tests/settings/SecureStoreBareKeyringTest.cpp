#include "SettingsTestSupport.h"
#include "TemporaryHome.h"
#include "settings/SecureStore.h"

#include <QProcess>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QTest>

using namespace SettingsTestSupport;

// A session bus of its own on which GNOME Keyring is only started on demand, with no login keyring:
// the Secret Service answers but cannot keep anything, which is what a bare window manager or an SSH
// session offers. Keys must go to the private file instead of vanishing.
class SecureStoreBareKeyringTest : public QObject
{
    Q_OBJECT

private:
    QTemporaryDir m_busHome;
    QProcess m_bus;

private Q_SLOTS:
    void initTestCase()
    {
        if (QStandardPaths::findExecutable(QStringLiteral("dbus-daemon")).isEmpty()
            || QStandardPaths::findExecutable(QStringLiteral("gnome-keyring-daemon")).isEmpty())
            QSKIP("dbus-daemon or gnome-keyring-daemon is not installed (scripts/install-deps.sh)");
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        // The keyring the bus starts keeps its (empty) data here, not in the developer's home.
        environment.insert(QStringLiteral("XDG_DATA_HOME"), m_busHome.path());
        environment.insert(QStringLiteral("XDG_RUNTIME_DIR"), m_busHome.path());
        m_bus.setProcessEnvironment(environment);
        m_bus.start(QStringLiteral("dbus-daemon"),
            { QStringLiteral("--session"), QStringLiteral("--nofork"), QStringLiteral("--print-address=1") });
        QVERIFY(m_bus.waitForReadyRead(10'000));
        const QByteArray address = m_bus.readLine().trimmed();
        QVERIFY(!address.isEmpty());
        qputenv("DBUS_SESSION_BUS_ADDRESS", address);
    }

    void cleanupTestCase()
    {
        m_bus.terminate();
        m_bus.waitForFinished(5'000);
    }

    void keysGoToTheFileWhenTheKeyringCannotStore()
    {
        TemporaryHome home;
        ScopedEnvironment automatic("KELO_SECRET_STORE", QString());
        SecureStore store(QStringLiteral("ro.kelo.test.bare"));
        QVERIFY(store.usesFileFallback());

        store.write(QStringLiteral("abc"), QStringLiteral("zenAPIKey"));
        QCOMPARE(
            SecureStore(QStringLiteral("ro.kelo.test.bare")).read(QStringLiteral("zenAPIKey")), QStringLiteral("abc"));
        QVERIFY(isOwnerOnly(secretsPath(home)));
    }
};

QTEST_GUILESS_MAIN(SecureStoreBareKeyringTest)
#include "SecureStoreBareKeyringTest.moc"
