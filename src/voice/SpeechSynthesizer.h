#pragma once

#include "CloudVoice.h"
#include "LocalVoice.h"
#include "settings/Presets.h"

#include <QCoroTask>
#include <QMap>
#include <QObject>
#include <QSet>
#include <QtQml/qqmlregistration.h>

class AppSettings;
class BackgroundExecutionManager;
class CloudAudioOutput;
class CloudSpeechClient;
class CloudSpeechQueue;
struct CloudVoiceProvider;
class LocalSynthesizer;

// Speaks Kelo's answers with one of four engines, piece by piece as an answer is written: the
// local engine queues utterances, a cloud voice requests the next piece while the current one
// plays. Also keeps the voice lists the settings screen offers.
class SpeechSynthesizer : public QObject
{
    Q_OBJECT
    QML_ELEMENT
    QML_UNCREATABLE("SpeechSynthesizer belongs to the ChatStore")

    Q_PROPERTY(bool isSpeaking READ isSpeaking NOTIFY isSpeakingChanged)
    Q_PROPERTY(bool isPreparingVoice READ isPreparingVoice NOTIFY isPreparingVoiceChanged)
    Q_PROPERTY(bool isLoadingVoices READ isLoadingVoices NOTIFY isLoadingVoicesChanged)
    Q_PROPERTY(QString lastError READ lastError NOTIFY lastErrorChanged)
    Q_PROPERTY(QList<CloudVoice> googleVoices READ googleVoices NOTIFY voicesChanged)
    Q_PROPERTY(QList<CloudVoice> azureVoices READ azureVoices NOTIFY voicesChanged)
    Q_PROPERTY(QList<CloudVoice> elevenVoices READ elevenVoices NOTIFY voicesChanged)
    Q_PROPERTY(QList<LocalVoice> romanianVoices READ romanianVoices NOTIFY localVoicesChanged)
    Q_PROPERTY(QString bestVoiceDescription READ bestVoiceDescription NOTIFY localVoicesChanged)

public:
    explicit SpeechSynthesizer(QObject *parent = nullptr);
    ~SpeechSynthesizer() override;

    // Ends every request under way so the coroutines waiting on them finish now.
    void close();

    bool isSpeaking() const { return m_isSpeaking; }
    bool isPreparingVoice() const { return m_isPreparingVoice; }
    bool isLoadingVoices() const { return m_isLoadingVoices; }
    QString lastError() const { return m_lastError; }

    QList<CloudVoice> cloudVoices(VoiceEnginePreset engine) const { return m_cloudVoices.value(engine); }
    QList<CloudVoice> googleVoices() const { return cloudVoices(VoiceEnginePreset::googleCloud); }
    QList<CloudVoice> azureVoices() const { return cloudVoices(VoiceEnginePreset::azureSpeech); }
    QList<CloudVoice> elevenVoices() const { return cloudVoices(VoiceEnginePreset::elevenLabs); }
    // Installed Romanian voices, best first. Reading starts the local engine in the background the
    // first time; the list fills in when it is ready.
    QList<LocalVoice> romanianVoices() const;
    // The voice the automatic choice takes, or why there is none.
    QString bestVoiceDescription() const;

    // A whole answer: replaces whatever is being said.
    void speak(const QString &text, AppSettings *settings);
    // With an engine chosen by the caller (the command line's --engine) instead of the settings'.
    void speak(const QString &text, AppSettings *settings, VoiceEnginePreset engine);
    // One piece of an answer still being written; a piece after finishQueue() starts a new answer.
    void enqueue(const QString &piece, AppSettings *settings);
    // No more pieces for this answer: playbackFinished() follows the last one.
    void finishQueue();
    // Silence now; the answer's pieces and requests are dropped and no playbackFinished() follows.
    void stopSpeaking();

    // Speaks the engine's sample; returns once the voice started or failed.
    QCoro::Task<> previewCloudVoice(VoiceEnginePreset engine, AppSettings *settings);
    static QString localVoiceSample();
    // The voices of a cloud engine for the account in the settings.
    QCoro::Task<> refreshVoices(VoiceEnginePreset engine, AppSettings *settings);

    // Exposed for diagnostics and benchmarks.
    LocalSynthesizer *localSynthesizer() const { return m_localSynthesizer; }
    // The output of the answer being spoken by a cloud voice, if any.
    CloudAudioOutput *cloudAudioOutput() const;

Q_SIGNALS:
    // Everything queued up to finishQueue() has been heard; never after stopSpeaking().
    void playbackFinished();
    void isSpeakingChanged();
    void isPreparingVoiceChanged();
    void isLoadingVoicesChanged();
    void lastErrorChanged();
    void voicesChanged();
    void localVoicesChanged();
    void changed();

private:
    void enqueue(const QString &piece, AppSettings *settings, VoiceEnginePreset engine);
    void enqueueLocal(const QString &cleaned, const AppSettings &settings);
    void enqueueCloud(const QString &cleaned, const AppSettings &settings, const CloudVoiceProvider &provider);
    void startCloudQueue(const CloudVoiceProvider &provider, const AppSettings &settings);
    void endAnswer(bool heard);
    void onUtteranceStarted(quint64 id);
    void onUtteranceFinished(quint64 id);
    void onLocalEngineFailed(const QString &description);

    void setSpeaking(bool value);
    void setPreparingVoice(bool value);
    void setLoadingVoices(bool value);
    void setLastError(const QString &value);
    template<typename T> void publish(T &member, const T &value, void (SpeechSynthesizer::*signal)());

    bool m_isSpeaking = false;
    bool m_isPreparingVoice = false;
    bool m_isLoadingVoices = false;
    QString m_lastError;
    QMap<VoiceEnginePreset, QList<CloudVoice>> m_cloudVoices;
    int m_voiceLoadsInFlight = 0;

    LocalSynthesizer *m_localSynthesizer;
    CloudSpeechClient *m_voiceLists;
    BackgroundExecutionManager *m_backgroundExecution;

    // The answer being spoken.
    bool m_answerOpen = false;
    bool m_answerFinishing = false;
    bool m_answerHeard = false;
    VoiceEnginePreset m_answerEngine = VoiceEnginePreset::appleLocal;
    int m_localPieces = 0;
    QSet<quint64> m_activeUtterances;
    quint64 m_nextUtteranceID = 0;
    CloudSpeechQueue *m_cloudQueue = nullptr;
};
