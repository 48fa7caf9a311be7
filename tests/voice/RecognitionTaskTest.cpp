#include "voice/RecognitionTask.h"

#include "AsyncTest.h"
#include "RandomWhisperModel.h"
#include "VoiceSamples.h"
#include "voice/TranscriptionWorker.h"
#include "voice/WavFileInput.h"
#include "voice/WhisperModel.h"

#include <QTemporaryDir>
#include <QTest>

namespace {

// A 180 Hz tone, the same in every channel.
WavFile toneFile(double seconds, double amplitude, int rate = 16000, int channels = 1)
{
    WavFile wav;
    wav.sampleRate = rate;
    wav.channels = channels;
    for (float sample : VoiceSamples::sine(180, amplitude, rate, seconds))
        wav.interleaved.append(QVector<float>(channels, sample));
    return wav;
}

} // namespace

class RecognitionTaskTest : public QObject
{
    Q_OBJECT

    QTemporaryDir m_dir;
    std::shared_ptr<WhisperModel> m_model;
    std::unique_ptr<TranscriptionWorker> m_worker;
    QStringList m_partials, m_finals, m_failures;

    std::unique_ptr<RecognitionTask> start(WavFile wav, double speed)
    {
        auto task = std::make_unique<RecognitionTask>(
            m_model, std::make_unique<WavFileInput>(std::move(wav), speed), m_worker.get());
        connect(task.get(), &RecognitionTask::result, this,
            [this](const QString &text, bool isFinal) { (isFinal ? m_finals : m_partials).append(text); });
        connect(task.get(), &RecognitionTask::failed, this, [this](const QString &text) { m_failures.append(text); });
        task->start();
        return task;
    }

private Q_SLOTS:
    void initTestCase()
    {
        const QString path = m_dir.filePath(QStringLiteral("model.bin"));
        RandomWhisperModel::write(path, RandomWhisperModel::tiny());
        m_model = WhisperModel::load(path);
    }

    void init()
    {
        m_worker = std::make_unique<TranscriptionWorker>();
        m_partials.clear(), m_finals.clear(), m_failures.clear();
    }

    void partialsNeverOverlapAndOneFinalOfAllTheAudioEndsTheRun()
    {
        // Six seconds of 48 kHz stereo fed four times faster than real time: audio outruns the transcriptions.
        auto task = start(toneFile(6.0, 0.3, 48000, 2), 4.0);
        QVERIFY(AsyncTest::waitUntil([&] { return task->audioEnded(); }, 20'000));
        QVERIFY(AsyncTest::waitUntil([this] { return !m_finals.isEmpty(); }, 60'000));
        QTest::qWait(200);
        QVERIFY(m_finals.size() == 1 && !m_finals.first().isEmpty() && m_failures.isEmpty());
        QVERIFY2(m_worker->completedJobs() >= 2, "no partial ran while the audio was coming in");
        QCOMPARE(m_worker->peakConcurrency(), 1);
        // Every frame arrives, brought to 16 kHz mono; downmixing two equal channels keeps the amplitude.
        QVERIFY(std::abs(task->recordedSeconds() - 6.0) < 0.05);
        QVERIFY(std::abs(double(task->samples().size()) - 6.0 * 16000) <= 2);
        const auto [low, high] = std::minmax_element(task->samples().cbegin(), task->samples().cend());
        QVERIFY2(std::abs(*high - 0.3f) < 0.02f && std::abs(*low + 0.3f) < 0.02f, qPrintable(QString::number(*high)));

        // A release during a partial still gives one final of all the audio heard.
        init();
        auto held = start(toneFile(8.0, 0.3), 1.0);
        QVERIFY(AsyncTest::waitUntil([this] { return m_worker->runningJobs() == 1; }, 20'000));
        const size_t heardWhenReleased = held->samples().size();
        held->endAudio();
        QVERIFY(m_finals.isEmpty()); // it waits for the running partial to stop first
        QVERIFY(AsyncTest::waitUntil([this] { return !m_finals.isEmpty(); }, 60'000));
        held->endAudio();
        QTest::qWait(200);
        QVERIFY(m_finals.size() == 1 && m_worker->peakConcurrency() == 1 && m_worker->runningJobs() == 0);
        // Audio after the release is not taken; what was heard before is.
        QVERIFY(held->samples().size() >= heardWhenReleased && held->samples().size() < size_t(8 * 16000));
    }

    // Neither a cancelled task nor one destroyed while its job runs may be called into by that job.
    void cancellingDestroyingOrSilenceDeliverNothing()
    {
        auto task = start(toneFile(5.0, 0.3), 1.0);
        QVERIFY(AsyncTest::waitUntil([this] { return m_worker->runningJobs() == 1; }, 20'000));
        task->cancel();
        QVERIFY(AsyncTest::waitUntil([this] { return m_worker->runningJobs() == 0; }, 20'000));
        auto again = start(toneFile(3.0, 0.3), 1.0);
        QVERIFY(AsyncTest::waitUntil([this] { return m_worker->runningJobs() == 1; }, 20'000));
        again.reset();
        QVERIFY(AsyncTest::waitUntil([this] { return m_worker->runningJobs() == 0; }, 20'000));
        QTest::qWait(100);
        QVERIFY(m_finals.isEmpty());

        // A faint hum below speech and a fifth of a second give an empty final without transcribing.
        for (const auto &[seconds, amplitude] : { std::pair { 3.0, 0.001 }, { 0.2, 0.3 } }) {
            init();
            auto quiet = start(toneFile(seconds, amplitude), 0.0);
            QVERIFY(AsyncTest::waitUntil([this] { return !m_finals.isEmpty(); }, 20'000));
            QCOMPARE(m_finals, QStringList { QString() });
            QVERIFY(m_partials.isEmpty() && m_worker->completedJobs() == 0);
        }
    }
};

QTEST_GUILESS_MAIN(RecognitionTaskTest)
#include "RecognitionTaskTest.moc"
