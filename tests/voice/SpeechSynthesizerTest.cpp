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

Q_DECLARE_METATYPE(CloudVoiceCredentials)
Q_DECLARE_METATYPE(FakeHttpServer::Reply)

namespace {

const QStringList pieces { u"Unu."_s, u"Doi."_s, u"Trei."_s };

// A speaker with its own home, loopback voices and settings, and every change of its published
// state in order ("speaking"/"idle", "preparing"/"prepared").
struct Rig
{
    TemporaryHome home;
    FakeCloudVoices fake;
    AppSettings settings;
    SpeechSynthesizer speech;
    QSignalSpy finished { &speech, &SpeechSynthesizer::playbackFinished };
    QStringList log;

    Rig()
    {
        QObject::connect(&speech, &SpeechSynthesizer::isSpeakingChanged,
            [this] { log.append(speech.isSpeaking() ? u"speaking"_s : u"idle"_s); });
        QObject::connect(&speech, &SpeechSynthesizer::isPreparingVoiceChanged,
            [this] { log.append(speech.isPreparingVoice() ? u"preparing"_s : u"prepared"_s); });
    }
};

QStringList firstArguments(const QSignalSpy &spy)
{
    QStringList values;
    for (const QList<QVariant> &arguments : spy)
        values.append(arguments.first().toString());
    return values;
}

} // namespace

// Speaking end to end: settings in, requests out to a loopback server, real MP3 played into the
// PulseAudio null sink, the published state and playbackFinished().
class SpeechSynthesizerTest : public QObject
{
    Q_OBJECT

    QList<QByteArray> m_pieceAudio;
    std::optional<Rig> r;

    FakeHttpServer &server() { return r->fake.server(); }

    // Each piece answered with its own audio after its own delay, whatever order the requests take.
    void answerPieces(VoiceEnginePreset engine, const QList<int> &delaysMs, int failingPiece = -1)
    {
        server().on("POST", FakeCloudVoices::synthesisPath(engine), [=, this](const FakeHttpServer::Request &request) {
            qsizetype i = 0;
            while (i < pieces.size() && !request.body.contains(pieces[i].chopped(1).toUtf8()))
                ++i;
            Reply reply = i == failingPiece ? Reply::text("overloaded", 503)
                                            : FakeCloudVoices::audio(engine, m_pieceAudio.value(i));
            reply.delayMs = delaysMs.value(i);
            return reply;
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

    void init() { r.emplace(); }
    void cleanup() { r.reset(); }

    // Missing settings are named before anything is sent (a voice list needs only the key); a
    // provider's failure ends idle with its text.
    void failuresEndIdleWithTheirText_data()
    {
        QTest::addColumn<VoiceEnginePreset>("engine");
        QTest::addColumn<Credentials>("credentials");
        QTest::addColumn<Reply>("reply");
        QTest::addColumn<QString>("expected");
        QTest::addColumn<QString>("listExpected");
        const auto google = VoiceEnginePreset::googleCloud, azure = VoiceEnginePreset::azureSpeech,
                   eleven = VoiceEnginePreset::elevenLabs;
        const Reply unsent = Reply::text({}, 0);
        const auto json
            = [](const QByteArray &body, int status) { return Reply::text(body, status, "application/json"); };
        const QString noGoogle = u"Introdu cheia Google Cloud Text-to-Speech."_s;
        const QString noAzure = u"Introdu cheia și regiunea Azure Speech."_s, noEleven = u"Introdu cheia ElevenLabs."_s;
        const QByteArray keyError = R"({"error":{"code":401,"message":"API key not valid."}})";
        QTest::newRow("google without key")
            << google << Credentials { " \t", {}, {} } << unsent << noGoogle << noGoogle;
        QTest::newRow("azure without region")
            << azure << Credentials { "key", "  ", {} } << unsent << noAzure << noAzure;
        QTest::newRow("azure without key")
            << azure << Credentials { {}, "westeurope", {} } << unsent << noAzure << noAzure;
        QTest::newRow("elevenlabs without key") << eleven << Credentials {} << unsent << noEleven << noEleven;
        QTest::newRow("elevenlabs without voice") << eleven << Credentials { "key", {}, {} } << unsent
                                                  << u"Alege o voce ElevenLabs înainte de test."_s << QString();
        QTest::newRow("401 with a JSON body") << eleven << FakeCloudVoices::credentials() << json(keyError, 401)
                                              << QString::fromUtf8(keyError) << QString();
        QTest::newRow("200 that is no MP3")
            << azure << FakeCloudVoices::credentials() << json("<html>captive portal</html>", 200)
            << u"Fișierul audio nu a putut fi redat."_s << QString();
        QTest::newRow("200 with invalid base64")
            << google << FakeCloudVoices::credentials() << json(R"({"audioContent":"@@@"})", 200)
            << u"Datele primite nu au putut fi decodate."_s << QString();
    }

    void failuresEndIdleWithTheirText()
    {
        QFETCH(VoiceEnginePreset, engine);
        QFETCH(Credentials, credentials);
        QFETCH(Reply, reply);
        QFETCH(QString, expected);
        QFETCH(QString, listExpected);
        FakeCloudVoices::configure(r->settings, engine, credentials);
        server().on("POST", FakeCloudVoices::synthesisPath(engine), reply);
        server().on("GET", "/v1/voices", Reply::json(QJsonObject { { "voices", QJsonArray {} } }));
        const bool sent = reply.status != 0;

        r->speech.speak(u"Salut."_s, &r->settings);
        QCOMPARE(r->speech.isPreparingVoice(), sent);
        QVERIFY(AsyncTest::waitUntil([&] { return !r->speech.isPreparingVoice(); }));
        QCOMPARE(r->speech.lastError(), expected);
        QTest::qWait(50);
        QVERIFY(!r->speech.isSpeaking() && r->finished.isEmpty());
        QCOMPARE(r->log, sent ? QStringList({ "preparing", "prepared" }) : QStringList());
        QCOMPARE(server().requests().size(), sent ? 1 : 0);
        if (sent)
            return;
        AsyncTest::await(r->speech.refreshVoices(engine, &r->settings));
        QCOMPARE(r->speech.lastError(), listExpected.isEmpty() ? expected : listExpected);
        QCOMPARE(server().requests().size(), listExpected.isEmpty() ? 1 : 0);
    }

    void repliesThatCleanToNothingAreNotSpoken()
    {
        FakeCloudVoices::configure(r->settings, VoiceEnginePreset::googleCloud);
        for (const QString &reply : { u"<think>Doar gânduri.</think>"_s, u"*** ### ___"_s, u" \n\t "_s }) {
            for (const VoiceEnginePreset engine : { VoiceEnginePreset::googleCloud, VoiceEnginePreset::appleLocal }) {
                r->settings.setVoiceEngine(engine);
                r->speech.speak(reply, &r->settings);
                r->speech.enqueue(reply, &r->settings);
            }
        }
        QTest::qWait(100);
        QVERIFY(r->log.isEmpty() && r->finished.isEmpty() && server().requests().isEmpty());
        QVERIFY(r->speech.lastError().isEmpty());
        // Nothing spoken, so the local engine was not even started.
        QCOMPARE(r->speech.localSynthesizer()->engineState(), LocalSynthesizer::EngineState::notStarted);
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

        auto loading = r->speech.refreshVoices(VoiceEnginePreset::elevenLabs, &r->settings);
        QVERIFY(r->speech.isLoadingVoices());
        AsyncTest::await(std::move(loading));
        QVERIFY(!r->speech.isLoadingVoices());
        QCOMPARE(published.size(), 1);
        QJSEngine js;
        QJSEngine::setObjectOwnership(&r->speech, QJSEngine::CppOwnership);
        js.globalObject().setProperty("speech", js.newQObject(&r->speech));
        QCOMPARE(js.evaluate("speech.elevenVoices.length + ' ' + speech.elevenVoices[0].name").toString(), "1 Ana");
        QCOMPARE(server().requests().first().header("xi-api-key"), QByteArray("key"));

        AsyncTest::await(r->speech.refreshVoices(VoiceEnginePreset::elevenLabs, &r->settings));
        QCOMPARE(r->speech.lastError(), u"ElevenLabs nu a putut fi redat."_s);
        QCOMPARE(r->speech.elevenVoices().size(), 1);
        QVERIFY(!r->speech.isLoadingVoices());
    }

    // Pieces answered out of order (the first last) play in order, never more than two requests at
    // a time, back to back through one output, ending once after finish(); a piece that fails is
    // reported once and the rest still plays.
    void queuePlaysPiecesInOrderWithoutGaps_data()
    {
        QTest::addColumn<VoiceEnginePreset>("engine");
        QTest::addColumn<int>("failingPiece");
        for (const CloudVoiceProvider &provider : CloudVoiceProvider::all())
            QTest::newRow(qPrintable(provider.name)) << provider.engine << -1;
        QTest::newRow("middle piece fails") << VoiceEnginePreset::elevenLabs << 1;
    }

    void queuePlaysPiecesInOrderWithoutGaps()
    {
        KELO_REQUIRE_AUDIO();
        QFETCH(VoiceEnginePreset, engine);
        QFETCH(int, failingPiece);
        answerPieces(engine, { 500, 250, 20 }, failingPiece);
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

        QCOMPARE(firstArguments(finished), QStringList { "true" });
        QStringList heard = pieces;
        if (failingPiece >= 0)
            heard.removeAt(failingPiece);
        QCOMPARE(firstArguments(started), heard);
        QCOMPARE(firstArguments(failed), failingPiece >= 0 ? QStringList { "overloaded" } : QStringList {});
        QCOMPARE(queue.output()->underruns(), 0);
        QCOMPARE(server().requests().size(), 3);
    }

    // An answer still being written: the device may run dry between pieces, but the end comes only
    // after finishQueue() and the last piece, in one speaking stretch.
    void playbackFinishesOnlyAfterFinishQueue()
    {
        KELO_REQUIRE_AUDIO();
        answerPieces(VoiceEnginePreset::azureSpeech, {});
        FakeCloudVoices::configure(r->settings, VoiceEnginePreset::azureSpeech);

        r->speech.enqueue(pieces[0], &r->settings);
        QVERIFY(AsyncTest::waitUntil([&] { return r->speech.isSpeaking(); }));
        CloudAudioOutput *output = r->speech.cloudAudioOutput();
        QVERIFY(AsyncTest::waitUntil([&] { return output->underruns() > 0; }, 10'000));
        QTest::qWait(500);
        QVERIFY(r->finished.isEmpty() && r->speech.isSpeaking());

        r->speech.enqueue(pieces[1], &r->settings);
        r->speech.finishQueue();
        QVERIFY(r->finished.wait(10'000));
        QCOMPARE(r->finished.size(), 1);
        QCOMPARE(r->log, (QStringList { "preparing", "speaking", "prepared", "idle" }));
        QVERIFY(r->speech.lastError().isEmpty());
    }

    // Barge-in: the sound stops within 100 ms (only this process's streams count), the request still
    // under way is dropped, and the answer never reports that it finished.
    void stopSpeakingSilencesWithin100MsAndDropsTheQueue()
    {
        KELO_REQUIRE_AUDIO();
        const QString path = FakeCloudVoices::synthesisPath(VoiceEnginePreset::elevenLabs);
        Reply longer = FakeCloudVoices::audio(VoiceEnginePreset::elevenLabs,
            makeSpeechMp3(u"Aceasta este o frază mai lungă, care ar trebui să țină câteva secunde bune."_s));
        server().enqueue("POST", path, longer);
        longer.delayMs = 800;
        server().on("POST", path, longer);
        FakeCloudVoices::configure(r->settings, VoiceEnginePreset::elevenLabs);

        r->speech.enqueue(u"Prima frază."_s, &r->settings);
        QVERIFY(AsyncTest::waitUntil([&] { return r->speech.isSpeaking(); }));
        r->speech.enqueue(u"A doua frază."_s, &r->settings);
        QTest::qWait(400);
        QCOMPARE(playingStreams(), 1);

        QElapsedTimer clock;
        clock.start();
        r->speech.stopSpeaking();
        while (playingStreams() > 0 && clock.elapsed() < 2'000)
            QTest::qWait(5);
        const qint64 silentMs = clock.elapsed();
        QVERIFY2(silentMs <= 100, qPrintable(QString::number(silentMs)));
        QVERIFY(!r->speech.isSpeaking());

        // The second answer arrives late: nothing plays it and nothing is reported.
        QTest::qWait(1'200);
        QCOMPARE(playingStreams(), 0);
        QVERIFY(r->speech.lastError().isEmpty() && r->finished.isEmpty());
        QVERIFY(!r->speech.isSpeaking() && !r->speech.isPreparingVoice());
    }

    // Markdown cleaned, sentences queued, one speaking stretch and one end (LocalSynthesizerTest hears it).
    void localSpeechQueuesPiecesAndFinishesOnce()
    {
        KELO_REQUIRE_AUDIO();
        r->settings.setVoiceEngine(VoiceEnginePreset::appleLocal);
        r->settings.setVoiceRate(0.6);
        r->settings.setVoiceIdentifier(u"no such voice"_s);

        r->speech.enqueue(u"## Bună ziua! Vezi [pagina](https://example.ro)."_s, &r->settings);
        r->speech.enqueue(u"Mulțumesc."_s, &r->settings);
        r->speech.finishQueue();
        QVERIFY(AsyncTest::waitUntil([&] { return !r->finished.isEmpty() || !r->speech.lastError().isEmpty(); },
            LocalSynthesizer::startDeadlineMs + 30'000));
        if (r->speech.localSynthesizer()->engineState() == LocalSynthesizer::EngineState::unavailable)
            QSKIP(qPrintable("speech-dispatcher is not usable here: " + r->speech.lastError()));
        QVERIFY2(r->speech.lastError().isEmpty(), qPrintable(r->speech.lastError()));
        QCOMPARE(r->finished.size(), 1);
        QCOMPARE(r->log, (QStringList { "speaking", "idle" }));
    }
};

QTEST_MAIN(SpeechSynthesizerTest)
#include "SpeechSynthesizerTest.moc"
