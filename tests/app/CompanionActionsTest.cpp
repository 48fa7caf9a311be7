#include "CompanionActions.h"

#include "TemporaryHome.h"
#include "conversation/ChatStore.h"
#include "settings/AppSettings.h"
#include "skills/MCPGalleryItem.h"

#include <QSignalSpy>
#include <QTest>

// The view actions against the real store and settings: what the skills screen does to the server
// list must survive a restart, and answers must come back for the server that was asked about.
class CompanionActionsTest : public QObject
{
    Q_OBJECT

    std::unique_ptr<TemporaryHome> m_home;

    static QList<MCPServerConfig> storedServers()
    {
        AppSettings reloaded;
        return reloaded.mcpServers();
    }

private Q_SLOTS:
    void init() { m_home = std::make_unique<TemporaryHome>(); }
    void cleanup() { m_home.reset(); }

    void connectingAServiceTwiceKeepsOneEntryAfterARestart()
    {
        {
            ChatStore store;
            CompanionActions actions(&store);
            actions.addManualServer("Unelte", "https://tools.example/mcp", {});
            actions.saveGalleryConnection("github", "first", "OAuth");
            actions.saveGalleryConnection("github", "second", "Token");
            actions.saveGalleryConnection("no-such-item", "x", "Token");
        }
        const auto servers = storedServers();
        QCOMPARE(servers.size(), 2);
        QCOMPARE(servers[0].name, QStringLiteral("Unelte"));
        QCOMPARE(servers[0].authLabel, std::optional<QString>(QStringLiteral("Fără auth")));
        QCOMPARE(servers[0].sourceID, std::nullopt);
        QCOMPARE(servers[1].sourceID, std::optional<QString>(QStringLiteral("github")));
        QCOMPARE(servers[1].bearerToken, QStringLiteral("second"));
        QCOMPARE(servers[1].authLabel, std::optional<QString>(QStringLiteral("Token")));
    }

    void switchingOffKeepsTheServerAndDeletingRemovesIt()
    {
        QString offID;
        {
            ChatStore store;
            CompanionActions actions(&store);
            actions.addManualServer("A", "https://a.example/mcp", "t");
            actions.addManualServer("B", "https://b.example/mcp", {});
            const auto servers = store.settings()->mcpServers();
            offID = servers[0].idString();
            // The views pass the ids they read from QML; case must not matter.
            actions.setServerEnabled(offID.toLower(), false);
            actions.removeServer(servers[1].idString());

            const QVariantList shown = store.settings()->mcpServerList();
            QCOMPARE(shown.size(), 1);
            QCOMPARE(shown[0].value<MCPServerConfig>().enabled, false);
        }
        const auto servers = storedServers();
        QCOMPARE(servers.size(), 1);
        QCOMPARE(servers[0].idString(), offID);
        QVERIFY(!servers[0].enabled);
        QCOMPARE(servers[0].authLabel, std::optional<QString>(QStringLiteral("Token")));
    }

    void galleryChecksAndKeyTestReachTheViews()
    {
        ChatStore store;
        CompanionActions actions(&store);
        const QVariantList gallery = actions.gallery();
        QCOMPARE(gallery.size(), MCPGalleryItem::gallery().size());
        QCOMPARE(gallery.first().value<MCPGalleryItem>().id, QStringLiteral("linear"));
        QCOMPARE(gallery.last().value<MCPGalleryItem>().id, QStringLiteral("google-calendar"));

        // Nothing listens on port 1: the check fails and says so instead of hanging or crashing.
        actions.addManualServer("Mort", "http://127.0.0.1:1/mcp", {});
        const QString id = store.settings()->mcpServers().first().idString();
        QSignalSpy spy(&actions, &CompanionActions::serverChecked);

        actions.checkServer("missing");
        QCOMPARE(spy.count(), 1);
        QCOMPARE(spy[0][0].toString(), QStringLiteral("missing"));
        QCOMPARE(spy[0][1].toString(), QStringLiteral("Serverul nu mai există în listă."));

        actions.checkServer(id);
        QVERIFY(spy.wait(30000));
        QCOMPARE(spy[1][0].toString(), id);
        QVERIFY(!spy[1][1].toString().trimmed().isEmpty());

        QSignalSpy tested(&actions, &CompanionActions::zenConnectionTested);
        actions.testZenConnection();
        QVERIFY(tested.count() == 1 || tested.wait(30000));
        QVERIFY(!tested[0][0].toString().isEmpty());
    }
};

QTEST_MAIN(CompanionActionsTest)
#include "CompanionActionsTest.moc"
