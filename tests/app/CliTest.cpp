#include "AsyncTest.h"
#include "ChatCompletionReplies.h"
#include "FakeHttpServer.h"
#include "TemporaryHome.h"

#include <QFile>
#include <QJsonDocument>
#include <QProcess>
#include <QTest>

using Reply = FakeHttpServer::Reply;
using ChatCompletionReplies::Arguments;
using ChatCompletionReplies::completion;
using ChatCompletionReplies::toolCall;

namespace {

struct Run
{
    int exitCode = -1;
    QString out;
    QString err;
};

} // namespace

// The `kelo` executable as a user runs it: output streams, exit codes and files on disk.
class CliTest : public QObject
{
    Q_OBJECT

    std::unique_ptr<TemporaryHome> m_home;
    std::unique_ptr<FakeHttpServer> m_service;

    // The server lives in this process, so the event loop must keep running while kelo works.
    Run kelo(const QStringList &arguments, const QByteArray &input = {}, const QString &key = QStringLiteral("cheie"))
    {
        QProcess process;
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(QStringLiteral("KELO_ZEN_BASE_URL"), m_service->baseUrl());
        environment.insert(QStringLiteral("KELO_WIKIPEDIA_BASE_URL"), m_service->baseUrl());
        environment.insert(QStringLiteral("KELO_ZEN_API_KEY"), key);
        process.setProcessEnvironment(environment);
        process.start(QStringLiteral(KELO_CLI_PATH), arguments);
        process.write(input);
        process.closeWriteChannel();
        const bool finished = AsyncTest::waitUntil([&] { return process.state() == QProcess::NotRunning; }, 60'000);
        if (!finished)
            process.kill();
        return {finished ? process.exitCode() : -1, QString::fromUtf8(process.readAllStandardOutput()),
                QString::fromUtf8(process.readAllStandardError())};
    }

private Q_SLOTS:
    void init()
    {
        m_home = std::make_unique<TemporaryHome>();
        m_service = std::make_unique<FakeHttpServer>();
    }

    void cleanup()
    {
        m_service.reset();
        m_home.reset();
    }

    void askRunsATurnWithTwoToolRounds()
    {
        m_service->on("GET", QStringLiteral("/w/rest.php/v1/search/page"),
                      Reply::json(QJsonObject{{QStringLiteral("pages"), QJsonArray{QJsonObject{{QStringLiteral("title"), QStringLiteral("Iași")}}}}}));
        m_service->on("GET", QStringLiteral("/pagina"), Reply::text("<p>Iași are 270.000 de locuitori</p>", 200, "text/html"));
        const QString page = m_service->baseUrl() + QStringLiteral("/pagina");
        for (const QJsonObject &reply :
             {completion(QString(), {toolCall("1", "kelo_web_search", {{"query", "Iași"}}, Arguments::asObject)}),
              completion(QString(), {toolCall("2", "kelo_fetch_url", {{"url", page}}, Arguments::asObject)}),
              completion(QStringLiteral("Iașiul are circa 270.000 de locuitori."))})
            m_service->enqueue("POST", QStringLiteral("/chat/completions"), Reply::json(reply));

        const Run run = kelo({QStringLiteral("ask"), QStringLiteral("Câți"), QStringLiteral("locuitori are Iașiul?")});
        QCOMPARE(run.exitCode, 0);
        QCOMPARE(run.out, QStringLiteral("Iașiul are circa 270.000 de locuitori.\n"));
        QVERIFY2(run.err.contains(QStringLiteral("Caut pe internet…")), qPrintable(run.err));
        QVERIFY(run.err.contains(QStringLiteral("Citesc pagina…")));
        QCOMPARE(m_service->requests(QStringLiteral("/chat/completions")).first().json()[QStringLiteral("messages")][2][QStringLiteral("content")].toString(),
                 QStringLiteral("Câți locuitori are Iașiul?"));

        // The memory file: a snapshot object with dates as seconds since 2001 and the three messages.
        QFile file(m_home->dataHome() + QStringLiteral("/Kelo/conversation-memory.json"));
        QVERIFY(file.open(QIODevice::ReadOnly));
        const QJsonObject snapshot = QJsonDocument::fromJson(file.readAll()).object();
        QCOMPARE(snapshot.keys(), (QStringList{"messages", "summarizedUserCount", "summary", "updatedAt"}));
        QVERIFY(snapshot[QStringLiteral("updatedAt")].toDouble() > 7e8); // after 2023, in 2001-based seconds
        const QJsonArray messages = snapshot[QStringLiteral("messages")].toArray();
        QCOMPARE(messages.size(), 3);
        QCOMPARE(messages.at(1)[QStringLiteral("role")].toString(), QStringLiteral("user"));
        QCOMPARE(messages.at(2)[QStringLiteral("text")].toString(), QStringLiteral("Iașiul are circa 270.000 de locuitori."));
        QVERIFY(messages.at(2)[QStringLiteral("createdAt")].isDouble());
    }

    void askExitCodesTellFailureFromUsage()
    {
        m_service->on("POST", QStringLiteral("/chat/completions"), Reply::text("", 500));
        const Run failed = kelo({QStringLiteral("ask"), QStringLiteral("salut")});
        QCOMPARE(failed.exitCode, 1);
        QCOMPARE(failed.out, QStringLiteral("Nu am putut termina răspunsul: internal server error\n"));

        const Run noKey = kelo({QStringLiteral("ask"), QStringLiteral("salut")}, {}, QString());
        QCOMPARE(noKey.exitCode, 1);
        QCOMPARE(noKey.out, QStringLiteral("Adaugă cheia OpenCode Zen în Setări\n"));

        QCOMPARE(kelo({QStringLiteral("ask")}).exitCode, 2);
        QCOMPARE(kelo({QStringLiteral("ask"), QStringLiteral("--bogus"), QStringLiteral("x")}).exitCode, 2);
        QCOMPARE(kelo({QStringLiteral("nicio-comanda")}).exitCode, 2);
        QCOMPARE(kelo({}).exitCode, 2);
    }

    void askReadsStdinAndStartsNewConversations()
    {
        m_service->on("POST", QStringLiteral("/chat/completions"), Reply::json(completion(QStringLiteral("da"))));
        QCOMPARE(kelo({QStringLiteral("ask"), QStringLiteral("primul")}).exitCode, 0);
        const Run run = kelo({QStringLiteral("ask"), QStringLiteral("--new"), QStringLiteral("-")}, "rând unu\nrând doi\n");
        QCOMPARE(run.exitCode, 0);
        const QJsonArray sent = m_service->requests(QStringLiteral("/chat/completions")).last().json()[QStringLiteral("messages")].toArray();
        QCOMPARE(sent.size(), 3); // system, the new-conversation notice, the question
        QCOMPARE(sent.last()[QStringLiteral("content")].toString(), QStringLiteral("rând unu\nrând doi"));
    }

    void chatSessionFromAPipe()
    {
        m_service->on("POST", QStringLiteral("/chat/completions"), Reply::json(completion(QStringLiteral("Bună!"))));
        const Run run = kelo({QStringLiteral("chat")}, "salut\n/memory\n/new\n/quit\nnu se mai trimite\n");
        QCOMPARE(run.exitCode, 0);
        QVERIFY2(run.out.contains(QStringLiteral("Kelo: Bună!")), qPrintable(run.out));
        QVERIFY(run.out.contains(QStringLiteral("Memoria se construiește automat")));
        QVERIFY(run.out.contains(QStringLiteral("Conversație nouă.")));
        QCOMPARE(m_service->requestCount(QStringLiteral("/chat/completions")), 1);
    }

    void modelsAndKeyTest()
    {
        m_service->on("GET", QStringLiteral("/models"),
                      Reply::json(QJsonObject{{QStringLiteral("data"),
                                               QJsonArray{QJsonObject{{"id", "paid-1"}, {"name", "Plătit"}},
                                                          QJsonObject{{"id", "free-1"}, {"name", "Gratuit"}, {"free", true}}}}}));
        const Run models = kelo({QStringLiteral("models")});
        QCOMPARE(models.exitCode, 0);
        QCOMPARE(models.out, QStringLiteral("big-pickle\tBig Pickle\tFREE\nfree-1\tGratuit\tFREE\npaid-1\tPlătit\n"));

        const Run key = kelo({QStringLiteral("test-key")});
        QCOMPARE(key.exitCode, 0);
        QVERIFY(key.out.startsWith(QStringLiteral("Conectat")));

        m_service->on("GET", QStringLiteral("/models"), Reply::json(QJsonObject{{"message", "cheie invalidă"}}, 401));
        const Run badKey = kelo({QStringLiteral("test-key")});
        QCOMPARE(badKey.exitCode, 1);
        QVERIFY2(badKey.out.contains(QStringLiteral("cheie invalidă")), qPrintable(badKey.out));
        QCOMPARE(kelo({QStringLiteral("models")}).exitCode, 1);
    }

    void configReadsAndWritesEverySetting()
    {
        QCOMPARE(kelo({"config", "set", "personality", "Echilibrat"}).exitCode, 2);
        QCOMPARE(kelo({"config", "set", "responseLength", "Echilibrat"}).exitCode, 0);
        QCOMPARE(kelo({"config", "set", "internetEnabled", "false"}).exitCode, 0);
        QCOMPARE(kelo({"config", "set", "voiceRate", "0,48"}).exitCode, 0);
        QCOMPARE(kelo({"config", "set", "autoSpeak", "poate"}).exitCode, 2);
        QCOMPARE(kelo({"config", "set", "mcpServers", "[]"}).exitCode, 2);
        QCOMPARE(kelo({"config", "get", "necunoscut"}).exitCode, 2);

        QCOMPARE(kelo({"config", "get", "responseLength"}).out, QStringLiteral("Echilibrat\n"));
        QCOMPARE(kelo({"config", "get", "internetEnabled"}).out, QStringLiteral("false\n"));
        QCOMPARE(kelo({"config", "get", "voiceRate"}).out, QStringLiteral("0.48\n"));

        QCOMPARE(kelo({"config", "set", "elevenAPIKey", "sk-secret-1234"}).exitCode, 0);
        const Run list = kelo({"config", "list"});
        QVERIFY(list.out.contains(QStringLiteral("elevenAPIKey = ••••1234")));
        QVERIFY(!list.out.contains(QStringLiteral("sk-secret")));
        QVERIFY(list.out.contains(QStringLiteral("zenModelID = big-pickle")));
        QVERIFY(list.out.contains(QStringLiteral("mcpServers = []")));
        QCOMPARE(kelo({"config", "get", "elevenAPIKey", "--show-secrets"}).out, QStringLiteral("sk-secret-1234\n"));
        QCOMPARE(kelo({"config", "set", "elevenAPIKey", ""}).exitCode, 0);
    }

    void helpAndVersion()
    {
        const Run help = kelo({QStringLiteral("--help")});
        QCOMPARE(help.exitCode, 0);
        for (const char *command : {"ask", "chat", "models", "test-key", "config", "memory"})
            QVERIFY2(help.out.contains(QLatin1String(command)), command);
        QCOMPARE(kelo({QStringLiteral("ask"), QStringLiteral("--help")}).exitCode, 0);
        QVERIFY(kelo({QStringLiteral("--version")}).out.startsWith(QStringLiteral("kelo ")));
    }
};

QTEST_GUILESS_MAIN(CliTest)
#include "CliTest.moc"
