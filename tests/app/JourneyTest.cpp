#include "AsyncTest.h"
#include "ChatCompletionReplies.h"
#include "FakeHttpServer.h"
#include "FakeOAuthMCPServer.h"
#include "KeloProcess.h"
#include "TemporaryHome.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QProcess>
#include <QRegularExpression>
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

// A minimal MCP server whose tool list takes `listDelayMs` to arrive.
void serveSlowMCP(FakeHttpServer &server, int listDelayMs)
{
    server.on("POST", "/mcp", [listDelayMs](const FakeHttpServer::Request &request) {
        const QJsonObject call = request.json();
        const QString method = call.value("method").toString();
        if (method.startsWith("notifications/"))
            return Reply::text({}, 202);
        QJsonObject result;
        if (method == "tools/list")
            result = { { "tools", QJsonArray { QJsonObject { { "name", "echo" }, { "description", "Ecou" } } } } };
        if (method == "tools/call")
            result = { { "content", QJsonArray { QJsonObject { { "type", "text" }, { "text", "ecou lent" } } } } };
        Reply reply
            = Reply::json(QJsonObject { { "jsonrpc", "2.0" }, { "id", call.value("id") }, { "result", result } });
        if (method == "tools/list")
            reply.delayMs = listDelayMs;
        return reply;
    });
}

} // namespace

// Whole journeys a new user takes, through the real programs: connect an MCP server and talk to it
// over several turns, change the server list while talking, an OAuth refusal in the browser, and the
// README's own commands.
class JourneyTest : public QObject
{
    Q_OBJECT

    std::unique_ptr<TemporaryHome> m_home;
    std::unique_ptr<FakeHttpServer> m_model;

    QList<QPair<QString, QString>> environment() const
    {
        return { { "KELO_ZEN_BASE_URL", m_model->baseUrl() }, { "KELO_ZEN_API_KEY", "cheie" },
            { "XDG_RUNTIME_DIR", m_home->path() + "/runtime" } };
    }

    Run kelo(const QStringList &arguments, const QByteArray &input = {}, int timeoutMs = 60'000)
    {
        KeloProcess::Options options;
        options.environment = environment();
        options.input = input;
        options.timeoutMs = timeoutMs;
        return KeloProcess::run(QStringLiteral(KELO_CLI_PATH), arguments, options);
    }

    // `kelo` left running while the test goes on, with this test's environment.
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

private Q_SLOTS:
    void init()
    {
        m_home = std::make_unique<TemporaryHome>();
        QDir().mkpath(m_home->path() + "/runtime");
        QFile::setPermissions(m_home->path() + "/runtime", QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
        m_model = std::make_unique<FakeHttpServer>();
    }

    void cleanup()
    {
        m_model.reset();
        m_home.reset();
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
        FakeHttpServer mcp;
        serveSlowMCP(mcp, 1500);
        m_model->on("POST", "/chat/completions", modelThatCalls("mcp_slow_echo"));
        QCOMPARE(kelo({ "mcp", "add", "Slow", mcp.baseUrl() + "/mcp" }).exitCode, 0);

        QProcess chat;
        start(chat, { "chat" });
        QVERIFY(chat.waitForStarted());
        chat.write("primul\n");
        const auto listed = [&mcp] {
            for (const FakeHttpServer::Request &request : mcp.requests("/mcp")) {
                if (request.json()["method"].toString() == "tools/list")
                    return true;
            }
            return false;
        };
        QVERIFY(AsyncTest::waitUntil(listed, 20'000));
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

    // The browser comes back with a refusal: the `kelo-companion` it starts hands the URL over and
    // leaves at once, and the waiting `kelo mcp connect` fails with nothing saved.
    void aRefusedAuthorizationEndsBothProcesses()
    {
        FakeOAuthMCPServer service;
        const QString opened = m_home->path() + "/opened.txt";
        QFile browser(m_home->path() + "/browser.sh");
        QVERIFY(browser.open(QIODevice::WriteOnly));
        browser.write("#!/bin/sh\nprintf '%s\\n' \"$1\" > \"" + opened.toUtf8() + "\"\n");
        browser.close();
        browser.setPermissions(QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);

        std::optional<Run> handOff;
        KeloProcess::Options options;
        options.environment = environment();
        options.environment.append(qMakePair(QString("BROWSER"), browser.fileName()));
        options.whileRunning = [&] {
            QFile page(opened);
            if (handOff || !page.open(QIODevice::ReadOnly))
                return;
            const QUrlQuery query(QUrl(QString::fromUtf8(page.readAll().trimmed())));
            const QString callback = "kelo://oauth?error=access_denied&state=" + query.queryItemValue("state");
            KeloProcess::Options companion;
            companion.environment = options.environment;
            companion.environment.append(qMakePair(QString("QT_QPA_PLATFORM"), QString("offscreen")));
            companion.timeoutMs = 10'000;
            handOff = KeloProcess::run(QStringLiteral(KELO_COMPANION_PATH), { callback }, companion);
        };
        const Run connect
            = KeloProcess::run(QStringLiteral(KELO_CLI_PATH), { "mcp", "connect", service.endpoint() }, options);

        QVERIFY(handOff.has_value());
        QCOMPARE(handOff->exitCode, 0); // handed over, not killed after the time-out
        QVERIFY(handOff->elapsedMs < 5'000);
        QCOMPARE(connect.exitCode, 1);
        QVERIFY2(connect.lastErrorLine().contains("access_denied"), qPrintable(connect.err));
        QCOMPARE(kelo({ "mcp", "list" }).out, QString());
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
        named.removeDuplicates();
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
