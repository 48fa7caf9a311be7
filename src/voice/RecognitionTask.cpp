#include "RecognitionTask.h"

#include "AudioInput.h"
#include "AudioMath.h"
#include "Resampler.h"
#include "SpeechRecognitionError.h"
#include "TranscriptionWorker.h"
#include "WhisperModel.h"

RecognitionTask::RecognitionTask(std::shared_ptr<WhisperModel> model, std::unique_ptr<AudioInput> input,
    TranscriptionWorker *worker, QObject *parent)
    : RecognitionTask(std::move(model), std::move(input), worker, Options {}, parent)
{ }

RecognitionTask::RecognitionTask(std::shared_ptr<WhisperModel> model, std::unique_ptr<AudioInput> input,
    TranscriptionWorker *worker, Options options, QObject *parent)
    : QObject(parent)
    , m_model(std::move(model))
    , m_input(std::move(input))
    , m_worker(worker)
    , m_options(options)
{
    connect(m_input.get(), &AudioInput::bufferCaptured, this, &RecognitionTask::onBuffer);
    connect(m_input.get(), &AudioInput::ended, this, &RecognitionTask::endAudio);
}

RecognitionTask::~RecognitionTask()
{
    cancel();
}

void RecognitionTask::start()
{
    m_input->start();
}

double RecognitionTask::recordedSeconds() const
{
    return double(m_samples.size()) / WhisperModel::kSampleRate;
}

void RecognitionTask::onBuffer(const QVector<float> &interleaved, int sampleRate, int channels)
{
    if (m_audioEnded || channels < 1 || sampleRate < 1)
        return;
    const double level = AudioMath::inputLevel(interleaved.constData(), interleaved.size() / channels, channels);
    m_loudestLevel = std::max(m_loudestLevel, level);
    Q_EMIT levelChanged(level);

    if (!m_resampler || m_resampler->inputRate() != sampleRate)
        m_resampler = std::make_unique<Resampler>(sampleRate, WhisperModel::kSampleRate);
    append(m_resampler->process(AudioMath::downmix(interleaved, channels)));
    maybeStartPartial();
}

void RecognitionTask::append(const QVector<float> &mono16k)
{
    m_samples.insert(m_samples.end(), mono16k.cbegin(), mono16k.cend());
}

bool RecognitionTask::heardSpeech() const
{
    return m_loudestLevel >= m_options.speechLevel && recordedSeconds() >= m_options.minimumSeconds;
}

void RecognitionTask::maybeStartPartial()
{
    if (m_watcher || m_audioEnded || m_closing || !heardSpeech())
        return;
    const size_t step = size_t(m_options.partialStepSeconds * WhisperModel::kSampleRate);
    if (recordedSeconds() < m_options.firstPartialSeconds || m_samples.size() < m_samplesAtLastPartial + step)
        return;
    m_samplesAtLastPartial = m_samples.size();
    startJob(false);
}

void RecognitionTask::startJob(bool isFinal)
{
    m_runningIsFinal = isFinal;
    m_abortRunning = std::make_shared<std::atomic_bool>(false);
    m_watcher = std::make_unique<QFutureWatcher<QString>>();
    connect(m_watcher.get(), &QFutureWatcherBase::finished, this, &RecognitionTask::onJobFinished);
    // The job owns its copy of the audio and a share of the model: cancelling this task never pulls
    // either from under a running transcription.
    m_watcher->setFuture(m_worker->submit([model = m_model, samples = m_samples, abort = m_abortRunning] {
        return model->transcribe(samples, abort.get());
    }));
}

void RecognitionTask::onJobFinished()
{
    const std::unique_ptr<QFutureWatcher<QString>> watcher = std::move(m_watcher);
    const bool wasFinal = m_runningIsFinal;
    const bool aborted = m_abortRunning && m_abortRunning->load();
    m_abortRunning.reset();
    if (m_finished)
        return;

    QString text;
    try {
        text = watcher->future().result();
    } catch (const SpeechRecognitionError &error) {
        m_finished = true;
        Q_EMIT failed(error.description());
        return;
    } catch (const std::exception &) {
        m_finished = true;
        Q_EMIT failed(SpeechRecognitionError(SpeechRecognitionError::Kind::transcriptionFailed).description());
        return;
    }

    if (wasFinal) {
        m_finished = true;
        Q_EMIT result(text, true);
        return;
    }
    if (!aborted && !text.isEmpty())
        Q_EMIT result(text, false);
    if (m_finalPending) {
        m_finalPending = false;
        startJob(true);
        return;
    }
    maybeStartPartial();
}

void RecognitionTask::endAudio()
{
    if (m_audioEnded || m_finished)
        return;
    // Buffers still queued in the device arrive during stop(); take them before closing the gate.
    m_closing = true;
    m_input->stop();
    if (m_resampler)
        append(m_resampler->flush());
    m_audioEnded = true;

    if (!heardSpeech()) {
        if (m_abortRunning)
            m_abortRunning->store(true);
        m_finished = true;
        Q_EMIT result(QString(), true);
        return;
    }
    if (m_watcher) {
        // The partial's text is about to be outdated: stop it and transcribe everything instead.
        m_abortRunning->store(true);
        m_finalPending = true;
        return;
    }
    startJob(true);
}

void RecognitionTask::cancel()
{
    m_finished = true;
    m_audioEnded = true;
    if (m_input)
        m_input->stop();
    if (m_abortRunning)
        m_abortRunning->store(true);
    m_watcher.reset();
}
