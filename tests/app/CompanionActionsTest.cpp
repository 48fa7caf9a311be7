#include "CompanionActions.h"

#include "AsyncTest.h"
#include "TemporaryHome.h"
#include "conversation/ChatStore.h"
#include "net/Detached.h"
#include "settings/AppSettings.h"
#include "skills/MCPGalleryItem.h"

#include <QCoroTimer>
#include <QRegularExpression>
#include <QTest>

#include <stdexcept>

// The view actions against the real store and settings: what the skills screen does to the server
// list must survive a restart, and every answer says why when it fails.
class CompanionActionsTest : public QObject
{
    Q_OBJECT

    std::unique_ptr<TemporaryHome> m_home;

private Q_SLOTS:
    void init() { m_home = std::make_unique<TemporaryHome>(); }
    void cleanup() { m_home.reset(); }

    // Reconnecting a service, switching one off (by an id in another case, as QML may pass it)
    // and deleting one leave exactly that list after a restart; a refused address is not saved, and
    // checking a server no longer listed says so (a dead one is the skills view's test).
    void serverListEditsSurviveARestart()
    {
        QString offID;
        {
            ChatStore store;
            CompanionActions actions(&store);
            actions.addManualServer("A", "https://a.example/mcp", "t");
            actions.addManualServer("B", "https://b.example/mcp", {});
            // A refused address is answered with the reason (the rules have their own table).
            QVERIFY(actions.addManualServer("C", "ftp://c.example", {}).contains("https://"));
            actions.saveGalleryConnection("github", "first", "OAuth");
            actions.saveGalleryConnection("github", "second", "Token");
            actions.saveGalleryConnection("no-such-item", "x", "Token");
            const auto servers = store.settings()->mcpServers();
            offID = servers[0].idString();
            actions.setServerEnabled(offID.toLower(), false);
            actions.removeServer(servers[1].idString());
            const auto shown = store.settings()->property("mcpServers").value<QList<MCPServerConfig>>();
            QCOMPARE(shown, store.settings()->mcpServers());
            QCOMPARE(AsyncTest::await(actions.serverCheckText(QStringLiteral("missing"))),
                QStringLiteral("Serverul nu mai există în listă."));
        }
        const auto servers = AppSettings().mcpServers();
        QCOMPARE(servers.size(), 2);
        QCOMPARE(servers[0].idString(), offID);
        QVERIFY(!servers[0].enabled);
        QCOMPARE(servers[0].authLabel, std::optional<QString>(QStringLiteral("Token")));
        QCOMPARE(servers[1].sourceID, std::optional<QString>(QStringLiteral("github")));
        QCOMPARE(servers[1].bearerToken, QStringLiteral("second"));
    }

    void anErrorEscapingADetachedTaskIsLogged()
    {
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression(QStringLiteral("^kelo: .+")));
        startDetached([]() -> QCoro::Task<> {
            co_await QCoro::sleepFor(std::chrono::milliseconds(1));
            throw std::runtime_error("lost");
        }());
        QTest::qWait(50);
    }
};

QTEST_MAIN(CompanionActionsTest)
#include "CompanionActionsTest.moc"
