#include "skills/MCPClient.h"

#include "AsyncTest.h"
#include "FakeHttpServer.h"
#include "FakeOAuthMCPServer.h"
#include "net/HeaderValueError.h"
#include "net/URLError.h"
#include "skills/MCPError.h"
#include "skills/MCPEventStream.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QTest>
#include <QUrlQuery>

using Reply = FakeHttpServer::Reply;
Q_DECLARE_METATYPE(FakeHttpServer::Reply)

namespace {

QJsonObject rpcResult(const QJsonObject &result, qint64 id = 1)
{
    return { { "jsonrpc", "2.0" }, { "id", id }, { "result", result } };
}

QByteArray compact(const QJsonObject &object)
{
    return QJsonDocument(object).toJson(QJsonDocument::Compact);
}

MCPServerConfig server(const QString &endpoint, const QString &name = QStringLiteral("Test"), const QString &token = {})
{
    return MCPServerConfig { QUuid::createUuid(), name, endpoint, token, true, {}, {} };
}

// A plain MCP endpoint without OAuth.
struct PlainServer : FakeOAuthMCPServer
{
    explicit PlainServer(const QJsonArray &tools = {})
    {
        requiresToken = false;
        toolPages = { tools };
    }
};

QJsonObject tool(const QString &name)
{
    return { { "name", name }, { "description", "Unealta " + name },
        { "inputSchema", QJsonObject { { "type", "object" } } } };
}

template<typename T> MCPError mcpError(QCoro::Task<T> task)
{
    const auto error = AsyncTest::awaitError<MCPError>(std::move(task), 10'000);
    if (!error)
        throw std::runtime_error("expected an MCPError");
    return *error;
}

QStringList modelNames(const QList<MCPToolBinding> &bindings)
{
    QStringList names;
    for (const auto &binding : bindings)
        names.append(binding.definition.name);
    return names;
}

} // namespace

class MCPClientTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void handshakeRunsOncePerEndpointAndTheSessionIsCarried()
    {
        PlainServer mcp({ tool("a") });
        MCPClient client;
        const MCPServerConfig first = server(mcp.endpoint());
        MCPServerConfig twin = server(mcp.endpoint(), "Twin");

        QCOMPARE(AsyncTest::await(client.listTools(first)).size(), 1);
        AsyncTest::await(client.listTools(twin));
        QCOMPARE(mcp.methods(), QStringList({ "initialize", "notifications/initialized", "tools/list", "tools/list" }));

        const auto requests = mcp.http.requests("/mcp");
        const QJsonObject init = requests[0].json();
        QCOMPARE(init.value("params")["protocolVersion"].toString(), QString("2025-06-18"));
        QCOMPARE(init.value("params")["clientInfo"]["name"].toString(), QString("KeloCompanion"));
        QVERIFY(init.value("params")["capabilities"].isObject());
        QCOMPARE(requests[1].json().value("id"), QJsonValue::Undefined);
        QCOMPARE(requests[0].header("Content-Type"), QByteArray("application/json"));
        QCOMPARE(requests[0].header("Accept"), QByteArray("application/json, text/event-stream"));
        QVERIFY(requests[0].header("Authorization").isNull());
        QVERIFY(requests[0].header("Mcp-Session-Id").isEmpty());
        for (int i = 1; i < requests.size(); ++i) {
            QCOMPARE(requests[i].header("Mcp-Session-Id"), QByteArray("session-1"));
            QCOMPARE(requests[i].json().value("id").toInteger(), i < 2 ? 0 : i);
        }

        // A later session id replaces the stored one; one sent with an error does not.
        mcp.onCall = [](const QJsonObject &) {
            Reply reply = Reply::json(rpcResult({ { "content", QJsonArray { QJsonObject { { "text", "ok" } } } } }));
            reply.headers.append(qMakePair(QByteArray("MCP-SESSION-ID"), QByteArray("session-2")));
            return reply;
        };
        const MCPServerConfig target = server(mcp.endpoint(), "T", "secret");
        QCOMPARE(AsyncTest::await(client.callTool(target, "x", {})), QString("ok"));

        mcp.http.enqueue("POST", "/mcp", [] {
            Reply reply = Reply::text("denied", 401);
            reply.headers.append(qMakePair(QByteArray("Mcp-Session-Id"), QByteArray("from-an-error")));
            return reply;
        }());
        QCOMPARE(mcpError(client.callTool(target, "x", {})).kind(), MCPError::unauthorized);
        AsyncTest::await(client.callTool(target, "x", {}));

        const auto last = mcp.http.requests("/mcp").last();
        QCOMPARE(last.header("Mcp-Session-Id"), QByteArray("session-2"));
        QCOMPARE(last.header("Authorization"), QByteArray("Bearer secret"));
    }

    void eventStreamRepliesAreRead()
    {
        FakeHttpServer http;
        const QByteArray initResult = compact(rpcResult({ { "protocolVersion", "2025-06-18" } }));
        // Every answer is an event stream, the notification's included, with noise before the reply.
        Reply init = Reply::text("event: message\nid: 7\n"
                                 "data: "
                + initResult + "\n\n",
            200, "text/event-stream");
        init.headers.append(qMakePair(QByteArray("Mcp-Session-Id"), QByteArray("sse")));
        http.enqueue("POST", "/mcp", init);
        http.enqueue("POST", "/mcp", Reply::text(": keep-alive\n\n", 200, "text/event-stream"));
        const QByteArray progress = compact({ { "jsonrpc", "2.0" }, { "method", "notifications/progress" },
            { "params", QJsonObject { { "progress", 1 } } } });
        const QByteArray result = compact(
            rpcResult({ { "content", QJsonArray { QJsonObject { { "type", "text" }, { "text", "răspuns" } } } } }, 99));
        http.enqueue("POST", "/mcp",
            Reply::eventStream(
                { "not json", "[DONE]", "[1,2]", progress, result, compact(rpcResult({ { "content", "second" } })) }));

        MCPClient client;
        QCOMPARE(AsyncTest::await(client.callTool(server(http.baseUrl() + "/mcp"), "t", {})), QString("răspuns"));
        QCOMPARE(http.requests("/mcp").last().header("Mcp-Session-Id"), QByteArray("sse"));

        // The data lines of one event are one message; line ends may be CR LF.
        const auto joined = MCPEventStream::firstReply(
            "event: message\r\ndata: {\"jsonrpc\":\"2.0\",\r\ndata: \"id\":3,\r\ndata: \"result\":{}}\r\n\r\n");
        QVERIFY(joined);
        QCOMPARE(joined->value("id").toInt(), 3);
        MCPEventStream stream;
        QVERIFY(!stream.feed("data: {\"id\":4,\n"));
        QVERIFY(!stream.feed("data: \"result\":{}}\n"));
        QCOMPARE(stream.feed("\n")->value("id").toInt(), 4);
    }

    void aStreamLeftOpenEndsAtItsReplyOfMegabytes()
    {
        PlainServer mcp;
        const QString big(4 * 1024 * 1024, QLatin1Char('k'));
        mcp.onCall = [&big](const QJsonObject &) {
            Reply open = Reply::eventStream(
                { compact(rpcResult({ { "content", QJsonArray { QJsonObject { { "text", big } } } } })) });
            open.chunks = { open.body };
            open.holdOpenAfterChunks = true;
            return open;
        };
        MCPClient client(5'000, nullptr);
        QCOMPARE(AsyncTest::await(client.callTool(server(mcp.endpoint()), "big", {}), 3'000).size(), big.size());
    }

    // A failed handshake is tried again next time rather than remembered as done.
    void failedRepliesAreTypedAndTheHandshakeIsRetried_data()
    {
        QTest::addColumn<Reply>("reply");
        QTest::addColumn<int>("kind");
        QTest::addColumn<QString>("description");
        const int invalid = MCPError::invalidResponse, unauthorized = MCPError::unauthorized;
        QTest::newRow("array body") << Reply::json(QJsonArray { 1, 2 }) << invalid << QString();
        QTest::newRow("number body") << Reply::text("42", 200, "application/json") << invalid << QString();
        QTest::newRow("truncated json") << Reply::text(R"({"jsonrpc":"2.0","result":{)", 200, "application/json")
                                        << invalid << QString();
        QTest::newRow("stream without object")
            << Reply::eventStream({ "{broken", "[DONE]", "\"text\"" }) << invalid << QString();
        QTest::newRow("stream that is not utf-8") << Reply::text("data: {\"id\":1,\"result\":{}}\n: \xff\xfe\n", 200,
            "text/event-stream") << invalid << QString();
        QTest::newRow("empty 202 to a request") << Reply::text({}, 202) << invalid << QString();
        QTest::newRow("result not an object")
            << Reply::json(QJsonObject { { "jsonrpc", "2.0" }, { "id", 1 }, { "result", "yes" } }) << invalid
            << QString();
        for (int status : { 400, 404, 500 })
            QTest::addRow("status %d", status) << Reply::text("oops", status) << invalid << QString();
        for (int status : { 401, 403 })
            QTest::addRow("status %d", status)
                << Reply::text("{}", status, "application/json") << unauthorized << QString();
        QTest::newRow("remote error") << Reply::json(
            QJsonObject { { "error", QJsonObject { { "code", 1 }, { "message", "cheie greșită" } } } })
                                      << int(MCPError::remote) << "MCP: cheie greșită";
        QTest::newRow("remote error that is no object")
            << Reply::json(QJsonObject { { "error", "text" }, { "result", QJsonObject() } }) << int(MCPError::remote)
            << "MCP: eroare necunoscută";
    }

    void failedRepliesAreTypedAndTheHandshakeIsRetried()
    {
        QFETCH(Reply, reply);
        QFETCH(int, kind);
        QFETCH(QString, description);
        FakeHttpServer http;
        http.on("POST", "/mcp", reply);
        MCPClient client;
        const MCPServerConfig target = server(http.baseUrl() + "/mcp");
        for (int attempt = 1; attempt <= 2; ++attempt) {
            const MCPError error = mcpError(client.listTools(target));
            QCOMPARE(int(error.kind()), kind);
            if (!description.isEmpty())
                QCOMPARE(error.description(), description);
            QCOMPARE(http.requestCount("/mcp"), attempt);
        }
    }

    // The endpoint rule itself is tested with MCPEndpoint; here: the client applies it, and a token
    // that would inject a header is refused before anything is sent.
    void badEndpointsAndTokensNeverReachTheNetwork()
    {
        FakeHttpServer http;
        MCPClient client;
        for (const QString endpoint : { "nu este un url", "http://127.0.0.1:99999/mcp" }) {
            QCOMPARE(mcpError(client.callTool(server(endpoint), "t", {})).kind(), MCPError::invalidEndpoint);
            QVERIFY(AsyncTest::await(client.discoverBindings({ server(endpoint) })).isEmpty());
        }
        const MCPServerConfig injecting = server(http.baseUrl() + "/mcp", "Test", "tok\r\nX-Injected: 1");
        QVERIFY(AsyncTest::awaitError<HeaderValueError>(client.initialize(injecting)));
        QVERIFY(http.requests().isEmpty());
    }

    // Keep-alive comments reset the inactivity limit, never the deadline (300 ms scales the 60 s
    // deadline of the 25 s limit down to 720 ms). A plainly silent server is HttpClient's own case.
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
        QVERIFY(error);
        QCOMPARE(error->code(), URLError::timedOut);
        QVERIFY2(timer.elapsed() >= 650 && timer.elapsed() < 2'500, qPrintable(QString::number(timer.elapsed())));
    }

    void discoveryNamesToolsForTheModel()
    {
        const QString longName(80, QLatin1Char('x'));
        PlainServer mcp({
            QJsonObject { { "name", "Search-Docs" }, { "description", "Caută" },
                { "inputSchema", QJsonObject { { "type", "object" }, { "required", QJsonArray { "q" } } } } },
            QJsonObject { { "name", "listă" } },
            QJsonObject { { "name", longName }, { "description", "" }, { "inputSchema", "not an object" } },
            QJsonObject { { "name", "" } },
            QJsonObject { { "title", "no name" } },
            QJsonObject { { "name", 42 } },
            QJsonObject { { "name", "search_docs" } },
        });
        MCPClient client;
        const auto bindings = AsyncTest::await(client.discoverBindings({ server(mcp.endpoint(), "My Server") }));
        QStringList remoteNames, descriptions;
        for (const auto &binding : bindings) {
            remoteNames.append(binding.remoteName);
            descriptions.append(binding.definition.description);
            QCOMPARE(binding.server.name, QString("My Server"));
        }
        // Colliding model names are both kept; the store picks the first.
        QCOMPARE(modelNames(bindings),
            QStringList({ "mcp_my_server_search_docs", "mcp_my_server_list_",
                "mcp_my_server_" + QString(50, QLatin1Char('x')), "mcp_my_server_search_docs" }));
        QCOMPARE(remoteNames, QStringList({ "Search-Docs", "listă", longName, "search_docs" }));
        QCOMPARE(descriptions[1], QString("Instrument MCP listă din My Server. [MCP: My Server]"));
        QCOMPARE(descriptions[2], QString(" [MCP: My Server]"));
        QCOMPARE(bindings[0].definition.inputSchema.value("required").toArray().first().toString(), QString("q"));
        const QJsonObject emptySchema { { "type", "object" }, { "properties", QJsonObject() } };
        QCOMPARE(bindings[1].definition.inputSchema, emptySchema);
        QCOMPARE(bindings[2].definition.inputSchema, emptySchema);
    }

    void discoveryKeepsServerOrderAndSkipsFailures()
    {
        PlainServer slow({ tool("a1"), tool("a2") });
        slow.delayMs = 150; // answers last, yet its tools must come first
        PlainServer failing;
        failing.http.on("POST", "/mcp", Reply::text("down", 503));
        PlainServer fast({ tool("c1") });
        PlainServer disabled({ tool("d1") });
        MCPServerConfig off = server(disabled.endpoint(), "Off");
        off.enabled = false;

        MCPClient client;
        const auto bindings = AsyncTest::await(client.discoverBindings({ server(slow.endpoint(), "Slow"),
            server(failing.endpoint(), "Fail"), off, server(fast.endpoint(), "Fast") }));
        QCOMPARE(modelNames(bindings), QStringList({ "mcp_slow_a1", "mcp_slow_a2", "mcp_fast_c1" }));
        QCOMPARE(failing.http.requestCount("/mcp"), 1);
    }

    void anExpiredTokenIsRenewedOnceForConcurrentRequests()
    {
        FakeOAuthMCPServer mcp;
        MCPClient client;
        QList<MCPServerConfig> changes;
        QObject::connect(&client, &MCPClient::serverCredentialsChanged,
            [&changes](const MCPServerConfig &server) { changes.append(server); });
        const MCPServerConfig stale = mcp.connectedServer();
        AsyncTest::await(client.initialize(stale));
        mcp.expireToken();

        auto first = client.callTool(stale, "echo", {});
        auto second = client.callTool(stale, "echo", {});
        auto third = client.callTool(stale, "echo", {});
        for (auto *task : { &first, &second, &third })
            QCOMPARE(AsyncTest::await(std::move(*task)), QString("ecou: ok"));
        QCOMPARE(mcp.http.requestCount("/token"), 1);
        const QUrlQuery form(QString::fromUtf8(mcp.http.requests("/token").first().body));
        QCOMPARE(form.queryItems(QUrl::FullyDecoded),
            (QList<QPair<QString, QString>> { { "grant_type", "refresh_token" }, { "refresh_token", "refresh-1" },
                { "client_id", "kelo-client" }, { "resource", stale.endpoint } }));

        QCOMPARE(changes.size(), 1);
        const MCPServerConfig renewed = changes.first();
        QCOMPARE(renewed.id, stale.id);
        QCOMPARE(renewed.bearerToken, QString("access-2"));
        QCOMPARE(renewed.oauth.refreshToken, QString("refresh-2"));
        QVERIFY(qAbs(QDateTime::currentDateTimeUtc().secsTo(*renewed.oauth.accessTokenExpiresAt) - 3600) < 5);

        // A caller still holding the old copy gets the renewed token without another renewal.
        AsyncTest::await(client.callTool(stale, "echo", {}));
        QCOMPARE(mcp.http.requests("/mcp").last().header("Authorization"), QByteArray("Bearer access-2"));
        QCOMPARE(mcp.http.requestCount("/token"), 1);

        // A token known to have expired is renewed before the server is asked at all.
        MCPServerConfig expiring = renewed;
        expiring.oauth.accessTokenExpiresAt = QDateTime::currentDateTimeUtc().addSecs(-5);
        MCPClient restarted;
        mcp.http.clearRequests();
        AsyncTest::await(restarted.callTool(expiring, "echo", {}));
        QCOMPARE(mcp.http.requestCount("/token"), 1);
        for (const auto &request : mcp.http.requests("/mcp"))
            QCOMPARE(request.header("Authorization"), QByteArray("Bearer access-3"));
    }

    void aFailedRenewalShowsTheUnauthorizedText_data()
    {
        QTest::addColumn<Reply>("refreshReply");
        QTest::addColumn<bool>("marked");
        QTest::newRow("refresh token refused")
            << Reply::json(QJsonObject { { "error", "invalid_grant" } }, 400) << true;
        QTest::newRow("client refused") << Reply::json(QJsonObject { { "error", "invalid_client" } }, 401) << true;
        QTest::newRow("html page") << Reply::text("<html><body>Login</body></html>", 200, "text/html") << false;
        QTest::newRow("reply without access_token") << Reply::json(QJsonObject { { "token_type", "Bearer" } }) << false;
        QTest::newRow("provider down") << Reply::text("oops", 503) << false;
    }

    void aFailedRenewalShowsTheUnauthorizedText()
    {
        QFETCH(Reply, refreshReply);
        QFETCH(bool, marked);
        FakeOAuthMCPServer mcp;
        const MCPServerConfig config = mcp.connectedServer();
        mcp.expireToken();
        mcp.refreshReply = refreshReply;
        MCPClient client;
        QList<MCPServerConfig> changes;
        QObject::connect(&client, &MCPClient::serverCredentialsChanged,
            [&changes](const MCPServerConfig &server) { changes.append(server); });

        const MCPError error = mcpError(client.callTool(config, "echo", {}));
        QCOMPARE(error.kind(), MCPError::unauthorized);
        QCOMPARE(error.description(), QString("MCP necesită autentificare sau tokenul a expirat."));
        // Marked for reconnecting (that nothing else changes is checked through the real kelo).
        QCOMPARE(changes.size(), marked ? 1 : 0);
        QVERIFY(!marked || changes.first().needsReconnect);
        // A refused grant is not tried again; a provider that merely failed is.
        QCOMPARE(mcpError(client.callTool(config, "echo", {})).kind(), MCPError::unauthorized);
        QCOMPARE(mcp.http.requestCount("/token"), marked ? 1 : 2);
    }

    void aForgottenSessionIsStartedAgainOnce()
    {
        FakeOAuthMCPServer mcp;
        MCPClient client;
        const MCPServerConfig config = mcp.connectedServer();
        AsyncTest::await(client.callTool(config, "echo", {}));
        mcp.forgetSessions();
        QCOMPARE(AsyncTest::await(client.callTool(config, "echo", {})), QString("ecou: ok"));
        QCOMPARE(mcp.methods(),
            QStringList({ "initialize", "notifications/initialized", "tools/call", "tools/call", "initialize",
                "notifications/initialized", "tools/call" }));
        const auto requests = mcp.http.requests("/mcp");
        QVERIFY(requests[4].header("Mcp-Session-Id").isEmpty());
        QCOMPARE(requests[6].header("Mcp-Session-Id"), QByteArray("session-2"));
        // The agreed version goes with every request after a handshake, not with the handshake.
        QStringList versions;
        for (const auto &request : requests)
            versions.append(QString::fromUtf8(request.header("MCP-Protocol-Version")));
        QCOMPARE(
            versions, QStringList({ "", "2025-06-18", "2025-06-18", "2025-06-18", "", "2025-06-18", "2025-06-18" }));

        // An expired token and a forgotten session at once: renewed, started again, answered.
        mcp.expireToken();
        mcp.forgetSessions();
        QCOMPARE(AsyncTest::await(client.callTool(config, "echo", {})), QString("ecou: ok"));
        QCOMPARE(mcp.http.requestCount("/token"), 1);

        // A server that forgets every session gets one new handshake, then the error.
        mcp.forgetsEverySession = true;
        const int handshakes = mcp.sessionsStarted();
        const MCPError error = mcpError(client.callTool(config, "echo", {}));
        QCOMPARE(error.kind(), MCPError::sessionExpired);
        QCOMPARE(error.description(), QString("Serverul MCP nu mai recunoaște sesiunea."));
        QCOMPARE(mcp.sessionsStarted(), handshakes + 1);
    }

    void toolListsAreReadPageByPage_data()
    {
        QTest::addColumn<QJsonObject>("pages"); // cursor → result; any other cursor leads to a new one
        QTest::addColumn<QStringList>("expected"); // empty: the list is refused
        QTest::addColumn<int>("requests");
        const auto page = [](const QStringList &names, const QJsonValue &next = QJsonValue()) {
            QJsonArray tools;
            for (const QString &name : names)
                tools.append(tool(name));
            QJsonObject result { { "tools", tools } };
            if (!next.isNull())
                result.insert("nextCursor", next);
            return result;
        };
        QTest::newRow("three pages") << QJsonObject { { "", page({ "a", "b" }, "c1") }, { "c1", page({ "c" }, "c2") },
            { "c2", page({ "d" }) } } << QStringList({ "a", "b", "c", "d" })
                                     << 3;
        QTest::newRow("cursor that comes back")
            << QJsonObject { { "", page({ "a" }, "c1") }, { "c1", page({ "b" }, "c1") } } << QStringList({ "a", "b" })
            << 2;
        QTest::newRow("cursor that is no text")
            << QJsonObject { { "", page({ "a" }, 7) } } << QStringList({ "a" }) << 1;
        QTest::newRow("endless pages") << QJsonObject { { "", page({ "a" }, "next") } }
                                       << QStringList { "a" } + QStringList(MCPClient::maxToolPages - 1, "b")
                                       << MCPClient::maxToolPages;
        QTest::newRow("page that is not an object")
            << QJsonObject { { "", page({ "a" }, "c1") }, { "c1", "nu" } } << QStringList() << 2;
    }

    void toolListsAreReadPageByPage()
    {
        QFETCH(QJsonObject, pages);
        QFETCH(QStringList, expected);
        QFETCH(int, requests);
        PlainServer mcp;
        int served = 0;
        QStringList cursors;
        mcp.http.on("POST", "/mcp", [&](const FakeHttpServer::Request &request) {
            const QJsonObject message = request.json();
            if (message.value("method") != "tools/list")
                return mcp.answerMCP(message, {}, {});
            const QString cursor = message.value("params")["cursor"].toString();
            cursors.append(cursor);
            QJsonValue result = pages.value(cursor);
            if (result.isUndefined()) // endless: every answer names a cursor never seen before
                result = QJsonObject { { "tools", QJsonArray { tool("b") } },
                    { "nextCursor", QStringLiteral("n%1").arg(++served) } };
            return Reply::json(
                QJsonObject { { "jsonrpc", "2.0" }, { "id", message.value("id") }, { "result", result } });
        });
        MCPClient client;
        if (expected.isEmpty()) {
            QCOMPARE(mcpError(client.listTools(server(mcp.endpoint()))).kind(), MCPError::invalidResponse);
        } else {
            QStringList names;
            for (const QJsonObject &listed : AsyncTest::await(client.listTools(server(mcp.endpoint()))))
                names.append(listed.value("name").toString());
            QCOMPARE(names, expected);
        }
        QCOMPARE(cursors.size(), requests);
        QCOMPARE(cursors.first(), QString());
    }

    void toolResultsAreFlattenedToText_data()
    {
        QTest::addColumn<QJsonObject>("result");
        QTest::addColumn<QString>("expected");
        QTest::newRow("texts joined") << QJsonObject { { "content",
            QJsonArray { QJsonObject { { "type", "text" }, { "text", "unu" } },
                QJsonObject { { "type", "image" }, { "data", "AAAA" } },
                QJsonObject { { "type", "text" }, { "text", "doi" } } } } }
                                      << "unu\ndoi";
        QTest::newRow("embedded resource") << QJsonObject { { "content",
            QJsonArray { QJsonObject { { "type", "resource" },
                { "resource", QJsonObject { { "uri", "x://y" }, { "text", "conținut" } } } } } } }
                                           << "conținut";
        QTest::newRow("error flag ignored")
            << QJsonObject { { "isError", true }, { "content", QJsonArray { QJsonObject { { "text", "a eșuat" } } } } }
            << "a eșuat";
        QTest::newRow("image only") << QJsonObject { { "content",
            QJsonArray { QJsonObject { { "type", "image" }, { "mimeType", "image/png" }, { "data", "iVBO" } } } } }
                                    << QString(); // a null expectation: the result as readable JSON
        QTest::newRow("content not all objects")
            << QJsonObject { { "content", QJsonArray { QJsonObject { { "text", "a" } }, "b" } } } << QString();
        QTest::newRow("no content") << QJsonObject { { "z", 1 }, { "a", QJsonObject { { "b", QJsonValue::Null } } } }
                                    << QString();
    }

    void toolResultsAreFlattenedToText()
    {
        QFETCH(QJsonObject, result);
        QFETCH(QString, expected);
        if (expected.isNull()) // no plain text: the result whole, as readable JSON
            expected = QString::fromUtf8(QJsonDocument(result).toJson(QJsonDocument::Indented)).chopped(1);
        PlainServer mcp;
        QJsonObject seenParams;
        mcp.onCall = [&](const QJsonObject &params) {
            seenParams = params;
            return Reply::json(rpcResult(result));
        };
        MCPClient client;
        const QJsonObject arguments { { "query", "ă" }, { "limit", 3 } };
        QCOMPARE(AsyncTest::await(client.callTool(server(mcp.endpoint()), "Search-Docs", arguments)), expected);
        QCOMPARE(seenParams, QJsonObject({ { "name", "Search-Docs" }, { "arguments", arguments } }));
    }
};

QTEST_GUILESS_MAIN(MCPClientTest)
#include "MCPClientTest.moc"
