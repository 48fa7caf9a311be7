#include "SettingsTestSupport.h"
#include "TemporaryHome.h"
#include "settings/AppSettings.h"
#include "settings/SecureStore.h"

#include <QDBusConnection>
#include <QDBusVirtualObject>
#include <QElapsedTimer>
#include <QProcess>
#include <QStandardPaths>
#include <QTemporaryDir>
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

// One situation per process (KELO_TEST_KEYCHAIN): no bus, a keyring that cannot keep anything, a hung one.
class SecureStoreBackendTest : public QObject
{
    Q_OBJECT

    const QString m_situation = qEnvironmentVariable("KELO_TEST_KEYCHAIN");
    QTemporaryDir m_busHome; // where services the bus starts on demand keep their data
    QProcess m_bus;
    SilentSecretService m_silent;

private Q_SLOTS:
    // A private session bus, set before anything touches D-Bus (everyone keeps their first connection).
    void initTestCase()
    {
        if (!QStringList { "nobus", "bare", "hung" }.contains(m_situation))
            QSKIP("KELO_TEST_KEYCHAIN names no situation (ctest sets it)");
        if (m_situation == "nobus")
            return;
        const bool keyring = !QStandardPaths::findExecutable("gnome-keyring-daemon").isEmpty();
        if (QStandardPaths::findExecutable("dbus-daemon").isEmpty() || (m_situation == "bare" && !keyring))
            QSKIP("dbus-daemon or gnome-keyring-daemon is not installed (scripts/install-deps.sh)");
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert("XDG_DATA_HOME", m_busHome.path());
        environment.insert("XDG_RUNTIME_DIR", m_busHome.path());
        m_bus.setProcessEnvironment(environment);
        m_bus.start("dbus-daemon", { "--session", "--nofork", "--print-address=1" });
        QVERIFY(m_bus.waitForReadyRead(10'000));
        const QByteArray address = m_bus.readLine().trimmed();
        QVERIFY(!address.isEmpty());
        qputenv("DBUS_SESSION_BUS_ADDRESS", address);
        if (m_situation != "hung")
            return;
        QDBusConnection connection = QDBusConnection::connectToBus(QString::fromUtf8(address), "silent");
        QVERIFY(connection.registerService("org.freedesktop.secrets"));
        QVERIFY(connection.registerVirtualObject("/", &m_silent, QDBusConnection::SubPath));
    }

    void cleanupTestCase()
    {
        m_bus.terminate();
        m_bus.waitForFinished(5'000);
    }

    // Without a keychain that can keep them, keys go to the private file; a hung keychain costs one
    // time-out, not one per call, and nothing goes in the clear.
    void keysFindTheirPlaceWhateverTheKeychainDoes()
    {
        TemporaryHome home;
        ScopedEnvironment automatic("KELO_SECRET_STORE", QString());
        const QString service = "ro.kelo.test." + m_situation;
        SecureStore store(service);
        if (m_situation != "hung") {
            QVERIFY(store.usesFileFallback());
            store.write("abc", "zenAPIKey");
            QCOMPARE(SecureStore(service).read("zenAPIKey"), QString("abc"));
            QVERIFY(isOwnerOnly(secretsPath(home)));
            QVERIFY(AppSettings().secretsInFile());
            return;
        }
        QCOMPARE(store.read("zenAPIKey"), std::nullopt);
        QElapsedTimer elapsed;
        elapsed.start();
        QVERIFY(!store.usesFileFallback());
        store.write("abc", "zenAPIKey");
        QCOMPARE(store.read("zenAPIKey"), std::nullopt);
        QCOMPARE(store.read("elevenAPIKey"), std::nullopt);
        QVERIFY2(elapsed.elapsed() < 5'000, "later calls waited for the hung keychain");
        QVERIFY(!QFile::exists(secretsPath(home)));
    }
};

QTEST_GUILESS_MAIN(SecureStoreBackendTest)
#include "SecureStoreBackendTest.moc"
