#include "PrivateSessionBus.h"
#include "SettingsTestSupport.h"
#include "TemporaryHome.h"
#include "settings/AppSettings.h"
#include "settings/SecureStore.h"

#include <QDBusConnection>
#include <QDBusVirtualObject>
#include <QElapsedTimer>
#include <QTest>

using namespace SettingsTestSupport;

namespace {
// Owns the Secret Service name and swallows every call without an answer, like a wedged daemon.
class SilentSecretService : public QDBusVirtualObject
{
public:
    QString introspect(const QString &) const override { return {}; }
    bool handleMessage(const QDBusMessage &, const QDBusConnection &) override { return true; }
};
} // namespace

// Where secrets go when the keychain cannot serve, one situation per process (CMakeLists.txt sets
// KELO_TEST_KEYCHAIN) since D-Bus connections and the keychain backend are chosen once per process:
// "nobus" no session bus at all; "bare" a keyring started on demand without a login keyring (a bare
// window manager or an SSH session: the Secret Service answers but cannot keep anything); "hung" a
// Secret Service that never answers.
class SecureStoreBackendTest : public QObject
{
    Q_OBJECT

    const QString m_situation = qEnvironmentVariable("KELO_TEST_KEYCHAIN");
    PrivateSessionBus m_bus;
    SilentSecretService m_silent;

private Q_SLOTS:
    void initTestCase()
    {
        if (!QStringList { "nobus", "bare", "hung" }.contains(m_situation))
            QSKIP("KELO_TEST_KEYCHAIN names no situation (ctest sets it)");
        if (m_situation == QLatin1String("nobus"))
            return;
        const bool keyring = !QStandardPaths::findExecutable(QStringLiteral("gnome-keyring-daemon")).isEmpty();
        if (!PrivateSessionBus::available() || (m_situation == QLatin1String("bare") && !keyring))
            QSKIP("dbus-daemon or gnome-keyring-daemon is not installed (scripts/install-deps.sh)");
        QVERIFY(m_bus.start());
        if (m_situation != QLatin1String("hung"))
            return;
        QDBusConnection connection = QDBusConnection::connectToBus(m_bus.address(), QStringLiteral("silent"));
        QVERIFY(connection.registerService(QStringLiteral("org.freedesktop.secrets")));
        QVERIFY(connection.registerVirtualObject(QStringLiteral("/"), &m_silent, QDBusConnection::SubPath));
    }

    void keysGoToThePrivateFileWhenNoKeychainCanKeepThem()
    {
        if (m_situation == QLatin1String("hung"))
            QSKIP("a hung keychain is not a missing one");
        TemporaryHome home;
        ScopedEnvironment automatic("KELO_SECRET_STORE", QString());
        const QString service = QStringLiteral("ro.kelo.test.") + m_situation;
        SecureStore store(service);
        QVERIFY(store.usesFileFallback());
        store.write(QStringLiteral("abc"), QStringLiteral("zenAPIKey"));
        QCOMPARE(SecureStore(service).read(QStringLiteral("zenAPIKey")), QStringLiteral("abc"));
        QVERIFY(isOwnerOnly(secretsPath(home)));
        QVERIFY(AppSettings().secretsInFile());
    }

    void aHungKeychainCostsOneTimeOutNotOnePerCall()
    {
        if (m_situation != QLatin1String("hung"))
            QSKIP("only for a keychain that never answers");
        TemporaryHome home;
        ScopedEnvironment automatic("KELO_SECRET_STORE", QString());
        SecureStore store(QStringLiteral("ro.kelo.test.hung"));
        // The first call waits for its time-out and returns nothing.
        QCOMPARE(store.read(QStringLiteral("zenAPIKey")), std::nullopt);

        // While that call hangs, the following ones give up at once instead of queueing behind it, and
        // nothing is written in the clear just because the keychain is slow.
        QElapsedTimer elapsed;
        elapsed.start();
        QVERIFY(!store.usesFileFallback());
        store.write(QStringLiteral("abc"), QStringLiteral("zenAPIKey"));
        QCOMPARE(store.read(QStringLiteral("zenAPIKey")), std::nullopt);
        QCOMPARE(store.read(QStringLiteral("elevenAPIKey")), std::nullopt);
        QVERIFY2(elapsed.elapsed() < 5'000, "later calls waited for the hung keychain");
        QVERIFY(!QFile::exists(secretsPath(home)));
    }
};

QTEST_GUILESS_MAIN(SecureStoreBackendTest)
#include "SecureStoreBackendTest.moc"
