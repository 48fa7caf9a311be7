#include "skills/MCPServerListEditor.h"

#include "skills/MCPEndpoint.h"

#include <QTest>

namespace {

MCPServerConfig server(const QString &name, std::optional<QString> sourceID = std::nullopt, bool enabled = true)
{
    return MCPServerConfig { QUuid::createUuid(), name,
        QStringLiteral("https://") + name + QStringLiteral(".example/mcp"), QString(), enabled, sourceID,
        QStringLiteral("Token") };
}

} // namespace

class MCPServerListEditorTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    // Reconnecting a service replaces its entry in the same slot, switched back on, with a new id.
    void connectingAGalleryItemAppendsOnceThenReplacesInPlace()
    {
        const MCPGalleryItem &linear = *MCPGalleryItem::find(QStringLiteral("linear"));
        QList<MCPServerConfig> servers { server(QStringLiteral("a")), server(QStringLiteral("b")) };
        servers = MCPServerListEditor::withGalleryConnection(
            servers, linear, QStringLiteral("first"), QStringLiteral("OAuth"));
        QCOMPARE(servers.size(), 3);
        QCOMPARE(servers[2].name, linear.name);
        QCOMPARE(servers[2].endpoint, linear.endpoint);
        QVERIFY(!servers[2].id.isNull());
        servers.append(server(QStringLiteral("c")));
        servers = MCPServerListEditor::withEnabled(servers, servers[2].idString(), false);
        const QUuid firstID = servers[2].id;

        servers = MCPServerListEditor::withGalleryConnection(
            servers, linear, QStringLiteral("second"), QStringLiteral("Token"));

        QCOMPARE(servers.size(), 4);
        QCOMPARE(servers[2].sourceID, std::optional<QString>(QStringLiteral("linear")));
        QCOMPARE(servers[2].bearerToken, QStringLiteral("second"));
        QCOMPARE(servers[2].authLabel, std::optional<QString>(QStringLiteral("Token")));
        QVERIFY(servers[2].enabled);
        QVERIFY(servers[2].id != firstID);
        QCOMPARE(servers[3].name, QStringLiteral("c"));
    }

    // A renewal's grant and reconnect mark do not survive a reconnection by token; an endpoint typed
    // for OAuth is the same service as a manual server with that endpoint, never a gallery one.
    void reconnectingDropsTheOldGrantAndMatchesTypedEndpointsToManualServers()
    {
        const MCPGalleryItem linear = *MCPGalleryItem::find(QStringLiteral("linear"));
        const MCPServerConfig manual = server(QStringLiteral("m"));
        MCPOAuthGrant grant;
        grant.refreshToken = QStringLiteral("r1");
        QList<MCPServerConfig> servers = MCPServerListEditor::withGalleryConnection(
            { manual }, linear, QStringLiteral("t1"), QStringLiteral("OAuth"), grant);
        QCOMPARE(servers[1].oauth, grant);
        servers[1].needsReconnect = true;
        servers = MCPServerListEditor::withGalleryConnection(
            servers, linear, QStringLiteral("t2"), QStringLiteral("Token"));
        QVERIFY(servers[1].oauth.isEmpty());
        QVERIFY(!servers[1].needsReconnect);
        QCOMPARE(servers[0], manual);

        const MCPGalleryItem typed { {}, QStringLiteral("typed"), {}, manual.endpoint, {}, {}, {}, {} };
        servers
            = MCPServerListEditor::withGalleryConnection(servers, typed, QStringLiteral("t3"), QStringLiteral("OAuth"));
        QCOMPARE(servers.size(), 2);
        QCOMPARE(servers[0].bearerToken, QStringLiteral("t3"));
        QCOMPARE(servers[0].sourceID, std::nullopt);
        QCOMPARE(servers[1].bearerToken, QStringLiteral("t2"));
    }

    void endpointsMustBeHttpURLsWithAHost_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<QString>("reasonMentions");
        QTest::newRow("https with port and path") << QStringLiteral(" https://mcp.example:8443/x?a=1 ") << QString();
        QTest::newRow("plain http, upper-case scheme") << QStringLiteral("HTTP://127.0.0.1/mcp") << QString();
        QTest::newRow("blank") << QStringLiteral(" \t ") << QStringLiteral("Introdu");
        QTest::newRow("no scheme") << QStringLiteral("mcp.example/mcp") << QStringLiteral("https://");
        QTest::newRow("other scheme") << QStringLiteral("ftp://mcp.example") << QStringLiteral("https://");
        QTest::newRow("space inside") << QStringLiteral("https://mcp example/x") << QStringLiteral("https://");
        QTest::newRow("space in the path") << QStringLiteral("https://mcp.example/m cp") << QStringLiteral("https://");
        QTest::newRow("no host") << QStringLiteral("https:///mcp") << QStringLiteral("gazdă");
        QTest::newRow("port out of range")
            << QStringLiteral("http://127.0.0.1:99999/mcp") << QStringLiteral("https://");
    }

    void endpointsMustBeHttpURLsWithAHost()
    {
        QFETCH(QString, text);
        QFETCH(QString, reasonMentions);
        const QString reason = MCPEndpoint::validationError(text);
        QCOMPARE(reason.isEmpty(), reasonMentions.isEmpty());
        QVERIFY2(reason.contains(reasonMentions), qPrintable(reason));
        // Parsed addresses follow the same rule; only a typed one can carry a space.
        if (!text.trimmed().contains(QLatin1Char(' ')))
            QCOMPARE(MCPEndpoint::isHttpURL(QUrl(text.trimmed(), QUrl::StrictMode)), reason.isEmpty());
    }

    void manualServersAreTrimmedAndLabelledByWhetherTheyCarryAToken()
    {
        const QString mine = QStringLiteral("Mine"), noAuth = QStringLiteral("Fără auth");
        // name, token → stored name, label, stored token
        const QList<std::array<QString, 5>> cases { { mine, QString(), mine, noAuth, QString() },
            { mine, QStringLiteral("  \n"), mine, noAuth, QString() },
            { mine, QStringLiteral(" abc "), mine, QStringLiteral("Token"), QStringLiteral("abc") },
            { QStringLiteral("  "), QString(), QStringLiteral("mcp.example"), noAuth, QString() } };
        for (const auto &[name, token, storedName, label, storedToken] : cases) {
            const MCPServerConfig manual
                = MCPServerListEditor::manualServer(name, QStringLiteral(" https://mcp.example:8443/x "), token);
            QCOMPARE(manual.name, storedName);
            QCOMPARE(manual.authLabel, std::optional<QString>(label));
            QCOMPARE(manual.bearerToken, storedToken);
            QCOMPARE(manual.sourceID, std::nullopt);
            QCOMPARE(manual.endpoint, QStringLiteral("https://mcp.example:8443/x"));
            QVERIFY(manual.enabled);
        }
    }

    void editsTouchOnlyTheNamedServer()
    {
        const QList<MCPServerConfig> servers { server(QStringLiteral("a")), server(QStringLiteral("b")) };
        const QString idOfB = servers[1].idString().toLower(); // ids from QML may differ in case
        const auto switched = MCPServerListEditor::withEnabled(servers, idOfB, false);
        QVERIFY(switched[0].enabled && !switched[1].enabled);
        QCOMPARE(MCPServerListEditor::without(servers, idOfB), servers.mid(0, 1));
        QCOMPARE(MCPServerListEditor::without(servers, QUuid::createUuid().toString()), servers);
        QCOMPARE(MCPServerListEditor::withEnabled(servers, QStringLiteral("nope"), false), servers);
        QVERIFY(MCPServerListEditor::find(servers, idOfB) == &servers[1]);
        QVERIFY(MCPServerListEditor::find(servers, QStringLiteral("nope")) == nullptr);
    }
};

QTEST_GUILESS_MAIN(MCPServerListEditorTest)
#include "MCPServerListEditorTest.moc"
