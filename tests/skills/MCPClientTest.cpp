#include "skills/MCPClient.h"

#include "AsyncTest.h"
#include "FakeOAuthMCPServer.h"
#include "net/HeaderValueError.h"
#include "net/URLError.h"
#include "skills/MCPError.h"

#include <QJsonArray>
#include <QTest>

using Reply = FakeHttpServer::Reply;
Q_DECLARE_METATYPE(FakeHttpServer::Reply)

// A plain MCP endpoint without OAuth.
struct PlainServer : FakeOAuthMCPServer
{
    explicit PlainServer(const QJsonArray &tools = {})
    {
        requiresToken = false;
        toolPages = { tools };
    }
};

class MCPClientTest : public QObject
{
    Q_OBJECT

    static Reply textResult(const QByteArray &text, const QByteArray &type = "application/json")
    {
        const QByteArray body = "{\"jsonrpc\":\"2.0\",\"id\":1,\"result\":{\"content\":[{\"text\":\"" + text + "\"}]}}";
        return type == "application/json" ? Reply::text(body, 200, type) : Reply::eventStream({ body });
    }
    static QJsonObject tool(const QString &name) { return { { "name", name }, { "inputSchema", QJsonObject() } }; }
    static MCPServerConfig server(const QString &endpoint, const QString &name = "Test", const QString &token = {})
    {
        return MCPServerConfig { QUuid::createUuid(), name, endpoint, token, true, {}, {} };
    }
    static Reply withSession(Reply reply, const char *id)
    {
        reply.headers.append({ QByteArray("MCP-SESSION-ID"), id }); // names are case-insensitive
        return reply;
    }
    template<typename T> static MCPError mcpError(QCoro::Task<T> task)
    {
        return AsyncTest::awaitError<MCPError>(std::move(task), 15'000).value();
    }

private Q_SLOTS:
    // A failed handshake is tried again, a good one (here as event streams) runs once per endpoint.
    void handshakeRunsOncePerEndpointAndTheSessionIsCarried()
    {
        PlainServer mcp({ tool("a") });
        mcp.http.enqueue("POST", "/mcp", Reply::text("oops", 500));
        const QByteArray init = R"({"jsonrpc":"2.0","id":1,"result":{"protocolVersion":"2025-06-18"}})";
        mcp.http.enqueue("POST", "/mcp",
            withSession(
                Reply::text("event: message\nid: 7\ndata: " + init + "\n\n", 200, "text/event-stream"), "session-1"));
        mcp.http.enqueue("POST", "/mcp", Reply::text(": keep-alive\n\n", 200, "text/event-stream"));
        MCPClient client;
        QCOMPARE(mcpError(client.listTools(server(mcp.endpoint()))).kind(), MCPError::invalidResponse);
        mcp.http.clearRequests();
        QCOMPARE(AsyncTest::await(client.listTools(server(mcp.endpoint()))).size(), 1);
        AsyncTest::await(client.listTools(server(mcp.endpoint(), "Twin")));
        QCOMPARE(mcp.methods(), QStringList({ "initialize", "notifications/initialized", "tools/list", "tools/list" }));
        const auto requests = mcp.http.requests("/mcp");
        QCOMPARE(requests[1].json().value("id"), QJsonValue::Undefined);
        QVERIFY(requests[2].json().value("id") != requests[3].json().value("id"));
        for (int i = 1; i < requests.size(); ++i)
            QCOMPARE(requests[i].header("Mcp-Session-Id"), QByteArray("session-1"));

        // A later session id replaces the stored one; one sent with an error does not.
        mcp.onCall = [](const QJsonObject &) { return withSession(textResult("ok"), "session-2"); };
        const MCPServerConfig target = server(mcp.endpoint(), "T", "secret");
        QCOMPARE(AsyncTest::await(client.callTool(target, "x", {})), QString("ok"));
        mcp.http.enqueue("POST", "/mcp", withSession(Reply::text("denied", 401), "from-an-error"));
        QCOMPARE(mcpError(client.callTool(target, "x", {})).kind(), MCPError::unauthorized);
        AsyncTest::await(client.callTool(target, "x", {}));
        const auto last = mcp.http.requests("/mcp").last();
        QCOMPARE(last.header("Mcp-Session-Id"), QByteArray("session-2"));
        QCOMPARE(last.header("Authorization"), QByteArray("Bearer secret"));

        // Bad endpoints and a token that would inject a header are refused before anything is sent.
        const qsizetype sent = mcp.http.requests().size();
        QCOMPARE(
            mcpError(client.callTool(server("http://127.0.0.1:99999/mcp"), "t", {})).kind(), MCPError::invalidEndpoint);
        QVERIFY(AsyncTest::awaitError<HeaderValueError>(
            client.callTool(server(mcp.endpoint(), "T", "t\r\nX: 1"), "x", {})));
        QCOMPARE(mcp.http.requests().size(), sent);
    }

    // A tool call's reply becomes text for the model or a typed error.
    void repliesToAToolCall_data()
    {
        QTest::addColumn<Reply>("reply");
        QTest::addColumn<QString>("expected"); // the text (null: the readable result) or the error's description
        QTest::addColumn<int>("kind"); // of the error; -1 for none
        const auto answer = [](const char *name, const QByteArray &result, const QString &expected = QString()) {
            QTest::newRow(name) << Reply::text(
                R"({"jsonrpc":"2.0","id":1,"result":)" + result + "}", 200, "application/json")
                                << expected << -1;
        };
        const auto failure = [](const char *name, const Reply &reply, int kind, const char *description = "") {
            QTest::newRow(name) << reply << QString(description) << kind;
        };
        answer("texts joined, error flag ignored",
            R"({"isError":true,"content":[{"type":"text","text":"unu"},{"type":"image"},{"text":"doi"}]})", "unu\ndoi");
        answer("embedded resource", R"({"content":[{"type":"resource","resource":{"uri":"x:/y","text":"conținut"}}]})",
            "conținut");
        answer("image only", R"({"content":[{"type":"image","mimeType":"image/png","data":"iVBO"}]})");
        answer("content not all objects", R"({"content":[{"text":"a"},"b"]})");

        const QByteArray reply = R"({"jsonrpc":"2.0","id":99,"result":{"content":[{"text":"răspuns"}]}})";
        QTest::newRow("stream with noise before the reply") << Reply::eventStream(
            { "not json", "[DONE]", "[1,2]", R"({"jsonrpc":"2.0","method":"notifications/progress"})", reply,
                R"({"id":1,"result":{"content":[{"text":"2"}]}})" })
                                                            << "răspuns" << -1;
        QTest::newRow("event of CR LF data lines") << Reply::text(
            "event: message\r\nid: 7\r\ndata: {\"id\":1,\r\n"
            "data: \"result\":{\"content\":[{\"text\":\"cr\"}]}}\r\n\r\n",
            200, "text/event-stream") << "cr" << -1;
        QTest::newRow("event across chunks") << Reply::eventStreamChunks(
            { "data: {\"id\":1,\n", "data: \"result\":{\"content\":[{\"text\":\"bucăți\"}]}}\n", "\n" }, 30)
                                             << "bucăți" << -1;
        const QByteArray big(4 * 1024 * 1024, 'k');
        Reply open = textResult(big, "text/event-stream");
        open.chunks = { open.body };
        open.holdOpenAfterChunks = true;
        QTest::newRow("stream left open after megabytes") << open << QString(big) << -1;

        const int invalid = MCPError::invalidResponse;
        failure("truncated json", Reply::text(R"({"jsonrpc":"2.0","result":{)", 200, "application/json"), invalid);
        failure("stream without object", Reply::eventStream({ "{broken", "[DONE]", "\"text\"" }), invalid);
        failure("stream that is not utf-8",
            Reply::text("data: {\"id\":1,\"result\":{}}\n: \xff\xfe\n", 200, "text/event-stream"), invalid);
        failure("empty 202 to a request", Reply::text({}, 202), invalid);
        failure("result not an object", Reply::text(R"({"id":1,"result":"yes"})", 200, "application/json"), invalid);
        failure("status 500", Reply::text("oops", 500), invalid);
        failure("remote error",
            Reply::text(R"({"error":{"code":1,"message":"cheie greșită"}})", 200, "application/json"), MCPError::remote,
            "MCP: cheie greșită");
        failure("remote error that is no object",
            Reply::text(R"({"error":"text","result":{}})", 200, "application/json"), MCPError::remote,
            "MCP: eroare necunoscută");
    }

    void repliesToAToolCall()
    {
        QFETCH(Reply, reply);
        QFETCH(QString, expected);
        QFETCH(int, kind);
        if (expected.isNull()) // no plain text: the result whole, as readable JSON
            expected = QJsonDocument(QJsonDocument::fromJson(reply.body)["result"].toObject()).toJson().chopped(1);
        PlainServer mcp;
        QJsonObject seen;
        mcp.onCall = [&](const QJsonObject &params) {
            seen = params;
            return reply;
        };
        MCPClient client(5'000, nullptr);
        const QJsonObject arguments { { "query", "ă" }, { "limit", 3 } };
        auto call = client.callTool(server(mcp.endpoint()), "Search-Docs", arguments);
        if (kind < 0) {
            QCOMPARE(AsyncTest::await(std::move(call), 3'000), expected);
        } else {
            const MCPError error = mcpError(std::move(call));
            QCOMPARE(int(error.kind()), kind);
            QVERIFY(error.description().startsWith(expected));
        }
        QCOMPARE(seen, QJsonObject({ { "name", "Search-Docs" }, { "arguments", arguments } }));
    }

    // Keep-alives reset the inactivity limit, never the deadline (60 s of 25 s scaled to 720 ms of 300).
    void anEndlesslyPingingServerTimesOut()
    {
        PlainServer mcp;
        mcp.onCall = [](const QJsonObject &) {
            Reply pings = Reply::text({}, 200, "text/event-stream");
            pings.chunks = QList<QByteArray>(60, ": ping\n\n");
            pings.chunkIntervalMs = 100;
            pings.holdOpenAfterChunks = true;
            return pings;
        };
        MCPClient client(300, nullptr);
        AsyncTest::await(client.initialize(server(mcp.endpoint())));
        QElapsedTimer timer;
        timer.start();
        const auto error = AsyncTest::awaitError<URLError>(client.callTool(server(mcp.endpoint()), "t", {}), 5'000);
        QCOMPARE(error.value().code(), URLError::timedOut);
        QVERIFY2(timer.elapsed() >= 650 && timer.elapsed() < 2'500, qPrintable(QString::number(timer.elapsed())));
    }

    // Named for the model in server order; failing, disabled and nameless skipped, collisions kept.
    void discoveryNamesToolsInServerOrderAndSkipsFailures()
    {
        const QString longName(80, QLatin1Char('x'));
        PlainServer slow({
            QJsonObject { { "name", "Search-Docs" }, { "description", "Caută" },
                { "inputSchema", QJsonObject { { "type", "object" }, { "required", QJsonArray { "q" } } } } },
            QJsonObject { { "name", "listă" } },
            QJsonObject { { "name", longName }, { "description", "" }, { "inputSchema", "not an object" } },
            QJsonObject { { "name", "" } },
            QJsonObject { { "name", 42 } },
            QJsonObject { { "name", "search_docs" } },
        });
        slow.delayMs = 150;
        PlainServer failing, fast({ tool("c1") }), disabled({ tool("d1") });
        failing.http.on("POST", "/mcp", Reply::text("down", 503));
        MCPServerConfig off = server(disabled.endpoint(), "Off");
        off.enabled = false;
        MCPClient client;
        const auto bindings = AsyncTest::await(client.discoverBindings({ server(slow.endpoint(), "My Server"),
            server(failing.endpoint(), "Fail"), off, server(fast.endpoint(), "Fast") }));
        QStringList names;
        for (const auto &binding : bindings)
            names.append(binding.definition.name + " = " + binding.remoteName + " @ " + binding.server.name);
        QCOMPARE(names,
            QStringList(
                { "mcp_my_server_search_docs = Search-Docs @ My Server", "mcp_my_server_list_ = listă @ My Server",
                    "mcp_my_server_" + QString(50, QLatin1Char('x')) + " = " + longName + " @ My Server",
                    "mcp_my_server_search_docs = search_docs @ My Server", "mcp_fast_c1 = c1 @ Fast" }));
        QCOMPARE(bindings[1].definition.description, QString("Instrument MCP listă din My Server. [MCP: My Server]"));
        QCOMPARE(bindings[2].definition.description, QString(" [MCP: My Server]"));
        QCOMPARE(bindings[0].definition.inputSchema.value("required").toArray().first().toString(), QString("q"));
        const QJsonObject emptySchema { { "type", "object" }, { "properties", QJsonObject() } };
        QCOMPARE(bindings[2].definition.inputSchema, emptySchema);
        QCOMPARE(failing.http.requestCount("/mcp"), 1);
    }

    // Forgotten sessions start again once; an expired token is renewed once, however many ask.
    void anOAuthConnectionOutlivesExpiredTokensAndForgottenSessions()
    {
        FakeOAuthMCPServer mcp;
        MCPClient client;
        QList<MCPServerConfig> changes;
        QObject::connect(&client, &MCPClient::serverCredentialsChanged,
            [&changes](const MCPServerConfig &server) { changes.append(server); });
        const MCPServerConfig stale = mcp.connectedServer();
        AsyncTest::await(client.callTool(stale, "echo", {}));
        mcp.forgetSessions();
        QCOMPARE(AsyncTest::await(client.callTool(stale, "echo", {})), QString("ecou: ok"));
        QCOMPARE(mcp.methods(),
            QStringList({ "initialize", "notifications/initialized", "tools/call", "tools/call", "initialize",
                "notifications/initialized", "tools/call" }));
        // The agreed version goes with every request after a handshake, not with the handshake.
        QStringList versions;
        for (const auto &request : mcp.http.requests("/mcp"))
            versions.append(QString::fromUtf8(request.header("MCP-Protocol-Version")));
        QCOMPARE(
            versions, QStringList({ "", "2025-06-18", "2025-06-18", "2025-06-18", "", "2025-06-18", "2025-06-18" }));

        mcp.expireToken();
        auto first = client.callTool(stale, "echo", {});
        auto second = client.callTool(stale, "echo", {});
        auto third = client.callTool(stale, "echo", {});
        for (auto *task : { &first, &second, &third })
            QCOMPARE(AsyncTest::await(std::move(*task)), QString("ecou: ok"));
        QCOMPARE(changes.size(), 1);
        const MCPServerConfig renewed = changes.first();
        QVERIFY(qAbs(QDateTime::currentDateTimeUtc().secsTo(*renewed.oauth.accessTokenExpiresAt) - 3600) < 5);
        AsyncTest::await(client.callTool(stale, "echo", {}));
        QCOMPARE(mcp.http.requests("/mcp").last().header("Authorization"), QByteArray("Bearer access-2"));
        QCOMPARE(mcp.http.requestCount("/token"), 1);

        MCPServerConfig expiring = renewed;
        expiring.oauth.accessTokenExpiresAt = QDateTime::currentDateTimeUtc().addSecs(-5);
        MCPClient restarted;
        mcp.http.clearRequests();
        AsyncTest::await(restarted.callTool(expiring, "echo", {}));
        QCOMPARE(mcp.http.requestCount("/token"), 1);
        for (const auto &request : mcp.http.requests("/mcp"))
            QCOMPARE(request.header("Authorization"), QByteArray("Bearer access-3"));

        // A server that forgets every session gets one new handshake, then the error.
        mcp.forgetsEverySession = true;
        const int handshakes = mcp.sessionsStarted();
        QCOMPARE(mcpError(restarted.callTool(expiring, "echo", {})).description(),
            QString("Serverul MCP nu mai recunoaște sesiunea."));
        QCOMPARE(mcp.sessionsStarted(), handshakes + 1);
    }

    // A refused grant marks the server for reconnecting and is not retried; a failed provider is.
    void aFailedRenewalShowsTheUnauthorizedText()
    {
        for (const bool refused : { true, false }) {
            FakeOAuthMCPServer mcp;
            const MCPServerConfig config = mcp.connectedServer();
            mcp.expireToken();
            mcp.refreshReply = refused ? Reply::json(QJsonObject { { "error", "invalid_grant" } }, 400)
                                       : Reply::text("<html>Login</html>", 503, "text/html");
            MCPClient client;
            QList<MCPServerConfig> changes;
            QObject::connect(&client, &MCPClient::serverCredentialsChanged,
                [&changes](const MCPServerConfig &server) { changes.append(server); });
            const MCPError error = mcpError(client.callTool(config, "echo", {}));
            QCOMPARE(error.description(), QString("MCP necesită autentificare sau tokenul a expirat."));
            QCOMPARE(changes.size(), refused ? 1 : 0);
            QVERIFY(!refused || changes.first().needsReconnect);
            QCOMPARE(mcpError(client.callTool(config, "echo", {})).kind(), MCPError::unauthorized);
            QCOMPARE(mcp.http.requestCount("/token"), refused ? 1 : 2);
        }
    }

    // Pages by cursor; a cursor not listed leads to a page with a cursor never seen before.
    void toolListsAreReadPageByPage_data()
    {
        QTest::addColumn<QByteArray>("pages");
        QTest::addColumn<QStringList>("expected");
        QTest::addColumn<int>("requests");
        QTest::newRow("three pages") << QByteArray(
            R"({"": {"tools": [{"name": "a"}, {"name": "b"}], "nextCursor": "c1"},
            "c1": {"tools": [{"name": "c"}], "nextCursor": "c2"}, "c2": {"tools": [{"name": "d"}]}})")
                                     << QStringList({ "a", "b", "c", "d" }) << 3;
        QTest::newRow("cursor that comes back") << QByteArray(R"({"": {"tools": [{"name": "a"}], "nextCursor": "c1"},
            "c1": {"tools": [{"name": "b"}], "nextCursor": "c1"}})")
                                                << QStringList({ "a", "b" }) << 2;
        QTest::newRow("endless pages") << QByteArray(R"({"": {"tools": [{"name": "a"}], "nextCursor": "next"}})")
                                       << QStringList { "a" } + QStringList(MCPClient::maxToolPages - 1, "b")
                                       << MCPClient::maxToolPages;
        QTest::newRow("tool that is not an object drops the list")
            << QByteArray(R"({"": {"tools": [{"name": "a"}], "nextCursor": "c1"}, "c1": {"tools": [5]}})")
            << QStringList() << 2;
    }

    void toolListsAreReadPageByPage()
    {
        QFETCH(QByteArray, pages);
        QFETCH(QStringList, expected);
        QFETCH(int, requests);
        PlainServer mcp;
        QStringList cursors;
        mcp.http.on("POST", "/mcp", [&](const FakeHttpServer::Request &request) {
            const QJsonObject message = request.json();
            if (message.value("method") != "tools/list")
                return mcp.answerMCP(message, {}, {});
            cursors.append(message.value("params")["cursor"].toString());
            QJsonValue result = QJsonDocument::fromJson(pages)[cursors.last()];
            if (result.isUndefined()) // endless: every answer names a cursor never seen before
                result = QJsonObject { { "tools", QJsonArray { tool("b") } },
                    { "nextCursor", QStringLiteral("n%1").arg(cursors.size()) } };
            return Reply::json(
                QJsonObject { { "jsonrpc", "2.0" }, { "id", message.value("id") }, { "result", result } });
        });
        MCPClient client;
        QStringList names;
        for (const QJsonObject &listed : AsyncTest::await(client.listTools(server(mcp.endpoint()))))
            names.append(listed.value("name").toString());
        QCOMPARE(names, expected);
        QCOMPARE(cursors.size(), requests);
        QCOMPARE(cursors.first(), QString());
    }
};

QTEST_GUILESS_MAIN(MCPClientTest)
#include "MCPClientTest.moc"
