#include "SettingsTestSupport.h"
#include "TemporaryHome.h"
#include "settings/AppSettings.h"
#include "settings/SecureStore.h"

#include <QTest>

using namespace SettingsTestSupport;

// Runs with a session bus address that leads nowhere (see CMakeLists.txt): the store must notice
// that no keychain answers and keep secrets in its private file.
class SecureStoreWithoutBusTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void secretsGoToTheFileWhenNoKeychainAnswers()
    {
        TemporaryHome home;
        ScopedEnvironment automatic("KELO_SECRET_STORE", QString());
        SecureStore store(QStringLiteral("ro.kelo.test.nobus"));
        QVERIFY(store.usesFileFallback());

        store.write(QStringLiteral("abc"), QStringLiteral("zenAPIKey"));
        QCOMPARE(
            SecureStore(QStringLiteral("ro.kelo.test.nobus")).read(QStringLiteral("zenAPIKey")), QStringLiteral("abc"));
        QVERIFY(isOwnerOnly(secretsPath(home)));
        QVERIFY(AppSettings().secretsInFile());
    }
};

QTEST_GUILESS_MAIN(SecureStoreWithoutBusTest)
#include "SecureStoreWithoutBusTest.moc"
