#include "AsyncTest.h"
#include "ChatCompletionReplies.h"
#include "FakeHttpServer.h"
#include "FakeOAuthMCPServer.h"
#include "KeloProcess.h"
#include "TemporaryHome.h"
#include "skills/OAuthCallbackChannel.h"

#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QProcess>
#include <QRegularExpression>
#include <QStandardPaths>
#include <QTcpSocket>
#include <QTest>

using Reply = FakeHttpServer::Reply;
using ChatCompletionReplies::completion;
using ChatCompletionReplies::toolCall;

using Run = KeloProcess::Result;

namespace {

QStringList offeredTools(const FakeHttpServer::Request &request)
{
    QStringList names;
    for (const QJsonValue &tool : request.json().value("tools").toArray())
        names.append(tool["function"]["name"].toString());
    return names;
}

// Plays the model: calls `tool` with the user's latest words, then answers with what the tool said.
// A request that is not offered the tool gets an answer saying so, which the checks then catch.
FakeHttpServer::Handler modelThatCalls(const QString &tool)
{
    return [tool](const FakeHttpServer::Request &request) {
        const QJsonArray messages = request.json().value("messages").toArray();
        const QJsonObject last = messages.last().toObject();
        if (last["role"].toString() == "tool")
            return Reply::json(completion("Răspuns: " + last["content"].toString()));
        if (!offeredTools(request).contains(tool))
            return Reply::json(completion("Instrumentul lipsește."));
        const QString id = "c" + QString::number(messages.size());
        return Reply::json(completion({}, { toolCall(id, tool, { { "message", last["content"].toString() } }) }));
    };
}

} // namespace

// Whole journeys through the real programs (the test plays the browser): MCP servers, OAuth against
// a fake and a real provider and a refusal, a real MCP server over several turns, the README's commands.
class JourneyTest : public QObject
{
    Q_OBJECT

    std::unique_ptr<TemporaryHome> m_home;
    std::unique_ptr<FakeHttpServer> m_model;
    QString m_runtimeDir;
    QString m_browserLog;
    QNetworkAccessManager m_network;

    QList<QPair<QString, QString>> environment() const
    {
        return { { "KELO_ZEN_BASE_URL", m_model->baseUrl() }, { "KELO_ZEN_API_KEY", "cheie" },
            { "XDG_RUNTIME_DIR", m_runtimeDir }, { "BROWSER", m_home->path() + "/browser.sh" } };
    }

    Run kelo(const QStringList &arguments, const QByteArray &input = {}, const std::function<void()> &whileRunning = {})
    {
        return KeloProcess::run(QStringLiteral(KELO_CLI_PATH), arguments, { environment(), input, whileRunning });
    }

    void start(QProcess &process, const QStringList &arguments) const
    {
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        for (const auto &[name, value] : environment())
            env.insert(name, value);
        process.setProcessEnvironment(env);
        process.start(QStringLiteral(KELO_CLI_PATH), arguments);
    }

    // The first model request of each turn: later ones of a turn carry tool results, and the memory
    // compaction offers no tools.
    QList<FakeHttpServer::Request> turnOpenings() const
    {
        QList<FakeHttpServer::Request> openings;
        for (const FakeHttpServer::Request &request : m_model->requests("/chat/completions")) {
            const QJsonObject body = request.json();
            if (body.contains("tools") && body["messages"].toArray().last()["role"].toString() == "user")
                openings.append(request);
        }
        return openings;
    }

    QJsonArray storedServers()
    {
        return QJsonDocument::fromJson(kelo({ "config", "get", "mcpServers", "--show-secrets" }).out.toUtf8()).array();
    }

    // Loads the page kelo opened, follows the provider's redirects and hands kelo:// back to kelo.
    std::function<void()> browserThatApproves()
    {
        auto started = std::make_shared<bool>(false);
        return [this, started] {
            QFile log(m_browserLog);
            if (*started || !log.open(QIODevice::ReadOnly))
                return;
            *started = true;
            follow(QUrl(QString::fromUtf8(log.readAll().trimmed())));
            log.remove(); // so the next run's browser, or its absence, is seen afresh
        };
    }

    void follow(const QUrl &url)
    {
        QNetworkRequest request(url);
        request.setAttribute(QNetworkRequest::RedirectPolicyAttribute, QNetworkRequest::ManualRedirectPolicy);
        QNetworkReply *reply = m_network.get(request);
        QObject::connect(reply, &QNetworkReply::finished, reply, [this, reply, url] {
            reply->deleteLater();
            const QUrl location = url.resolved(QUrl(QString::fromUtf8(reply->rawHeader("Location"))));
            if (location.scheme() == QLatin1String("kelo"))
                OAuthCallbackChannel::deliver(location, m_runtimeDir + QStringLiteral("/kelo-oauth"));
            else if (!reply->rawHeader("Location").isEmpty())
                follow(location);
        });
    }

    // One `kelo chat` turn in which the model calls the echo tool twice ("unu", then "doi"), with
    // `betweenCalls` run just before the second call: both calls answer and no browser is opened.
    void chatTurnCallingEchoTwiceWithoutBrowser(const std::function<void()> &betweenCalls)
    {
        m_model->on("POST", "/chat/completions", [this, betweenCalls](const FakeHttpServer::Request &) {
            const int completions = m_model->requestCount("/chat/completions");
            if (completions == 3)
                return Reply::json(completion("Gata: unu, doi"));
            if (completions == 2)
                betweenCalls();
            const QString word = completions == 1 ? "unu" : "doi";
            return Reply::json(completion({}, { toolCall(word, "mcp_127_0_0_1_echo", { { "message", word } }) }));
        });
        const Run turn = kelo({ "chat" }, "spune unu și doi\n");
        QVERIFY2(turn.exitCode == 0 && turn.out.contains("Kelo: Gata: unu, doi"), qPrintable(turn.out + turn.err));
        const auto requests = m_model->requests("/chat/completions");
        QCOMPARE(requests.size(), 3);
        for (int i : { 1, 2 })
            QCOMPARE(requests[i].json()["messages"].toArray().last()["content"].toString(),
                QString(i == 1 ? "ecou: unu" : "ecou: doi"));
        QVERIFY(!QFile::exists(m_browserLog));
    }

private Q_SLOTS:
    void init()
    {
        m_home = std::make_unique<TemporaryHome>();
        m_model = std::make_unique<FakeHttpServer>();
        m_runtimeDir = m_home->path() + QStringLiteral("/runtime");
        QDir().mkpath(m_runtimeDir);
        QFile::setPermissions(m_runtimeDir, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
        m_browserLog = m_home->path() + QStringLiteral("/opened.txt");
        QFile script(m_home->path() + QStringLiteral("/browser.sh"));
        QVERIFY(script.open(QIODevice::WriteOnly));
        script.write("#!/bin/sh\nprintf '%s\\n' \"$1\" > \"" + m_browserLog.toUtf8() + ".part\" && mv \""
            + m_browserLog.toUtf8() + ".part\" \"" + m_browserLog.toUtf8() + "\"\n");
        script.close();
        script.setPermissions(QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    }

    void cleanup()
    {
        m_model.reset();
        m_home.reset();
    }

    // Add, list, switch off, remove; names match in any case, and a name two servers share is refused.
    void managesTheServerList()
    {
        FakeOAuthMCPServer mcp;
        mcp.requiresToken = false;
        mcp.toolPages = { QJsonArray { QJsonObject { { "name", "Search-Docs" }, { "description", "Caută" } } } };
        QCOMPARE(kelo({ "mcp", "add", "Docs", "https://docs.example/mcp", "--token", "t-1" }).exitCode, 0);
        QCOMPARE(kelo({ "mcp", "add", "My Server", mcp.endpoint() }).exitCode, 0);
        const QStringList lines = kelo({ "mcp", "list" }).out.split('\n', Qt::SkipEmptyParts);
        QCOMPARE(lines.size(), 2);
        QVERIFY(lines[0].endsWith("\tDocs\thttps://docs.example/mcp\tActiv\tToken"));
        QVERIFY(lines[1].endsWith("\tMy Server\t" + mcp.endpoint() + "\tActiv\tFără auth"));
        QCOMPARE(storedServers().first()["bearerToken"].toString(), QString("t-1"));
        QCOMPARE(kelo({ "mcp", "tools", "my server" }).out,
            QStringLiteral("Search-Docs\tmcp_my_server_search_docs\tCaută [MCP: My Server]\n"));

        QCOMPARE(kelo({ "mcp", "disable", "docs" }).exitCode, 0);
        QVERIFY(kelo({ "mcp", "list" }).out.contains("\tDocs\thttps://docs.example/mcp\tOprit"));
        QCOMPARE(kelo({ "mcp", "remove", lines[1].section('\t', 0, 0).toLower() }).exitCode, 0);
        QCOMPARE(kelo({ "mcp", "add", "docs", "https://other.example/mcp" }).exitCode, 0);
        const Run ambiguous = kelo({ "mcp", "enable", "Docs" });
        QCOMPARE(ambiguous.exitCode, 1);
        QVERIFY(ambiguous.err.contains("folosește ID-ul"));
        QCOMPARE(storedServers().size(), 2);
    }

    // One connection survives expired tokens and forgotten sessions; no token reaches the settings file.
    void oneConnectionOutlivesExpiredTokensAndForgottenSessions()
    {
        FakeOAuthMCPServer service;
        service.toolPages = { QJsonArray { QJsonObject { { "name", "echo" }, { "description", "Repetă" } } },
            QJsonArray { QJsonObject { { "name", "ora" }, { "description", "Ora exactă" } } } };
        const Run connect = kelo({ "mcp", "connect", service.endpoint() }, {}, browserThatApproves());
        QCOMPARE(connect.exitCode, 0);
        QVERIFY2(connect.err.contains("Aștept autentificarea…"), qPrintable(connect.err));
        const QUrlQuery authorization = service.http.requests("/authorize").first().query;
        QCOMPARE(authorization.queryItemValue("scope", QUrl::FullyDecoded), QString("tools offline_access"));
        QCOMPARE(authorization.queryItemValue("resource", QUrl::FullyDecoded), service.endpoint());

        const auto noSecretOnDisk = [&] {
            QFile settings(m_home->configHome() + QStringLiteral("/Kelo/KeloCompanion.conf"));
            QVERIFY(settings.open(QIODevice::ReadOnly));
            const QByteArray file = settings.readAll();
            QVERIFY(file.contains("mcpServers"));
            for (const char *secret : { "access-", "refresh-", "bearerToken" })
                QVERIFY2(!file.contains(secret), secret);
        };
        noSecretOnDisk();
        const Run shown = kelo({ "config", "get", "mcpServers" });
        QVERIFY2(!shown.out.contains(service.accessToken) && !shown.out.contains(service.refreshToken),
            qPrintable(shown.out));
        QCOMPARE(storedServers().first()["oauth"]["refreshToken"].toString(), service.refreshToken);

        const Run tools = kelo({ "mcp", "tools", "127.0.0.1" });
        QCOMPARE(tools.exitCode, 0);
        QCOMPARE(tools.out.count('\n'), 2);

        // Between the turn's two calls the token expires again and the session is forgotten.
        service.expireToken();
        chatTurnCallingEchoTwiceWithoutBrowser([&service] {
            service.expireToken();
            service.forgetSessions();
        });
        if (QTest::currentTestFailed())
            return;
        // `mcp tools`, the turn's first contact, and the one after the forgotten session.
        QCOMPARE(service.sessionsStarted(), 3);
        int renewals = 0;
        for (const auto &request : service.http.requests("/token"))
            renewals += request.body.contains("grant_type=refresh_token");
        QCOMPARE(renewals, 2);
        noSecretOnDisk();
        QCOMPARE(storedServers().first()["oauth"]["refreshToken"].toString(), service.refreshToken);

        // A refresh token the provider refuses: the row says to connect again, nothing else changes.
        service.expireToken();
        service.refreshReply = Reply::json(QJsonObject { { "error", "invalid_grant" } }, 400);
        const QJsonArray before = storedServers();
        const Run expired = kelo({ "mcp", "tools", "127.0.0.1" });
        QCOMPARE(expired.exitCode, 1);
        QVERIFY(expired.err.contains("MCP necesită autentificare sau tokenul a expirat."));
        QVERIFY(kelo({ "mcp", "list" }).out.contains("\tOAuth\tTrebuie conectat din nou"));
        QJsonObject marked = storedServers()[0].toObject();
        QVERIFY(marked.take("needsReconnect").toBool());
        QCOMPARE(marked, before[0].toObject());

        // Connecting again clears the mark and replaces the server; a refused code exchange changes nothing.
        service.refreshReply.reset();
        QCOMPARE(kelo({ "mcp", "connect", service.endpoint() }, {}, browserThatApproves()).exitCode, 0);
        QVERIFY(!kelo({ "mcp", "list" }).out.contains("Trebuie conectat din nou"));
        const QJsonArray connected = storedServers();
        QCOMPARE(connected.size(), 1);
        service.http.enqueue("POST", "/token", Reply::text("invalid_grant", 400));
        const Run refused = kelo({ "mcp", "connect", service.endpoint() }, {}, browserThatApproves());
        QCOMPARE(refused.exitCode, 1);
        QVERIFY(refused.err.contains("Schimbul codului OAuth a eșuat: invalid_grant"));
        QCOMPARE(storedServers(), connected);

        // The browser comes back with a refusal: the `kelo-companion` it starts hands the URL over and
        // leaves at once, and the waiting `kelo mcp connect` fails with nothing changed.
        std::optional<Run> handOff;
        const Run denied = kelo({ "mcp", "connect", service.endpoint() }, {}, [&] {
            QFile page(m_browserLog);
            if (handOff || !page.open(QIODevice::ReadOnly))
                return;
            const QUrlQuery query(QUrl(QString::fromUtf8(page.readAll().trimmed())));
            KeloProcess::Options companion { environment() };
            companion.environment.append(qMakePair(QString("QT_QPA_PLATFORM"), QString("offscreen")));
            companion.timeoutMs = 10'000;
            handOff = KeloProcess::run(QStringLiteral(KELO_COMPANION_PATH),
                { "kelo://oauth?error=access_denied&state=" + query.queryItemValue("state") }, companion);
        });
        QVERIFY(handOff.has_value());
        QCOMPARE(handOff->exitCode, 0); // handed over, not killed after the time-out
        QVERIFY(handOff->elapsedMs < 5'000);
        QCOMPARE(denied.exitCode, 1);
        QVERIFY2(denied.lastErrorLine().contains("access_denied"), qPrintable(denied.err));
        QCOMPARE(storedServers(), connected);
    }

    // The same against a strict provider from npm: two-second access tokens, rotating refresh tokens.
    void aRealAuthorizationServerKeepsTheConnectionAlive()
    {
        const QString provider
            = qEnvironmentVariable("KELO_OAUTH_SERVER_DIR", QDir::homePath() + "/.cache/kelo/npm/oauth-server")
            + "/node_modules/oidc-provider/lib/index.js";
        const QString node = QStandardPaths::findExecutable("node");
        if (node.isEmpty() || !QFile::exists(provider))
            QSKIP("oidc-provider is not installed (scripts/prepare-mcp-server.sh)");
        QProcess server;
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert("OIDC_PROVIDER", provider);
        environment.insert("ACCESS_TOKEN_TTL", "2");
        server.setProcessEnvironment(environment);
        server.start(node, { QStringLiteral(KELO_OAUTH_SERVER_SCRIPT) });
        QVERIFY(AsyncTest::waitUntil([&] { return server.canReadLine() || server.state() == QProcess::NotRunning; }));
        const QString ready = QString::fromUtf8(server.readLine()).trimmed();
        QVERIFY2(ready.startsWith("listening "), qPrintable(ready + server.readAllStandardError()));
        const quint16 port = ready.section(' ', 1).toUShort();
        const QString endpoint = QStringLiteral("http://127.0.0.1:%1/mcp").arg(port);

        const Run connect = kelo({ "mcp", "connect", endpoint }, {}, browserThatApproves());
        QVERIFY2(connect.exitCode == 0, qPrintable(connect.err));
        const QJsonObject grant = storedServers().first()["oauth"].toObject();
        QCOMPARE(grant["resource"].toString(), QStringLiteral("http://localhost:%1/mcp").arg(port));
        QVERIFY(!grant["refreshToken"].toString().isEmpty());

        QTest::qWait(2'500); // the access token is dead now
        const Run tools = kelo({ "mcp", "tools", "127.0.0.1" });
        QCOMPARE(tools.exitCode, 0);
        QCOMPARE(tools.out.count('\n'), 2);
        QVERIFY(storedServers().first()["oauth"]["refreshToken"] != grant["refreshToken"]);

        QTest::qWait(2'500);
        chatTurnCallingEchoTwiceWithoutBrowser([port] {
            QTcpSocket control;
            control.connectToHost(QHostAddress::LocalHost, port);
            control.waitForConnected(2'000);
            control.write("POST /test/forget-sessions HTTP/1.1\r\nHost: 127.0.0.1\r\nContent-Length: 0\r\n"
                          "Connection: close\r\n\r\n");
            control.waitForReadyRead(2'000);
        });
        server.kill();
        server.waitForFinished();
    }
    // The third-party server from npm: one `kelo ask`, then a `kelo chat` of three turns that each reach
    // its echo tool; the tools found on the first turn serve the later ones.
    void askAndChatReachTheEchoToolOfARealServer()
    {
        const QString url = qEnvironmentVariable("KELO_TEST_MCP_URL");
        if (url.isEmpty())
            QSKIP("KELO_TEST_MCP_URL is not set: the test MCP server is not running (scripts/test.sh starts it)");
        m_model->on("POST", "/chat/completions", modelThatCalls("mcp_everything_echo"));
        QCOMPARE(kelo({ "mcp", "add", "Everything", url }).exitCode, 0);

        const Run ask = kelo({ "ask", "salut de la ask" });
        QVERIFY2(ask.exitCode == 0, qPrintable(ask.err));
        QCOMPARE(ask.out, QStringLiteral("Răspuns: Echo: salut de la ask\n"));

        const Run chat = kelo({ "chat" }, "primul\nal doilea\nal treilea\n/quit\n");
        QVERIFY2(chat.exitCode == 0, qPrintable(chat.err));
        for (const char *turn : { "primul", "al doilea", "al treilea" })
            QVERIFY2(chat.out.contains(QStringLiteral("Răspuns: Echo: ") + turn), qPrintable(chat.out));
        const QList<FakeHttpServer::Request> openings = turnOpenings();
        QCOMPARE(openings.size(), 4);
        for (const FakeHttpServer::Request &opening : openings)
            QVERIFY(offeredTools(opening).contains("mcp_everything_echo"));
    }

    // A slow streaming model: `kelo ask` prints the first sentence while the service is still
    // writing, and in total exactly the answer and one line end.
    void askPrintsTheAnswerAsItIsWritten()
    {
        const QStringList pieces { "Prima propoziție e aici. ", "A doua vine ", "mult mai târziu." };
        m_model->on("POST", "/chat/completions",
            Reply::eventStreamChunks(ChatCompletionReplies::streamedCompletion(pieces), 1500));
        QProcess ask;
        start(ask, { "ask", "Spune-mi ceva" });
        QString out;
        QVERIFY(AsyncTest::waitUntil(
            [&] {
                out += QString::fromUtf8(ask.readAllStandardOutput());
                return out.contains("Prima propoziție e aici.");
            },
            20'000));
        QVERIFY2(!out.contains("A doua"), qPrintable(out));
        QCOMPARE(ask.state(), QProcess::Running);
        QVERIFY(AsyncTest::waitUntil([&] { return ask.state() == QProcess::NotRunning; }, 30'000));
        out += QString::fromUtf8(ask.readAllStandardOutput());
        QCOMPARE(ask.exitCode(), 0);
        QCOMPARE(out, pieces.join(QString()) + "\n");
    }

    // `kelo mcp disable` in another terminal while `kelo chat` is still discovering that server's
    // tools: the next turn is not offered them.
    void aServerSwitchedOffDuringDiscoveryIsNotOfferedNextTurn()
    {
        FakeOAuthMCPServer mcp;
        mcp.requiresToken = false;
        mcp.http.on("POST", "/mcp", [&mcp](const FakeHttpServer::Request &request) {
            Reply reply = mcp.answerMCP(request.json(), {}, {});
            reply.delayMs = request.json()["method"].toString() == "tools/list" ? 1500 : 0;
            return reply;
        });
        m_model->on("POST", "/chat/completions", modelThatCalls("mcp_slow_echo"));
        QCOMPARE(kelo({ "mcp", "add", "Slow", mcp.endpoint() }).exitCode, 0);

        QProcess chat;
        start(chat, { "chat" });
        QVERIFY(chat.waitForStarted());
        chat.write("primul\n");
        QVERIFY(AsyncTest::waitUntil([&mcp] { return mcp.methods().contains("tools/list"); }, 20'000));
        QCOMPARE(kelo({ "mcp", "disable", "Slow" }).exitCode, 0);
        QVERIFY(AsyncTest::waitUntil([this] { return m_model->requestCount("/chat/completions") >= 1; }, 20'000));
        QVERIFY(AsyncTest::waitUntil(
            [&chat] { return chat.bytesAvailable() > 0 || chat.state() != QProcess::Running; }, 20'000));
        chat.write("al doilea\n/quit\n");
        QVERIFY(AsyncTest::waitUntil([&chat] { return chat.state() == QProcess::NotRunning; }, 30'000));
        const QString out = QString::fromUtf8(chat.readAllStandardOutput());
        QCOMPARE(chat.exitCode(), 0);

        const QList<FakeHttpServer::Request> openings = turnOpenings();
        QCOMPARE(openings.size(), 2);
        QVERIFY(!offeredTools(openings.last()).contains("mcp_slow_echo"));
        QVERIFY2(out.contains("Instrumentul lipsește."), qPrintable(out));
    }

    // Every program the README names exists after the build, and its run command without a display
    // opens the text chat.
    void theReadmeCommandsWork()
    {
        QFile readme(QStringLiteral(KELO_SOURCE_DIR "/README.md"));
        QVERIFY(readme.open(QIODevice::ReadOnly));
        const QString text = QString::fromUtf8(readme.readAll());
        QStringList named;
        for (const auto &match : QRegularExpression(R"(\bbuild/(bin|bench)/[\w.-]+)").globalMatch(text))
            named.append(match.captured());
        QVERIFY(named.contains("build/bin/kelo"));
        for (const QString &path : std::as_const(named)) {
#ifndef KELO_BENCHMARKS_BUILT
            if (path.startsWith("build/bench/"))
                continue; // the sanitizer build leaves the benchmarks out
#endif
            const QString built = QStringLiteral(KELO_BINARY_DIR) + path.mid(QStringLiteral("build").size());
            QVERIFY2(QFileInfo(built).isExecutable(), qPrintable(path + " is not built"));
        }

        m_model->on("POST", "/chat/completions", Reply::json(completion("Bună! Sunt aici.")));
        KeloProcess::Options options;
        options.environment = environment();
        options.environment.append(
            { { "DISPLAY", "" }, { "WAYLAND_DISPLAY", "" }, { "KELO_BUILD_DIR", KELO_BINARY_DIR } });
        options.input = "Salut\n/quit\n";
        options.timeoutMs = 300'000;
        const Run run = KeloProcess::run("bash", { QStringLiteral(KELO_SOURCE_DIR "/scripts/run.sh") }, options);
        QVERIFY2(run.exitCode == 0, qPrintable(run.err));
        QVERIFY2(run.out.contains("Bună! Sunt aici."), qPrintable(run.out));
    }
};

QTEST_GUILESS_MAIN(JourneyTest)
#include "JourneyTest.moc"
