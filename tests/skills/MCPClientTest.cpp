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

    static QJsonObject rpcResult(const QJsonObject &result)
    {
        return { { "jsonrpc", "2.0" }, { "id", 1 }, { "result", result } };
    }
    static QByteArray compact(const QJsonObject &object)
    {
        return QJsonDocument(object).toJson(QJsonDocument::Compact);
    }
    static QJsonObject content(const QJsonArray &items) { return { { "content", items } }; }
    static QJsonObject text(const QString &text) { return { { "type", "text" }, { "text", text } }; }
    static QJsonObject tool(const QString &name) { return { { "name", name }, { "inputSchema", QJsonObject() } }; }
    static MCPServerConfig server(const QString &endpoint, const QString &name = "Test", const QString &token = {})
    {
        return MCPServerConfig { QUuid::createUuid(), name, endpoint, token, true, {}, {} };
    }
    template<typename T> static MCPError mcpError(QCoro::Task<T> task)
    {
        return AsyncTest::awaitError<MCPError>(std::move(task), 15'000).value();
    }
    static QStringList modelNames(const QList<MCPToolBinding> &bindings)
    {
        QStringList names;
        for (const auto &binding : bindings)
            names.append(binding.definition.name);
        return names;
    }

private Q_SLOTS:
    // A failed handshake is tried again next time; a good one runs once per endpoint. This one comes
    // as event streams, the notification's holding only a comment.
    void handshakeRunsOncePerEndpointAndTheSessionIsCarried()
    {
        PlainServer mcp({ tool("a") });
        mcp.http.enqueue("POST", "/mcp", Reply::text("oops", 500));
        Reply init = Reply::text(
            "event: message\nid: 7\ndata: " + compact(rpcResult({ { "protocolVersion", "2025-06-18" } })) + "\n\n", 200,
            "text/event-stream");
        init.headers.append({ QByteArray("Mcp-Session-Id"), "session-1" });
        mcp.http.enqueue("POST", "/mcp", init);
        mcp.http.enqueue("POST", "/mcp", Reply::text(": keep-alive\n\n", 200, "text/event-stream"));
        MCPClient client;
        QCOMPARE(mcpError(client.listTools(server(mcp.endpoint()))).kind(), MCPError::invalidResponse);
        mcp.http.clearRequests();
        QCOMPARE(AsyncTest::await(client.listTools(server(mcp.endpoint()))).size(), 1);
        AsyncTest::await(client.listTools(server(mcp.endpoint(), "Twin")));
        QCOMPARE(mcp.methods(), QStringList({ "initialize", "notifications/initialized", "tools/list", "tools/list" }));

        const auto requests = mcp.http.requests("/mcp");
        const QJsonObject init0 = requests[0].json();
        QCOMPARE(init0.value("params")["protocolVersion"].toString(), QString("2025-06-18"));
        QCOMPARE(init0.value("params")["clientInfo"]["name"].toString(), QString("KeloCompanion"));
        QCOMPARE(requests[1].json().value("id"), QJsonValue::Undefined);
        QVERIFY(requests[2].json().value("id") != requests[3].json().value("id"));
        QCOMPARE(requests[0].header("Content-Type"), QByteArray("application/json"));
        QCOMPARE(requests[0].header("Accept"), QByteArray("application/json, text/event-stream"));
        QVERIFY(requests[0].header("Authorization").isNull());
        QVERIFY(requests[0].header("Mcp-Session-Id").isEmpty());
        for (int i = 1; i < requests.size(); ++i)
            QCOMPARE(requests[i].header("Mcp-Session-Id"), QByteArray("session-1"));

        // A later session id replaces the stored one; one sent with an error does not.
        mcp.onCall = [](const QJsonObject &) {
            Reply reply = Reply::json(rpcResult(content({ text("ok") })));
            reply.headers.append({ QByteArray("MCP-SESSION-ID"), "session-2" });
            return reply;
        };
        const MCPServerConfig target = server(mcp.endpoint(), "T", "secret");
        QCOMPARE(AsyncTest::await(client.callTool(target, "x", {})), QString("ok"));
        Reply denied = Reply::text("denied", 401);
        denied.headers.append({ QByteArray("Mcp-Session-Id"), "from-an-error" });
        mcp.http.enqueue("POST", "/mcp", denied);
        QCOMPARE(mcpError(client.callTool(target, "x", {})).kind(), MCPError::unauthorized);
        AsyncTest::await(client.callTool(target, "x", {}));
        const auto last = mcp.http.requests("/mcp").last();
        QCOMPARE(last.header("Mcp-Session-Id"), QByteArray("session-2"));
        QCOMPARE(last.header("Authorization"), QByteArray("Bearer secret"));
    }

    // What a tool call's reply turns into: text for the model (the result whole as readable JSON when
    // it holds no plain text) or a typed error.
    void repliesToAToolCall_data()
    {
        QTest::addColumn<Reply>("reply");
        QTest::addColumn<QString>("expected"); // the text, or the error's description when not empty
        QTest::addColumn<int>("kind"); // of the error; -1 for none
        const int ok = -1, invalid = MCPError::invalidResponse;
        const auto result = [](const QJsonObject &result) { return Reply::json(rpcResult(result)); };
        const auto readable = [](const QJsonObject &result) {
            return QString::fromUtf8(QJsonDocument(result).toJson(QJsonDocument::Indented)).chopped(1);
        };
        QTest::newRow("texts joined") << result(
            content({ text("unu"), QJsonObject { { "type", "image" }, { "data", "AAAA" } }, text("doi") }))
                                      << "unu\ndoi" << ok;
        QTest::newRow("embedded resource") << result(content({ QJsonObject {
            { "type", "resource" }, { "resource", QJsonObject { { "uri", "x://y" }, { "text", "conținut" } } } } }))
                                           << "conținut" << ok;
        QTest::newRow("error flag ignored")
            << result({ { "isError", true }, { "content", QJsonArray { text("a eșuat") } } }) << "a eșuat" << ok;
        const QJsonObject image = content({ QJsonObject { { "type", "image" }, { "data", "iVBO" } } });
        QTest::newRow("image only") << result(image) << readable(image) << ok;
        const QJsonObject mixed = content({ QJsonObject { { "text", "a" } }, "b" });
        QTest::newRow("content not all objects") << result(mixed) << readable(mixed) << ok;
        const QJsonObject none { { "z", 1 }, { "a", QJsonObject { { "b", QJsonValue::Null } } } };
        QTest::newRow("no content") << result(none) << readable(none) << ok;

        const QByteArray progress = compact({ { "jsonrpc", "2.0" }, { "method", "notifications/progress" } });
        QTest::newRow("stream with noise before the reply") << Reply::eventStream({ "not json", "[DONE]", "[1,2]",
            progress, compact({ { "id", 99 }, { "result", content({ text("răspuns") }) } }),
            compact(rpcResult(content({ text("2") }))) }) << "răspuns"
                                                            << ok;
        QTest::newRow("event of CR LF data lines") << Reply::text(
            "event: message\r\nid: 7\r\ndata: {\"id\":1,\r\ndata: \"result\":{\"content\":"
            "[{\"text\":\"cr\"}]}}\r\n\r\n",
            200, "text/event-stream") << "cr" << ok;
        QTest::newRow("event across chunks") << Reply::eventStreamChunks(
            { "data: {\"id\":1,\n", "data: \"result\":{\"content\":[{\"text\":\"bucăți\"}]}}\n", "\n" }, 30)
                                             << "bucăți" << ok;
        const QString big(4 * 1024 * 1024, QLatin1Char('k'));
        Reply open = Reply::eventStream({ compact(rpcResult(content({ text(big) }))) });
        open.chunks = { open.body };
        open.holdOpenAfterChunks = true;
        QTest::newRow("stream left open after megabytes") << open << big << ok;

        QTest::newRow("array body") << Reply::json(QJsonArray { 1, 2 }) << QString() << invalid;
        QTest::newRow("number body") << Reply::text("42", 200, "application/json") << QString() << invalid;
        QTest::newRow("truncated json") << Reply::text(R"({"jsonrpc":"2.0","result":{)", 200, "application/json")
                                        << QString() << invalid;
        QTest::newRow("stream without object")
            << Reply::eventStream({ "{broken", "[DONE]", "\"text\"" }) << QString() << invalid;
        QTest::newRow("stream that is not utf-8") << Reply::text("data: {\"id\":1,\"result\":{}}\n: \xff\xfe\n", 200,
            "text/event-stream") << QString() << invalid;
        QTest::newRow("empty 202 to a request") << Reply::text({}, 202) << QString() << invalid;
        QTest::newRow("result not an object")
            << Reply::json(QJsonObject { { "id", 1 }, { "result", "yes" } }) << QString() << invalid;
        for (int status : { 400, 500 })
            QTest::addRow("status %d", status) << Reply::text("oops", status) << QString() << invalid;
        for (int status : { 401, 403 })
            QTest::addRow("status %d", status)
                << Reply::text("{}", status, "application/json") << QString() << int(MCPError::unauthorized);
        QTest::newRow("404 within a session")
            << Reply::text("gone", 404) << "Serverul MCP nu mai recunoaște sesiunea." << int(MCPError::sessionExpired);
        QTest::newRow("remote error") << Reply::json(
            QJsonObject { { "error", QJsonObject { { "code", 1 }, { "message", "cheie greșită" } } } })
                                      << "MCP: cheie greșită" << int(MCPError::remote);
        QTest::newRow("remote error that is no object")
            << Reply::json(QJsonObject { { "error", "text" }, { "result", QJsonObject() } })
            << "MCP: eroare necunoscută" << int(MCPError::remote);
    }

    void repliesToAToolCall()
    {
        QFETCH(Reply, reply);
        QFETCH(QString, expected);
        QFETCH(int, kind);
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
            if (!expected.isEmpty())
                QCOMPARE(error.description(), expected);
        }
        QCOMPARE(seen, QJsonObject({ { "name", "Search-Docs" }, { "arguments", arguments } }));
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
        QStringList remoteNames;
        for (const auto &binding : bindings)
            remoteNames.append(binding.remoteName + '@' + binding.server.name);
        // Colliding model names are both kept; the store picks the first.
        QCOMPARE(modelNames(bindings),
            QStringList({ "mcp_my_server_search_docs", "mcp_my_server_list_",
                "mcp_my_server_" + QString(50, QLatin1Char('x')), "mcp_my_server_search_docs" }));
        QCOMPARE(remoteNames,
            QStringList(
                { "Search-Docs@My Server", "listă@My Server", longName + "@My Server", "search_docs@My Server" }));
        QCOMPARE(bindings[1].definition.description, QString("Instrument MCP listă din My Server. [MCP: My Server]"));
        QCOMPARE(bindings[2].definition.description, QString(" [MCP: My Server]"));
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

    // A refused grant marks the server for reconnecting and is not tried again; a provider that
    // merely failed is.
    void aFailedRenewalShowsTheUnauthorizedText_data()
    {
        QTest::addColumn<Reply>("refreshReply");
        QTest::addColumn<bool>("refused");
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
        QFETCH(bool, refused);
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
        QCOMPARE(changes.size(), refused ? 1 : 0);
        QVERIFY(!refused || changes.first().needsReconnect);
        QCOMPARE(mcpError(client.callTool(config, "echo", {})).kind(), MCPError::unauthorized);
        QCOMPARE(mcp.http.requestCount("/token"), refused ? 1 : 2);
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
        // The agreed version goes with every request after a handshake, not with the handshake.
        QStringList versions, sessions;
        for (const auto &request : mcp.http.requests("/mcp")) {
            versions.append(QString::fromUtf8(request.header("MCP-Protocol-Version")));
            sessions.append(QString::fromUtf8(request.header("Mcp-Session-Id")));
        }
        QCOMPARE(
            versions, QStringList({ "", "2025-06-18", "2025-06-18", "2025-06-18", "", "2025-06-18", "2025-06-18" }));
        QCOMPARE(sessions.mid(4), QStringList({ "", "session-2", "session-2" }));

        // A server that forgets every session gets one new handshake, then the error.
        mcp.forgetsEverySession = true;
        const int handshakes = mcp.sessionsStarted();
        QCOMPARE(mcpError(client.callTool(config, "echo", {})).kind(), MCPError::sessionExpired);
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
        QStringList cursors;
        mcp.http.on("POST", "/mcp", [&](const FakeHttpServer::Request &request) {
            const QJsonObject message = request.json();
            if (message.value("method") != "tools/list")
                return mcp.answerMCP(message, {}, {});
            cursors.append(message.value("params")["cursor"].toString());
            QJsonValue result = pages.value(cursors.last());
            if (result.isUndefined()) // endless: every answer names a cursor never seen before
                result = QJsonObject { { "tools", QJsonArray { tool("b") } },
                    { "nextCursor", QStringLiteral("n%1").arg(cursors.size()) } };
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
};

QTEST_GUILESS_MAIN(MCPClientTest)
#include "MCPClientTest.moc"
