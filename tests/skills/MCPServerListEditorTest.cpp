#include "skills/MCPServerListEditor.h"

#include "skills/MCPEndpoint.h"

#include <QTest>

// Switching and removing by id are driven through CompanionActionsTest; reconnecting a server added by
// its address, through the journeys.
class MCPServerListEditorTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    // Reconnecting a gallery service replaces its entry in place with a fresh one; manual servers stay.
    void galleryConnectionsReplaceTheirEntryInPlace()
    {
        const MCPGalleryItem linear = *MCPGalleryItem::find("linear");
        const MCPServerConfig manual = MCPServerListEditor::manualServer("m", "https://m.example/mcp", "");
        MCPOAuthGrant grant;
        grant.refreshToken = "r1";
        auto servers = MCPServerListEditor::withGalleryConnection({ manual }, linear, "t1", "OAuth", grant);
        servers[1].needsReconnect = true;
        servers[1].enabled = false;
        servers.append(MCPServerListEditor::manualServer("c", "https://c.example/mcp", ""));
        servers = MCPServerListEditor::withGalleryConnection(servers, linear, "t2", "Token");
        QCOMPARE(servers.size(), 3);
        QCOMPARE(servers[1].sourceID, std::optional<QString>("linear"));
        QCOMPARE(servers[1].bearerToken, QString("t2"));
        QVERIFY(servers[1].enabled && !servers[1].needsReconnect && servers[1].oauth.isEmpty());
        QCOMPARE(servers[0], manual);
    }

    // Endpoints must be http(s) URLs with a host; manual servers are trimmed and labelled by their token.
    void manualServersAndTheirEndpoints()
    {
        const QList<std::pair<QString, QString>> endpoints { // the text, what the reason mentions (empty: accepted)
            { " HTTP://127.0.0.1:8443/x?a=1 ", "" }, { " \t ", "Introdu" }, { "https:///mcp", "gazdă" },
            { "http://127.0.0.1:99999/mcp", "https://" }
        };
        for (const auto &[text, mentions] : endpoints) {
            const QString reason = MCPEndpoint::validationError(text);
            QVERIFY2(reason.isEmpty() == mentions.isEmpty() && reason.contains(mentions), qPrintable(text));
        }
        // name, token → stored name, label, stored token
        const QList<std::array<QString, 5>> cases { { "Mine", " abc ", "Mine", "Token", "abc" },
            { "  ", "  \n", "mcp.example", "Fără auth", "" } };
        for (const auto &[name, token, storedName, label, storedToken] : cases) {
            const auto manual = MCPServerListEditor::manualServer(name, " https://mcp.example:8443/x ", token);
            QCOMPARE(manual.name, storedName);
            QCOMPARE(manual.authLabel, std::optional<QString>(label));
            QCOMPARE(manual.bearerToken, storedToken);
            QCOMPARE(manual.endpoint, QString("https://mcp.example:8443/x"));
            QVERIFY(manual.enabled && !manual.sourceID);
        }
    }
};

QTEST_GUILESS_MAIN(MCPServerListEditorTest)
#include "MCPServerListEditorTest.moc"
