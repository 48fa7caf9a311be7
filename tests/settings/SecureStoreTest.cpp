#include "settings/SecureStore.h"

#include "SettingsTestSupport.h"
#include "TemporaryHome.h"
#include "settings/AppSettings.h"

#include <QDBusArgument>
#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusMetaType>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTest>
#include <QUuid>

using namespace SettingsTestSupport;

namespace {
const QString secretService = QStringLiteral("org.freedesktop.secrets");

// A service of our own per test, so runs in parallel and leftovers never meet.
QString freshService()
{
    return QStringLiteral("ro.kelo.test.") + QUuid::createUuid().toString(QUuid::Id128);
}

// Keychain items (locked or not) for one service and account, asked over D-Bus directly.
int keychainItemCount(const QString &service, const QString &account)
{
    using Attributes = QMap<QString, QString>;
    qDBusRegisterMetaType<Attributes>();
    QDBusMessage search = QDBusMessage::createMethodCall(secretService, QStringLiteral("/org/freedesktop/secrets"),
        QStringLiteral("org.freedesktop.Secret.Service"), QStringLiteral("SearchItems"));
    search << QVariant::fromValue(
        Attributes { { QStringLiteral("server"), service }, { QStringLiteral("user"), account } });
    const QDBusMessage reply = QDBusConnection::sessionBus().call(search);
    if (reply.type() != QDBusMessage::ReplyMessage || reply.arguments().size() != 2)
        return -1;
    const auto unlocked = qdbus_cast<QList<QDBusObjectPath>>(reply.arguments().at(0));
    const auto locked = qdbus_cast<QList<QDBusObjectPath>>(reply.arguments().at(1));
    return int(unlocked.size() + locked.size());
}

QJsonObject fileItems(const TemporaryHome &home, const QString &service)
{
    return QJsonDocument::fromJson(contents(secretsPath(home))).object().value(service).toObject();
}
} // namespace

class SecureStoreTest : public QObject
{
    Q_OBJECT

private:
    // Only the throw-away keyring of scripts/test.sh, never a developer's own.
    static bool testKeyringRunning()
    {
        return qEnvironmentVariableIsSet("KELO_SERVICE_RUNTIME") && QDBusConnection::sessionBus().isConnected()
            && QDBusConnection::sessionBus().interface()->isServiceRegistered(secretService);
    }

#define REQUIRE_TEST_KEYRING()                                                                                         \
    if (!testKeyringRunning())                                                                                         \
        QSKIP("No Secret Service of the test services on the session bus; scripts/test.sh starts one");

private Q_SLOTS:
    // Both places keep one item per service and account, and an empty value deletes.
    void replacesInsteadOfDuplicatingAndEmptyDeletes_data()
    {
        QTest::addColumn<bool>("keychain");
        QTest::newRow("keychain") << true;
        QTest::newRow("file") << false;
    }

    void replacesInsteadOfDuplicatingAndEmptyDeletes()
    {
        QFETCH(bool, keychain);
        if (keychain)
            REQUIRE_TEST_KEYRING();
        TemporaryHome home;
        std::optional<ScopedEnvironment> automatic;
        if (keychain)
            automatic.emplace("KELO_SECRET_STORE", QString());
        const QString service = freshService();
        SecureStore store(service);
        QCOMPARE(store.usesFileFallback(), !keychain);
        const auto items = [&](const QString &account) {
            return keychain ? keychainItemCount(service, account) : int(fileItems(home, service).contains(account));
        };

        // Deleting what is not there is silent and does not even create the file.
        store.write(QString(), QStringLiteral("zenAPIKey"));
        QVERIFY(!QFile::exists(secretsPath(home)));
        store.write(QStringLiteral("abc"), QStringLiteral("zenAPIKey"));
        store.write(QStringLiteral("def"), QStringLiteral("zenAPIKey"));
        QCOMPARE(SecureStore(service).read(QStringLiteral("zenAPIKey")), QStringLiteral("def"));
        QCOMPARE(items(QStringLiteral("zenAPIKey")), 1);

        // Another account and another service are other items.
        QCOMPARE(store.read(QStringLiteral("elevenAPIKey")), std::nullopt);
        QCOMPARE(SecureStore(freshService()).read(QStringLiteral("zenAPIKey")), std::nullopt);
        store.write(QStringLiteral(" cheie ăîșț ✓ "), QStringLiteral("elevenAPIKey"));
        QCOMPARE(store.read(QStringLiteral("elevenAPIKey")), QStringLiteral(" cheie ăîșț ✓ "));

        store.write(QString(), QStringLiteral("zenAPIKey"));
        QCOMPARE(store.read(QStringLiteral("zenAPIKey")), std::nullopt);
        QCOMPARE(items(QStringLiteral("zenAPIKey")), 0);
        QCOMPARE(store.read(QStringLiteral("elevenAPIKey")), QStringLiteral(" cheie ăîșț ✓ "));
        QVERIFY(!contents(secretsPath(home)).contains("def"));
        store.write(QString(), QStringLiteral("elevenAPIKey"));
        if (keychain)
            QVERIFY(!QFile::exists(secretsPath(home)));
    }

    void appSettingsKeepsCredentialsInTheKeychain()
    {
        REQUIRE_TEST_KEYRING();
        TemporaryHome home;
        ScopedEnvironment automatic("KELO_SECRET_STORE", QString());
        ScopedEnvironment noOverride("KELO_ZEN_API_KEY", QString());
        {
            AppSettings settings;
            QVERIFY(!settings.secretsInFile());
            settings.setGoogleTTSAPIKey(QStringLiteral("  g-key  "));
        }
        QCOMPARE(SecureStore().read(QStringLiteral("googleTTSAPIKey")), QStringLiteral("  g-key  "));
        QVERIFY(!contents(settingsPath(home)).contains("g-key"));
        AppSettings settings;
        QCOMPARE(settings.googleTTSAPIKey(), QStringLiteral("  g-key  "));
        settings.setGoogleTTSAPIKey(QString());
        QCOMPARE(keychainItemCount(SecureStore::appID(), QStringLiteral("googleTTSAPIKey")), 0);
    }

    void keysSavedInTheFileMoveToTheKeychainOnceItAnswers()
    {
        REQUIRE_TEST_KEYRING();
        TemporaryHome home;
        const QString service = freshService();
        SecureStore(service).write(QStringLiteral("din-fisier"), QStringLiteral("elevenAPIKey"));
        QCOMPARE(
            fileItems(home, service).value(QStringLiteral("elevenAPIKey")).toString(), QStringLiteral("din-fisier"));

        ScopedEnvironment automatic("KELO_SECRET_STORE", QString());
        SecureStore keychain(service);
        QCOMPARE(keychain.read(QStringLiteral("elevenAPIKey")), QStringLiteral("din-fisier"));
        QVERIFY(!keychain.usesFileFallback());
        QCOMPARE(keychainItemCount(service, QStringLiteral("elevenAPIKey")), 1);
        QVERIFY(fileItems(home, service).isEmpty());
        QVERIFY(!contents(secretsPath(home)).contains("din-fisier"));
        keychain.write(QString(), QStringLiteral("elevenAPIKey"));
    }

    // Private even with a permissive umask, and narrowed again if someone widened it.
    void fileStoreStaysPrivate()
    {
        ScopedUmask permissive(0);
        TemporaryHome home;
        SecureStore store(freshService());
        QCOMPARE(store.fallbackFilePath(), secretsPath(home));
        store.write(QStringLiteral("g"), QStringLiteral("googleTTSAPIKey"));
        QVERIFY(isOwnerOnly(secretsPath(home)));
        const QFileDevice::Permissions folder = QFile::permissions(home.configHome() + QStringLiteral("/Kelo"));
        QVERIFY(!(folder & (QFileDevice::ReadOther | QFileDevice::ReadGroup)));
        QFile::setPermissions(
            secretsPath(home), QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ReadOther);
        store.write(QStringLiteral("h"), QStringLiteral("zenAPIKey"));
        QVERIFY(isOwnerOnly(secretsPath(home)));
    }

    void damagedFileIsSetAsideNotOverwritten()
    {
        TemporaryHome home;
        writeFile(secretsPath(home), "{\"ro.kelo\": {\"zenAPIKey\": \"sk-vech");
        SecureStore store(freshService());
        QCOMPARE(store.read(QStringLiteral("zenAPIKey")), std::nullopt);

        store.write(QStringLiteral("nou"), QStringLiteral("zenAPIKey"));
        QCOMPARE(store.read(QStringLiteral("zenAPIKey")), QStringLiteral("nou"));
        const QStringList aside
            = QDir(home.configHome() + QStringLiteral("/Kelo")).entryList({ QStringLiteral("secrets.json.damaged-*") });
        QCOMPARE(aside.size(), 1);
        QVERIFY(contents(home.configHome() + QStringLiteral("/Kelo/") + aside.first()).contains("sk-vech"));
    }
};

QTEST_GUILESS_MAIN(SecureStoreTest)
#include "SecureStoreTest.moc"
