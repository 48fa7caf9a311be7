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
#include <QStandardPaths>
#include <QTcpSocket>
#include <QTest>

using Reply = FakeHttpServer::Reply;

using Run = KeloProcess::Result;

// `kelo mcp` as a user runs it; this test plays the browser of the OAuth connection.
class MCPCommandTest : public QObject
{
    Q_OBJECT

    std::unique_ptr<TemporaryHome> m_home;
    QString m_runtimeDir;
    QString m_browserLog;
    QNetworkAccessManager m_network;

    Run kelo(const QStringList &arguments, const std::function<void()> &whileRunning = {},
        const KeloProcess::Options &extra = {})
    {
        KeloProcess::Options options = extra;
        options.environment += { { QStringLiteral("XDG_RUNTIME_DIR"), m_runtimeDir },
            { QStringLiteral("BROWSER"), m_home->path() + QStringLiteral("/browser.sh") } };
        options.whileRunning = whileRunning;
        return KeloProcess::run(QStringLiteral(KELO_CLI_PATH), arguments, options);
    }

    QByteArray settingsFile() const
    {
        QFile file(m_home->configHome() + QStringLiteral("/Kelo/KeloCompanion.conf"));
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
    }

    QJsonArray storedServers()
    {
        const Run run = kelo({ "config", "get", "mcpServers", "--show-secrets" });
        return QJsonDocument::fromJson(run.out.toUtf8()).array();
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
        QFile::remove(m_browserLog);
        FakeHttpServer model;
        int completions = 0;
        model.on("POST", "/chat/completions", [&](const FakeHttpServer::Request &) {
            using namespace ChatCompletionReplies;
            ++completions;
            if (completions == 3)
                return Reply::json(completion("Gata: unu, doi"));
            if (completions == 2)
                betweenCalls();
            const QString word = completions == 1 ? "unu" : "doi";
            return Reply::json(
                completion(QString(), { toolCall(word, "mcp_127_0_0_1_echo", { { "message", word } }) }));
        });
        KeloProcess::Options chat;
        chat.environment = { { "KELO_ZEN_BASE_URL", model.baseUrl() }, { "KELO_ZEN_API_KEY", "cheie" } };
        chat.input = "spune unu și doi\n";
        const Run turn = kelo({ "chat" }, {}, chat);
        QVERIFY2(turn.exitCode == 0 && turn.out.contains("Kelo: Gata: unu, doi"), qPrintable(turn.out + turn.err));
        const auto requests = model.requests("/chat/completions");
        const auto toolResultIn = [](const FakeHttpServer::Request &request) {
            return request.json()["messages"].toArray().last()["content"].toString();
        };
        QCOMPARE(requests.size(), 3);
        QCOMPARE(toolResultIn(requests[1]), QString("ecou: unu"));
        QCOMPARE(toolResultIn(requests[2]), QString("ecou: doi"));
        QVERIFY(!QFile::exists(m_browserLog));
    }

private Q_SLOTS:
    void init()
    {
        m_home = std::make_unique<TemporaryHome>();
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

    void cleanup() { m_home.reset(); }

    void managesTheServerList()
    {
        QCOMPARE(kelo({ "mcp", "add", "Docs", "https://docs.example/mcp", "--token", "t-1" }).exitCode, 0);
        QCOMPARE(kelo({ "mcp", "add", "Local", "http://127.0.0.1:9/mcp" }).exitCode, 0);
        const Run invalid = kelo({ "mcp", "add", "Rău", "nu e url" });
        QCOMPARE(invalid.exitCode, 2);
        QVERIFY(invalid.err.contains("trebuie să fie un URL complet"));
        for (const auto &[words, reason] : { std::pair { QStringList { "--tokn", "t" }, "Opțiune necunoscută: --tokn" },
                 std::pair { QStringList { "--token" }, "Opțiunea --token are nevoie de o valoare." } }) {
            const Run refused = kelo(QStringList { "mcp", "add", "Rău", "https://rau.example/mcp" } + words);
            QCOMPARE(refused.exitCode, 2);
            QCOMPARE(refused.lastErrorLine(), QString::fromUtf8(reason));
        }

        Run list = kelo({ "mcp", "list" });
        QStringList lines = list.out.split('\n', Qt::SkipEmptyParts);
        QCOMPARE(lines.size(), 2);
        QVERIFY(lines[0].endsWith("\tDocs\thttps://docs.example/mcp\tActiv\tToken"));
        QVERIFY(lines[1].endsWith("\tLocal\thttp://127.0.0.1:9/mcp\tActiv\tFără auth"));
        QCOMPARE(storedServers().first()["bearerToken"].toString(), QString("t-1"));

        QCOMPARE(kelo({ "mcp", "disable", "docs" }).exitCode, 0);
        QVERIFY(kelo({ "mcp", "list" }).out.contains("\tDocs\thttps://docs.example/mcp\tOprit"));
        const QString localID = lines[1].section('\t', 0, 0);
        QCOMPARE(kelo({ "mcp", "remove", localID.toLower() }).exitCode, 0);
        QCOMPARE(kelo({ "mcp", "remove", "Nimeni" }).exitCode, 1);
        QCOMPARE(kelo({ "mcp", "add", "docs", "https://other.example/mcp" }).exitCode, 0);
        const Run ambiguous = kelo({ "mcp", "enable", "Docs" });
        QCOMPARE(ambiguous.exitCode, 1);
        QVERIFY(ambiguous.err.contains("folosește ID-ul"));
        QCOMPARE(storedServers().size(), 2);
        QCOMPARE(kelo({ "mcp", "frobnicate" }).exitCode, 2);
    }

    void listsToolsOrExplainsWhyNot()
    {
        FakeOAuthMCPServer mcp;
        mcp.requiresToken = false;
        mcp.toolPages = { QJsonArray { QJsonObject { { "name", "Search-Docs" }, { "description", "Caută" } } } };
        FakeOAuthMCPServer locked;
        QCOMPARE(kelo({ "mcp", "add", "My Server", mcp.endpoint() }).exitCode, 0);
        QCOMPARE(kelo({ "mcp", "add", "Locked", locked.endpoint() }).exitCode, 0);

        const Run tools = kelo({ "mcp", "tools", "my server" });
        QCOMPARE(tools.exitCode, 0);
        QCOMPARE(tools.out, QStringLiteral("Search-Docs\tmcp_my_server_search_docs\tCaută [MCP: My Server]\n"));
        const Run denied = kelo({ "mcp", "tools", "Locked" });
        QCOMPARE(denied.exitCode, 1);
        QVERIFY(denied.err.contains("MCP necesită autentificare sau tokenul a expirat."));
    }

    void connectSavesTheServerOnlyWhenTheFlowSucceeds()
    {
        FakeOAuthMCPServer service;
        const QString endpoint = service.endpoint();
        service.http.enqueue("POST", "/token", Reply::json(QJsonObject { { "access_token", "first" } }));
        service.http.enqueue("POST", "/token", Reply::json(QJsonObject { { "access_token", "second" } }));
        service.http.enqueue("POST", "/token", Reply::text("invalid_grant", 400));

        Run run = kelo({ "mcp", "connect", endpoint }, browserThatApproves());
        QCOMPARE(run.exitCode, 0);
        QVERIFY2(run.err.contains("Aștept autentificarea…"), qPrintable(run.err));
        QFile::remove(m_browserLog);
        QCOMPARE(kelo({ "mcp", "connect", endpoint }, browserThatApproves()).exitCode, 0);
        QFile::remove(m_browserLog);
        run = kelo({ "mcp", "connect", endpoint }, browserThatApproves());
        QCOMPARE(run.exitCode, 1);
        QVERIFY(run.err.contains("Schimbul codului OAuth a eșuat: invalid_grant"));

        const QJsonArray servers = storedServers();
        QCOMPARE(servers.size(), 1);
        QCOMPARE(servers[0]["bearerToken"].toString(), QString("second"));
        QCOMPARE(servers[0]["authLabel"].toString(), QString("OAuth"));
        QCOMPARE(servers[0]["endpoint"].toString(), endpoint);
        QCOMPARE(kelo({ "mcp", "connect", "nici-un-serviciu" }).exitCode, 2);
    }

    // One connection survives expired tokens and forgotten sessions; no token reaches the settings file.
    void oneConnectionOutlivesExpiredTokensAndForgottenSessions()
    {
        FakeOAuthMCPServer service;
        service.toolPages = { QJsonArray { QJsonObject { { "name", "echo" }, { "description", "Repetă" } } },
            QJsonArray { QJsonObject { { "name", "ora" }, { "description", "Ora exactă" } } } };
        QCOMPARE(kelo({ "mcp", "connect", service.endpoint() }, browserThatApproves()).exitCode, 0);
        const QUrlQuery authorization = service.http.requests("/authorize").first().query;
        QCOMPARE(authorization.queryItemValue("scope", QUrl::FullyDecoded), QString("tools offline_access"));
        QCOMPARE(authorization.queryItemValue("resource", QUrl::FullyDecoded), service.endpoint());

        const auto noSecretOnDisk = [&] {
            const QByteArray file = settingsFile();
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
        QVERIFY(tools.out.contains("ora\tmcp_127_0_0_1_ora"));

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
        const Run denied = kelo({ "mcp", "tools", "127.0.0.1" });
        QCOMPARE(denied.exitCode, 1);
        QVERIFY(denied.err.contains("MCP necesită autentificare sau tokenul a expirat."));
        QVERIFY(kelo({ "mcp", "list" }).out.contains("\tOAuth\tTrebuie conectat din nou"));
        QJsonArray after = storedServers();
        QJsonObject marked = after[0].toObject();
        QVERIFY(marked.take("needsReconnect").toBool());
        QCOMPARE(marked, before[0].toObject());

        // Connecting again clears the mark and replaces the server.
        service.refreshReply.reset();
        QCOMPARE(kelo({ "mcp", "connect", service.endpoint() }, browserThatApproves()).exitCode, 0);
        QVERIFY(!kelo({ "mcp", "list" }).out.contains("Trebuie conectat din nou"));
        QCOMPARE(storedServers().size(), 1);
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

        const Run connect = kelo({ "mcp", "connect", endpoint }, browserThatApproves());
        QVERIFY2(connect.exitCode == 0, qPrintable(connect.err));
        const QJsonObject grant = storedServers().first()["oauth"].toObject();
        QCOMPARE(grant["resource"].toString(), QStringLiteral("http://localhost:%1/mcp").arg(port));
        QVERIFY(!grant["refreshToken"].toString().isEmpty());
        QVERIFY(!grant["accessTokenExpiresAt"].toString().isEmpty());

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

        const QJsonObject stored = storedServers().first().toObject();
        const QByteArray file = settingsFile();
        QVERIFY(!file.contains(stored["bearerToken"].toString().toUtf8()));
        QVERIFY(!file.contains(stored["oauth"]["refreshToken"].toString().toUtf8()));
        server.kill();
        server.waitForFinished();
    }
};

QTEST_GUILESS_MAIN(MCPCommandTest)
#include "MCPCommandTest.moc"
