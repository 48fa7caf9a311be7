#pragma once

#include "CloudVoice.h"
#include "settings/Presets.h"

#include <QCoroTask>
#include <QObject>
#include <QSet>
#include <QVariantList>
#include <QtQml/qqmlregistration.h>

#include <functional>
#include <memory>

class AppSettings;
class AudioInput;
class RecognitionTask;
class TranscriptionWorker;
class WhisperModelManager;
class BackgroundExecutionManager;
class CloudAudioPlayer;
class CloudSpeechClient;
class CloudVoiceCatalog;
class LocalSynthesizer;
class LocalVoice;

// Kelo's voice: recognition of the user's Romanian speech and speaking of the answers with one of
// four engines. The published state drives the orb and the settings screen.
//
// The listening side is implemented in SpeechServiceRecognition.cpp, the speaking side in
// SpeechServiceSynthesis.cpp; the shared state and its setters are here and in SpeechService.cpp.
class SpeechService : public QObject
{
    Q_OBJECT
    QML_ELEMENT
    QML_UNCREATABLE("SpeechService belongs to the ChatStore")

    // listening
    Q_PROPERTY(bool isListening READ isListening NOTIFY isListeningChanged)
    Q_PROPERTY(QString transcript READ transcript NOTIFY transcriptChanged)
    Q_PROPERTY(double inputLevel READ inputLevel NOTIFY inputLevelChanged)
    // speaking
    Q_PROPERTY(bool isSpeaking READ isSpeaking NOTIFY isSpeakingChanged)
    Q_PROPERTY(bool isPreparingVoice READ isPreparingVoice NOTIFY isPreparingVoiceChanged)
    Q_PROPERTY(bool isLoadingVoices READ isLoadingVoices NOTIFY isLoadingVoicesChanged)
    Q_PROPERTY(QVariantList googleVoices READ googleVoiceList NOTIFY voicesChanged)
    Q_PROPERTY(QVariantList azureVoices READ azureVoiceList NOTIFY voicesChanged)
    Q_PROPERTY(QVariantList elevenVoices READ elevenVoiceList NOTIFY voicesChanged)
    // shared
    Q_PROPERTY(QString lastError READ lastError NOTIFY lastErrorChanged)
    // on-device recognition model (settings screen)
    Q_PROPERTY(bool recognitionAvailable READ recognitionAvailable NOTIFY recognitionAvailableChanged)
    Q_PROPERTY(WhisperModelManager *recognitionModels READ recognitionModels CONSTANT)
    Q_MOC_INCLUDE("voice/WhisperModelManager.h")

public:
    explicit SpeechService(QObject *parent = nullptr);
    ~SpeechService() override;

    // Ends everything under way (cloud requests, voice lists, a start still loading its model) so
    // the coroutines waiting on them finish now. The destructor calls it; an owner whose own
    // coroutines wait on this service calls it first, while it is whole itself.
    void close();

    bool isListening() const { return m_isListening; }
    QString transcript() const { return m_transcript; }
    double inputLevel() const { return m_inputLevel; }
    bool isSpeaking() const { return m_isSpeaking; }
    bool isPreparingVoice() const { return m_isPreparingVoice; }
    bool isLoadingVoices() const { return m_isLoadingVoices; }
    QString lastError() const { return m_lastError; }

    QList<CloudVoice> googleVoices() const { return m_googleVoices; }
    QList<CloudVoice> azureVoices() const { return m_azureVoices; }
    QList<CloudVoice> elevenVoices() const { return m_elevenVoices; }
    QVariantList googleVoiceList() const;
    QVariantList azureVoiceList() const;
    QVariantList elevenVoiceList() const;

    // Called with the trimmed final transcript of a run started with autoSubmitOnFinal.
    std::function<void(const QString &)> onAutomaticTranscript;
    // Called once when a playback that asked for it ends naturally.
    std::function<void()> onPlaybackFinished;

    // --- listening (SpeechServiceRecognition.cpp) ---
    QCoro::Task<> startListening(bool preferOnDevice, bool autoSubmitOnFinal);
    // Ends the audio of the current run so that the recogniser delivers its final transcript.
    void finishListening();
    // Ends the current run at once, delivering nothing.
    void cancelListening();

    // --- on-device recognition: model and audio source (SpeechServiceRecognition.cpp) ---
    // True when a usable multilingual model is installed; otherwise listening reports the
    // unavailability text and the settings screen offers the download.
    bool recognitionAvailable() const;
    WhisperModelManager *recognitionModels() const;
    // Desktop sessions grant the microphone to every program, so this is always true; a missing or
    // busy device is reported when the run starts.
    QCoro::Task<bool> requestPermissions();
    // Where runs take their audio from (the microphone by default; a file in tests and the CLI).
    using AudioInputFactory = std::function<std::unique_ptr<AudioInput>()>;
    void setAudioInputFactory(AudioInputFactory factory);
    // The single thread every transcription runs on.
    TranscriptionWorker *transcriptionWorker() const;
    // --- end of on-device recognition ---

    // --- speaking (SpeechServiceSynthesis.cpp) ---
    // Returns at once; cloud engines run in the background.
    void speak(const QString &text, AppSettings *settings);
    QCoro::Task<> previewCloudVoice(VoiceEnginePreset engine, AppSettings *settings);
    // What the local voice test says.
    static QString localVoiceSample();
    void stopSpeaking();
    QCoro::Task<> refreshGoogleVoices(const QString &apiKey);
    QCoro::Task<> refreshAzureVoices(const QString &apiKey, const QString &region);
    QCoro::Task<> refreshElevenVoices(const QString &apiKey);

    // --- speaking side: local voices for the settings screen (SpeechServiceSynthesis.cpp) ---
    Q_PROPERTY(QVariantList romanianVoices READ romanianVoiceList NOTIFY localVoicesChanged)
    Q_PROPERTY(QString bestVoiceDescription READ bestVoiceDescription NOTIFY localVoicesChanged)
    // Installed Romanian voices, best quality first. Reading starts the local engine in the
    // background the first time; the list fills in when it is ready.
    QList<LocalVoice> romanianVoices() const;
    QVariantList romanianVoiceList() const;
    // The voice the automatic choice takes, or why there is none.
    QString bestVoiceDescription() const;
    // The engine of every SpeechService; exposed for diagnostics and benchmarks.
    LocalSynthesizer *localSynthesizer() const { return m_localSynthesizer; }
    // The cloud audio now playing, if any.
    CloudAudioPlayer *cloudAudioPlayer() const { return m_audioPlayer; }
    Q_SIGNAL void localVoicesChanged();
    // speak() with an engine chosen by the caller instead of the settings (the command line's
    // --engine); the other values still come from the settings.
    void speak(const QString &text, AppSettings *settings, VoiceEnginePreset engine);
    // --- end of the speaking side's local voices ---

Q_SIGNALS:
    void isListeningChanged();
    void transcriptChanged();
    void inputLevelChanged();
    void isSpeakingChanged();
    void isPreparingVoiceChanged();
    void isLoadingVoicesChanged();
    void voicesChanged();
    void lastErrorChanged();
    void recognitionAvailableChanged();
    // Any published property changed; the store forwards this to its observers.
    void changed();

private:
    // Each side sets up its own members; called once from the constructor.
    void initRecognition();
    void initSynthesis();

    void setListening(bool value);
    void setTranscript(const QString &value);
    void setInputLevel(double value);
    void setSpeaking(bool value);
    void setPreparingVoice(bool value);
    void setLoadingVoices(bool value);
    void setLastError(const QString &value);

    bool m_isListening = false;
    QString m_transcript;
    double m_inputLevel = 0.0;
    bool m_isSpeaking = false;
    bool m_isPreparingVoice = false;
    bool m_isLoadingVoices = false;
    QString m_lastError;
    QList<CloudVoice> m_googleVoices;
    QList<CloudVoice> m_azureVoices;
    QList<CloudVoice> m_elevenVoices;

    // --- listening side, private ---
    void finishRecognitionEngine();
    void endRecognitionForGood();
    void handleRecognitionResult(const QString &text, bool isFinal);
    void handleRecognitionFailure(const QString &message);

    // Declared before the task so it is destroyed after it: the task aborts its job first, then the
    // worker waits for that job to return.
    std::shared_ptr<TranscriptionWorker> m_transcriptionWorker;
    WhisperModelManager *m_recognitionModels = nullptr;
    AudioInputFactory m_audioInputFactory;
    std::unique_ptr<RecognitionTask, void (*)(RecognitionTask *)> m_recognitionTask { nullptr, nullptr };
    bool m_autoSubmitRecognition = false;
    // Bumped by every start, finish and cancel, so a start still loading the model notices it is stale.
    quint64 m_recognitionGeneration = 0;

    // --- speaking side, private ---
    void speakApple(const QString &text, double rate, const QString &voiceIdentifier);
    QCoro::Task<> speakGoogle(QString text, QString apiKey, QString voiceName);
    QCoro::Task<> speakAzure(QString text, QString apiKey, QString region, QString voiceName);
    QCoro::Task<> speakElevenLabs(QString text, QString apiKey, QString voiceID);
    // The frame every cloud engine shares once its settings are known to be present: begin before
    // sending (returns the playback generation), complete with the request under way.
    quint64 beginCloudRequest();
    QCoro::Task<> completeCloudRequest(quint64 generation, QCoro::Task<QByteArray> request);
    void playCloudAudio(const QByteArray &data, quint64 generation);
    void finishCloudPlayback(const QString &errorDescription);
    void notifyPlaybackFinishedIfNeeded();
    void releaseAudioPlayer();
    void onUtteranceStarted(quint64 id);
    void onUtteranceFinished(quint64 id);
    void onLocalEngineFailed(const QString &description);
    void beginVoiceLoad();
    void endVoiceLoad();

    LocalSynthesizer *m_localSynthesizer = nullptr;
    CloudSpeechClient *m_cloudSpeech = nullptr;
    CloudVoiceCatalog *m_voiceCatalog = nullptr;
    BackgroundExecutionManager *m_backgroundExecution = nullptr;
    CloudAudioPlayer *m_audioPlayer = nullptr;
    QSet<quint64> m_activeUtterances;
    quint64 m_nextUtteranceID = 0;
    bool m_notifyWhenPlaybackFinishes = false;
    // Bumped by every stop and every new playback, so a cloud answer that arrives late for a
    // playback that no longer exists is dropped instead of talking over the newer one.
    quint64 m_playbackGeneration = 0;
    int m_cloudRequestsInFlight = 0;
    int m_voiceLoadsInFlight = 0;
};
