#include "skills/MCPServerListEditor.h"

#include "skills/MCPEndpoint.h"

#include <QTest>

// Editing and switching by id, and the endpoint texts, are also driven through CompanionActionsTest.
class MCPServerListEditorTest : public QObject
{
    Q_OBJECT

    static MCPServerConfig server(const QString &name)
    {
        return MCPServerConfig { QUuid::createUuid(), name, "https://" + name + ".example/mcp", {}, true, {}, "Token" };
    }

private Q_SLOTS:
    // Reconnecting replaces the entry in place; a typed endpoint matches a manual server, not a gallery one.
    void galleryConnectionsReplaceTheirEntryInPlace()
    {
        const MCPGalleryItem linear = *MCPGalleryItem::find("linear");
        const MCPServerConfig manual = server("m");
        MCPOAuthGrant grant;
        grant.refreshToken = "r1";
        auto servers = MCPServerListEditor::withGalleryConnection({ manual }, linear, "t1", "OAuth", grant);
        QCOMPARE(servers[1].oauth, grant);
        servers[1].needsReconnect = true;
        servers[1].enabled = false;
        const QUuid firstID = servers[1].id;
        servers.append(server("c"));
        servers = MCPServerListEditor::withGalleryConnection(servers, linear, "t2", "Token");
        QCOMPARE(servers.size(), 3);
        QCOMPARE(servers[1].sourceID, std::optional<QString>("linear"));
        QCOMPARE(servers[1].endpoint, linear.endpoint);
        QCOMPARE(servers[1].bearerToken, QString("t2"));
        QCOMPARE(servers[1].authLabel, std::optional<QString>("Token"));
        QVERIFY(servers[1].enabled && !servers[1].needsReconnect && servers[1].oauth.isEmpty());
        QVERIFY(servers[1].id != firstID && !servers[1].id.isNull());
        QCOMPARE(servers[0], manual);

        const MCPGalleryItem typed { {}, "typed", {}, manual.endpoint, {}, {}, {}, {} };
        servers = MCPServerListEditor::withGalleryConnection(servers, typed, "t3", "OAuth");
        QCOMPARE(servers.size(), 3);
        QCOMPARE(servers[0].bearerToken, QString("t3"));
        QCOMPARE(servers[0].sourceID, std::nullopt);
        QCOMPARE(servers[1].bearerToken, QString("t2"));
    }

    void endpointsMustBeHttpURLsWithAHost_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<QString>("reasonMentions"); // empty: accepted
        QTest::newRow("https with port and path") << " https://mcp.example:8443/x?a=1 " << QString();
        QTest::newRow("plain http, upper-case scheme") << "HTTP://127.0.0.1/mcp" << QString();
        QTest::newRow("blank") << " \t "
                               << "Introdu";
        QTest::newRow("other scheme") << "ftp://mcp.example"
                                      << "https://";
        QTest::newRow("no host") << "https:///mcp"
                                 << "gazdă";
        QTest::newRow("port out of range") << "http://127.0.0.1:99999/mcp"
                                           << "https://";
    }

    void endpointsMustBeHttpURLsWithAHost()
    {
        QFETCH(QString, text);
        QFETCH(QString, reasonMentions);
        const QString reason = MCPEndpoint::validationError(text);
        QCOMPARE(reason.isEmpty(), reasonMentions.isEmpty());
        QVERIFY2(reason.contains(reasonMentions), qPrintable(reason));
        QCOMPARE(MCPEndpoint::isHttpURL(QUrl(text.trimmed(), QUrl::StrictMode)), reason.isEmpty());
    }

    void manualServersAreTrimmedAndLabelledByWhetherTheyCarryAToken()
    {
        // name, token → stored name, label, stored token
        const QList<std::array<QString, 5>> cases { { "Mine", "  \n", "Mine", "Fără auth", "" },
            { "Mine", " abc ", "Mine", "Token", "abc" }, { "  ", "", "mcp.example", "Fără auth", "" } };
        for (const auto &[name, token, storedName, label, storedToken] : cases) {
            const auto manual = MCPServerListEditor::manualServer(name, " https://mcp.example:8443/x ", token);
            QCOMPARE(manual.name, storedName);
            QCOMPARE(manual.authLabel, std::optional<QString>(label));
            QCOMPARE(manual.bearerToken, storedToken);
            QCOMPARE(manual.endpoint, QString("https://mcp.example:8443/x"));
            QVERIFY(manual.enabled && !manual.sourceID);
        }
        // An id that names no server changes nothing.
        const QList<MCPServerConfig> servers { server("a"), server("b") };
        QCOMPARE(MCPServerListEditor::without(servers, QUuid::createUuid().toString()), servers);
        QCOMPARE(MCPServerListEditor::withEnabled(servers, "nope", false), servers);
        QVERIFY(MCPServerListEditor::find(servers, servers[1].idString().toLower()) == &servers[1]);
        QVERIFY(!MCPServerListEditor::find(servers, "nope"));
    }
};

QTEST_GUILESS_MAIN(MCPServerListEditorTest)
#include "MCPServerListEditorTest.moc"
