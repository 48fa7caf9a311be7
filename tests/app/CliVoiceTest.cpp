#include "AsyncTest.h"
#include "ChatCompletionReplies.h"
#include "FakeHttpServer.h"
#include "TemporaryHome.h"
#include "VoiceTestSupport.h"

#include <QElapsedTimer>
#include <QJsonArray>
#include <QProcess>
#include <QTest>

using Reply = FakeHttpServer::Reply;

namespace {

struct Run
{
    int exitCode = -1;
    QString out;
    QString err;
    qint64 elapsedMs = 0;

    // The command's own message: a warning about where secrets are kept may come first.
    QString lastErrorLine() const { return err.trimmed().split(QLatin1Char('\n')).last(); }
};

} // namespace

// `kelo say` and `kelo voices` as a user runs them, against loopback voice services.
class CliVoiceTest : public QObject
{
    Q_OBJECT

    std::unique_ptr<TemporaryHome> m_home;
    std::unique_ptr<FakeHttpServer> m_service;

    // The server lives in this process, so the event loop must keep running while kelo works.
    Run kelo(const QStringList &arguments)
    {
        QProcess process;
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        for (const char *variable :
            { "KELO_GOOGLE_TTS_BASE_URL", "KELO_AZURE_TTS_BASE_URL", "KELO_ELEVENLABS_BASE_URL", "KELO_ZEN_BASE_URL" })
            environment.insert(QString::fromLatin1(variable), m_service->baseUrl());
        process.setProcessEnvironment(environment);
        QElapsedTimer clock;
        clock.start();
        process.start(QStringLiteral(KELO_CLI_PATH), arguments);
        process.closeWriteChannel();
        const bool finished = AsyncTest::waitUntil([&] { return process.state() == QProcess::NotRunning; }, 60'000);
        if (!finished)
            process.kill();
        return { finished ? process.exitCode() : -1, QString::fromUtf8(process.readAllStandardOutput()),
            QString::fromUtf8(process.readAllStandardError()), clock.elapsed() };
    }

    void configure(const QString &key, const QString &value)
    {
        const Run run = kelo({ QStringLiteral("config"), QStringLiteral("set"), key, value });
        QVERIFY2(run.exitCode == 0, qPrintable(run.err));
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

    void sayReturnsWhenThePlaybackHasEnded()
    {
        KELO_REQUIRE_AUDIO();
        const QByteArray mp3 = VoiceTestSupport::makeSpeechMp3(QStringLiteral("Bună ziua, sunt Kelo și vorbesc."));
        if (mp3.isEmpty())
            QSKIP("espeak-ng and lame are needed to make test audio");
        m_service->on("POST", QStringLiteral("/v1/text-to-speech/v1"), Reply::text(mp3, 200, "audio/mpeg"));
        configure(QStringLiteral("elevenAPIKey"), QStringLiteral("cheie"));
        configure(QStringLiteral("elevenVoiceID"), QStringLiteral("v1"));

        const Run run = kelo({ QStringLiteral("say"), QStringLiteral("Bună"), QStringLiteral("ziua!"),
            QStringLiteral("--engine"), QStringLiteral("elevenlabs") });
        QCOMPARE(run.exitCode, 0);
        // At most the warning about where secrets are kept.
        QVERIFY2(run.err.isEmpty() || (run.err.startsWith(QStringLiteral("Atenție")) && run.err.count('\n') == 1),
            qPrintable(run.err));
        const auto requests = m_service->requests(QStringLiteral("/v1/text-to-speech/v1"));
        QCOMPARE(requests.size(), 1);
        QCOMPARE(requests.first().json()[QStringLiteral("text")].toString(), QStringLiteral("Bună ziua!"));
        // The whole clip was played before kelo returned.
        QVERIFY2(run.elapsedMs > 1'500, qPrintable(QString::number(run.elapsedMs)));
    }

    void askSpeaksItsAnswerOnlyWhenAsked()
    {
        KELO_REQUIRE_AUDIO();
        const QByteArray mp3 = VoiceTestSupport::makeSpeechMp3(QStringLiteral("Coloana infinitului este la Târgu Jiu."));
        if (mp3.isEmpty())
            QSKIP("espeak-ng and lame are needed to make test audio");
        const QString answer = QStringLiteral("Coloana infinitului este la Târgu Jiu.");
        m_service->on("POST", QStringLiteral("/chat/completions"), Reply::json(ChatCompletionReplies::completion(answer)));
        m_service->on("POST", QStringLiteral("/v1/text-to-speech/v1"), Reply::text(mp3, 200, "audio/mpeg"));
        configure(QStringLiteral("zenAPIKey"), QStringLiteral("cheie-zen"));
        configure(QStringLiteral("voiceEngine"), QStringLiteral("ElevenLabs"));
        configure(QStringLiteral("elevenAPIKey"), QStringLiteral("cheie"));
        configure(QStringLiteral("elevenVoiceID"), QStringLiteral("v1"));

        const Run silent = kelo({ QStringLiteral("ask"), QStringLiteral("Unde e Coloana?") });
        QCOMPARE(silent.exitCode, 0);
        QCOMPARE(m_service->requestCount(QStringLiteral("/v1/text-to-speech/v1")), 0);

        VoiceTestSupport::MonitorRecording recording;
        QVERIFY(recording.isRecording());
        const Run spoken = kelo({ QStringLiteral("ask"), QStringLiteral("--speak"), QStringLiteral("Unde e Coloana?") });
        const VoiceTestSupport::AudioLevels levels = VoiceTestSupport::measure(recording.stop());
        QCOMPARE(spoken.exitCode, 0);
        QCOMPARE(spoken.out, answer + QLatin1Char('\n'));
        QCOMPARE(m_service->requests(QStringLiteral("/v1/text-to-speech/v1")).first().json()[QStringLiteral("text")].toString(), answer);
        QVERIFY2(levels.audibleSeconds > 1.0, qPrintable(QString::number(levels.audibleSeconds)));

        // With "Răspunde cu voce" off, --speak stays quiet.
        configure(QStringLiteral("autoSpeak"), QStringLiteral("false"));
        QCOMPARE(kelo({ QStringLiteral("ask"), QStringLiteral("--speak"), QStringLiteral("Din nou?") }).exitCode, 0);
        QCOMPARE(m_service->requestCount(QStringLiteral("/v1/text-to-speech/v1")), 1);
    }

    void sayReportsVoiceErrorsWithExitCodeOne()
    {
        m_service->on("POST", QStringLiteral("/cognitiveservices/v1"), Reply::text({}, 500));
        configure(QStringLiteral("azureSpeechKey"), QStringLiteral("cheie"));
        configure(QStringLiteral("azureRegion"), QStringLiteral("westeurope"));

        const Run failed = kelo({ QStringLiteral("say"), QStringLiteral("Salut"), QStringLiteral("--engine=azure") });
        QCOMPARE(failed.exitCode, 1);
        QCOMPARE(failed.lastErrorLine(), QStringLiteral("Azure Speech nu a putut fi redat."));

        const Run missing = kelo(
            { QStringLiteral("say"), QStringLiteral("Salut"), QStringLiteral("--engine"), QStringLiteral("google") });
        QCOMPARE(missing.exitCode, 1);
        QCOMPARE(missing.lastErrorLine(), QStringLiteral("Introdu cheia Google Cloud Text-to-Speech."));

        const Run nothing = kelo({ QStringLiteral("say"), QStringLiteral("<think>doar gânduri</think>") });
        QCOMPARE(nothing.exitCode, 1);
        QCOMPARE(nothing.lastErrorLine(), QStringLiteral("Textul nu conține nimic de rostit."));

        const Run unknown = kelo(
            { QStringLiteral("say"), QStringLiteral("Salut"), QStringLiteral("--engine"), QStringLiteral("siri") });
        QCOMPARE(unknown.exitCode, 2);
        QVERIFY(unknown.err.contains(QStringLiteral("siri")));
    }

    void voicesListsTheRomanianVoicesOfAnEngine()
    {
        const QJsonArray voices {
            QJsonObject {
                { "languageCodes", QJsonArray { "ro-RO" } }, { "name", "ro-RO-Wavenet-B" }, { "ssmlGender", "MALE" } },
            QJsonObject { { "languageCodes", QJsonArray { "fr-FR" } }, { "name", "fr-FR-Wavenet-A" },
                { "ssmlGender", "FEMALE" } },
        };
        m_service->on("GET", QStringLiteral("/v1/voices"), Reply::json(QJsonObject { { "voices", voices } }));
        configure(QStringLiteral("googleTTSAPIKey"), QStringLiteral("cheie"));

        const Run run = kelo({ QStringLiteral("voices"), QStringLiteral("--engine"), QStringLiteral("google") });
        QCOMPARE(run.exitCode, 0);
        QCOMPARE(run.out, QStringLiteral("ro-RO-Wavenet-B\tro-RO-Wavenet-B\tmasculină\tWavenet\n"));
        QCOMPARE(m_service->requests().last().query.queryItemValue(QStringLiteral("key")), QStringLiteral("cheie"));

        m_service->on("GET", QStringLiteral("/v1/voices"), Reply::text("{\"error\":\"denied\"}", 403));
        const Run refused = kelo({ QStringLiteral("voices"), QStringLiteral("--engine"), QStringLiteral("google") });
        QCOMPARE(refused.exitCode, 1);
        QCOMPARE(refused.lastErrorLine(), QStringLiteral("{\"error\":\"denied\"}"));
    }
};

QTEST_GUILESS_MAIN(CliVoiceTest)
#include "CliVoiceTest.moc"
