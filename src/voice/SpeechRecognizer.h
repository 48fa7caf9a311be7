#pragma once

#include <QCoroTask>
#include <QObject>
#include <QtQml/qqmlregistration.h>

#include <functional>
#include <memory>

class AudioInput;
class RecognitionTask;
class TranscriptionWorker;
class WhisperModelManager;

// Recognition of the user's Romanian speech on the device. The published state drives the orb
// and the settings screen.
class SpeechRecognizer : public QObject
{
    Q_OBJECT
    QML_ELEMENT
    QML_UNCREATABLE("SpeechRecognizer belongs to the ChatStore")

    Q_PROPERTY(bool isListening READ isListening NOTIFY isListeningChanged)
    Q_PROPERTY(QString transcript READ transcript NOTIFY transcriptChanged)
    Q_PROPERTY(double inputLevel READ inputLevel NOTIFY inputLevelChanged)
    Q_PROPERTY(QString lastError READ lastError NOTIFY lastErrorChanged)
    Q_PROPERTY(bool recognitionAvailable READ recognitionAvailable NOTIFY recognitionAvailableChanged)
    Q_PROPERTY(WhisperModelManager *recognitionModels READ recognitionModels CONSTANT)
    Q_MOC_INCLUDE("voice/WhisperModelManager.h")

public:
    explicit SpeechRecognizer(QObject *parent = nullptr);
    ~SpeechRecognizer() override;

    // Ends the run and a start still loading its model, so the coroutines waiting on them finish
    // now. The destructor calls it; an owner whose coroutines wait on this object calls it first.
    void close();

    bool isListening() const { return m_isListening; }
    QString transcript() const { return m_transcript; }
    double inputLevel() const { return m_inputLevel; }
    QString lastError() const { return m_lastError; }
    // True when a usable multilingual model is installed; otherwise listening reports the
    // unavailability text and the settings screen offers the download.
    bool recognitionAvailable() const;
    WhisperModelManager *recognitionModels() const { return m_recognitionModels; }

    // preferOnDevice is accepted for the callers' sake: every run is on the device.
    QCoro::Task<> startListening(bool preferOnDevice, bool autoSubmitOnFinal);
    // Ends the audio of the current run so that the recogniser delivers its final transcript.
    void finishListening();
    // Ends the current run at once, delivering nothing.
    void cancelListening();
    // Loads the model in the background so the first press does not wait for it; harmless when
    // there is no model or it is loaded already.
    void preload();

    // Where runs take their audio from (the microphone by default; a file in tests and the CLI).
    using AudioInputFactory = std::function<std::unique_ptr<AudioInput>()>;
    void setAudioInputFactory(AudioInputFactory factory);
    // The single thread every transcription runs on.
    TranscriptionWorker *transcriptionWorker() const { return m_transcriptionWorker.get(); }

Q_SIGNALS:
    // The trimmed final transcript of a run started with autoSubmitOnFinal.
    void finalTranscript(const QString &text);
    void isListeningChanged();
    void transcriptChanged();
    void inputLevelChanged();
    void lastErrorChanged();
    void recognitionAvailableChanged();
    void preloadEnded();
    void changed();

private:
    QCoro::Task<> loadInBackground();
    QCoro::Task<> loadModel();
    void startTask();
    void finishRecognitionEngine();
    void handleRecognitionResult(const QString &text, bool isFinal);
    void handleRecognitionFailure(const QString &message);

    template<typename T> void publish(T &member, const T &value, void (SpeechRecognizer::*signal)());
    void setListening(bool value);
    void setTranscript(const QString &value);
    void setInputLevel(double value);
    void setLastError(const QString &value);

    bool m_isListening = false;
    QString m_transcript;
    double m_inputLevel = 0.0;
    QString m_lastError;

    // Declared before the task so it is destroyed after it: the task aborts its job first, then the
    // worker waits for that job to return.
    std::shared_ptr<TranscriptionWorker> m_transcriptionWorker;
    WhisperModelManager *m_recognitionModels = nullptr;
    AudioInputFactory m_audioInputFactory;
    std::unique_ptr<RecognitionTask, void (*)(RecognitionTask *)> m_recognitionTask { nullptr, nullptr };
    bool m_autoSubmitRecognition = false;
    bool m_preloading = false;
    // Bumped by every start, finish and cancel, so a start still loading the model notices it is stale.
    quint64 m_recognitionGeneration = 0;
};
