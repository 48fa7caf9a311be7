#include "SpeechRecognizer.h"

#include "MicrophoneInput.h"
#include "RecognitionTask.h"
#include "SpeechRecognitionError.h"
#include "TranscriptionWorker.h"
#include "WhisperModel.h"
#include "WhisperModelManager.h"
#include "net/KeloError.h"
#include "system/SignalWait.h"

#include <QCoreApplication>
#include <QFileInfo>
#include <QPointer>

// Recognition runs on the device with whisper.cpp: audio from an AudioInput is collected by a
// RecognitionTask, which transcribes on the single worker thread and reports partial and final text.

namespace {
void dropTask(RecognitionTask *task)
{
    // Results are delivered from the task's own signals; it must outlive the handler that drops it.
    // As the recogniser's child it still goes with it when no event loop comes to delete it.
    task->cancel();
    task->deleteLater();
}
} // namespace

SpeechRecognizer::SpeechRecognizer(QObject *parent)
    : QObject(parent)
    , m_transcriptionWorker(std::make_shared<TranscriptionWorker>())
    , m_recognitionModels(new WhisperModelManager(this))
    , m_audioInputFactory([] { return std::unique_ptr<AudioInput>(new MicrophoneInput); })
{
    connect(m_recognitionModels, &WhisperModelManager::statusChanged, this, [this] {
        Q_EMIT recognitionAvailableChanged();
        Q_EMIT changed();
    });
}

SpeechRecognizer::~SpeechRecognizer()
{
    close();
}

void SpeechRecognizer::close()
{
    ++m_recognitionGeneration;
    m_recognitionTask.reset();
    // A start or preload waiting for its model resumes on a future watcher's queued event, which
    // would reach it after this object is freed (or never, leaving it suspended): let the load
    // finish and deliver that event now, so the waiter sees it is stale and ends.
    m_transcriptionWorker->waitForDone();
    QCoreApplication::sendPostedEvents(nullptr, QEvent::FutureCallOut);
}

bool SpeechRecognizer::recognitionAvailable() const
{
    return m_recognitionModels->modelAvailable();
}

void SpeechRecognizer::setAudioInputFactory(AudioInputFactory factory)
{
    m_audioInputFactory = std::move(factory);
}

void SpeechRecognizer::preload()
{
    if (!m_preloading && m_recognitionModels->modelAvailable())
        loadInBackground();
}

QCoro::Task<> SpeechRecognizer::loadInBackground()
{
    QPointer<SpeechRecognizer> self(this);
    m_preloading = true;
    try {
        co_await m_recognitionModels->loadModel(m_transcriptionWorker.get());
    } catch (...) {
        // The first press loads again and reports what went wrong.
    }
    if (!self)
        co_return;
    m_preloading = false;
    Q_EMIT preloadEnded();
}

QCoro::Task<> SpeechRecognizer::loadModel()
{
    // A second load beside the preload would run after it on the same thread: wait for it instead.
    co_await SignalWait::until(
        this, [this] { return !m_preloading; }, &SpeechRecognizer::preloadEnded);
    co_await m_recognitionModels->loadModel(m_transcriptionWorker.get());
}

QCoro::Task<> SpeechRecognizer::startListening(bool preferOnDevice, bool autoSubmitOnFinal)
{
    Q_UNUSED(preferOnDevice)
    const quint64 generation = ++m_recognitionGeneration;
    try {
        finishRecognitionEngine();
        setTranscript({});
        setLastError({});
        m_autoSubmitRecognition = autoSubmitOnFinal;

        if (!m_recognitionModels->modelAvailable()) {
            const QString path = m_recognitionModels->modelPath();
            // A file that is there but unusable says why; no file at all is plain unavailability.
            setLastError(path.isEmpty() || !QFileInfo::exists(path) ? SpeechRecognitionError::unavailableText()
                                                                    : m_recognitionModels->statusText());
            co_return;
        }
        co_await loadModel();
        // Released or cancelled (or started again) while the model was loading.
        if (generation != m_recognitionGeneration)
            co_return;
        startTask();
    } catch (const KeloError &error) {
        finishRecognitionEngine();
        setLastError(error.description());
    } catch (const std::exception &) {
        finishRecognitionEngine();
        setLastError(SpeechRecognitionError::unavailableText());
    }
}

void SpeechRecognizer::startTask()
{
    std::unique_ptr<AudioInput> input = m_audioInputFactory();
    m_recognitionTask = { new RecognitionTask(
                              m_recognitionModels->loadedModel(), std::move(input), m_transcriptionWorker.get(), this),
        &dropTask };
    RecognitionTask *task = m_recognitionTask.get();
    connect(task, &RecognitionTask::result, this, &SpeechRecognizer::handleRecognitionResult);
    connect(task, &RecognitionTask::failed, this, &SpeechRecognizer::handleRecognitionFailure);
    connect(task, &RecognitionTask::levelChanged, this, [this](double level) {
        if (m_isListening)
            setInputLevel(level);
    });
    task->start();
    setListening(true);
}

void SpeechRecognizer::finishListening()
{
    if (!m_recognitionTask) {
        // Released before the run got going: there is nothing to transcribe.
        ++m_recognitionGeneration;
        return;
    }
    setInputLevel(0.0);
    m_recognitionTask->endAudio();
}

void SpeechRecognizer::cancelListening()
{
    ++m_recognitionGeneration;
    finishRecognitionEngine();
}

void SpeechRecognizer::handleRecognitionResult(const QString &text, bool isFinal)
{
    setTranscript(text);
    if (!isFinal)
        return;
    const QString finalText = text.trimmed();
    const bool autoSubmit = m_autoSubmitRecognition;
    finishRecognitionEngine();
    if (autoSubmit && !finalText.isEmpty())
        Q_EMIT finalTranscript(finalText);
}

void SpeechRecognizer::handleRecognitionFailure(const QString &message)
{
    finishRecognitionEngine();
    setLastError(message);
}

void SpeechRecognizer::finishRecognitionEngine()
{
    m_recognitionTask.reset();
    m_autoSubmitRecognition = false;
    setListening(false);
    setInputLevel(0.0);
}

template<typename T> void SpeechRecognizer::publish(T &member, const T &value, void (SpeechRecognizer::*signal)())
{
    if (member == value)
        return;
    member = value;
    Q_EMIT(this->*signal)();
    Q_EMIT changed();
}

void SpeechRecognizer::setListening(bool value)
{
    publish(m_isListening, value, &SpeechRecognizer::isListeningChanged);
}

void SpeechRecognizer::setTranscript(const QString &value)
{
    publish(m_transcript, value, &SpeechRecognizer::transcriptChanged);
}

void SpeechRecognizer::setInputLevel(double value)
{
    publish(m_inputLevel, value, &SpeechRecognizer::inputLevelChanged);
}

void SpeechRecognizer::setLastError(const QString &value)
{
    publish(m_lastError, value, &SpeechRecognizer::lastErrorChanged);
}
