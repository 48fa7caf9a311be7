#include "ChatCompletionReplies.h"
#include "FakeHttpServer.h"
#include "KeloProcess.h"
#include "TemporaryHome.h"
#include "VoiceTestSupport.h"

#include <QJsonArray>
#include <QTest>

using Reply = FakeHttpServer::Reply;

using Run = KeloProcess::Result;

// `kelo say` and `kelo voices` as a user runs them, against loopback voice services.
class CliVoiceTest : public QObject
{
    Q_OBJECT

    std::unique_ptr<TemporaryHome> m_home;
    std::unique_ptr<FakeHttpServer> m_service;

    // The server lives in this process, so the event loop must keep running while kelo works.
    Run kelo(const QStringList &arguments)
    {
        KeloProcess::Options options;
        for (const char *variable :
            { "KELO_GOOGLE_TTS_BASE_URL", "KELO_AZURE_TTS_BASE_URL", "KELO_ELEVENLABS_BASE_URL", "KELO_ZEN_BASE_URL" })
            options.environment.append({ QString::fromLatin1(variable), m_service->baseUrl() });
        return KeloProcess::run(QStringLiteral(KELO_CLI_PATH), arguments, options);
    }

    void configure(const QString &key, const QString &value)
    {
        const Run run = kelo({ "config", "set", key, value });
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

    void sayWaitsForThePlaybackAndAskSpeaksOnlyWhenAsked()
    {
        KELO_REQUIRE_AUDIO();
        const QString answer = QStringLiteral("Coloana infinitului este la Târgu Jiu.");
        const QByteArray mp3 = VoiceTestSupport::makeSpeechMp3(answer);
        if (mp3.isEmpty())
            QSKIP("espeak-ng and lame are needed to make test audio");
        const QString speech = QStringLiteral("/v1/text-to-speech/v1");
        m_service->on("POST", "/chat/completions", Reply::json(ChatCompletionReplies::completion(answer)));
        m_service->on("POST", speech, Reply::text(mp3, 200, "audio/mpeg"));
        configure("elevenAPIKey", "cheie");
        configure("elevenVoiceID", "v1");

        const Run said = kelo({ "say", "--engine", "elevenlabs", "Bună", "ziua!" });
        QCOMPARE(said.exitCode, 0);
        // At most the warning about where secrets are kept.
        QVERIFY2(
            said.err.isEmpty() || (said.err.startsWith("Atenție") && said.err.count('\n') == 1), qPrintable(said.err));
        QCOMPARE(
            m_service->requests(speech).last().json()[QStringLiteral("text")].toString(), QStringLiteral("Bună ziua!"));
        // The whole clip was played before kelo returned.
        QVERIFY2(said.elapsedMs > 1'500, qPrintable(QString::number(said.elapsedMs)));

        configure("zenAPIKey", "cheie-zen");
        configure("voiceEngine", "ElevenLabs");
        QCOMPARE(kelo({ "ask", "Unde e Coloana?" }).exitCode, 0);
        QCOMPARE(m_service->requestCount(speech), 1);

        VoiceTestSupport::MonitorRecording recording;
        QVERIFY(recording.isRecording());
        const Run spoken = kelo({ "ask", "--speak", "Unde e Coloana?" });
        const VoiceTestSupport::AudioLevels levels = VoiceTestSupport::measure(recording.stop());
        QCOMPARE(spoken.exitCode, 0);
        QCOMPARE(spoken.out, answer + QLatin1Char('\n'));
        QCOMPARE(m_service->requests(speech).last().json()[QStringLiteral("text")].toString(), answer);
        QVERIFY2(levels.audibleSeconds > 1.0, qPrintable(QString::number(levels.audibleSeconds)));

        // With "Răspunde cu voce" off, --speak stays quiet.
        configure("autoSpeak", "false");
        QCOMPARE(kelo({ "ask", "--speak", "Din nou?" }).exitCode, 0);
        QCOMPARE(m_service->requestCount(speech), 2);
    }

    void sayReportsVoiceErrorsWithExitCodeOne()
    {
        m_service->on("POST", "/cognitiveservices/v1", Reply::text({}, 500));
        configure("azureSpeechKey", "cheie");
        configure("azureRegion", "westeurope");

        const Run failed = kelo({ "say", "--engine=azure", "Salut" });
        QCOMPARE(failed.exitCode, 1);
        QCOMPARE(failed.lastErrorLine(), QStringLiteral("Azure Speech nu a putut fi redat."));

        const Run missing = kelo({ "say", "--engine", "google", "Salut" });
        QCOMPARE(missing.exitCode, 1);
        QCOMPARE(missing.lastErrorLine(), QStringLiteral("Introdu cheia Google Cloud Text-to-Speech."));

        const Run nothing = kelo({ "say", "<think>doar gânduri</think>" });
        QCOMPARE(nothing.exitCode, 1);
        QCOMPARE(nothing.lastErrorLine(), QStringLiteral("Textul nu conține nimic de rostit."));

        const Run unknown = kelo({ "say", "--engine", "siri", "Salut" });
        QCOMPARE(unknown.exitCode, 2);
        QVERIFY(unknown.err.contains("siri"));
    }

    void voicesListsTheRomanianVoicesOfAnEngine()
    {
        const QJsonArray voices {
            QJsonObject {
                { "languageCodes", QJsonArray { "ro-RO" } }, { "name", "ro-RO-Wavenet-B" }, { "ssmlGender", "MALE" } },
            QJsonObject { { "languageCodes", QJsonArray { "fr-FR" } }, { "name", "fr-FR-Wavenet-A" },
                { "ssmlGender", "FEMALE" } },
        };
        m_service->on("GET", "/v1/voices", Reply::json(QJsonObject { { "voices", voices } }));
        configure("googleTTSAPIKey", "cheie");

        const Run run = kelo({ "voices", "--engine", "google" });
        QCOMPARE(run.exitCode, 0);
        QCOMPARE(run.out, QStringLiteral("ro-RO-Wavenet-B\tro-RO-Wavenet-B\tmasculină\tWavenet\n"));
        QCOMPARE(m_service->requests().last().query.queryItemValue(QStringLiteral("key")), QStringLiteral("cheie"));

        m_service->on("GET", "/v1/voices", Reply::text("{\"error\":\"denied\"}", 403));
        const Run refused = kelo({ "voices", "--engine", "google" });
        QCOMPARE(refused.exitCode, 1);
        QCOMPARE(refused.lastErrorLine(), QStringLiteral("{\"error\":\"denied\"}"));
    }
};

QTEST_GUILESS_MAIN(CliVoiceTest)
#include "CliVoiceTest.moc"
