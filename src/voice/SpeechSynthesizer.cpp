#include "SpeechSynthesizer.h"

#include "CloudSpeechClient.h"
#include "CloudSpeechQueue.h"
#include "CloudVoiceProvider.h"
#include "LocalSynthesizer.h"
#include "SpeechText.h"
#include "net/KeloError.h"
#include "settings/AppSettings.h"
#include "system/BackgroundExecutionManager.h"
#include "system/SignalWait.h"

#include <QSignalBlocker>

namespace {
const QString cloudSample = QStringLiteral("Salut, sunt Kelo. Aceasta este o mostră de voce în limba română.");
const QString backgroundTaskName = QStringLiteral("Kelo cloud voice");
} // namespace

SpeechSynthesizer::SpeechSynthesizer(QObject *parent)
    : QObject(parent)
    , m_localSynthesizer(new LocalSynthesizer(this))
    , m_voiceLists(new CloudSpeechClient(this))
    , m_backgroundExecution(new BackgroundExecutionManager(this))
{
    connect(m_localSynthesizer, &LocalSynthesizer::didStart, this, &SpeechSynthesizer::onUtteranceStarted);
    connect(m_localSynthesizer, &LocalSynthesizer::didFinish, this, &SpeechSynthesizer::onUtteranceFinished);
    connect(m_localSynthesizer, &LocalSynthesizer::failed, this, &SpeechSynthesizer::onLocalEngineFailed);
    connect(m_localSynthesizer, &LocalSynthesizer::engineStateChanged, this, [this] {
        Q_EMIT localVoicesChanged();
        Q_EMIT changed();
    });
}

SpeechSynthesizer::~SpeechSynthesizer()
{
    // Whoever watches the state may already be half gone; a dying speaker tells nobody.
    const QSignalBlocker quiet(this);
    close();
}

void SpeechSynthesizer::close()
{
    stopSpeaking();
    m_voiceLists->abortAll();
}

CloudAudioOutput *SpeechSynthesizer::cloudAudioOutput() const
{
    return m_cloudQueue ? m_cloudQueue->output() : nullptr;
}

// --- speaking ---

void SpeechSynthesizer::speak(const QString &text, AppSettings *settings)
{
    if (settings)
        speak(text, settings, settings->voiceEngine());
}

void SpeechSynthesizer::speak(const QString &text, AppSettings *settings, VoiceEnginePreset engine)
{
    if (!settings || SpeechText::cleanForSpeech(text).isEmpty())
        return;
    stopSpeaking();
    enqueue(text, settings, engine);
    finishQueue();
}

void SpeechSynthesizer::enqueue(const QString &piece, AppSettings *settings)
{
    if (settings)
        enqueue(piece, settings, settings->voiceEngine());
}

void SpeechSynthesizer::enqueue(const QString &piece, AppSettings *settings, VoiceEnginePreset engine)
{
    const QString cleaned = SpeechText::cleanForSpeech(piece);
    if (cleaned.isEmpty())
        return;
    // The answer before has had all its pieces; a new one replaces what is left of it.
    if (m_answerFinishing)
        stopSpeaking();
    if (!m_answerOpen) {
        m_answerOpen = true;
        m_answerEngine = engine;
    }
    if (const CloudVoiceProvider *provider = CloudVoiceProvider::forEngine(m_answerEngine))
        enqueueCloud(cleaned, *settings, *provider);
    else
        enqueueLocal(cleaned, *settings);
}

void SpeechSynthesizer::finishQueue()
{
    if (!m_answerOpen || m_answerFinishing)
        return;
    m_answerFinishing = true;
    if (m_cloudQueue)
        m_cloudQueue->finish();
    else if (m_activeUtterances.isEmpty())
        endAnswer(m_answerHeard);
}

void SpeechSynthesizer::stopSpeaking()
{
    m_answerOpen = false;
    m_answerFinishing = false;
    m_answerHeard = false;
    m_localPieces = 0;
    m_localSynthesizer->stopAll();
    m_activeUtterances.clear();
    if (m_cloudQueue) {
        CloudSpeechQueue *queue = std::exchange(m_cloudQueue, nullptr);
        queue->disconnect(this);
        queue->stop();
        // Possibly inside one of its signals, so not deleted here; not a child either, or this
        // object's destruction would delete it a second time.
        queue->setParent(nullptr);
        queue->deleteLater();
        m_backgroundExecution->end();
    }
    setPreparingVoice(false);
    setSpeaking(false);
}

void SpeechSynthesizer::endAnswer(bool heard)
{
    stopSpeaking();
    if (heard)
        Q_EMIT playbackFinished();
}

// --- the local engine ---

void SpeechSynthesizer::enqueueLocal(const QString &cleaned, const AppSettings &settings)
{
    if (m_localSynthesizer->engineState() == LocalSynthesizer::EngineState::unavailable) {
        setLastError(m_localSynthesizer->unavailableReason());
        return;
    }
    for (const QString &sentence : SpeechText::sentences(cleaned)) {
        LocalSynthesizer::Utterance utterance;
        utterance.id = ++m_nextUtteranceID;
        utterance.text = sentence;
        utterance.rate = SpeechText::utteranceRate(settings.voiceRate(), m_localPieces);
        utterance.voiceIdentifier = settings.voiceIdentifier();
        utterance.preDelayMs = m_localPieces == 0 ? 20 : 0;
        utterance.postDelayMs = 60;
        ++m_localPieces;
        m_activeUtterances.insert(utterance.id);
        m_localSynthesizer->enqueue(utterance);
    }
}

void SpeechSynthesizer::onUtteranceStarted(quint64 id)
{
    if (!m_activeUtterances.contains(id))
        return;
    m_answerHeard = true;
    setSpeaking(true);
}

void SpeechSynthesizer::onUtteranceFinished(quint64 id)
{
    if (m_activeUtterances.remove(id) && m_activeUtterances.isEmpty() && m_answerFinishing)
        endAnswer(m_answerHeard);
}

void SpeechSynthesizer::onLocalEngineFailed(const QString &description)
{
    if (m_answerEngine == VoiceEnginePreset::appleLocal)
        stopSpeaking();
    setLastError(description);
}

// --- the cloud voices ---

void SpeechSynthesizer::enqueueCloud(
    const QString &cleaned, const AppSettings &settings, const CloudVoiceProvider &provider)
{
    if (!m_cloudQueue)
        startCloudQueue(provider, settings);
    if (m_cloudQueue)
        m_cloudQueue->enqueue(cleaned);
}

void SpeechSynthesizer::startCloudQueue(const CloudVoiceProvider &provider, const AppSettings &settings)
{
    const CloudVoiceCredentials credentials = provider.credentials(settings);
    const QString missing = provider.missingForSpeech(credentials);
    if (!missing.isEmpty()) {
        setLastError(missing);
        return;
    }
    m_cloudQueue = new CloudSpeechQueue(provider, credentials, this);
    // Speaking first, so that no observer sees a moment of neither.
    connect(m_cloudQueue, &CloudSpeechQueue::playing, this, [this] {
        setSpeaking(true);
        setPreparingVoice(false);
    });
    connect(m_cloudQueue, &CloudSpeechQueue::failed, this, &SpeechSynthesizer::setLastError);
    connect(m_cloudQueue, &CloudSpeechQueue::finished, this, &SpeechSynthesizer::endAnswer);
    m_backgroundExecution->begin(backgroundTaskName);
    setPreparingVoice(true);
}

QString SpeechSynthesizer::localVoiceSample()
{
    return QStringLiteral("Salut, sunt Kelo. Aceasta este vocea locală instalată pe acest calculator.");
}

QCoro::Task<> SpeechSynthesizer::previewCloudVoice(VoiceEnginePreset engine, AppSettings *settings)
{
    const bool local = engine == VoiceEnginePreset::appleLocal;
    speak(local ? localVoiceSample() : cloudSample, settings, engine);
    co_await SignalWait::until(
        this, [this] { return !m_isPreparingVoice; }, &SpeechSynthesizer::isPreparingVoiceChanged);
}

// --- voice lists ---

QCoro::Task<> SpeechSynthesizer::refreshVoices(VoiceEnginePreset engine, AppSettings *settings)
{
    const CloudVoiceProvider *provider = CloudVoiceProvider::forEngine(engine);
    if (!provider || !settings)
        co_return;
    const CloudVoiceCredentials credentials = provider->credentials(*settings);
    const QString missing = provider->missingForVoiceList(credentials);
    if (!missing.isEmpty()) {
        setLastError(missing);
        co_return;
    }
    ++m_voiceLoadsInFlight;
    setLoadingVoices(true);
    try {
        QList<CloudVoice> voices = co_await m_voiceLists->voices(*provider, credentials);
        m_cloudVoices.insert(engine, voices);
        Q_EMIT voicesChanged();
        Q_EMIT changed();
    } catch (...) {
        setLastError(describeException(std::current_exception()));
    }
    if (--m_voiceLoadsInFlight == 0)
        setLoadingVoices(false);
}

QList<LocalVoice> SpeechSynthesizer::romanianVoices() const
{
    if (m_localSynthesizer->engineState() == LocalSynthesizer::EngineState::notStarted)
        QMetaObject::invokeMethod(m_localSynthesizer, &LocalSynthesizer::prepare, Qt::QueuedConnection);
    return m_localSynthesizer->romanianVoices();
}

QString SpeechSynthesizer::bestVoiceDescription() const
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

// --- published state ---

template<typename T> void SpeechSynthesizer::publish(T &member, const T &value, void (SpeechSynthesizer::*signal)())
{
    if (member == value)
        return;
    member = value;
    Q_EMIT(this->*signal)();
    Q_EMIT changed();
}

void SpeechSynthesizer::setSpeaking(bool value)
{
    publish(m_isSpeaking, value, &SpeechSynthesizer::isSpeakingChanged);
}

void SpeechSynthesizer::setPreparingVoice(bool value)
{
    publish(m_isPreparingVoice, value, &SpeechSynthesizer::isPreparingVoiceChanged);
}

void SpeechSynthesizer::setLoadingVoices(bool value)
{
    publish(m_isLoadingVoices, value, &SpeechSynthesizer::isLoadingVoicesChanged);
}

void SpeechSynthesizer::setLastError(const QString &value)
{
    publish(m_lastError, value, &SpeechSynthesizer::lastErrorChanged);
}
