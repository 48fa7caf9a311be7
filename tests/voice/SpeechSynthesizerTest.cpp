#include "voice/SpeechSynthesizer.h"

#include "AsyncTest.h"
#include "VoiceTestSupport.h"
#include "settings/AppSettings.h"
#include "voice/CloudAudioOutput.h"
#include "voice/CloudSpeechQueue.h"
#include "voice/LocalSynthesizer.h"

#include <QElapsedTimer>
#include <QSignalSpy>
#include <QTest>
#include <QtQml/QJSEngine>

using Reply = FakeHttpServer::Reply;
using namespace VoiceTestSupport;

namespace {

// Every change of the speaking state, in order, as "speaking"/"idle" and "preparing"/"prepared".
class StateLog : public QObject
{
public:
    explicit StateLog(SpeechSynthesizer *speech)
    {
        connect(speech, &SpeechSynthesizer::isSpeakingChanged, this,
            [this, speech] { entries.append(speech->isSpeaking() ? "speaking" : "idle"); });
        connect(speech, &SpeechSynthesizer::isPreparingVoiceChanged, this,
            [this, speech] { entries.append(speech->isPreparingVoice() ? "preparing" : "prepared"); });
    }
    QStringList entries;
};

const QStringList pieces { QStringLiteral("Unu."), QStringLiteral("Doi."), QStringLiteral("Trei.") };

} // namespace

// Speaking end to end: settings in, requests out to a loopback server, real MP3 played into the
// PulseAudio null sink, the published state and playbackFinished().
class SpeechSynthesizerTest : public QObject
{
    Q_OBJECT

    QList<QByteArray> m_pieceAudio;
    std::unique_ptr<TemporaryHome> m_home;
    std::unique_ptr<FakeCloudVoices> m_fake;
    std::unique_ptr<AppSettings> m_settings;
    std::unique_ptr<SpeechSynthesizer> m_speech;
    std::unique_ptr<QSignalSpy> m_finished;

    FakeHttpServer &server() { return m_fake->server(); }

    // Each piece answered with its own audio after its own delay, whatever order the requests take.
    void answerPieces(VoiceEnginePreset engine, const QList<int> &delaysMs, int failingPiece = -1)
    {
        server().on("POST", FakeCloudVoices::synthesisPath(engine), [=, this](const FakeHttpServer::Request &request) {
            for (qsizetype i = 0; i < pieces.size(); ++i) {
                if (!request.body.contains(pieces[i].chopped(1).toUtf8()))
                    continue;
                Reply reply = i == failingPiece ? Reply::text("overloaded", 503)
                                                : FakeCloudVoices::audio(engine, m_pieceAudio[i]);
                reply.delayMs = delaysMs.value(i);
                return reply;
            }
            return Reply::text("unknown piece", 400);
        });
    }

private Q_SLOTS:
    void initTestCase()
    {
        for (const QString &piece : pieces)
            m_pieceAudio.append(makeSpeechMp3(piece));
        if (m_pieceAudio.first().isEmpty())
            QSKIP("espeak-ng and lame are needed to make test audio (scripts/install-deps.sh)");
    }

    void init()
    {
        m_home = std::make_unique<TemporaryHome>();
        m_fake = std::make_unique<FakeCloudVoices>();
        m_settings = std::make_unique<AppSettings>();
        m_speech = std::make_unique<SpeechSynthesizer>();
        m_finished = std::make_unique<QSignalSpy>(m_speech.get(), &SpeechSynthesizer::playbackFinished);
    }

    void cleanup()
    {
        m_finished.reset();
        m_speech.reset();
        m_settings.reset();
        m_fake.reset();
        m_home.reset();
    }

    void missingSettingsAreNamedAndNothingElseChanges_data()
    {
        QTest::addColumn<VoiceEnginePreset>("engine");
        QTest::addColumn<QString>("key");
        QTest::addColumn<QString>("extra");
        QTest::addColumn<QString>("expected");
        QTest::addColumn<QString>("listExpected");
        const QString google = QStringLiteral("Introdu cheia Google Cloud Text-to-Speech.");
        const QString azure = QStringLiteral("Introdu cheia și regiunea Azure Speech.");
        QTest::newRow("google without key") << VoiceEnginePreset::googleCloud << " \t"
                                            << "" << google << google;
        QTest::newRow("azure without region") << VoiceEnginePreset::azureSpeech << "key"
                                              << "  " << azure << azure;
        QTest::newRow("azure without key") << VoiceEnginePreset::azureSpeech << ""
                                           << "westeurope" << azure << azure;
        QTest::newRow("elevenlabs without key or voice") << VoiceEnginePreset::elevenLabs << ""
                                                         << ""
                                                         << "Introdu cheia ElevenLabs."
                                                         << "Introdu cheia ElevenLabs.";
        // The voice list is how a voice gets chosen, so it needs only the key.
        QTest::newRow("elevenlabs without voice") << VoiceEnginePreset::elevenLabs << "key"
                                                  << ""
                                                  << "Alege o voce ElevenLabs înainte de test."
                                                  << "";
    }

    void missingSettingsAreNamedAndNothingElseChanges()
    {
        QFETCH(VoiceEnginePreset, engine);
        QFETCH(QString, key);
        QFETCH(QString, extra);
        QFETCH(QString, expected);
        QFETCH(QString, listExpected);
        m_settings->setVoiceEngine(engine);
        m_settings->setGoogleTTSAPIKey(key);
        m_settings->setAzureSpeechKey(key);
        m_settings->setAzureRegion(extra);
        m_settings->setElevenAPIKey(key);
        m_settings->setElevenVoiceID(extra);
        server().on("GET", "/v1/voices", Reply::json(QJsonObject { { "voices", QJsonArray {} } }));
        StateLog log(m_speech.get());

        m_speech->speak(QStringLiteral("Salut."), m_settings.get());
        m_speech->enqueue(QStringLiteral("Încă o frază."), m_settings.get());
        m_speech->finishQueue();
        AsyncTest::await(m_speech->previewCloudVoice(engine, m_settings.get()));
        QCOMPARE(m_speech->lastError(), expected);
        QTest::qWait(50);
        QVERIFY(log.entries.isEmpty());
        QVERIFY(m_finished->isEmpty());
        QVERIFY(server().requests().isEmpty());

        AsyncTest::await(m_speech->refreshVoices(engine, m_settings.get()));
        QCOMPARE(m_speech->lastError(), listExpected.isEmpty() ? expected : listExpected);
        QCOMPARE(server().requests().size(), listExpected.isEmpty() ? 1 : 0);
    }

    void repliesThatCleanToNothingAreNotSpoken()
    {
        FakeCloudVoices::configure(*m_settings, VoiceEnginePreset::googleCloud);
        StateLog log(m_speech.get());
        for (const QString &reply : { QStringLiteral("<think>Doar gânduri.</think>"), QStringLiteral("*** ### ___"),
                 QStringLiteral(" \n\t ") }) {
            m_speech->speak(reply, m_settings.get());
            m_speech->enqueue(reply, m_settings.get());
            m_settings->setVoiceEngine(VoiceEnginePreset::appleLocal);
            m_speech->speak(reply, m_settings.get());
            m_speech->enqueue(reply, m_settings.get());
            m_speech->finishQueue();
            m_settings->setVoiceEngine(VoiceEnginePreset::googleCloud);
        }
        QTest::qWait(100);
        QVERIFY(log.entries.isEmpty());
        QVERIFY(server().requests().isEmpty());
        QVERIFY(m_speech->lastError().isEmpty());
        QVERIFY(m_finished->isEmpty());
        // Nothing spoken, so the local engine was not even started.
        QCOMPARE(m_speech->localSynthesizer()->engineState(), LocalSynthesizer::EngineState::notStarted);
    }

    void cloudFailuresEndIdleWithTheirText_data()
    {
        QTest::addColumn<VoiceEnginePreset>("engine");
        QTest::addColumn<int>("status");
        QTest::addColumn<QByteArray>("body");
        QTest::addColumn<QString>("expected");
        const QByteArray keyError = R"({"error":{"code":401,"message":"API key not valid."}})";
        QTest::newRow("401 with a JSON body")
            << VoiceEnginePreset::elevenLabs << 401 << keyError << QString::fromUtf8(keyError);
        QTest::newRow("200 that is no MP3")
            << VoiceEnginePreset::azureSpeech << 200 << QByteArray("<html>captive portal</html>")
            << "Fișierul audio nu a putut fi redat.";
        QTest::newRow("200 with invalid base64")
            << VoiceEnginePreset::googleCloud << 200 << QByteArray(R"({"audioContent":"@@@"})")
            << "Datele primite nu au putut fi decodate.";
    }

    void cloudFailuresEndIdleWithTheirText()
    {
        QFETCH(VoiceEnginePreset, engine);
        QFETCH(int, status);
        QFETCH(QByteArray, body);
        QFETCH(QString, expected);
        server().on("POST", FakeCloudVoices::synthesisPath(engine), Reply::text(body, status, "application/json"));
        FakeCloudVoices::configure(*m_settings, engine);
        StateLog log(m_speech.get());

        m_speech->speak(QStringLiteral("Salut."), m_settings.get());
        QVERIFY(m_speech->isPreparingVoice());
        QVERIFY(AsyncTest::waitUntil([&] { return !m_speech->isPreparingVoice(); }));
        QCOMPARE(m_speech->lastError(), expected);
        QVERIFY(!m_speech->isSpeaking());
        QVERIFY(m_finished->isEmpty());
        QCOMPARE(log.entries, (QStringList { "preparing", "prepared" }));
        QCOMPARE(server().requests().size(), 1);
    }

    void voiceListsPublishWhileLoadingFlagIsUp()
    {
        Reply voices = Reply::json(QJsonObject { { "voices",
            QJsonArray { QJsonObject { { "voice_id", "v1" }, { "name", "Ana" }, { "category", "premade" } } } } });
        voices.delayMs = 300;
        server().enqueue("GET", "/v1/voices", voices);
        server().enqueue("GET", "/v1/voices", Reply::text({}, 401));
        QSignalSpy published(m_speech.get(), &SpeechSynthesizer::voicesChanged);
        m_settings->setElevenAPIKey(QStringLiteral(" key "));

        auto loading = m_speech->refreshVoices(VoiceEnginePreset::elevenLabs, m_settings.get());
        QVERIFY(m_speech->isLoadingVoices());
        AsyncTest::await(std::move(loading));
        QVERIFY(!m_speech->isLoadingVoices());
        QCOMPARE(published.size(), 1);
        QCOMPARE(m_speech->elevenVoices().size(), 1);
        // What the settings screen reads.
        QJSEngine js;
        QJSEngine::setObjectOwnership(m_speech.get(), QJSEngine::CppOwnership);
        js.globalObject().setProperty("speech", js.newQObject(m_speech.get()));
        QCOMPARE(js.evaluate("speech.elevenVoices.length + ' ' + speech.elevenVoices[0].name").toString(), "1 Ana");
        QCOMPARE(server().requests().first().header("xi-api-key"), QByteArray("key"));

        // A failed reload says why and keeps the list the user already has.
        AsyncTest::await(m_speech->refreshVoices(VoiceEnginePreset::elevenLabs, m_settings.get()));
        QCOMPARE(m_speech->lastError(), QStringLiteral("ElevenLabs nu a putut fi redat."));
        QCOMPARE(m_speech->elevenVoices().size(), 1);
        QVERIFY(!m_speech->isLoadingVoices());
    }

    // Pieces answered out of order (the first last) play in order, never more than two requests
    // at a time, back to back through one output, ending once after finish().
    void queuePlaysPiecesInOrderWithoutGaps_data()
    {
        QTest::addColumn<VoiceEnginePreset>("engine");
        for (const CloudVoiceProvider &provider : CloudVoiceProvider::all())
            QTest::newRow(qPrintable(provider.name)) << provider.engine;
    }

    void queuePlaysPiecesInOrderWithoutGaps()
    {
        KELO_REQUIRE_AUDIO();
        QFETCH(VoiceEnginePreset, engine);
        answerPieces(engine, { 500, 250, 20 });
        CloudSpeechQueue queue(*CloudVoiceProvider::forEngine(engine), FakeCloudVoices::credentials());
        QSignalSpy started(&queue, &CloudSpeechQueue::pieceStarted);
        QSignalSpy finished(&queue, &CloudSpeechQueue::finished);
        QSignalSpy failed(&queue, &CloudSpeechQueue::failed);

        for (const QString &piece : pieces)
            queue.enqueue(piece);
        QTest::qWait(150);
        QCOMPARE(server().requests().size(), CloudSpeechQueue::maxRequestsInFlight);
        queue.finish();
        QVERIFY(finished.wait(20'000));
        QTest::qWait(200);

        QCOMPARE(finished.size(), 1);
        QCOMPARE(finished.first().first().toBool(), true);
        QStringList order;
        for (const QList<QVariant> &signal : started)
            order.append(signal.first().toString());
        QCOMPARE(order, pieces);
        QCOMPARE(queue.output()->underruns(), 0);
        QVERIFY(failed.isEmpty());
        QCOMPARE(server().requests().size(), 3);
    }

    void aFailedMiddlePieceIsReportedOnceAndTheRestPlays()
    {
        KELO_REQUIRE_AUDIO();
        answerPieces(VoiceEnginePreset::elevenLabs, { 0, 0, 300 }, 1);
        FakeCloudVoices::configure(*m_settings, VoiceEnginePreset::elevenLabs);
        QSignalSpy errors(m_speech.get(), &SpeechSynthesizer::lastErrorChanged);

        for (const QString &piece : pieces)
            m_speech->enqueue(piece, m_settings.get());
        m_speech->finishQueue();
        QVERIFY(m_finished->wait(20'000));
        QCOMPARE(errors.size(), 1);
        QVERIFY2(m_speech->lastError().contains(QStringLiteral("overloaded")), qPrintable(m_speech->lastError()));
        QVERIFY(!m_speech->isSpeaking());
        QCOMPARE(server().requests().size(), 3);
    }

    // An answer still being written: the device may run dry between pieces, but the end comes only
    // after finishQueue() and the last piece.
    void playbackFinishesOnlyAfterFinishQueue()
    {
        KELO_REQUIRE_AUDIO();
        answerPieces(VoiceEnginePreset::azureSpeech, {});
        FakeCloudVoices::configure(*m_settings, VoiceEnginePreset::azureSpeech);
        StateLog log(m_speech.get());

        m_speech->enqueue(pieces[0], m_settings.get());
        QVERIFY(AsyncTest::waitUntil([&] { return m_speech->isSpeaking(); }));
        CloudAudioOutput *output = m_speech->cloudAudioOutput();
        QVERIFY(AsyncTest::waitUntil([&] { return output->underruns() > 0; }, 10'000));
        QTest::qWait(500);
        QVERIFY(m_finished->isEmpty());
        QVERIFY(m_speech->isSpeaking());

        m_speech->enqueue(pieces[1], m_settings.get());
        m_speech->finishQueue();
        QVERIFY(m_finished->wait(10'000));
        QCOMPARE(m_finished->size(), 1);
        // One speaking stretch for the whole answer.
        QCOMPARE(log.entries, (QStringList { "preparing", "speaking", "prepared", "idle" }));
        QVERIFY(m_speech->lastError().isEmpty());
    }

    // Barge-in: the sound stops within 100 ms, the request still under way is dropped, and the
    // answer never reports that it finished.
    void stopSpeakingSilencesWithin100MsAndDropsTheQueue()
    {
        KELO_REQUIRE_AUDIO();
        const QByteArray longer = makeSpeechMp3(QStringLiteral("Aceasta este o frază mai lungă, care ar trebui să "
                                                               "țină câteva secunde bune dacă nu o oprește nimeni."));
        server().enqueue("POST", FakeCloudVoices::synthesisPath(VoiceEnginePreset::elevenLabs),
            FakeCloudVoices::audio(VoiceEnginePreset::elevenLabs, longer));
        Reply slow = FakeCloudVoices::audio(VoiceEnginePreset::elevenLabs, longer);
        slow.delayMs = 800;
        server().on("POST", FakeCloudVoices::synthesisPath(VoiceEnginePreset::elevenLabs), slow);
        FakeCloudVoices::configure(*m_settings, VoiceEnginePreset::elevenLabs);

        m_speech->enqueue(QStringLiteral("Prima frază."), m_settings.get());
        QVERIFY(AsyncTest::waitUntil([&] { return m_speech->isSpeaking(); }));
        m_speech->enqueue(QStringLiteral("A doua frază."), m_settings.get());
        QTest::qWait(400);
        QCOMPARE(playingStreams(), 1);

        QElapsedTimer clock;
        clock.start();
        m_speech->stopSpeaking();
        const qint64 stopMs = clock.elapsed();
        while (playingStreams() > 0 && clock.elapsed() < 2'000)
            QTest::qWait(5);
        const qint64 silentMs = clock.elapsed();
        qInfo("stopSpeaking() returned after %lld ms; no stream left after %lld ms", stopMs, silentMs);
        QVERIFY2(silentMs <= 100, qPrintable(QString::number(silentMs)));
        QVERIFY(!m_speech->isSpeaking());

        // The second answer arrives late: nothing plays it and nothing is reported.
        QTest::qWait(1'200);
        QCOMPARE(playingStreams(), 0);
        QVERIFY(m_speech->lastError().isEmpty());
        QVERIFY(!m_speech->isSpeaking() && !m_speech->isPreparingVoice());
        QVERIFY(m_finished->isEmpty());
    }

    void localSpeechQueuesPiecesAndFinishesOnce()
    {
        KELO_REQUIRE_AUDIO();
        m_settings->setVoiceEngine(VoiceEnginePreset::appleLocal);
        m_settings->setVoiceRate(0.6);
        m_settings->setVoiceIdentifier(QStringLiteral("no such voice"));
        StateLog log(m_speech.get());

        m_speech->enqueue(QStringLiteral("## Bună ziua! Vezi [pagina](https://example.ro)."), m_settings.get());
        m_speech->enqueue(QStringLiteral("Mulțumesc."), m_settings.get());
        m_speech->finishQueue();
        QVERIFY(AsyncTest::waitUntil([&] { return !m_finished->isEmpty() || !m_speech->lastError().isEmpty(); },
            LocalSynthesizer::startDeadlineMs + 30'000));
        if (m_speech->localSynthesizer()->engineState() == LocalSynthesizer::EngineState::unavailable)
            QSKIP(qPrintable("speech-dispatcher is not usable here: " + m_speech->lastError()));
        QVERIFY2(m_speech->lastError().isEmpty(), qPrintable(m_speech->lastError()));
        QCOMPARE(m_finished->size(), 1);
        // One speaking stretch for the whole answer; LocalSynthesizerTest hears it.
        QCOMPARE(log.entries, (QStringList { "speaking", "idle" }));

        const QList<LocalVoice> voices = m_speech->property("romanianVoices").value<QList<LocalVoice>>();
        QVERIFY(!voices.isEmpty());
        QCOMPARE(m_speech->bestVoiceDescription(),
            voices.first().name + QStringLiteral(" · ") + voices.first().qualityLabel());
    }
};

QTEST_MAIN(SpeechSynthesizerTest)
#include "SpeechSynthesizerTest.moc"
