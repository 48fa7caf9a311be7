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

using namespace Qt::StringLiterals;
using namespace VoiceTestSupport;
using Reply = FakeHttpServer::Reply;
using Credentials = CloudVoiceCredentials;

Q_DECLARE_METATYPE(FakeHttpServer::Reply)

namespace {

const QStringList pieces { u"Unu."_s, u"Doi."_s, u"Trei."_s };

// A speaker with its own home, voices and settings; `log` has its state changes in order.
struct Rig
{
    TemporaryHome home;
    FakeCloudVoices fake;
    AppSettings settings;
    // Before the speaker, which outlives it otherwise.
    QStringList log;
    SpeechSynthesizer speech;
    QSignalSpy finished { &speech, &SpeechSynthesizer::playbackFinished };

    Rig()
    {
        QObject::connect(&speech, &SpeechSynthesizer::isSpeakingChanged,
            [this] { log.append(speech.isSpeaking() ? u"speaking"_s : u"idle"_s); });
        QObject::connect(&speech, &SpeechSynthesizer::isPreparingVoiceChanged,
            [this] { log.append(speech.isPreparingVoice() ? u"preparing"_s : u"prepared"_s); });
    }
};

} // namespace

// Speaking end to end: settings in, requests to a loopback server, real MP3 into the null sink.
class SpeechSynthesizerTest : public QObject
{
    Q_OBJECT

    QList<QByteArray> m_pieceAudio;
    std::optional<Rig> r;

    FakeHttpServer &server() { return r->fake.server; }

private Q_SLOTS:
    void initTestCase()
    {
        // The first piece still playing when it is interrupted.
        for (const QString &piece : pieces)
            m_pieceAudio.append(
                makeSpeechMp3(piece == pieces[0] ? piece + u" Aceasta este o frază ceva mai lungă."_s : piece));
        if (m_pieceAudio.first().isEmpty())
            QSKIP("espeak-ng and lame are needed to make test audio (scripts/install-deps.sh)");
    }

    void init() { r.emplace(); }
    void cleanup() { r.reset(); }

    // Missing settings are named before anything is sent (a voice list needs only the key), replies
    // with nothing to say send nothing and start no engine, and a provider's failure ends idle.
    void failuresEndIdleWithTheirText_data()
    {
        QTest::addColumn<VoiceEnginePreset>("engine");
        QTest::addColumn<Credentials>("credentials");
        QTest::addColumn<QString>("text");
        QTest::addColumn<Reply>("reply");
        QTest::addColumn<QString>("expected");
        QTest::addColumn<bool>("listFetched");
        const auto google = VoiceEnginePreset::googleCloud, azure = VoiceEnginePreset::azureSpeech,
                   eleven = VoiceEnginePreset::elevenLabs, local = VoiceEnginePreset::appleLocal;
        const Reply unsent = Reply::text({}, 0);
        const auto json
            = [](const QByteArray &body, int status) { return Reply::text(body, status, "application/json"); };
        const QString hi = u"Salut."_s, noAzure = u"Introdu cheia și regiunea Azure Speech."_s;
        const QByteArray keyError = R"({"error":{"code":401,"message":"API key not valid."}})";
        const Credentials complete = FakeCloudVoices::credentials;
        QTest::newRow("google without key") << google << Credentials { " \t", {}, {} } << hi << unsent
                                            << u"Introdu cheia Google Cloud Text-to-Speech."_s << false;
        QTest::newRow("azure without region")
            << azure << Credentials { "key", "  ", {} } << hi << unsent << noAzure << false;
        QTest::newRow("azure without key")
            << azure << Credentials { {}, "westeurope", {} } << hi << unsent << noAzure << false;
        QTest::newRow("elevenlabs without key")
            << eleven << Credentials {} << hi << unsent << u"Introdu cheia ElevenLabs."_s << false;
        QTest::newRow("elevenlabs without voice") << eleven << Credentials { "key", {}, {} } << hi << unsent
                                                  << u"Alege o voce ElevenLabs înainte de test."_s << true;
        QTest::newRow("reasoning only") << google << complete << u"<think>Doar gânduri.</think>"_s << unsent
                                        << QString() << true;
        QTest::newRow("markup only") << google << complete << u"*** ### ___"_s << unsent << QString() << true;
        QTest::newRow("blanks only, local engine") << local << complete << u" \n\t "_s << unsent << QString() << false;
        QTest::newRow("401 with a JSON body")
            << eleven << complete << hi << json(keyError, 401) << QString::fromUtf8(keyError) << false;
        QTest::newRow("200 that is no MP3") << azure << complete << hi << json("<html>captive portal</html>", 200)
                                            << u"Fișierul audio nu a putut fi redat."_s << false;
        QTest::newRow("200 with invalid base64") << google << complete << hi << json(R"({"audioContent":"@@@"})", 200)
                                                 << u"Datele primite nu au putut fi decodate."_s << false;
    }

    void failuresEndIdleWithTheirText()
    {
        QFETCH(VoiceEnginePreset, engine);
        QFETCH(Credentials, credentials);
        QFETCH(QString, text);
        QFETCH(Reply, reply);
        QFETCH(QString, expected);
        QFETCH(bool, listFetched);
        FakeCloudVoices::configure(r->settings, engine, credentials);
        const bool sent = reply.status != 0;
        if (sent)
            server().on("POST", FakeCloudVoices::synthesisPath(engine), reply);
        server().on("GET", "/v1/voices", Reply::json(QJsonObject { { "voices", QJsonArray {} } }));

        r->speech.enqueue(text, &r->settings);
        r->speech.finishQueue();
        QCOMPARE(r->speech.isPreparingVoice(), sent);
        QVERIFY(AsyncTest::waitUntil([&] { return !r->speech.isPreparingVoice(); }));
        QCOMPARE(r->speech.lastError(), expected);
        QTest::qWait(50);
        QVERIFY(!r->speech.isSpeaking() && r->finished.isEmpty());
        QCOMPARE(r->log, sent ? QStringList({ "preparing", "prepared" }) : QStringList());
        QCOMPARE(server().requests().size(), sent ? 1 : 0);
        QCOMPARE(r->speech.localSynthesizer()->engineState(), LocalSynthesizer::EngineState::notStarted);
        if (!sent) {
            AsyncTest::await(r->speech.refreshVoices(engine, &r->settings));
            QCOMPARE(r->speech.lastError(), expected);
            QCOMPARE(server().requests().size(), listFetched ? 1 : 0);
        }
    }

    // Published once loaded, as the settings screen reads them; a failed reload keeps the list.
    void voiceListsPublishWhileLoadingFlagIsUp()
    {
        Reply voices = Reply::json(QJsonObject { { "voices",
            QJsonArray { QJsonObject { { "voice_id", "v1" }, { "name", "Ana" }, { "category", "premade" } } } } });
        voices.delayMs = 300;
        server().enqueue("GET", "/v1/voices", voices);
        server().enqueue("GET", "/v1/voices", Reply::text({}, 401));
        QSignalSpy published(&r->speech, &SpeechSynthesizer::voicesChanged);
        r->settings.setElevenAPIKey(u" key "_s);
        QJSEngine js;
        QJSEngine::setObjectOwnership(&r->speech, QJSEngine::CppOwnership);
        js.globalObject().setProperty("speech", js.newQObject(&r->speech));
        const QString read
            = u"[speech.isLoadingVoices, speech.elevenVoices.length, speech.elevenVoices[0].name, speech.lastError]"_s;

        auto loading = r->speech.refreshVoices(VoiceEnginePreset::elevenLabs, &r->settings);
        QVERIFY(r->speech.isLoadingVoices());
        AsyncTest::await(std::move(loading));
        QCOMPARE(js.evaluate(read).toString(), u"false,1,Ana,"_s);
        QCOMPARE(server().requests().first().header("xi-api-key"), QByteArray("key"));
        AsyncTest::await(r->speech.refreshVoices(VoiceEnginePreset::elevenLabs, &r->settings));
        QCOMPARE(js.evaluate(read).toString(), u"false,1,Ana,ElevenLabs nu a putut fi redat."_s);
        QCOMPARE(published.size(), 1);
    }

    // Pieces answered last-first play in order, two requests at most, back to back; a failed one is
    // reported once; the end waits for finishQueue(). Barge-in silences within 100 ms and drops the rest.
    void answerPlaysInOrderUntilStopped_data()
    {
        QTest::addColumn<VoiceEnginePreset>("engine");
        QTest::addColumn<QList<int>>("delaysMs");
        QTest::addColumn<int>("failingPiece");
        QTest::addColumn<bool>("bargeIn");
        const QList<int> firstLast { 500, 250, 20 };
        for (const CloudVoiceProvider &provider : CloudVoiceProvider::all())
            QTest::newRow(qPrintable(provider.name)) << provider.engine << firstLast << -1 << false;
        QTest::newRow("middle piece fails") << VoiceEnginePreset::elevenLabs << firstLast << 1 << false;
        QTest::newRow("barge-in") << VoiceEnginePreset::azureSpeech << QList<int> { 0, 1'200, 1'200 } << -1 << true;
    }

    void answerPlaysInOrderUntilStopped()
    {
        KELO_REQUIRE_AUDIO();
        QFETCH(VoiceEnginePreset, engine);
        QFETCH(QList<int>, delaysMs);
        QFETCH(int, failingPiece);
        QFETCH(bool, bargeIn);
        server().on("POST", FakeCloudVoices::synthesisPath(engine), [=, this](const FakeHttpServer::Request &request) {
            const qsizetype i = std::find_if(pieces.begin(), pieces.end(), [&](const QString &piece) {
                return request.body.contains(piece.chopped(1).toUtf8());
            }) - pieces.begin();
            Reply reply = i == failingPiece ? Reply::text("overloaded", 503)
                                            : FakeCloudVoices::audio(engine, m_pieceAudio.value(i));
            reply.delayMs = delaysMs.value(i);
            return reply;
        });
        FakeCloudVoices::configure(r->settings, engine);
        QStringList heard = pieces;
        heard.removeOne(pieces.value(failingPiece));

        for (const QString &piece : pieces)
            r->speech.enqueue(piece, &r->settings);
        auto *queue = r->speech.findChild<CloudSpeechQueue *>();
        QSignalSpy started(queue, &CloudSpeechQueue::pieceStarted);
        QSignalSpy failed(queue, &CloudSpeechQueue::failed);
        if (bargeIn) {
            QVERIFY(AsyncTest::waitUntil([&] { return r->speech.isSpeaking(); }));
            QTest::qWait(200);
            QCOMPARE(playingStreams(), 1);
            QElapsedTimer clock;
            clock.start();
            r->speech.stopSpeaking();
            while (playingStreams() > 0 && clock.elapsed() < 2'000)
                QTest::qWait(5);
            const qint64 silentMs = clock.elapsed();
            QVERIFY2(silentMs <= 100, qPrintable(QString::number(silentMs)));
            QTest::qWait(1'500);
            QCOMPARE(playingStreams(), 0);
            QVERIFY(r->finished.isEmpty() && r->speech.lastError().isEmpty());
        } else {
            QTest::qWait(150);
            QCOMPARE(server().requests().size(), CloudSpeechQueue::maxRequestsInFlight);
            QVERIFY(AsyncTest::waitUntil([&] { return r->speech.cloudAudioOutput()->underruns() > 0; }, 20'000));
            QCOMPARE(firstArguments(started), heard);
            QTest::qWait(300);
            QVERIFY(r->finished.isEmpty());
            r->speech.finishQueue();
            QVERIFY(r->finished.wait(10'000));
            QCOMPARE(r->finished.size(), 1);
            QCOMPARE(firstArguments(failed), failingPiece >= 0 ? QStringList { "overloaded" } : QStringList {});
            QCOMPARE(server().requests().size(), 3);
        }
        // Speaking before prepared: no observer sees a moment of neither.
        QCOMPARE(r->log, (QStringList { "preparing", "speaking", "prepared", "idle" }));
    }

    // speech-dispatcher with eSpeak NG: Romanian voices once each, sentences heard in order, one end;
    // stopping drops the queue silently, and speech right after keeps its own events.
    void localEngineSpeaksInOrderAndStops()
    {
        KELO_REQUIRE_AUDIO();
        LocalSynthesizer *engine = r->speech.localSynthesizer();
        QSignalSpy started(engine, &LocalSynthesizer::didStart);
        QSignalSpy finished(engine, &LocalSynthesizer::didFinish);
        QVERIFY(AsyncTest::waitUntil([&] { return !r->speech.bestVoiceDescription().startsWith(u"Se caută"_s); },
            LocalSynthesizer::startDeadlineMs));
        if (engine->engineState() == LocalSynthesizer::EngineState::unavailable)
            QSKIP(qPrintable("speech-dispatcher is not usable here: " + engine->unavailableReason()));
        const QList<LocalVoice> voices = r->speech.romanianVoices();
        QSet<QString> identifiers;
        for (const LocalVoice &voice : voices) {
            QVERIFY2(voice.language.toLower().startsWith(u"ro"_s), qPrintable(voice.language));
            identifiers.insert(voice.identifier);
        }
        QVERIFY(!voices.isEmpty() && identifiers.size() == voices.size());

        r->settings.setVoiceEngine(VoiceEnginePreset::appleLocal);
        r->settings.setVoiceIdentifier(voices.last().identifier);
        MonitorRecording recording;
        r->speech.enqueue(u"## Bună ziua! Vezi [pagina](https://example.ro)."_s, &r->settings);
        r->speech.enqueue(u"Mulțumesc."_s, &r->settings);
        r->speech.finishQueue();
        QVERIFY(r->finished.wait(30'000));
        QCOMPARE(r->speech.lastError(), QString());
        QCOMPARE(firstArguments(started), (QStringList { "1", "2", "3" }));
        QCOMPARE(firstArguments(finished), (QStringList { "1", "2", "3" }));
        QCOMPARE(r->log, (QStringList { "speaking", "idle" }));
        QTest::qWait(2'000);
        const double audible = measure(recording.stop()).audibleSeconds;
        QVERIFY2(audible > 1.0, qPrintable(QString::number(audible)));

        // An unknown voice falls back to the first.
        r->settings.setVoiceIdentifier(u"no such voice"_s);
        r->speech.enqueue(u"Aceasta este o propoziție destul de lungă, ca să o pot opri în mijlocul ei fără grabă. "
                          "Aceasta nu trebuie să se audă."_s,
            &r->settings);
        QVERIFY(AsyncTest::waitUntil([&] { return started.size() == 4; }, 15'000));
        r->speech.stopSpeaking();
        QTest::qWait(1'500);
        MonitorRecording afterStop;
        QTest::qWait(3'000);
        const double audibleAfterStop = measure(afterStop.stop()).audibleSeconds;
        QVERIFY2(audibleAfterStop < 0.2, qPrintable(QString::number(audibleAfterStop)));

        r->speech.enqueue(u"O frază care va fi întreruptă foarte curând de alta."_s, &r->settings);
        QVERIFY(AsyncTest::waitUntil([&] { return started.size() == 5; }, 15'000));
        r->speech.speak(u"A doua frază."_s, &r->settings);
        QVERIFY(AsyncTest::waitUntil([&] { return finished.size() == 4; }, 20'000));
        QCOMPARE(firstArguments(started), (QStringList { "1", "2", "3", "4", "6", "7" }));
        QCOMPARE(firstArguments(finished), (QStringList { "1", "2", "3", "7" }));
        QCOMPARE(r->finished.size(), 2);
    }
};

QTEST_MAIN(SpeechSynthesizerTest)
#include "SpeechSynthesizerTest.moc"
