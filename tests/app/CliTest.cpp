#include "../settings/SettingsTestSupport.h"
#include "AsyncTest.h"
#include "ChatCompletionReplies.h"
#include "FakeHttpServer.h"
#include "KeloProcess.h"
#include "TemporaryHome.h"
#include "VoiceTestSupport.h"
#include "conversation/ConversationMemoryStore.h"

#ifdef KELO_WITH_WHISPER
#include "RandomWhisperModel.h"
#include "VoiceSamples.h"
#endif

#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QProcess>
#include <QRandomGenerator>
#include <QSettings>
#include <QTest>

using Reply = FakeHttpServer::Reply;
using ChatCompletionReplies::Arguments;
using ChatCompletionReplies::completion;
using ChatCompletionReplies::toolCall;

using Run = KeloProcess::Result;
using Args = QStringList;

using SettingsTestSupport::contents;
using SettingsTestSupport::writeFile;

namespace {

// Runs a command with the config and data homes copied onto a 1 MiB tmpfs (user and mount namespace:
// no privileges) filled wholly or by that many KiB, then copies back what it left; "readonly" mounts
// the config home read-only over itself instead.
const char *const diskScript = R"(
set -e
mode="$1"; home="$2"; fill="$3"; disk="$2/disk"; shift 3
mkdir -p "$home/config" "$home/data" "$disk"
if [ "$mode" = readonly ]; then
    mount --bind "$home/config" "$home/config"; mount -o remount,bind,ro "$home/config"; exec "$@"
fi
mount -t tmpfs -o size=1m kelo-full "$disk"; cp -a "$home/config" "$home/data" "$disk/"
if [ "$fill" = all ]; then dd if=/dev/zero of="$disk/fill" bs=1k 2>/dev/null || true
else dd if=/dev/zero of="$disk/fill" bs=1k count="$fill" 2>/dev/null; fi
set +e
XDG_CONFIG_HOME="$disk/config" XDG_DATA_HOME="$disk/data" "$@"
code=$?
rm -rf "$disk/fill" "$home/config" "$home/data"; cp -a "$disk/config" "$disk/data" "$home/"
exit $code
)";

} // namespace

// The `kelo` executable as a user runs it: output streams, exit codes, sound, and the files on disk,
// which survive kills and full or read-only disks.
class CliTest : public QObject
{
    Q_OBJECT

    std::unique_ptr<TemporaryHome> m_home;
    std::unique_ptr<FakeHttpServer> m_service;

    QList<QPair<QString, QString>> environment(const QString &key = "cheie") const
    {
        // The pages of these tests live on loopback, which the page reader refuses by default.
        QList<QPair<QString, QString>> variables { { "KELO_ZEN_API_KEY", key }, { "KELO_FETCH_ALLOW_PRIVATE", "1" } };
        for (const char *service : { "ZEN", "WIKIPEDIA", "GOOGLE_TTS", "AZURE_TTS", "ELEVENLABS", "WHISPER_MODEL" })
            variables.append({ QStringLiteral("KELO_%1_BASE_URL").arg(service), m_service->baseUrl() });
        return variables;
    }

    Run kelo(const QStringList &arguments, const QByteArray &input = {}, const QString &key = "cheie")
    {
        return KeloProcess::run(QStringLiteral(KELO_CLI_PATH), arguments, { environment(key), input });
    }

    Run keloOnDisk(const QString &mode, const QString &fill, const QStringList &arguments, const QByteArray &input = {})
    {
        return KeloProcess::run(QStringLiteral("unshare"),
            QStringList { "-rm", "sh", "-c", diskScript, "sh", mode, m_home->path(), fill, KELO_CLI_PATH } + arguments,
            { environment(), input });
    }

    QString memoryFile() const { return m_home->dataHome() + QStringLiteral("/Kelo/conversation-memory.json"); }
    QString settingsFile() const { return SettingsTestSupport::settingsPath(*m_home); }
    QString secretsFile() const { return SettingsTestSupport::secretsPath(*m_home); }

    // A conversation, a changed setting, a secret in the fallback file and an MCP server.
    void seedEveryFile()
    {
        QCOMPARE(kelo({ "ask", "primul" }).exitCode, 0);
        QCOMPARE(kelo({ "config", "set", "customPrompt", "vechi" }).exitCode, 0);
        QCOMPARE(kelo({ "config", "set", "elevenAPIKey", "sk-vechi-1234" }).exitCode, 0);
        QCOMPARE(kelo({ "mcp", "add", "Vechi", "http://127.0.0.1:9/mcp" }).exitCode, 0);
    }

    // Messages the app reads back, or -1 when the file could not be read whole.
    int readableMessages() const
    {
        const ConversationMemoryStore memory(m_home->dataHome() + QStringLiteral("/Kelo"), nullptr);
        return memory.recoveredCopyPath().isEmpty() ? int(memory.messages().size()) : -1;
    }

    // The user's words in a model request: the last message it sent.
    QString question(qsizetype index = -1) const
    {
        const auto sent = m_service->requests("/chat/completions");
        return sent.at(index < 0 ? sent.size() - 1 : index).json()["messages"].toArray().last()["content"].toString();
    }

private Q_SLOTS:
    void init()
    {
        m_home = std::make_unique<TemporaryHome>();
        m_service = std::make_unique<FakeHttpServer>();
        m_service->on("POST", "/chat/completions", Reply::json(completion("da")));
    }

    void cleanup()
    {
        m_service.reset();
        m_home.reset();
    }

    // A turn with two tool rounds; what arrived of a failed answer stays on stdout and the failure
    // follows on its own line.
    void askRunsTurnsAndSaysWhyOneFailed()
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
        QCOMPARE(question(0), QStringLiteral("Câți locuitori are Iașiul?"));

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
    }

    // Usage errors and refused values exit with 2, what cannot be done with 1; the reason is on stderr,
    // nothing reaches a service and a refused setting keeps its old value.
    void refusedCommands_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<int>("exitCode");
        QTest::addColumn<QString>("reason");
        QTest::newRow("no command") << Args {} << 2 << "Utilizare: kelo";
        QTest::newRow("unknown command") << Args { "nicio-comanda" } << 2 << "Comandă necunoscută: nicio-comanda";
        QTest::newRow("ask without text") << Args { "ask" } << 2 << "";
        QTest::newRow("unknown option") << Args { "ask", "--bogus", "x" } << 2 << "Opțiune necunoscută: --bogus";
        QTest::newRow("chat with text") << Args { "chat", "--speak", "în" } << 2 << "Argument neașteptat: în";
        QTest::newRow("unknown setting") << Args { "config", "get", "necunoscut" } << 2 << "necunoscut";
        QTest::newRow("personality") << Args { "config", "set", "personality", "Echilibrat" } << 2 << "Valoare";
        QTest::newRow("not a boolean") << Args { "config", "set", "autoSpeak", "poate" } << 2
                                       << "acceptă true sau false";
        QTest::newRow("server list") << Args { "config", "set", "mcpServers", "[]" } << 2 << "kelo mcp";
        QTest::newRow("header injection") << Args { "config", "set", "zenAPIKey", "a\r\nX: y" } << 2 << "control";
        QTest::newRow("rate nan") << Args { "config", "set", "voiceRate", "nan" } << 2 << "între 0.4 și 0.52";
        // The text ends the options, so "-h" is spoken, and here the voice lacks its key.
        QTest::newRow("say -h in text") << Args { "say", "--engine", "google", "Salut", "-h" } << 1 << "Introdu cheia";
        QTest::newRow("say thoughts") << Args { "say", "<think>doar</think>" } << 1 << "nu conține nimic de rostit";
        QTest::newRow("unknown engine") << Args { "say", "--engine", "siri", "Salut" } << 2 << "siri";
        QTest::newRow("mcp bad url") << Args { "mcp", "add", "Rău", "nu e url" } << 2 << "un URL complet";
        QTest::newRow("mcp no token") << Args { "mcp", "add", "R", "http://r.ro", "--token" } << 2
                                      << "nevoie de o valoare";
        QTest::newRow("mcp unknown action") << Args { "mcp", "frobnicate" } << 2 << "Utilizare: kelo mcp";
        QTest::newRow("mcp remove nobody") << Args { "mcp", "remove", "Nimeni" } << 1 << "Nimeni";
        QTest::newRow("mcp connect nothing") << Args { "mcp", "connect", "nimic" } << 2 << "nimic";
        QTest::newRow("model without action") << Args { "model" } << 2 << "";
        QTest::newRow("unknown model size") << Args { "model", "download", "large-v9" } << 1 << "large-v9";
    }

    void refusedCommands()
    {
        QFETCH(QStringList, arguments);
        QFETCH(int, exitCode);
        QFETCH(QString, reason);
        const bool setting = arguments.value(1) == QLatin1String("set");
        const QString before = setting ? kelo({ "config", "list", "--show-secrets" }).out : QString();
        const Run run = kelo(arguments);
        QCOMPARE(run.exitCode, exitCode);
        QVERIFY2(run.err.contains(reason), qPrintable(run.err));
        QVERIFY(run.out.isEmpty());
        QCOMPARE(m_service->requests().size(), 0);
        if (setting)
            QCOMPARE(kelo({ "config", "list", "--show-secrets" }).out, before);
    }

    // Options end where the text begins, so a question may contain "-h"; "--" ends them explicitly.
    // A piped chat runs its commands and stops at /quit.
    void optionsAndPipedInput()
    {
        QCOMPARE(kelo({ "ask", "--", "-h", "este", "o", "opțiune?" }).exitCode, 0);
        QCOMPARE(question(), QStringLiteral("-h este o opțiune?"));
        const Run inside = kelo({ "ask", "--new", "ce", "fac", "-h", "și", "--new?" });
        QCOMPARE(inside.exitCode, 0);
        QCOMPARE(inside.out, QStringLiteral("da\n"));
        QCOMPARE(question(), QStringLiteral("ce fac -h și --new?"));

        const Run help = kelo({ "ask", "--new", "-h", "întrebare" });
        QCOMPARE(help.exitCode, 0);
        QVERIFY2(help.out.startsWith(QStringLiteral("Utilizare: kelo ask")), qPrintable(help.out));
        QCOMPARE(m_service->requestCount("/chat/completions"), 2);
        QVERIFY(kelo({ "--version" }).out.startsWith("kelo "));

        // "-" reads the question from stdin; --new starts with the app's notice only.
        QCOMPARE(kelo({ "ask", "--new", "-" }, "rând unu\nrând doi\n").exitCode, 0);
        QCOMPARE(m_service->requests("/chat/completions").last().json()["messages"].toArray().size(), 3);
        QCOMPARE(question(), QStringLiteral("rând unu\nrând doi"));

        m_service->clearRequests();
        m_service->on("POST", "/chat/completions", Reply::json(completion("Bună!")));
        const Run run = kelo({ "chat" }, "salut\n/memory\n/new\n/quit\nnu se mai trimite\n");
        QCOMPARE(run.exitCode, 0);
        QVERIFY2(run.out.contains("Kelo: Bună!"), qPrintable(run.out));
        QVERIFY(run.out.contains("Memoria se construiește automat") && run.out.contains("Conversație nouă."));
        QCOMPARE(m_service->requestCount("/chat/completions"), 1);

        // Push-to-talk without a recognition model says why and the session goes on.
        const Run talk = kelo({ "chat" }, "/talk\n\nsalut\n");
        QCOMPARE(talk.exitCode, 0);
        QVERIFY2(
            talk.err.contains("Recunoașterea vocală în română nu este disponibilă momentan."), qPrintable(talk.err));
        QCOMPARE(m_service->requestCount("/chat/completions"), 2);
    }

    void servicesListTheirModelsAndVoices()
    {
        m_service->on("GET", "/models",
            Reply::json(
                QJsonObject { { "data", QJsonArray { QJsonObject { { "id", "paid-1" }, { "name", "Plătit" } } } } }));
        const Run models = kelo({ "models" });
        QCOMPARE(models.exitCode, 0);
        QCOMPARE(models.out, QStringLiteral("big-pickle\tBig Pickle\tFREE\npaid-1\tPlătit\n"));
        QCOMPARE(kelo({ "test-key" }).exitCode, 0);
        m_service->on("GET", "/models", Reply::json(QJsonObject { { "message", "cheie invalidă" } }, 401));
        const Run badKey = kelo({ "test-key" });
        QCOMPARE(badKey.exitCode, 1);
        QVERIFY2(badKey.out.contains("cheie invalidă"), qPrintable(badKey.out));
        QCOMPARE(kelo({ "models" }).exitCode, 1);

        // The Romanian voices of a cloud engine, and what a refusing voice service says.
        const QJsonObject voice { { "languageCodes", QJsonArray { "ro-RO" } }, { "name", "ro-RO-Wavenet-B" },
            { "ssmlGender", "MALE" } };
        m_service->on("GET", "/v1/voices", Reply::json(QJsonObject { { "voices", QJsonArray { voice } } }));
        QCOMPARE(kelo({ "config", "set", "googleTTSAPIKey", "g-cheie" }).exitCode, 0);
        const Run run = kelo({ "voices", "--engine", "google" });
        QCOMPARE(run.exitCode, 0);
        QCOMPARE(run.out, QStringLiteral("ro-RO-Wavenet-B\tro-RO-Wavenet-B\tmasculină\tWavenet\n"));
        QCOMPARE(m_service->requests().last().query.queryItemValue("key"), QStringLiteral("g-cheie"));

        m_service->on("GET", "/v1/voices", Reply::text("{\"error\":\"denied\"}", 403));
        const Run refused = kelo({ "voices", "--engine", "google" });
        QCOMPARE(refused.exitCode, 1);
        QCOMPARE(refused.lastErrorLine(), QStringLiteral("{\"error\":\"denied\"}"));
    }

    // `say` returns once the clip was heard; `ask --speak` speaks only with "Răspunde cu voce" on.
    void sayWaitsForThePlaybackAndAskSpeaksOnlyWhenAsked()
    {
        KELO_REQUIRE_AUDIO();
        const QString answer = QStringLiteral("Coloana infinitului este la Târgu Jiu.");
        const QByteArray mp3 = VoiceTestSupport::makeSpeechMp3(answer);
        if (mp3.isEmpty())
            QSKIP("espeak-ng and lame are needed to make test audio");
        const QString speech = QStringLiteral("/v1/text-to-speech/v1");
        const auto spokenText = [&] { return m_service->requests(speech).last().json()["text"].toString(); };
        m_service->on("POST", "/chat/completions", Reply::json(completion(answer)));
        m_service->on("POST", speech, Reply::text(mp3, 200, "audio/mpeg"));
        QCOMPARE(kelo({ "config", "set", "elevenAPIKey", "cheie" }).exitCode, 0);
        QCOMPARE(kelo({ "config", "set", "elevenVoiceID", "v1" }).exitCode, 0);

        const Run said = kelo({ "say", "--engine", "elevenlabs", "Bună", "ziua!" });
        QCOMPARE(said.exitCode, 0);
        // At most the warning about where secrets are kept.
        QVERIFY2(
            said.err.isEmpty() || (said.err.startsWith("Atenție") && said.err.count('\n') == 1), qPrintable(said.err));
        QCOMPARE(spokenText(), QStringLiteral("Bună ziua!"));
        QVERIFY2(said.elapsedMs > 1'500, qPrintable(QString::number(said.elapsedMs))); // the whole clip played

        QCOMPARE(kelo({ "config", "set", "voiceEngine", "ElevenLabs" }).exitCode, 0);
        QCOMPARE(kelo({ "ask", "Unde e Coloana?" }).exitCode, 0);
        QCOMPARE(m_service->requestCount(speech), 1);
        VoiceTestSupport::MonitorRecording recording;
        const Run spoken = kelo({ "ask", "--speak", "Unde e Coloana?" });
        const VoiceTestSupport::AudioLevels levels = VoiceTestSupport::measure(recording.stop());
        QCOMPARE(spoken.exitCode, 0);
        QCOMPARE(spoken.out, answer + QLatin1Char('\n'));
        QCOMPARE(spokenText(), answer);
        QVERIFY2(levels.audibleSeconds > 1.0, qPrintable(QString::number(levels.audibleSeconds)));
        QCOMPARE(kelo({ "config", "set", "autoSpeak", "false" }).exitCode, 0);
        QCOMPARE(kelo({ "ask", "--speak", "Din nou?" }).exitCode, 0);
        QCOMPARE(m_service->requestCount(speech), 2);
    }

#ifdef KELO_WITH_WHISPER
    // `listen` says why it cannot run, transcribes with a model given for one run only, and `model use`
    // checks the file before making it the choice.
    void listenAndRecognitionModels()
    {
        const QString model = m_home->path() + "/ggml-random.bin";
        RandomWhisperModel::write(model, RandomWhisperModel::tiny());
        const QString silence = m_home->path() + "/silence.wav";
        VoiceSamples::writeWav(silence, QVector<float>(16000, 0.0f), 16000, 1);
        const QList<std::pair<QStringList, const char *>> failures {
            { { "listen", "--file", silence }, "Recunoașterea vocală în română nu este disponibilă momentan." },
            { { "listen", "--file", silence, "--fast", "--model", model }, "Nu s-a auzit nimic" },
            { { "model", "use", m_home->path() }, "" },
        };
        for (const auto &[arguments, reason] : failures) {
            const Run run = kelo(arguments);
            QCOMPARE(run.exitCode, 1);
            QVERIFY2(run.out.isEmpty() && run.err.contains(QString::fromUtf8(reason)), qPrintable(run.err));
        }
        const QString spoken = VoiceSamples::speakRomanian(m_home->path(), QStringLiteral("Bună seara, Kelo."));
        if (!spoken.isEmpty()) {
            const Run run = kelo({ "listen", "--file", spoken, "--fast", "--model", model });
            QCOMPARE(run.exitCode, 0);
            QCOMPARE(run.out.split(QLatin1Char('\n'), Qt::SkipEmptyParts).size(), 1);
            QVERIFY(!kelo({ "model", "list" }).out.contains(model));
        }
        QCOMPARE(kelo({ "model", "use", model }).exitCode, 0);
        const Run list = kelo({ "model", "list" });
        QVERIFY2(list.out.contains("* " + model) && list.out.contains("base") && list.out.contains("small"),
            qPrintable(list.out));
    }
#endif

    // One line per check, each OK or what to do; a damaged model and a server that wants a new
    // authorisation are named, the disabled server is not asked, and no token is printed.
    void doctorSaysWhatIsMissingAndWhatToDo()
    {
#ifdef KELO_WITH_WHISPER
        QVERIFY(QDir().mkpath(m_home->dataHome() + "/Kelo/models"));
        RandomWhisperModel::write(m_home->dataHome() + "/Kelo/models/ggml-base.bin", RandomWhisperModel::tiny());
#endif
        FakeHttpServer locked;
        locked.on("POST", "/mcp", Reply::text("", 401));
        QCOMPARE(kelo({ "mcp", "add", "Închis", locked.baseUrl() + "/mcp", "--token", "token-vechi" }).exitCode, 0);
        QCOMPARE(kelo({ "mcp", "add", "Oprit", m_service->baseUrl() + "/oprit" }).exitCode, 0);
        QCOMPARE(kelo({ "mcp", "disable", "Oprit" }).exitCode, 0);
        QCOMPARE(kelo({ "config", "set", "voiceEngine", "Google Cloud TTS" }).exitCode, 0);

        const Run run = kelo({ "doctor" }, {}, QString());
        QCOMPARE(run.exitCode, 1);
        for (const QString &line : run.out.section("\n\n", 0, 0).split('\n'))
            QVERIFY2(line.startsWith("OK  ") || line.startsWith("!!  "), qPrintable(line));
        QStringList expected { "!!  Cheia OpenCode Zen: lipsește. Salveaz-o cu „kelo config set zenAPIKey CHEIA”",
            "!!  Cheia vocii Google Cloud TTS: lipsește. Salveaz-o cu „kelo config set googleTTSAPIKey CHEIA”",
            "OK  speech-dispatcher și vocea română: nefolosit", "!!  Serverul MCP „Închis”: cere autorizare" };
#ifdef KELO_WITH_WHISPER
        expected += { "!!  Modelul de recunoaștere vocală: ggml-base.bin nu are suma SHA-1 publicată",
            "„kelo model download base”" };
#endif
        for (const QString &line : expected)
            QVERIFY2(run.out.contains(line), qPrintable(line + "\n" + run.out));
        QVERIFY(!run.out.contains("Oprit") && !run.out.contains("token-vechi"));
        QCOMPARE(m_service->requestCount("/oprit"), 0);
        QVERIFY(run.out.endsWith("rezolvi liniile marcate cu „!!” de mai sus.\n"));

        m_service->on("GET", "/models", Reply::json(QJsonObject { { "data", QJsonArray() } }));
        const Run live = kelo({ "doctor", "--live" });
        QVERIFY2(live.out.contains(QStringLiteral("OK  Cheia OpenCode Zen: Conectat")),
            qPrintable(QString::number(live.exitCode) + '\n' + live.out + live.err));
        QCOMPARE(m_service->requestCount(QStringLiteral("/models")), 1);
    }

    // Good values read back as stored; secrets are masked unless asked for.
    void configReadsAndWrites()
    {
        QCOMPARE(kelo({ "config", "set", "voiceRate", "0,48" }).exitCode, 0);
        QCOMPARE(kelo({ "config", "get", "voiceRate" }).out, QStringLiteral("0.48\n"));
        QCOMPARE(kelo({ "config", "set", "elevenAPIKey", "sk-secret-1234" }).exitCode, 0);
        const Run list = kelo({ "config", "list" });
        for (const char *line : { "elevenAPIKey = ••••1234", "zenModelID = big-pickle", "mcpServers = []" })
            QVERIFY2(list.out.contains(QString::fromUtf8(line)), line);
        QVERIFY(!list.out.contains("sk-secret"));
        QCOMPARE(kelo({ "config", "get", "elevenAPIKey", "--show-secrets" }).out, QStringLiteral("sk-secret-1234\n"));
        QCOMPARE(kelo({ "config", "set", "elevenAPIKey", "" }).exitCode, 0);
        QCOMPARE(kelo({ "config", "get", "elevenAPIKey", "--show-secrets" }).out, QStringLiteral("\n"));
    }

    // Killed mid-write, every file is the old or the new whole content and the next run works.
    void killedAtRandomMomentsEveryFileStaysWhole()
    {
        seedEveryFile();
        // The quickest of three runs: a busy machine must not stretch every delay.
        qint64 typicalMs = std::numeric_limits<qint64>::max();
        for (int i = 0; i < 3; ++i)
            typicalMs = std::min(typicalMs, std::max<qint64>(kelo({ "ask", "cronometrat" }).elapsedMs, 40));

        QProcessEnvironment processEnvironment = QProcessEnvironment::systemEnvironment();
        for (const auto &[name, value] : environment())
            processEnvironment.insert(name, value);
        int messagesBefore = readableMessages();
        int kills = 0, round = 0;
        for (; kills < 60 && round < 300; ++round) {
            const bool ask = round % 3 != 2;
            // Without the flag the next start rewrites the settings file as well.
            if (ask)
                QSettings(settingsFile(), QSettings::IniFormat).remove("kelo.didRemoveLegacyLocalModels.v2");
            QProcess process;
            process.setProcessEnvironment(processEnvironment);
            const QString value = QStringLiteral("valoare-%1").arg(round);
            process.start(QStringLiteral(KELO_CLI_PATH),
                ask ? QStringList { "ask", "tura", value }
                    : QStringList { "config", "set", round % 2 ? "customPrompt" : "elevenAPIKey", value });
            QVERIFY(process.waitForStarted());
            // Mostly in the later part of a run, where its writes are.
            const int delayMs = int(typicalMs / 4 + QRandomGenerator::global()->bounded(typicalMs));
            const bool killed = !AsyncTest::waitUntil([&] { return process.state() == QProcess::NotRunning; }, delayMs);
            if (killed)
                process.kill();
            QVERIFY(!killed || process.waitForFinished(5'000));
            kills += killed;
            // Follow the machine's pace: earlier after a run that finished, later after a cut one.
            typicalMs = killed ? typicalMs * 21 / 20 : std::max<qint64>(typicalMs * 4 / 5, 20);

            const int messages = readableMessages();
            QVERIFY2(messages >= std::exchange(messagesBefore, messages),
                qPrintable(QStringLiteral("round %1: %2 messages").arg(round).arg(messages)));
            QSettings settings(settingsFile(), QSettings::IniFormat);
            QVERIFY2(settings.allKeys().contains(QStringLiteral("mcpServers")), qPrintable(contents(settingsFile())));
            QCOMPARE(settings.status(), QSettings::NoError);
            QVERIFY(settings.value(QStringLiteral("customPrompt")).toString().startsWith(QLatin1String("v")));
            const QJsonObject secrets = QJsonDocument::fromJson(contents(secretsFile())).object();
            QVERIFY2(secrets.value("ro.kelo.KeloCompanion")["elevenAPIKey"].toString().size() > 3,
                qPrintable(contents(secretsFile())));
            if (round % 10 == 9)
                QCOMPARE(kelo({ "ask", "după" }).exitCode, 0);
        }
        const Run after = kelo({ "ask", "la final" });
        QCOMPARE(after.exitCode, 0);
        QCOMPARE(after.out, QStringLiteral("da\n"));
        QVERIFY2(kills >= 50, qPrintable(QStringLiteral("%1 of %2 runs killed mid-way").arg(kills).arg(round)));
    }

    // On a full or read-only disk every save fails with the reason and leaves the old file whole; an
    // answer is still printed and a chat goes on.
    void aFullOrReadOnlyDiskKeepsEveryFile()
    {
        if (QProcess::execute(QStringLiteral("unshare"), { "-rm", "true" }) != 0)
            QSKIP("unshare -rm is not available: no private tmpfs or read-only mount can be made here");
        seedEveryFile();
        const QByteArray memory = contents(memoryFile());
        const QByteArray settings = contents(settingsFile());
        const QByteArray secrets = contents(secretsFile());
        QVERIFY(settings.contains("customPrompt=vechi") && settings.contains("Vechi") && secrets.contains("sk-vechi"));
        const QString noSpace = QStringLiteral("spațiu insuficient pe disc");

        const Run ask = keloOnDisk("full", "all", { "ask", "al doilea" });
        QCOMPARE(ask.out, QStringLiteral("da\n"));
        QCOMPARE(ask.exitCode, 1);
        QVERIFY2(ask.err.contains(noSpace), qPrintable(ask.err));
        QCOMPARE(QDir(m_home->dataHome() + "/Kelo").entryList(QDir::Files | QDir::Hidden).size(), 1);
        // The chat answers every line and says once that the memory is not being saved.
        const Run chat = keloOnDisk("full", "all", { "chat" }, "unu\ndoi\n");
        QCOMPARE(chat.out.count(QStringLiteral("Kelo: da")), 3); // the last message shown at start, two answers
        QCOMPARE(chat.err.count(noSpace), 1);
        QCOMPARE(chat.exitCode, 1);
        QCOMPARE(contents(memoryFile()), memory);

        for (const QStringList &command : { QStringList { "config", "set", "customPrompt", "nou" },
                 QStringList { "config", "set", "elevenAPIKey", "sk-nou-5678" },
                 QStringList { "mcp", "add", "Nou", "http://127.0.0.1:9/nou" },
                 QStringList { "mcp", "disable", "Vechi" }, QStringList { "mcp", "remove", "Vechi" } }) {
            const Run full = keloOnDisk("full", "all", command);
            QVERIFY2(full.exitCode == 1, qPrintable(command.join(' ')));
            QVERIFY2(full.lastErrorLine().contains(noSpace), qPrintable(full.err));
            QCOMPARE(contents(settingsFile()), settings);
            QCOMPARE(contents(secretsFile()), secrets);
        }
        const Run readOnly = keloOnDisk("readonly", "0", { "config", "set", "customPrompt", "nou" });
        QCOMPARE(readOnly.exitCode, 1);
        QVERIFY2(readOnly.lastErrorLine().contains("nu am permisiunea de a scrie"), qPrintable(readOnly.err));
        QCOMPARE(contents(settingsFile()), settings);

        // A model download that fills the disk leaves the installed model and no partial file.
        const QString installed = m_home->dataHome() + "/Kelo/models/ggml-tiny.bin";
        writeFile(installed, "model instalat înainte");
        m_service->on("GET", "/ggml-tiny.bin", Reply::text(QByteArray(2 << 20, 'w'), 200, "application/octet-stream"));
        const Run download = keloOnDisk("full", "600", { "model", "download", "tiny" });
        QCOMPARE(download.exitCode, 1);
        QVERIFY2(download.err.contains(noSpace), qPrintable(download.err));
        QCOMPARE(contents(installed), QByteArray("model instalat înainte"));
        QVERIFY(!QFile::exists(installed + ".part"));
        QCOMPARE(kelo({ "ask", "după" }).exitCode, 0);
        QCOMPARE(kelo({ "config", "get", "elevenAPIKey", "--show-secrets" }).out, QStringLiteral("sk-vechi-1234\n"));
    }

    // A damaged settings file is copied aside once, before the first rewrite; start-up removes Kelo's
    // leftover models (which ones, its own test), and a run that changes nothing leaves the settings alone.
    void startUpTouchesOnlyWhatItMust()
    {
        const QByteArray damaged = "[General\ncustomPrompt=păstrat\nlinie fără egal\n\x01\x02";
        writeFile(settingsFile(), damaged);
        const QString ours = m_home->cacheHome() + "/Kelo/models--mlx-community--qwen-x/file";
        writeFile(ours, "rămășiță");
        const Run first = kelo({ "--version" });
        QVERIFY2(first.err.contains("O copie a fost păstrată"), qPrintable(first.err));
        QCOMPARE(kelo({ "config", "set", "autoSpeak", "false" }).exitCode, 0);
        QCOMPARE(kelo({ "ask", "salut" }).exitCode, 0);
        QVERIFY(!QFile::exists(ours));
        const QStringList copies = QDir(m_home->configHome() + "/Kelo").entryList({ "KeloCompanion.damaged-*.conf" });
        QCOMPARE(copies.size(), 1);
        QCOMPARE(contents(m_home->configHome() + "/Kelo/" + copies.first()), damaged);
        QVERIFY(contents(settingsFile()).contains("autoSpeak=false"));
        QCOMPARE(QSettings(settingsFile(), QSettings::IniFormat).status(), QSettings::NoError);

        const QByteArray settings = contents(settingsFile());
        const QDateTime modified = QFileInfo(settingsFile()).lastModified();
        QTest::qWait(20);
        QCOMPARE(kelo({ "--version" }).exitCode, 0);
        QCOMPARE(kelo({ "config", "get", "customPrompt" }).exitCode, 0);
        QCOMPARE(contents(settingsFile()), settings);
        QCOMPARE(QFileInfo(settingsFile()).lastModified(), modified);
    }
};

QTEST_GUILESS_MAIN(CliTest)
#include "CliTest.moc"
