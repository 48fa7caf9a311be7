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

class SecureStoreTest : public QObject
{
    Q_OBJECT

    static inline const QString secretService = "org.freedesktop.secrets";

    // A service of our own per test, so runs in parallel and leftovers never meet.
    static QString freshService() { return "ro.kelo.test." + QUuid::createUuid().toString(QUuid::Id128); }

    // Keychain items (locked or not) for one service and account, asked over D-Bus directly.
    static int keychainItemCount(const QString &service, const QString &account)
    {
        using Attributes = QMap<QString, QString>;
        qDBusRegisterMetaType<Attributes>();
        QDBusMessage search = QDBusMessage::createMethodCall(
            secretService, "/org/freedesktop/secrets", "org.freedesktop.Secret.Service", "SearchItems");
        search << QVariant::fromValue(Attributes { { "server", service }, { "user", account } });
        const QList<QVariant> found = QDBusConnection::sessionBus().call(search).arguments();
        if (found.size() != 2)
            return -1;
        return int(
            qdbus_cast<QList<QDBusObjectPath>>(found[0]).size() + qdbus_cast<QList<QDBusObjectPath>>(found[1]).size());
    }

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
    // Both places keep one item per service and account, and an empty value deletes; the keychain, once it
    // answers, also takes what the settings and the file held.
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
            return keychain
                ? keychainItemCount(service, account)
                : int(QJsonDocument::fromJson(contents(secretsPath(home)))[service].toObject().contains(account));
        };

        // Deleting what is not there is silent and does not even create the file.
        store.write(QString(), "zenAPIKey");
        QVERIFY(!QFile::exists(secretsPath(home)));
        store.write(QStringLiteral("abc"), "zenAPIKey");
        store.write(QStringLiteral("def"), "zenAPIKey");
        QCOMPARE(SecureStore(service).read("zenAPIKey"), QStringLiteral("def"));
        QCOMPARE(items("zenAPIKey"), 1);

        // Another account and another service are other items.
        QCOMPARE(store.read("elevenAPIKey"), std::nullopt);
        QCOMPARE(SecureStore(freshService()).read("zenAPIKey"), std::nullopt);
        store.write(QStringLiteral(" cheie ăîșț ✓ "), "elevenAPIKey");
        QCOMPARE(store.read("elevenAPIKey"), QStringLiteral(" cheie ăîșț ✓ "));

        store.write(QString(), "zenAPIKey");
        QCOMPARE(store.read("zenAPIKey"), std::nullopt);
        QCOMPARE(items("zenAPIKey"), 0);
        QCOMPARE(store.read("elevenAPIKey"), QStringLiteral(" cheie ăîșț ✓ "));
        store.write(QString(), "elevenAPIKey");
        if (!keychain)
            return;
        QVERIFY(!QFile::exists(secretsPath(home)));

        // The settings keep credentials there once it answers.
        AppSettings settings;
        QVERIFY(!settings.secretsInFile());
        settings.setGoogleTTSAPIKey(QStringLiteral("  g-key  "));
        QCOMPARE(SecureStore().read("googleTTSAPIKey"), QStringLiteral("  g-key  "));
        settings.setGoogleTTSAPIKey(QString());
        QCOMPARE(keychainItemCount(SecureStore::appID(), "googleTTSAPIKey"), 0);

        // Keys saved in the file while no keychain answered move there once one does.
        const QString migrated = freshService();
        std::optional<ScopedEnvironment> fileOnly(std::in_place, "KELO_SECRET_STORE", "file");
        SecureStore(migrated).write(QStringLiteral("din-fisier"), "elevenAPIKey");
        fileOnly.reset();
        SecureStore keychainStore(migrated);
        QCOMPARE(keychainStore.read("elevenAPIKey"), QStringLiteral("din-fisier"));
        QCOMPARE(keychainItemCount(migrated, "elevenAPIKey"), 1);
        QVERIFY(!contents(secretsPath(home)).contains("din-fisier"));
        keychainStore.write(QString(), "elevenAPIKey");
    }

    // Private even with a permissive umask, and narrowed again if someone widened it.
    void fileStoreStaysPrivateAndKeepsADamagedFile()
    {
        ScopedUmask permissive(0);
        TemporaryHome home;
        SecureStore store(freshService());
        store.write(QStringLiteral("g"), "googleTTSAPIKey");
        QVERIFY(isOwnerOnly(secretsPath(home)));
        const QString folder = home.configHome() + "/Kelo/";
        QVERIFY(!(QFile::permissions(folder) & (QFileDevice::ReadOther | QFileDevice::ReadGroup)));
        QFile::setPermissions(
            secretsPath(home), QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ReadOther);
        store.write(QStringLiteral("h"), "zenAPIKey");
        QVERIFY(isOwnerOnly(secretsPath(home)));

        // A damaged file is set aside, not overwritten.
        writeFile(secretsPath(home), "{\"ro.kelo\": {\"zenAPIKey\": \"sk-vech");
        SecureStore reopened(freshService());
        QCOMPARE(reopened.read("zenAPIKey"), std::nullopt);
        reopened.write("nou", "zenAPIKey");
        QCOMPARE(reopened.read("zenAPIKey"), QStringLiteral("nou"));
        const QStringList aside = QDir(folder).entryList({ "secrets.json.damaged-*" });
        QCOMPARE(aside.size(), 1);
        QVERIFY(contents(folder + aside.first()).contains("sk-vech"));
    }
};

QTEST_GUILESS_MAIN(SecureStoreTest)
#include "SecureStoreTest.moc"
