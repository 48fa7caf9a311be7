#include "PrivateSessionBus.h"
#include "SettingsTestSupport.h"
#include "TemporaryHome.h"
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

class SecureStoreHungKeyringTest : public QObject
{
    Q_OBJECT

private:
    PrivateSessionBus m_bus;
    SilentSecretService m_service;

private Q_SLOTS:
    void initTestCase()
    {
        if (!PrivateSessionBus::available())
            QSKIP("dbus-daemon is not installed (scripts/install-deps.sh)");
        QVERIFY(m_bus.start());
        QDBusConnection connection = QDBusConnection::connectToBus(m_bus.address(), QStringLiteral("silent"));
        QVERIFY(connection.registerService(QStringLiteral("org.freedesktop.secrets")));
        QVERIFY(connection.registerVirtualObject(QStringLiteral("/"), &m_service, QDBusConnection::SubPath));
    }

    void aHungKeychainCostsOneTimeOutNotOnePerCall()
    {
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

QTEST_GUILESS_MAIN(SecureStoreHungKeyringTest)
#include "SecureStoreHungKeyringTest.moc"
