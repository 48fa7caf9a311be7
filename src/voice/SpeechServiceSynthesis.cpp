#include "CloudAudioPlayer.h"
#include "CloudSpeechClient.h"
#include "CloudVoiceCatalog.h"
#include "LocalSynthesizer.h"
#include "ProviderError.h"
#include "SpeechService.h"
#include "SpeechText.h"
#include "net/KeloError.h"
#include "settings/AppSettings.h"
#include "system/BackgroundExecutionManager.h"
#include "system/VariantLists.h"

namespace {

const QString cloudSample = QStringLiteral("Salut, sunt Kelo. Aceasta este o mostră de voce în limba română.");
const QString backgroundTaskName = QStringLiteral("Kelo cloud voice");

QString missingGoogleKeyText()
{
    return QStringLiteral("Introdu cheia Google Cloud Text-to-Speech.");
}

QString missingAzureSettingsText()
{
    return QStringLiteral("Introdu cheia și regiunea Azure Speech.");
}

QString missingElevenKeyText()
{
    return QStringLiteral("Introdu cheia ElevenLabs.");
}

QString missingElevenVoiceText()
{
    return QStringLiteral("Alege o voce ElevenLabs înainte de test.");
}

// Where a port to a phone would set the audio session category, mode and sample rate. Desktop
// audio servers need nothing of the kind, so there is nothing that can fail here.
void configurePlaybackSession()
{ }

// Runs a task nobody awaits; every failure is already turned into lastError inside it.
QCoro::Task<> startDetached(QCoro::Task<> task)
{
    try {
        co_await std::move(task);
    } catch (...) { }
}

} // namespace

void SpeechService::initSynthesis()
{
    m_localSynthesizer = new LocalSynthesizer(this);
    m_cloudSpeech = new CloudSpeechClient(this);
    m_voiceCatalog = new CloudVoiceCatalog(this);
    m_backgroundExecution = new BackgroundExecutionManager(this);
    connect(m_localSynthesizer, &LocalSynthesizer::didStart, this, &SpeechService::onUtteranceStarted);
    connect(m_localSynthesizer, &LocalSynthesizer::didFinish, this, &SpeechService::onUtteranceFinished);
    connect(m_localSynthesizer, &LocalSynthesizer::failed, this, &SpeechService::onLocalEngineFailed);
    connect(m_localSynthesizer, &LocalSynthesizer::engineStateChanged, this, [this] {
        Q_EMIT localVoicesChanged();
        Q_EMIT changed();
    });
}

// --- speaking ---

void SpeechService::speak(const QString &text, AppSettings *settings)
{
    if (settings)
        speak(text, settings, settings->voiceEngine());
}

void SpeechService::speak(const QString &text, AppSettings *settings, VoiceEnginePreset engine)
{
    if (!settings)
        return;
    switch (engine) {
    case VoiceEnginePreset::appleLocal:
        speakApple(text, settings->voiceRate(), settings->voiceIdentifier());
        return;
    case VoiceEnginePreset::googleCloud:
        startDetached(speakGoogle(text, settings->googleTTSAPIKey(), settings->googleVoiceName()));
        return;
    case VoiceEnginePreset::azureSpeech:
        startDetached(speakAzure(text, settings->azureSpeechKey(), settings->azureRegion(), settings->azureVoiceName()));
        return;
    case VoiceEnginePreset::elevenLabs:
        startDetached(speakElevenLabs(text, settings->elevenAPIKey(), settings->elevenVoiceID()));
        return;
    }
}

QString SpeechService::localVoiceSample()
{
    return QStringLiteral("Salut, sunt Kelo. Aceasta este vocea locală instalată pe acest calculator.");
}

QCoro::Task<> SpeechService::previewCloudVoice(VoiceEnginePreset engine, AppSettings *settings)
{
    if (!settings)
        co_return;
    switch (engine) {
    case VoiceEnginePreset::appleLocal:
        speakApple(localVoiceSample(), settings->voiceRate(), settings->voiceIdentifier());
        break;
    case VoiceEnginePreset::googleCloud:
        co_await speakGoogle(cloudSample, settings->googleTTSAPIKey(), settings->googleVoiceName());
        break;
    case VoiceEnginePreset::azureSpeech:
        co_await speakAzure(
            cloudSample, settings->azureSpeechKey(), settings->azureRegion(), settings->azureVoiceName());
        break;
    case VoiceEnginePreset::elevenLabs:
        co_await speakElevenLabs(cloudSample, settings->elevenAPIKey(), settings->elevenVoiceID());
        break;
    }
}

void SpeechService::stopSpeaking()
{
    m_notifyWhenPlaybackFinishes = false;
    ++m_playbackGeneration;
    m_localSynthesizer->stopAll();
    releaseAudioPlayer();
    m_activeUtterances.clear();
    setPreparingVoice(false);
    setSpeaking(false);
}

// --- the local engine ---

void SpeechService::speakApple(const QString &text, double rate, const QString &voiceIdentifier)
{
    const QString cleaned = SpeechText::cleanForSpeech(text);
    if (cleaned.isEmpty())
        return;
    stopSpeaking();
    if (m_localSynthesizer->engineState() == LocalSynthesizer::EngineState::unavailable) {
        setLastError(m_localSynthesizer->unavailableReason());
        return;
    }
    m_notifyWhenPlaybackFinishes = true;
    configurePlaybackSession();

    const QStringList sentences = SpeechText::sentences(cleaned);
    for (qsizetype i = 0; i < sentences.size(); ++i) {
        LocalSynthesizer::Utterance utterance;
        utterance.id = ++m_nextUtteranceID;
        utterance.text = sentences.at(i);
        utterance.rate = SpeechText::utteranceRate(rate, i);
        utterance.voiceIdentifier = voiceIdentifier;
        utterance.preDelayMs = i == 0 ? 20 : 0;
        utterance.postDelayMs = 60;
        m_activeUtterances.insert(utterance.id);
        m_localSynthesizer->enqueue(utterance);
    }
}

void SpeechService::onUtteranceStarted(quint64 id)
{
    if (m_activeUtterances.contains(id))
        setSpeaking(true);
}

void SpeechService::onUtteranceFinished(quint64 id)
{
    if (m_activeUtterances.remove(id) && m_activeUtterances.isEmpty())
        notifyPlaybackFinishedIfNeeded();
}

void SpeechService::onLocalEngineFailed(const QString &description)
{
    m_activeUtterances.clear();
    m_notifyWhenPlaybackFinishes = false;
    setSpeaking(false);
    setLastError(description);
}

void SpeechService::notifyPlaybackFinishedIfNeeded()
{
    setSpeaking(false);
    setPreparingVoice(false);
    if (!m_notifyWhenPlaybackFinishes)
        return;
    m_notifyWhenPlaybackFinishes = false;
    if (onPlaybackFinished)
        onPlaybackFinished();
}

// --- the cloud engines ---

QCoro::Task<> SpeechService::speakGoogle(QString text, QString apiKey, QString voiceName)
{
    const QString cleaned = SpeechText::cleanForSpeech(text);
    const QString key = apiKey.trimmed();
    if (cleaned.isEmpty())
        co_return;
    if (key.isEmpty()) {
        setLastError(missingGoogleKeyText());
        co_return;
    }
    const quint64 generation = beginCloudRequest();
    co_await completeCloudRequest(generation, m_cloudSpeech->synthesizeGoogle(cleaned, key, voiceName));
}

QCoro::Task<> SpeechService::speakAzure(QString text, QString apiKey, QString region, QString voiceName)
{
    const QString cleaned = SpeechText::cleanForSpeech(text);
    const QString key = apiKey.trimmed();
    const QString trimmedRegion = region.trimmed();
    if (cleaned.isEmpty())
        co_return;
    if (key.isEmpty() || trimmedRegion.isEmpty()) {
        setLastError(missingAzureSettingsText());
        co_return;
    }
    const quint64 generation = beginCloudRequest();
    co_await completeCloudRequest(generation, m_cloudSpeech->synthesizeAzure(cleaned, key, trimmedRegion, voiceName));
}

QCoro::Task<> SpeechService::speakElevenLabs(QString text, QString apiKey, QString voiceID)
{
    const QString cleaned = SpeechText::cleanForSpeech(text);
    const QString key = apiKey.trimmed();
    if (cleaned.isEmpty())
        co_return;
    if (key.isEmpty()) {
        setLastError(missingElevenKeyText());
        co_return;
    }
    if (voiceID.isEmpty()) {
        setLastError(missingElevenVoiceText());
        co_return;
    }
    const quint64 generation = beginCloudRequest();
    co_await completeCloudRequest(generation, m_cloudSpeech->synthesizeElevenLabs(cleaned, key, voiceID));
}

quint64 SpeechService::beginCloudRequest()
{
    stopSpeaking();
    setPreparingVoice(true);
    m_notifyWhenPlaybackFinishes = true;
    // A newer request re-opens the task; it is closed once the last request in flight is handled.
    m_backgroundExecution->begin(backgroundTaskName);
    ++m_cloudRequestsInFlight;
    return m_playbackGeneration;
}

QCoro::Task<> SpeechService::completeCloudRequest(quint64 generation, QCoro::Task<QByteArray> request)
{
    try {
        const QByteArray audio = co_await std::move(request);
        if (generation == m_playbackGeneration)
            playCloudAudio(audio, generation);
    } catch (...) {
        if (generation == m_playbackGeneration)
            finishCloudPlayback(describeException(std::current_exception()));
    }

    if (--m_cloudRequestsInFlight == 0)
        m_backgroundExecution->end();
}

void SpeechService::playCloudAudio(const QByteArray &data, quint64 generation)
{
    configurePlaybackSession();
    auto *player = new CloudAudioPlayer(data, this);
    m_audioPlayer = player;
    connect(player, &CloudAudioPlayer::finished, this, [this, generation](bool) {
        if (generation != m_playbackGeneration)
            return;
        releaseAudioPlayer();
        notifyPlaybackFinishedIfNeeded();
    });
    connect(player, &CloudAudioPlayer::decodeErrorOccurred, this, [this, generation] {
        if (generation == m_playbackGeneration)
            finishCloudPlayback(ProviderError::audioNotPlayable().description());
    });
    setPreparingVoice(false);
    setSpeaking(true);
    if (!player->play())
        throw ProviderError::audioNotPlayable();
}

void SpeechService::finishCloudPlayback(const QString &errorDescription)
{
    releaseAudioPlayer();
    setPreparingVoice(false);
    setSpeaking(false);
    m_notifyWhenPlaybackFinishes = false;
    setLastError(errorDescription);
}

void SpeechService::releaseAudioPlayer()
{
    if (!m_audioPlayer)
        return;
    CloudAudioPlayer *player = std::exchange(m_audioPlayer, nullptr);
    player->disconnect(this);
    player->stop();
    player->deleteLater();
}

// --- voice catalogues ---

void SpeechService::beginVoiceLoad()
{
    ++m_voiceLoadsInFlight;
    setLoadingVoices(true);
}

void SpeechService::endVoiceLoad()
{
    if (--m_voiceLoadsInFlight == 0)
        setLoadingVoices(false);
}

QCoro::Task<> SpeechService::refreshGoogleVoices(const QString &apiKey)
{
    const QString key = apiKey.trimmed();
    if (key.isEmpty()) {
        setLastError(missingGoogleKeyText());
        co_return;
    }
    beginVoiceLoad();
    try {
        m_googleVoices = co_await m_voiceCatalog->googleVoices(key);
        Q_EMIT voicesChanged();
        Q_EMIT changed();
    } catch (...) {
        setLastError(describeException(std::current_exception()));
    }
    endVoiceLoad();
}

QCoro::Task<> SpeechService::refreshAzureVoices(const QString &apiKey, const QString &region)
{
    const QString key = apiKey.trimmed();
    const QString trimmedRegion = region.trimmed();
    if (key.isEmpty() || trimmedRegion.isEmpty()) {
        setLastError(missingAzureSettingsText());
        co_return;
    }
    beginVoiceLoad();
    try {
        m_azureVoices = co_await m_voiceCatalog->azureVoices(key, trimmedRegion);
        Q_EMIT voicesChanged();
        Q_EMIT changed();
    } catch (...) {
        setLastError(describeException(std::current_exception()));
    }
    endVoiceLoad();
}

QCoro::Task<> SpeechService::refreshElevenVoices(const QString &apiKey)
{
    const QString key = apiKey.trimmed();
    if (key.isEmpty()) {
        setLastError(missingElevenKeyText());
        co_return;
    }
    beginVoiceLoad();
    try {
        m_elevenVoices = co_await m_voiceCatalog->elevenVoices(key);
        Q_EMIT voicesChanged();
        Q_EMIT changed();
    } catch (...) {
        setLastError(describeException(std::current_exception()));
    }
    endVoiceLoad();
}

// --- local voices for the settings screen ---

QList<LocalVoice> SpeechService::romanianVoices() const
{
    if (m_localSynthesizer->engineState() == LocalSynthesizer::EngineState::notStarted)
        QMetaObject::invokeMethod(m_localSynthesizer, &LocalSynthesizer::prepare, Qt::QueuedConnection);
    return m_localSynthesizer->romanianVoices();
}

QVariantList SpeechService::romanianVoiceList() const
{
    return VariantLists::from(romanianVoices());
}

QString SpeechService::bestVoiceDescription() const
{
    const QList<LocalVoice> voices = romanianVoices();
    switch (m_localSynthesizer->engineState()) {
    case LocalSynthesizer::EngineState::notStarted:
    case LocalSynthesizer::EngineState::starting:
        return QStringLiteral("Se caută vocile instalate…");
    case LocalSynthesizer::EngineState::unavailable:
        return m_localSynthesizer->unavailableReason();
    case LocalSynthesizer::EngineState::ready:
        break;
    }
    if (voices.isEmpty())
        return QStringLiteral("Nicio voce românească instalată; se folosește vocea implicită a sistemului.");
    return voices.first().name + QStringLiteral(" · ") + voices.first().qualityLabel();
}
