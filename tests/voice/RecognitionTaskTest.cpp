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

struct Outcome
{
    QStringList partials;
    QStringList finals;
    QStringList failures;
    QList<double> levels;
};

WavFile toneFile(double seconds, double amplitude, int rate = 16000, int channels = 1)
{
    WavFile wav;
    wav.sampleRate = rate;
    wav.channels = channels;
    const QVector<float> mono = VoiceSamples::sine(180, amplitude, rate, seconds);
    for (float sample : mono)
        for (int c = 0; c < channels; ++c)
            wav.interleaved.append(sample);
    return wav;
}

} // namespace

class RecognitionTaskTest : public QObject
{
    Q_OBJECT

    QTemporaryDir m_dir;
    std::shared_ptr<WhisperModel> m_model;

    std::unique_ptr<RecognitionTask> makeTask(TranscriptionWorker &worker, WavFile wav, double speed, Outcome &outcome)
    {
        auto task = std::make_unique<RecognitionTask>(
            m_model, std::make_unique<WavFileInput>(std::move(wav), speed), &worker);
        connect(task.get(), &RecognitionTask::result, this, [&outcome](const QString &text, bool isFinal) {
            (isFinal ? outcome.finals : outcome.partials).append(text);
        });
        connect(task.get(), &RecognitionTask::failed, this,
            [&outcome](const QString &message) { outcome.failures.append(message); });
        connect(task.get(), &RecognitionTask::levelChanged, this,
            [&outcome](double level) { outcome.levels.append(level); });
        return task;
    }

private Q_SLOTS:
    void initTestCase()
    {
        const QString path = m_dir.filePath(QStringLiteral("model.bin"));
        RandomWhisperModel::write(path, RandomWhisperModel::tiny());
        m_model = WhisperModel::load(path);
    }

    void partialsNeverOverlapAndOneFinalEndsTheRun()
    {
        TranscriptionWorker worker;
        Outcome outcome;
        // Six seconds fed four times faster than real time: audio outruns the transcriptions.
        auto task = makeTask(worker, toneFile(6.0, 0.3), 4.0, outcome);
        task->start();
        QVERIFY(AsyncTest::waitUntil([&] { return task->audioEnded(); }, 20'000));
        QVERIFY(AsyncTest::waitUntil([&] { return !outcome.finals.isEmpty(); }, 60'000));
        QTest::qWait(200);

        QCOMPARE(outcome.finals.size(), 1);
        QVERIFY(outcome.failures.isEmpty());
        QVERIFY2(worker.completedJobs() >= 2, "no partial ran while the audio was coming in");
        QCOMPARE(worker.peakConcurrency(), 1);
        QVERIFY(!outcome.finals.first().isEmpty());
        QVERIFY(std::abs(task->recordedSeconds() - 6.0) < 0.05);
        QVERIFY(std::all_of(outcome.levels.cbegin(), outcome.levels.cend(), [](double l) { return l == 1.0; }));
    }

    void releaseDuringAPartialStillGivesOneFinalOfAllTheAudio()
    {
        TranscriptionWorker worker;
        Outcome outcome;
        auto task = makeTask(worker, toneFile(8.0, 0.3), 1.0, outcome);
        task->start();
        QVERIFY(AsyncTest::waitUntil([&] { return worker.runningJobs() == 1; }, 20'000));
        const size_t heardWhenReleased = task->samples().size();
        task->endAudio();
        QVERIFY(outcome.finals.isEmpty()); // it waits for the running partial to stop first

        QVERIFY(AsyncTest::waitUntil([&] { return !outcome.finals.isEmpty(); }, 60'000));
        QTest::qWait(200);
        QCOMPARE(outcome.finals.size(), 1);
        QCOMPARE(worker.peakConcurrency(), 1);
        QCOMPARE(worker.runningJobs(), 0);
        // Audio after the release is not taken; what was heard before is.
        QVERIFY(task->samples().size() >= heardWhenReleased);
        QVERIFY(task->samples().size() < size_t(8 * 16000));
        // A second release changes nothing.
        task->endAudio();
        QTest::qWait(100);
        QCOMPARE(outcome.finals.size(), 1);
    }

    void cancellingDeliversNothingEvenWhenAJobFinishesLater()
    {
        TranscriptionWorker worker;
        Outcome outcome;
        auto task = makeTask(worker, toneFile(5.0, 0.3), 1.0, outcome);
        task->start();
        QVERIFY(AsyncTest::waitUntil([&] { return worker.runningJobs() == 1; }, 20'000));
        task->cancel();
        QVERIFY(AsyncTest::waitUntil([&] { return worker.runningJobs() == 0; }, 20'000));
        QTest::qWait(100);
        QVERIFY(outcome.finals.isEmpty());
        // A job that was running when the task went away must not call into it.
        auto again = makeTask(worker, toneFile(3.0, 0.3), 1.0, outcome);
        again->start();
        QVERIFY(AsyncTest::waitUntil([&] { return worker.runningJobs() == 1; }, 20'000));
        again.reset();
        QVERIFY(AsyncTest::waitUntil([&] { return worker.runningJobs() == 0; }, 20'000));
        QTest::qWait(50);
        QVERIFY(outcome.finals.isEmpty());
    }

    void silenceAndSlipsOfTheFingerGiveAnEmptyFinalWithoutTranscribing_data()
    {
        QTest::addColumn<double>("seconds");
        QTest::addColumn<double>("amplitude");
        QTest::newRow("three seconds of silence") << 3.0 << 0.0;
        QTest::newRow("faint hum below speech") << 3.0 << 0.001;
        QTest::newRow("a fifth of a second") << 0.2 << 0.3;
    }

    void silenceAndSlipsOfTheFingerGiveAnEmptyFinalWithoutTranscribing()
    {
        QFETCH(double, seconds);
        QFETCH(double, amplitude);
        TranscriptionWorker worker;
        Outcome outcome;
        auto task = makeTask(worker, toneFile(seconds, amplitude), 0.0, outcome);
        task->start();
        QVERIFY(AsyncTest::waitUntil([&] { return !outcome.finals.isEmpty(); }, 20'000));
        QCOMPARE(outcome.finals, QStringList { QString() });
        QVERIFY(outcome.partials.isEmpty());
        QCOMPARE(worker.completedJobs(), 0);
    }

    void deviceFormatsAreBroughtTo16kHzMono()
    {
        TranscriptionWorker worker;
        Outcome outcome;
        auto task = makeTask(worker, toneFile(1.5, 0.3, 48000, 2), 0.0, outcome);
        task->start();
        QVERIFY(AsyncTest::waitUntil([&] { return !outcome.finals.isEmpty(); }, 60'000));
        QVERIFY(std::abs(double(task->samples().size()) - 1.5 * 16000) <= 2);
        // Downmixing two equal channels keeps the amplitude.
        float peak = 0;
        for (float s : task->samples())
            peak = std::max(peak, std::abs(s));
        QVERIFY2(std::abs(peak - 0.3f) < 0.02f, qPrintable(QString::number(peak)));
    }
};

QTEST_GUILESS_MAIN(RecognitionTaskTest)
#include "RecognitionTaskTest.moc"
