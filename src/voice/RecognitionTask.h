#pragma once

#include <QFutureWatcher>
#include <QObject>
#include <QString>
#include <QVector>

#include <atomic>
#include <memory>
#include <optional>
#include <vector>

class AudioInput;
class Resampler;
class TranscriptionWorker;
class WhisperModel;

// One recognition run: captured audio is brought to 16 kHz mono and collected; while it grows, the
// worker re-transcribes it for partial results (one job at a time); when the audio ends, a final
// transcription follows. Results come back on the thread that owns this object.
class RecognitionTask : public QObject
{
    Q_OBJECT

public:
    struct Options
    {
        // A partial is started once this much new audio arrived since the last one.
        double partialStepSeconds = 0.5;
        // Partials need a little audio before they say anything useful.
        double firstPartialSeconds = 1.0;
        // Shorter recordings are a slip of the finger, not a turn.
        double minimumSeconds = 0.3;
        // When no buffer's level reached this, nothing was said.
        double speechLevel = 0.05;
    };

    RecognitionTask(std::shared_ptr<WhisperModel> model, std::unique_ptr<AudioInput> input, TranscriptionWorker *worker,
        QObject *parent = nullptr);
    RecognitionTask(std::shared_ptr<WhisperModel> model, std::unique_ptr<AudioInput> input, TranscriptionWorker *worker,
        Options options, QObject *parent = nullptr);
    ~RecognitionTask() override;

    // Starts the audio; throws SpeechRecognitionError(audioFailure).
    void start();
    // No more audio: the final result follows (after a partial that is running, which is aborted).
    void endAudio();
    // Stops everything; nothing more is delivered.
    void cancel();

    bool audioEnded() const { return m_audioEnded; }
    double recordedSeconds() const;
    const std::vector<float> &samples() const { return m_samples; }

Q_SIGNALS:
    // isFinal arrives exactly once per run unless it was cancelled or failed; an empty final text
    // means nothing usable was said.
    void result(const QString &text, bool isFinal);
    void failed(const QString &message);
    void levelChanged(double level);

private:
    void onBuffer(const QVector<float> &interleaved, int sampleRate, int channels);
    void append(const QVector<float> &mono16k);
    void maybeStartPartial();
    void startJob(bool isFinal);
    void onJobFinished();
    bool heardSpeech() const;

    std::shared_ptr<WhisperModel> m_model;
    std::unique_ptr<AudioInput> m_input;
    TranscriptionWorker *m_worker;
    Options m_options;
    std::unique_ptr<Resampler> m_resampler;
    std::vector<float> m_samples;
    double m_loudestLevel = 0.0;
    size_t m_samplesAtLastPartial = 0;
    bool m_audioEnded = false;
    bool m_closing = false;
    bool m_finished = false;
    bool m_finalPending = false;
    bool m_runningIsFinal = false;
    std::shared_ptr<std::atomic_bool> m_abortRunning;
    std::unique_ptr<QFutureWatcher<QString>> m_watcher;
};
