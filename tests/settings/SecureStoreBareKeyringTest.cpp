#include "PrivateSessionBus.h"
#include "SettingsTestSupport.h"
#include "TemporaryHome.h"
#include "settings/SecureStore.h"

#include <QTest>

using namespace SettingsTestSupport;

// A session bus on which GNOME Keyring is only started on demand, with no login keyring: the Secret
// Service answers but cannot keep anything, which is what a bare window manager or an SSH session
// offers. Keys must go to the private file instead of vanishing.
class SecureStoreBareKeyringTest : public QObject
{
    Q_OBJECT

private:
    PrivateSessionBus m_bus;

private Q_SLOTS:
    void initTestCase()
    {
        if (!PrivateSessionBus::available()
            || QStandardPaths::findExecutable(QStringLiteral("gnome-keyring-daemon")).isEmpty())
            QSKIP("dbus-daemon or gnome-keyring-daemon is not installed (scripts/install-deps.sh)");
        QVERIFY(m_bus.start());
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
