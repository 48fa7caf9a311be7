#include "voice/LocalSynthesizer.h"

#include "AsyncTest.h"
#include "VoiceTestSupport.h"

#include <QSignalSpy>
#include <QTest>

using namespace VoiceTestSupport;

namespace {

// speech-dispatcher starts with the first client; on a busy machine that takes a while.
constexpr int engineStartMs = 60'000;

LocalSynthesizer::Utterance utterance(quint64 id, const QString &text, int preDelayMs = 0, int postDelayMs = 60)
{
    LocalSynthesizer::Utterance u;
    u.id = id;
    u.text = text;
    u.rate = 0.5;
    u.preDelayMs = preDelayMs;
    u.postDelayMs = postDelayMs;
    return u;
}

QList<quint64> ids(const QSignalSpy &spy)
{
    QList<quint64> result;
    for (const QList<QVariant> &arguments : spy)
        result.append(arguments.first().toULongLong());
    return result;
}

} // namespace

// The local engine on a real speech-dispatcher with eSpeak NG, playing into the PulseAudio null
// sink of the test services.
class LocalSynthesizerTest : public QObject
{
    Q_OBJECT

    std::unique_ptr<LocalSynthesizer> m_synthesizer;

private Q_SLOTS:
    void initTestCase()
    {
        KELO_REQUIRE_AUDIO();
        m_synthesizer = std::make_unique<LocalSynthesizer>();
        m_synthesizer->prepare();
        QCOMPARE(m_synthesizer->engineState(), LocalSynthesizer::EngineState::starting);
        QVERIFY(AsyncTest::waitUntil(
            [&] { return m_synthesizer->engineState() != LocalSynthesizer::EngineState::starting; }, engineStartMs));
        if (m_synthesizer->engineState() == LocalSynthesizer::EngineState::unavailable)
            QSKIP(qPrintable("speech-dispatcher is not usable here: " + m_synthesizer->unavailableReason()));
    }

    void romanianVoicesOnlyEachOnce()
    {
        const QList<LocalVoice> voices = m_synthesizer->romanianVoices();
        QVERIFY2(!voices.isEmpty(), "speech-dispatcher-espeak-ng lists Romanian voices");
        QSet<QString> identifiers;
        for (const LocalVoice &voice : voices) {
            QVERIFY(voice.language.toLower().startsWith(QLatin1String("ro")));
            QVERIFY2(!identifiers.contains(voice.identifier), qPrintable(voice.identifier));
            identifiers.insert(voice.identifier);
        }
    }

    void speaksUtterancesInOrderAudibly()
    {
        QSignalSpy started(m_synthesizer.get(), &LocalSynthesizer::didStart);
        QSignalSpy finished(m_synthesizer.get(), &LocalSynthesizer::didFinish);
        QSignalSpy failed(m_synthesizer.get(), &LocalSynthesizer::failed);
        MonitorRecording recording;

        m_synthesizer->enqueue(utterance(1, QStringLiteral("Bună ziua."), 20));
        LocalSynthesizer::Utterance second = utterance(2, QStringLiteral("Sunt Kelo și vorbesc românește."));
        second.voiceIdentifier = m_synthesizer->romanianVoices().last().identifier;
        m_synthesizer->enqueue(second);

        QVERIFY(AsyncTest::waitUntil([&] { return finished.size() == 2 || !failed.isEmpty(); }, 30'000));
        QVERIFY2(failed.isEmpty(), failed.isEmpty() ? "" : qPrintable(failed.first().first().toString()));
        QCOMPARE(ids(started), (QList<quint64> { 1, 2 }));
        QCOMPARE(ids(finished), (QList<quint64> { 1, 2 }));
        QTest::qWait(2'000);
        const AudioLevels levels = measure(recording.stop());
        QVERIFY2(levels.audibleSeconds > 1.0, qPrintable(QString::number(levels.audibleSeconds)));
    }

    void stopAllEndsEverythingWithoutEvents()
    {
        QSignalSpy started(m_synthesizer.get(), &LocalSynthesizer::didStart);
        QSignalSpy finished(m_synthesizer.get(), &LocalSynthesizer::didFinish);
        m_synthesizer->enqueue(utterance(10,
            QStringLiteral("Aceasta este o propoziție destul de lungă, ca să o pot "
                           "opri în mijlocul ei fără grabă.")));
        m_synthesizer->enqueue(utterance(11, QStringLiteral("Aceasta nu trebuie să se audă.")));
        QVERIFY(AsyncTest::waitUntil([&] { return !started.isEmpty(); }, 15'000));

        m_synthesizer->stopAll();
        QTest::qWait(1'500);
        MonitorRecording recording;
        QTest::qWait(3'000);
        const AudioLevels levels = measure(recording.stop());
        QCOMPARE(ids(started), QList<quint64> { 10 });
        QVERIFY(finished.isEmpty());
        QVERIFY2(levels.audibleSeconds < 0.2, qPrintable(QString::number(levels.audibleSeconds)));
    }

    void aStopFollowedAtOnceByNewSpeechKeepsEventsApart()
    {
        QSignalSpy started(m_synthesizer.get(), &LocalSynthesizer::didStart);
        QSignalSpy finished(m_synthesizer.get(), &LocalSynthesizer::didFinish);
        m_synthesizer->enqueue(utterance(20, QStringLiteral("O frază care va fi întreruptă foarte curând de alta.")));
        QVERIFY(AsyncTest::waitUntil([&] { return !started.isEmpty(); }, 15'000));
        m_synthesizer->stopAll();
        m_synthesizer->enqueue(utterance(21, QStringLiteral("A doua frază."), 20));

        QVERIFY(AsyncTest::waitUntil([&] { return !finished.isEmpty(); }, 20'000));
        QCOMPARE(ids(started), (QList<quint64> { 20, 21 }));
        QCOMPARE(ids(finished), QList<quint64> { 21 });
    }
};

QTEST_GUILESS_MAIN(LocalSynthesizerTest)
#include "LocalSynthesizerTest.moc"
