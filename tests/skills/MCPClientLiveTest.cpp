#include "AsyncTest.h"
#include "skills/MCPClient.h"
#include "skills/MCPError.h"

#include <QJsonArray>
#include <QTest>

// Against a real MCP server of the test services: event streams, strict sessions, mixed content.
class MCPClientLiveTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void discoversAndCallsToolsWithinOneSession()
    {
        const QString url = qEnvironmentVariable("KELO_TEST_MCP_URL");
        if (url.isEmpty())
            QSKIP("KELO_TEST_MCP_URL is not set: the test MCP server is not running (scripts/test.sh starts it)");
        const MCPServerConfig server { QUuid::createUuid(), "Everything", url, {}, true, {}, {} };
        MCPClient client;
        const auto bindings = AsyncTest::await(client.discoverBindings({ server }));
        QVERIFY2(bindings.size() >= 5, qPrintable(QString::number(bindings.size())));
        const auto echo = std::find_if(bindings.begin(), bindings.end(),
            [](const MCPToolBinding &b) { return b.remoteName == QLatin1String("echo"); });
        QVERIFY(echo != bindings.end());
        QCOMPARE(echo->definition.name, QString("mcp_everything_echo"));
        QVERIFY(echo->definition.description.endsWith(" [MCP: Everything]"));
        QVERIFY(echo->definition.inputSchema.value("properties").toObject().contains("message"));

        const QString echoed = AsyncTest::await(client.callTool(server, "echo", { { "message", "Bună, Kelo!" } }));
        QVERIFY2(echoed.contains("Bună, Kelo!"), qPrintable(echoed));
        // Another client opening its own session leaves this one's valid.
        MCPClient other;
        AsyncTest::await(other.listTools(server));
        const QString sum = AsyncTest::await(client.callTool(server, "get-sum", { { "a", 2 }, { "b", 40 } }));
        QVERIFY2(sum.contains("42"), qPrintable(sum));
        // A resource reference comes back as its text, not as JSON.
        const QString resource = AsyncTest::await(
            client.callTool(server, "get-resource-reference", { { "resourceType", "text" }, { "resourceId", 1 } }));
        QVERIFY2(!resource.trimmed().startsWith('{'), qPrintable(resource));
        // Invalid arguments reach the model as text or as a typed remote error, never anything else.
        try {
            QVERIFY(!AsyncTest::await(client.callTool(server, "get-sum", { { "a", "not a number" } })).isEmpty());
        } catch (const MCPError &error) {
            QCOMPARE(error.kind(), MCPError::remote);
            QVERIFY(error.description().startsWith("MCP: "));
        }
    }
};

QTEST_GUILESS_MAIN(MCPClientLiveTest)
#include "MCPClientLiveTest.moc"
