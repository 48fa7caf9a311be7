#include "voice/LocalSynthesizer.h"

#include "AsyncTest.h"
#include "VoiceTestSupport.h"

#include <QSignalSpy>
#include <QTest>

using namespace Qt::StringLiterals;
using namespace VoiceTestSupport;

namespace {

LocalSynthesizer::Utterance utterance(quint64 id, const QString &text, int preDelayMs = 0, const QString &voice = {})
{
    return { id, text, 0.5, voice, preDelayMs, 60 };
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
            [&] { return m_synthesizer->engineState() != LocalSynthesizer::EngineState::starting; },
            LocalSynthesizer::startDeadlineMs));
        if (m_synthesizer->engineState() == LocalSynthesizer::EngineState::unavailable)
            QSKIP(qPrintable("speech-dispatcher is not usable here: " + m_synthesizer->unavailableReason()));
    }

    // Only Romanian voices, each once; utterances heard in order, the second in another voice.
    void speaksUtterancesInOrderAudibly()
    {
        const QList<LocalVoice> voices = m_synthesizer->romanianVoices();
        QVERIFY2(!voices.isEmpty(), "speech-dispatcher-espeak-ng lists Romanian voices");
        QSet<QString> identifiers;
        for (const LocalVoice &voice : voices) {
            QVERIFY2(voice.language.toLower().startsWith(u"ro"_s), qPrintable(voice.language));
            identifiers.insert(voice.identifier);
        }
        QCOMPARE(identifiers.size(), voices.size());

        QSignalSpy started(m_synthesizer.get(), &LocalSynthesizer::didStart);
        QSignalSpy finished(m_synthesizer.get(), &LocalSynthesizer::didFinish);
        QSignalSpy failed(m_synthesizer.get(), &LocalSynthesizer::failed);
        MonitorRecording recording;
        m_synthesizer->enqueue(utterance(1, u"Bună ziua."_s, 20));
        m_synthesizer->enqueue(utterance(2, u"Sunt Kelo și vorbesc românește."_s, 0, voices.last().identifier));
        QVERIFY(AsyncTest::waitUntil([&] { return finished.size() == 2 || !failed.isEmpty(); }, 30'000));
        QVERIFY2(failed.isEmpty(), failed.isEmpty() ? "" : qPrintable(failed.first().first().toString()));
        QCOMPARE(firstArguments(started), (QStringList { "1", "2" }));
        QCOMPARE(firstArguments(finished), (QStringList { "1", "2" }));
        QTest::qWait(2'000);
        const double audible = measure(recording.stop()).audibleSeconds;
        QVERIFY2(audible > 1.0, qPrintable(QString::number(audible)));
    }

    // stopAll() silences and drops the queue without events; speech right after it keeps its own.
    void stopAllEndsEverythingWithoutEvents()
    {
        QSignalSpy started(m_synthesizer.get(), &LocalSynthesizer::didStart);
        QSignalSpy finished(m_synthesizer.get(), &LocalSynthesizer::didFinish);
        m_synthesizer->enqueue(
            utterance(10, u"Aceasta este o propoziție destul de lungă, ca să o pot opri în mijlocul ei fără grabă."_s));
        m_synthesizer->enqueue(utterance(11, u"Aceasta nu trebuie să se audă."_s));
        QVERIFY(AsyncTest::waitUntil([&] { return !started.isEmpty(); }, 15'000));
        m_synthesizer->stopAll();
        QTest::qWait(1'500);
        MonitorRecording recording;
        QTest::qWait(3'000);
        const double audible = measure(recording.stop()).audibleSeconds;
        QVERIFY2(audible < 0.2, qPrintable(QString::number(audible)));
        QCOMPARE(firstArguments(started), QStringList { "10" });
        QVERIFY(finished.isEmpty());

        m_synthesizer->enqueue(utterance(20, u"O frază care va fi întreruptă foarte curând de alta."_s));
        QVERIFY(AsyncTest::waitUntil([&] { return started.size() == 2; }, 15'000));
        m_synthesizer->stopAll();
        m_synthesizer->enqueue(utterance(21, u"A doua frază."_s, 20));
        QVERIFY(AsyncTest::waitUntil([&] { return !finished.isEmpty(); }, 20'000));
        QCOMPARE(firstArguments(started), (QStringList { "10", "20", "21" }));
        QCOMPARE(firstArguments(finished), QStringList { "21" });
    }
};

QTEST_GUILESS_MAIN(LocalSynthesizerTest)
#include "LocalSynthesizerTest.moc"
