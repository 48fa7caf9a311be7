#include "MicrophoneInput.h"
#include "RecognitionTask.h"
#include "SpeechRecognitionError.h"
#include "SpeechService.h"
#include "TranscriptionWorker.h"
#include "WhisperModel.h"
#include "WhisperModelManager.h"

#include <QCoreApplication>
#include <QFileInfo>

// Recognition runs on the device with whisper.cpp: audio from an AudioInput is collected by a
// RecognitionTask, which transcribes on the single worker thread and reports partial and final text.

namespace {
void dropTask(RecognitionTask *task)
{
    // Results are delivered from the task's own signals; it must outlive the handler that drops it.
    // As the service's child it still goes with the service when no event loop comes to delete it.
    task->cancel();
    task->deleteLater();
}
} // namespace

void SpeechService::initRecognition()
{
    m_transcriptionWorker = std::make_shared<TranscriptionWorker>();
    m_recognitionModels = new WhisperModelManager(this);
    m_audioInputFactory = [] { return std::unique_ptr<AudioInput>(new MicrophoneInput); };
    connect(m_recognitionModels, &WhisperModelManager::statusChanged, this, [this] {
        Q_EMIT recognitionAvailableChanged();
        Q_EMIT changed();
    });
}

bool SpeechService::recognitionAvailable() const
{
    return m_recognitionModels->modelAvailable();
}

WhisperModelManager *SpeechService::recognitionModels() const
{
    return m_recognitionModels;
}

TranscriptionWorker *SpeechService::transcriptionWorker() const
{
    return m_transcriptionWorker.get();
}

void SpeechService::setAudioInputFactory(AudioInputFactory factory)
{
    m_audioInputFactory = std::move(factory);
}

QCoro::Task<bool> SpeechService::requestPermissions()
{
    // Desktop sessions grant the microphone to every program; what can be refused is a device that
    // is not there, which a custom audio source (a file) does not need.
    co_return true;
}

// preferOnDevice is accepted for the chat store's sake: every run here is on the device, and there is
// no server recogniser to fall back on.
QCoro::Task<> SpeechService::startListening(bool preferOnDevice, bool autoSubmitOnFinal)
{
    Q_UNUSED(preferOnDevice)
    const quint64 generation = ++m_recognitionGeneration;
    try {
        const bool permitted = co_await requestPermissions();
        if (!permitted) {
            setLastError(SpeechRecognitionError::permissionText());
            co_return;
        }
        if (generation != m_recognitionGeneration)
            co_return;
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
        co_await m_recognitionModels->loadModel(m_transcriptionWorker.get());
        std::shared_ptr<WhisperModel> model = m_recognitionModels->loadedModel();
        // Released or cancelled (or started again) while the model was loading.
        if (generation != m_recognitionGeneration)
            co_return;

        std::unique_ptr<AudioInput> input = m_audioInputFactory();
        m_recognitionTask
            = { new RecognitionTask(std::move(model), std::move(input), m_transcriptionWorker.get(), this), &dropTask };
        RecognitionTask *task = m_recognitionTask.get();
        connect(task, &RecognitionTask::result, this, &SpeechService::handleRecognitionResult);
        connect(task, &RecognitionTask::failed, this, &SpeechService::handleRecognitionFailure);
        connect(task, &RecognitionTask::levelChanged, this, [this](double level) {
            if (m_isListening)
                setInputLevel(level);
        });
        task->start();
        setListening(true);
    } catch (const KeloError &error) {
        finishRecognitionEngine();
        setLastError(error.description());
    } catch (const std::exception &) {
        finishRecognitionEngine();
        setLastError(SpeechRecognitionError::unavailableText());
    }
}

void SpeechService::finishListening()
{
    if (!m_recognitionTask) {
        // Released before the run got going: there is nothing to transcribe.
        ++m_recognitionGeneration;
        return;
    }
    setInputLevel(0.0);
    m_recognitionTask->endAudio();
}

void SpeechService::cancelListening()
{
    ++m_recognitionGeneration;
    finishRecognitionEngine();
}

void SpeechService::handleRecognitionResult(const QString &text, bool isFinal)
{
    setTranscript(text);
    if (!isFinal)
        return;
    const QString finalText = text.trimmed();
    const bool autoSubmit = m_autoSubmitRecognition;
    finishRecognitionEngine();
    if (autoSubmit && !finalText.isEmpty() && onAutomaticTranscript)
        onAutomaticTranscript(finalText);
}

void SpeechService::handleRecognitionFailure(const QString &message)
{
    finishRecognitionEngine();
    setLastError(message);
}

void SpeechService::endRecognitionForGood()
{
    ++m_recognitionGeneration;
    m_recognitionTask.reset();
    // A start waiting for its model resumes on a future watcher's queued event, which would reach it
    // after this service is freed (or never, leaving it suspended): let the load finish and deliver
    // that event now, so the start sees it is stale and ends.
    m_transcriptionWorker->waitForDone();
    QCoreApplication::sendPostedEvents(nullptr, QEvent::FutureCallOut);
}

void SpeechService::finishRecognitionEngine()
{
    m_recognitionTask.reset();
    m_autoSubmitRecognition = false;
    setListening(false);
    setInputLevel(0.0);
}
