#include "ChatCompletionReplies.h"
#include "FakeHttpServer.h"
#include "KeloProcess.h"
#include "TemporaryHome.h"

#ifdef KELO_WITH_WHISPER
#include "RandomWhisperModel.h"
#endif

#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QTest>

using Reply = FakeHttpServer::Reply;
using ChatCompletionReplies::Arguments;
using ChatCompletionReplies::completion;
using ChatCompletionReplies::toolCall;

using Run = KeloProcess::Result;

// The `kelo` executable as a user runs it: output streams, exit codes and files on disk.
class CliTest : public QObject
{
    Q_OBJECT

    std::unique_ptr<TemporaryHome> m_home;
    std::unique_ptr<FakeHttpServer> m_service;

    // The server lives in this process, so the event loop must keep running while kelo works.
    Run kelo(const QStringList &arguments, const QByteArray &input = {}, const QString &key = "cheie")
    {
        return KeloProcess::run(QStringLiteral(KELO_CLI_PATH), arguments,
            { { { QStringLiteral("KELO_ZEN_BASE_URL"), m_service->baseUrl() },
                  { QStringLiteral("KELO_WIKIPEDIA_BASE_URL"), m_service->baseUrl() },
                  { QStringLiteral("KELO_ZEN_API_KEY"), key },
                  // The pages of these tests live on loopback, which the page reader refuses by default.
                  { QStringLiteral("KELO_FETCH_ALLOW_PRIVATE"), QStringLiteral("1") } },
                input });
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
        m_service->on("GET", "/w/rest.php/v1/search/page",
            Reply::json(QJsonObject { { "pages", QJsonArray { QJsonObject { { "title", "Iași" } } } } }));
        m_service->on("GET", "/pagina", Reply::text("<p>Iași are 270.000 de locuitori</p>", 200, "text/html"));
        const QString page = m_service->baseUrl() + QStringLiteral("/pagina");
        for (const QJsonObject &reply :
            { completion(QString(), { toolCall("1", "kelo_web_search", { { "query", "Iași" } }, Arguments::asObject) }),
                completion(QString(), { toolCall("2", "kelo_fetch_url", { { "url", page } }, Arguments::asObject) }),
                completion(QStringLiteral("Iașiul are circa 270.000 de locuitori.")) })
            m_service->enqueue("POST", "/chat/completions", Reply::json(reply));

        const Run run = kelo({ "ask", "Câți", "locuitori are Iașiul?" });
        QCOMPARE(run.exitCode, 0);
        QCOMPARE(run.out, QStringLiteral("Iașiul are circa 270.000 de locuitori.\n"));
        QVERIFY2(run.err.contains("Caut pe internet…"), qPrintable(run.err));
        QVERIFY(run.err.contains("Citesc pagina…"));
        QCOMPARE(m_service->requests("/chat/completions")
                     .first()
                     .json()[QStringLiteral("messages")][2][QStringLiteral("content")]
                     .toString(),
            QStringLiteral("Câți locuitori are Iașiul?"));

        // The memory file: a snapshot object with dates as seconds since 2001 and the three messages.
        QFile file(m_home->dataHome() + QStringLiteral("/Kelo/conversation-memory.json"));
        QVERIFY(file.open(QIODevice::ReadOnly));
        const QJsonObject snapshot = QJsonDocument::fromJson(file.readAll()).object();
        QCOMPARE(snapshot.keys(), (QStringList { "messages", "summarizedUserCount", "summary", "updatedAt" }));
        QVERIFY(snapshot[QStringLiteral("updatedAt")].toDouble() > 7e8); // after 2023, in 2001-based seconds
        const QJsonArray messages = snapshot[QStringLiteral("messages")].toArray();
        QCOMPARE(messages.size(), 3);
        QCOMPARE(messages.at(1)[QStringLiteral("role")].toString(), QStringLiteral("user"));
        QCOMPARE(messages.at(2)[QStringLiteral("text")].toString(),
            QStringLiteral("Iașiul are circa 270.000 de locuitori."));
        QVERIFY(messages.at(2)[QStringLiteral("createdAt")].isDouble());
    }

    void exitCodesTellFailureFromUsageAndHelp()
    {
        m_service->on("POST", "/chat/completions", Reply::text("", 500));
        const Run failed = kelo({ "ask", "salut" });
        QCOMPARE(failed.exitCode, 1);
        QCOMPARE(failed.out, QStringLiteral("Nu am putut termina răspunsul: internal server error\n"));

        // What arrived of the answer stays on stdout; the failure follows on its own line.
        Reply dropped = Reply::eventStreamChunks(ChatCompletionReplies::streamedCompletion({ "Început." }).mid(0, 1));
        dropped.dropAfterChunks = true;
        m_service->on("POST", "/chat/completions", dropped);
        const Run cut = kelo({ "ask", "salut" });
        QCOMPARE(cut.exitCode, 1);
        QVERIFY2(cut.out.startsWith(QStringLiteral("Început.\nNu am putut termina răspunsul: ")), qPrintable(cut.out));
        QCOMPARE(cut.out.count(QLatin1Char('\n')), 2);

        const Run noKey = kelo({ "ask", "salut" }, {}, QString());
        QCOMPARE(noKey.exitCode, 1);
        QCOMPARE(noKey.out, QStringLiteral("Adaugă cheia OpenCode Zen în Setări\n"));

        QCOMPARE(kelo({ "ask" }).exitCode, 2);
        QCOMPARE(kelo({ "ask", "--bogus", "x" }).exitCode, 2);
        const Run extra = kelo({ "chat", "--speak", "în", "plus" });
        QCOMPARE(extra.exitCode, 2);
        QCOMPARE(extra.lastErrorLine(), QStringLiteral("Argument neașteptat: în"));
        QCOMPARE(kelo({ "nicio-comanda" }).exitCode, 2);
        QCOMPARE(kelo({}).exitCode, 2);

        const Run help = kelo({ "--help" });
        QCOMPARE(help.exitCode, 0);
        for (const char *command : { "ask", "chat", "models", "test-key", "config", "memory" })
            QVERIFY2(help.out.contains(QLatin1String(command)), command);
        QCOMPARE(kelo({ "ask", "--help" }).exitCode, 0);
        QVERIFY(kelo({ "--version" }).out.startsWith("kelo "));
    }

    // Options end where the text begins, so a question may contain "-h"; "--" ends them explicitly.
    void optionsEndWhereTheTextBegins()
    {
        m_service->on("POST", "/chat/completions", Reply::json(completion("da")));
        const auto lastQuestion = [this] {
            return m_service->requests("/chat/completions")
                .last()
                .json()[QStringLiteral("messages")]
                .toArray()
                .last()[QStringLiteral("content")]
                .toString();
        };
        QCOMPARE(kelo({ "ask", "--", "-h", "este", "o", "opțiune?" }).exitCode, 0);
        QCOMPARE(lastQuestion(), QStringLiteral("-h este o opțiune?"));
        const Run inside = kelo({ "ask", "--new", "ce", "fac", "-h", "și", "--new?" });
        QCOMPARE(inside.exitCode, 0);
        QCOMPARE(inside.out, QStringLiteral("da\n"));
        QCOMPARE(lastQuestion(), QStringLiteral("ce fac -h și --new?"));

        const Run help = kelo({ "ask", "--new", "-h", "întrebare" });
        QCOMPARE(help.exitCode, 0);
        QVERIFY2(help.out.startsWith(QStringLiteral("Utilizare: kelo ask")), qPrintable(help.out));
        QCOMPARE(m_service->requestCount("/chat/completions"), 2);

        // `say` reads its text the same way: here it tries to speak "Salut -h" and lacks the key.
        const Run said = kelo({ "say", "--engine", "google", "Salut", "-h" });
        QCOMPARE(said.exitCode, 1);
        QCOMPARE(said.lastErrorLine(), QStringLiteral("Introdu cheia Google Cloud Text-to-Speech."));
        QCOMPARE(kelo({ "say", "--engine", "google", "--", "-h" }).exitCode, 1);

        // "-" reads the question from stdin; --new starts with the app's notice only.
        QCOMPARE(kelo({ "ask", "--new", "-" }, "rând unu\nrând doi\n").exitCode, 0);
        const QJsonArray sent
            = m_service->requests("/chat/completions").last().json()[QStringLiteral("messages")].toArray();
        QCOMPARE(sent.size(), 3);
        QCOMPARE(lastQuestion(), QStringLiteral("rând unu\nrând doi"));
    }

    void chatSessionFromAPipe()
    {
        m_service->on("POST", "/chat/completions", Reply::json(completion("Bună!")));
        const Run run = kelo({ "chat" }, "salut\n/memory\n/new\n/quit\nnu se mai trimite\n");
        QCOMPARE(run.exitCode, 0);
        QVERIFY2(run.out.contains("Kelo: Bună!"), qPrintable(run.out));
        QVERIFY(run.out.contains("Memoria se construiește automat"));
        QVERIFY(run.out.contains("Conversație nouă."));
        QCOMPARE(m_service->requestCount("/chat/completions"), 1);

        // Push-to-talk without a recognition model says why and the session goes on.
        const Run talk = kelo({ "chat" }, "/talk\n\nsalut\n");
        QCOMPARE(talk.exitCode, 0);
        QVERIFY2(
            talk.err.contains("Recunoașterea vocală în română nu este disponibilă momentan."), qPrintable(talk.err));
        QCOMPARE(m_service->requestCount("/chat/completions"), 2);
    }

    void modelsAndKeyTest()
    {
        m_service->on("GET", "/models",
            Reply::json(QJsonObject { { "data",
                QJsonArray { QJsonObject { { "id", "paid-1" }, { "name", "Plătit" } },
                    QJsonObject { { "id", "free-1" }, { "name", "Gratuit" }, { "free", true } } } } }));
        const Run models = kelo({ "models" });
        QCOMPARE(models.exitCode, 0);
        QCOMPARE(models.out, QStringLiteral("big-pickle\tBig Pickle\tFREE\nfree-1\tGratuit\tFREE\npaid-1\tPlătit\n"));

        const Run key = kelo({ "test-key" });
        QCOMPARE(key.exitCode, 0);
        QVERIFY(key.out.startsWith("Conectat"));

        m_service->on("GET", "/models", Reply::json(QJsonObject { { "message", "cheie invalidă" } }, 401));
        const Run badKey = kelo({ "test-key" });
        QCOMPARE(badKey.exitCode, 1);
        QVERIFY2(badKey.out.contains("cheie invalidă"), qPrintable(badKey.out));
        QCOMPARE(kelo({ "models" }).exitCode, 1);
    }

    // One line per check, each OK or what to do; a damaged model and a server that wants a new
    // authorisation are named, the disabled server is not asked, and no token is printed.
    void doctorSaysWhatIsMissingAndWhatToDo()
    {
#ifdef KELO_WITH_WHISPER
        const QString models = m_home->dataHome() + QStringLiteral("/Kelo/models");
        QVERIFY(QDir().mkpath(models));
        RandomWhisperModel::write(models + QStringLiteral("/ggml-base.bin"), RandomWhisperModel::tiny());
#endif
        FakeHttpServer locked;
        locked.on("POST", "/mcp", Reply::text("", 401));
        QCOMPARE(kelo({ "mcp", "add", "Închis", locked.baseUrl() + "/mcp", "--token", "token-vechi" }).exitCode, 0);
        QCOMPARE(kelo({ "mcp", "add", "Oprit", m_service->baseUrl() + "/oprit" }).exitCode, 0);
        QCOMPARE(kelo({ "mcp", "disable", "Oprit" }).exitCode, 0);
        QCOMPARE(kelo({ "config", "set", "voiceEngine", "Google Cloud TTS" }).exitCode, 0);

        const Run run = kelo({ "doctor" }, {}, QString());
        QCOMPARE(run.exitCode, 1);
        const QStringList lines = run.out.section(QStringLiteral("\n\n"), 0, 0).split(QLatin1Char('\n'));
        for (const QString &line : lines)
            QVERIFY2(
                line.startsWith(QLatin1String("OK  ")) || line.startsWith(QLatin1String("!!  ")), qPrintable(line));
        QVERIFY2(run.out.contains(QStringLiteral("!!  Cheia OpenCode Zen: lipsește. Salveaz-o cu „kelo config set "
                                                 "zenAPIKey CHEIA”")),
            qPrintable(run.out));
        QVERIFY(run.out.contains(QStringLiteral("!!  Cheia vocii Google Cloud TTS: lipsește. Salveaz-o cu „kelo "
                                                "config set googleTTSAPIKey CHEIA”")));
        QVERIFY(run.out.contains(QStringLiteral("OK  speech-dispatcher și vocea română: nefolosit")));
#ifdef KELO_WITH_WHISPER
        QVERIFY(run.out.contains(QStringLiteral("!!  Modelul de recunoaștere vocală: ggml-base.bin nu are suma "
                                                "SHA-1 publicată")));
        QVERIFY(run.out.contains(QStringLiteral("„kelo model download base”")));
#endif
        QVERIFY(run.out.contains(QStringLiteral("!!  Serverul MCP „Închis”: cere autorizare")));
        QVERIFY(!run.out.contains(QStringLiteral("Oprit")));
        QCOMPARE(m_service->requestCount(QStringLiteral("/oprit")), 0);
        QVERIFY(!run.out.contains(QStringLiteral("token-vechi")));
        QVERIFY(run.out.endsWith(QStringLiteral("rezolvi liniile marcate cu „!!” de mai sus.\n")));

        m_service->on("GET", "/models", Reply::json(QJsonObject { { "data", QJsonArray() } }));
        const Run live = kelo({ "doctor", "--live" });
        QVERIFY2(live.out.contains(QStringLiteral("OK  Cheia OpenCode Zen: Conectat")), qPrintable(live.out));
        QCOMPARE(m_service->requestCount(QStringLiteral("/models")), 1);
    }

    // Bad values are refused with the reason and change nothing; good ones read back as stored.
    void configReadsWritesAndRefuses()
    {
        const QList<std::pair<QStringList, QString>> refused {
            { { "personality", "Echilibrat" }, {} },
            { { "autoSpeak", "poate" }, {} },
            { { "mcpServers", "[]" }, {} },
            { { "zenAPIKey", "a\r\nX: y" }, QStringLiteral("caractere de control") },
            { { "voiceRate", "nan" }, QStringLiteral("între 0.4 și 0.52") },
            { { "voiceRate", "-5" }, QStringLiteral("între 0.4 și 0.52") },
        };
        for (const auto &[arguments, reason] : refused) {
            const Run run = kelo(QStringList { "config", "set" } + arguments);
            QVERIFY2(run.exitCode != 0, qPrintable(arguments.join(' ')));
            QVERIFY2(run.lastErrorLine().contains(reason), qPrintable(run.err));
        }
        QCOMPARE(kelo({ "config", "get", "zenAPIKey", "--show-secrets" }, {}, QString()).out, QStringLiteral("\n"));
        QCOMPARE(kelo({ "config", "get", "voiceRate" }).out, QStringLiteral("0.45\n"));
        QCOMPARE(kelo({ "config", "get", "necunoscut" }).exitCode, 2);

        QCOMPARE(kelo({ "config", "set", "responseLength", "Echilibrat" }).exitCode, 0);
        QCOMPARE(kelo({ "config", "set", "internetEnabled", "false" }).exitCode, 0);
        QCOMPARE(kelo({ "config", "set", "voiceRate", "0,48" }).exitCode, 0);

        QCOMPARE(kelo({ "config", "get", "responseLength" }).out, QStringLiteral("Echilibrat\n"));
        QCOMPARE(kelo({ "config", "get", "internetEnabled" }).out, QStringLiteral("false\n"));
        QCOMPARE(kelo({ "config", "get", "voiceRate" }).out, QStringLiteral("0.48\n"));

        QCOMPARE(kelo({ "config", "set", "elevenAPIKey", "sk-secret-1234" }).exitCode, 0);
        const Run list = kelo({ "config", "list" });
        QVERIFY(list.out.contains("elevenAPIKey = ••••1234"));
        QVERIFY(!list.out.contains("sk-secret"));
        QVERIFY(list.out.contains("zenModelID = big-pickle"));
        QVERIFY(list.out.contains("mcpServers = []"));
        QCOMPARE(kelo({ "config", "get", "elevenAPIKey", "--show-secrets" }).out, QStringLiteral("sk-secret-1234\n"));
        QCOMPARE(kelo({ "config", "set", "elevenAPIKey", "" }).exitCode, 0);
    }
};

QTEST_GUILESS_MAIN(CliTest)
#include "CliTest.moc"
