#include "AsyncTest.h"
#include "FakeHttpServer.h"
#include "TemporaryHome.h"
#include "VoiceTestSupport.h"
#include "settings/AppSettings.h"
#include "voice/LocalSynthesizer.h"
#include "voice/LocalVoice.h"
#include "voice/SpeechService.h"

#include <QJsonArray>
#include <QSignalSpy>
#include <QTest>

using Reply = FakeHttpServer::Reply;
using namespace VoiceTestSupport;

namespace {

// Every change of the speaking state, in order, as "speaking"/"idle" and "preparing"/"prepared".
class StateLog : public QObject
{
public:
    explicit StateLog(SpeechService *speech)
    {
        connect(speech, &SpeechService::isSpeakingChanged, this,
            [this, speech] { entries.append(speech->isSpeaking() ? "speaking" : "idle"); });
        connect(speech, &SpeechService::isPreparingVoiceChanged, this,
            [this, speech] { entries.append(speech->isPreparingVoice() ? "preparing" : "prepared"); });
    }
    QStringList entries;
};

} // namespace

// The speaking side of SpeechService end to end: settings in, requests out to a loopback server,
// real MP3 played into the PulseAudio null sink, the published state and the finish callback.
class SpeechServiceSynthesisTest : public QObject
{
    Q_OBJECT

    QByteArray m_mp3;
    std::unique_ptr<TemporaryHome> m_home;
    std::unique_ptr<FakeHttpServer> m_server;
    std::vector<std::unique_ptr<ScopedEnvironment>> m_environment;
    std::unique_ptr<AppSettings> m_settings;
    std::unique_ptr<SpeechService> m_speech;
    int m_finishedCalls = 0;

    // Every cloud voice complete, so that only `engine` decides which one is asked.
    void configure(VoiceEnginePreset engine)
    {
        m_settings->setVoiceEngine(engine);
        m_settings->setGoogleTTSAPIKey(QStringLiteral("key"));
        m_settings->setAzureSpeechKey(QStringLiteral("key"));
        m_settings->setAzureRegion(QStringLiteral("westeurope"));
        m_settings->setElevenAPIKey(QStringLiteral("key"));
        m_settings->setElevenVoiceID(QStringLiteral("voice"));
    }

private Q_SLOTS:
    void initTestCase()
    {
        m_mp3 = makeSpeechMp3(QStringLiteral("Bună ziua, eu sunt Kelo."));
        if (m_mp3.isEmpty())
            QSKIP("espeak-ng and lame are needed to make test audio (scripts/install-deps.sh)");
    }

    void init()
    {
        m_home = std::make_unique<TemporaryHome>();
        m_server = std::make_unique<FakeHttpServer>();
        for (const char *variable :
            { "KELO_GOOGLE_TTS_BASE_URL", "KELO_AZURE_TTS_BASE_URL", "KELO_ELEVENLABS_BASE_URL" })
            m_environment.push_back(std::make_unique<ScopedEnvironment>(variable, m_server->baseUrl()));
        m_settings = std::make_unique<AppSettings>();
        m_speech = std::make_unique<SpeechService>();
        m_finishedCalls = 0;
        m_speech->onPlaybackFinished = [this] { ++m_finishedCalls; };
    }

    void cleanup()
    {
        m_speech.reset();
        m_settings.reset();
        m_environment.clear();
        m_server.reset();
        m_home.reset();
    }

    void missingSettingsAreNamedAndNothingElseChanges_data()
    {
        QTest::addColumn<VoiceEnginePreset>("engine");
        QTest::addColumn<QString>("key");
        QTest::addColumn<QString>("extra");
        QTest::addColumn<QString>("expected");
        QTest::newRow("google without key") << VoiceEnginePreset::googleCloud << " \t"
                                            << ""
                                            << "Introdu cheia Google Cloud Text-to-Speech.";
        QTest::newRow("azure without region") << VoiceEnginePreset::azureSpeech << "key"
                                              << "  "
                                              << "Introdu cheia și regiunea Azure Speech.";
        QTest::newRow("azure without key") << VoiceEnginePreset::azureSpeech << ""
                                           << "westeurope"
                                           << "Introdu cheia și regiunea Azure Speech.";
        QTest::newRow("elevenlabs without key or voice") << VoiceEnginePreset::elevenLabs << ""
                                                         << ""
                                                         << "Introdu cheia ElevenLabs.";
        QTest::newRow("elevenlabs without voice") << VoiceEnginePreset::elevenLabs << "key"
                                                  << ""
                                                  << "Alege o voce ElevenLabs înainte de test.";
    }

    void missingSettingsAreNamedAndNothingElseChanges()
    {
        QFETCH(VoiceEnginePreset, engine);
        QFETCH(QString, key);
        QFETCH(QString, extra);
        QFETCH(QString, expected);
        m_settings->setVoiceEngine(engine);
        m_settings->setGoogleTTSAPIKey(key);
        m_settings->setAzureSpeechKey(key);
        m_settings->setAzureRegion(extra);
        m_settings->setElevenAPIKey(key);
        m_settings->setElevenVoiceID(extra);
        StateLog log(m_speech.get());

        m_speech->speak(QStringLiteral("Salut."), m_settings.get());
        AsyncTest::await(m_speech->previewCloudVoice(engine, m_settings.get()));
        QCOMPARE(m_speech->lastError(), expected);
        QTest::qWait(50);
        QVERIFY(log.entries.isEmpty());
        QCOMPARE(m_server->requests().size(), 0);
    }

    void repliesThatCleanToNothingAreNotSpoken()
    {
        configure(VoiceEnginePreset::googleCloud);
        StateLog log(m_speech.get());
        for (const QString &reply : { QStringLiteral("<think>Doar gânduri.</think>"), QStringLiteral("*** ### ___"),
                 QStringLiteral(" \n\t ") }) {
            m_speech->speak(reply, m_settings.get());
            m_settings->setVoiceEngine(VoiceEnginePreset::appleLocal);
            m_speech->speak(reply, m_settings.get());
            m_settings->setVoiceEngine(VoiceEnginePreset::googleCloud);
        }
        QTest::qWait(100);
        QVERIFY(log.entries.isEmpty());
        QCOMPARE(m_server->requests().size(), 0);
        QVERIFY(m_speech->lastError().isEmpty());
        // Nothing spoken, so the local engine was not even started.
        QCOMPARE(m_speech->localSynthesizer()->engineState(), LocalSynthesizer::EngineState::notStarted);
    }

    void cloudFailuresEndIdleWithTheirText_data()
    {
        QTest::addColumn<VoiceEnginePreset>("engine");
        QTest::addColumn<QString>("path");
        QTest::addColumn<int>("status");
        QTest::addColumn<QByteArray>("body");
        QTest::addColumn<QString>("expected");
        const QByteArray keyError = R"({"error":{"code":401,"message":"API key not valid."}})";
        QTest::newRow("401 with a JSON body") << VoiceEnginePreset::elevenLabs << "/v1/text-to-speech/voice" << 401
                                              << keyError << QString::fromUtf8(keyError);
        QTest::newRow("200 that is no MP3")
            << VoiceEnginePreset::azureSpeech << "/cognitiveservices/v1" << 200
            << QByteArray("<html>captive portal</html>") << "Fișierul audio nu a putut fi redat.";
        QTest::newRow("200 with invalid base64")
            << VoiceEnginePreset::googleCloud << "/v1/text:synthesize" << 200 << QByteArray(R"({"audioContent":"@@@"})")
            << "Datele primite nu au putut fi decodate.";
    }

    void cloudFailuresEndIdleWithTheirText()
    {
        QFETCH(VoiceEnginePreset, engine);
        QFETCH(QString, path);
        QFETCH(int, status);
        QFETCH(QByteArray, body);
        QFETCH(QString, expected);
        m_server->on("POST", path, Reply::text(body, status, "application/json"));
        configure(engine);
        StateLog log(m_speech.get());

        m_speech->speak(QStringLiteral("Salut."), m_settings.get());
        QVERIFY(m_speech->isPreparingVoice());
        QVERIFY(AsyncTest::waitUntil([&] { return !m_speech->lastError().isEmpty(); }));
        QCOMPARE(m_speech->lastError(), expected);
        QVERIFY(!m_speech->isPreparingVoice());
        QVERIFY(!m_speech->isSpeaking());
        QCOMPARE(m_finishedCalls, 0);
        QCOMPARE(log.entries.first(), QStringLiteral("preparing"));
        QCOMPARE(log.entries.last(), QStringLiteral("prepared"));
        QCOMPARE(m_server->requests().size(), 1);
    }

    void voiceListsPublishWhileLoadingFlagIsUp()
    {
        Reply voices = Reply::json(QJsonObject { { "voices",
            QJsonArray { QJsonObject { { "voice_id", "v1" }, { "name", "Ana" }, { "category", "premade" } } } } });
        voices.delayMs = 300;
        m_server->enqueue("GET", "/v1/voices", voices);
        m_server->enqueue("GET", "/v1/voices", Reply::text({}, 401));
        QSignalSpy published(m_speech.get(), &SpeechService::voicesChanged);

        auto loading = m_speech->refreshElevenVoices(QStringLiteral(" key "));
        QVERIFY(m_speech->isLoadingVoices());
        AsyncTest::await(std::move(loading));
        QVERIFY(!m_speech->isLoadingVoices());
        QCOMPARE(published.size(), 1);
        QCOMPARE(m_speech->elevenVoices().size(), 1);
        QCOMPARE(m_speech->elevenVoiceList().first().value<CloudVoice>().name, QStringLiteral("Ana"));
        QCOMPARE(m_server->requests().first().header("xi-api-key"), QByteArray("key"));

        // A failed reload says why and keeps the list the user already has.
        AsyncTest::await(m_speech->refreshElevenVoices(QStringLiteral("key")));
        QCOMPARE(m_speech->lastError(), QStringLiteral("ElevenLabs nu a putut fi redat."));
        QCOMPARE(m_speech->elevenVoices().size(), 1);
        QVERIFY(!m_speech->isLoadingVoices());

        AsyncTest::await(m_speech->refreshAzureVoices(QStringLiteral("key"), QString()));
        QCOMPARE(m_speech->lastError(), QStringLiteral("Introdu cheia și regiunea Azure Speech."));
        QCOMPARE(m_server->requests().size(), 2);
    }

    void aLateReplyAfterStopIsDropped()
    {
        Reply slow = Reply::text("no audio at all", 200, "audio/mpeg");
        slow.delayMs = 500;
        m_server->on("POST", "/v1/text-to-speech/voice", slow);
        configure(VoiceEnginePreset::elevenLabs);

        m_speech->speak(QStringLiteral("Salut."), m_settings.get());
        QVERIFY(m_speech->isPreparingVoice());
        m_speech->stopSpeaking();
        QVERIFY(!m_speech->isPreparingVoice());
        QVERIFY(AsyncTest::waitUntil([&] { return m_server->requests().size() == 1; }));
        QTest::qWait(1'000);
        // Handled, it would have said "Fișierul audio nu a putut fi redat.".
        QVERIFY(m_speech->lastError().isEmpty());
        QVERIFY(!m_speech->isSpeaking());
        QVERIFY(!m_speech->isPreparingVoice());
        QCOMPARE(m_finishedCalls, 0);
    }

    void aNewerSpeakWinsOverALateReply()
    {
        KELO_REQUIRE_AUDIO();
        Reply slow = Reply::text("not audio", 200, "audio/mpeg");
        slow.delayMs = 600;
        m_server->enqueue("POST", "/cognitiveservices/v1", slow);
        m_server->enqueue("POST", "/cognitiveservices/v1", Reply::text(m_mp3, 200, "audio/mpeg"));
        m_settings->setVoiceEngine(VoiceEnginePreset::azureSpeech);
        m_settings->setAzureSpeechKey(QStringLiteral(" key "));
        m_settings->setAzureRegion(QStringLiteral(" westeurope "));

        m_speech->speak(QStringLiteral("Primul."), m_settings.get());
        m_speech->speak(QStringLiteral("Al doilea."), m_settings.get());
        QVERIFY(AsyncTest::waitUntil([&] { return m_finishedCalls > 0 || !m_speech->lastError().isEmpty(); }, 20'000));
        QTest::qWait(800);
        QVERIFY2(m_speech->lastError().isEmpty(), qPrintable(m_speech->lastError()));
        QCOMPARE(m_finishedCalls, 1);
        QCOMPARE(m_server->requests().size(), 2);
        QCOMPARE(m_server->requests().last().header("Ocp-Apim-Subscription-Key"), QByteArray("key"));
    }

    void cloudSpeechPlaysAudiblyAndCallsBackOnce()
    {
        KELO_REQUIRE_AUDIO();
        m_server->on("POST", "/v1/text:synthesize",
            Reply::json(QJsonObject { { "audioContent", QString::fromLatin1(m_mp3.toBase64()) } }));
        configure(VoiceEnginePreset::googleCloud);
        StateLog log(m_speech.get());
        MonitorRecording recording;

        AsyncTest::await(m_speech->previewCloudVoice(VoiceEnginePreset::googleCloud, m_settings.get()));
        QVERIFY(m_speech->isSpeaking());
        QVERIFY(AsyncTest::waitUntil([&] { return m_finishedCalls > 0; }, 20'000));
        QTest::qWait(2'000);
        const AudioLevels levels = measure(recording.stop());

        QCOMPARE(m_finishedCalls, 1);
        QCOMPARE(log.entries, (QStringList { "preparing", "prepared", "speaking", "idle" }));
        QCOMPARE(m_server->requests().first().json()["input"].toObject()["text"].toString(),
            QStringLiteral("Salut, sunt Kelo. Aceasta este o mostră de voce în limba română."));
        QVERIFY2(levels.audibleSeconds > 0.5, qPrintable(QString::number(levels.audibleSeconds)));
        QVERIFY(m_speech->lastError().isEmpty());
    }

    void stopSpeakingSilencesCloudAudioWithoutCallback()
    {
        KELO_REQUIRE_AUDIO();
        const QByteArray longer = makeSpeechMp3(QStringLiteral("Aceasta este o frază mai lungă, care ar trebui să "
                                                               "țină câteva secunde bune dacă nu o oprește nimeni."));
        m_server->on("POST", "/v1/text-to-speech/voice", Reply::text(longer, 200, "audio/mpeg"));
        configure(VoiceEnginePreset::elevenLabs);

        m_speech->speak(QStringLiteral("Text lung."), m_settings.get());
        QVERIFY(AsyncTest::waitUntil([&] { return m_speech->isSpeaking(); }));
        QTest::qWait(500);
        m_speech->stopSpeaking();
        QVERIFY(!m_speech->isSpeaking());
        QTest::qWait(1'500);
        MonitorRecording recording;
        QTest::qWait(2'500);
        const AudioLevels levels = measure(recording.stop());
        QCOMPARE(m_finishedCalls, 0);
        QVERIFY2(levels.audibleSeconds < 0.2, qPrintable(QString::number(levels.audibleSeconds)));
    }

    void localSpeechRunsSentenceBySentenceAndCallsBackOnce()
    {
        KELO_REQUIRE_AUDIO();
        m_settings->setVoiceEngine(VoiceEnginePreset::appleLocal);
        m_settings->setVoiceRate(0.6);
        m_settings->setVoiceIdentifier(QStringLiteral("no such voice"));
        StateLog log(m_speech.get());
        MonitorRecording recording;

        m_speech->speak(
            QStringLiteral("## Bună ziua! Vezi [pagina](https://example.ro). Mulțumesc."), m_settings.get());
        QVERIFY(AsyncTest::waitUntil([&] { return m_finishedCalls > 0 || !m_speech->lastError().isEmpty(); },
            LocalSynthesizer::startDeadlineMs + 30'000));
        if (m_speech->localSynthesizer()->engineState() == LocalSynthesizer::EngineState::unavailable)
            QSKIP(qPrintable("speech-dispatcher is not usable here: " + m_speech->lastError()));
        QVERIFY2(m_speech->lastError().isEmpty(), qPrintable(m_speech->lastError()));
        QTest::qWait(1'500);
        const AudioLevels levels = measure(recording.stop());

        QCOMPARE(m_finishedCalls, 1);
        // One speaking stretch for the whole reply, not one per sentence.
        QCOMPARE(log.entries, (QStringList { "speaking", "idle" }));
        QVERIFY2(levels.audibleSeconds > 1.0, qPrintable(QString::number(levels.audibleSeconds)));

        QVERIFY(!m_speech->romanianVoiceList().isEmpty());
        const LocalVoice best = m_speech->romanianVoices().first();
        QCOMPARE(m_speech->bestVoiceDescription(), best.name + QStringLiteral(" · ") + best.qualityLabel());
    }
};

QTEST_MAIN(SpeechServiceSynthesisTest)
#include "SpeechServiceSynthesisTest.moc"
