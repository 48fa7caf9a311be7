#include "LocalSynthesizer.h"

#include "SpeechText.h"
#include "SpeechdEngineHost.h"

#include <QCollator>
#include <QTextToSpeech>
#include <QThread>

#include <algorithm>

namespace {

QString stuckEngineText()
{
    return QStringLiteral("Vocea locală nu a răspuns la timp. Verifică serverul de sunet (PulseAudio) și "
                          "speech-dispatcher.");
}

QString slowStartText()
{
    return QStringLiteral("Vocea locală nu a pornit la timp: speech-dispatcher nu răspunde.");
}

// How long the engine's thread may take to wind down when Kelo closes; a stuck one is left behind.
constexpr int shutdownWaitMs = 2'000;

} // namespace

LocalSynthesizer::LocalSynthesizer(QObject *parent)
    : QObject(parent)
{
    m_delay.setSingleShot(true);
    m_deadline.setSingleShot(true);
    connect(&m_deadline, &QTimer::timeout, this, [this] {
        const bool starting = m_engineState == EngineState::starting;
        abandonEngine();
        if (starting) {
            m_unavailableReason = slowStartText();
            setEngineState(EngineState::unavailable);
            fail(m_unavailableReason);
        } else {
            fail(stuckEngineText());
        }
    });
}

LocalSynthesizer::~LocalSynthesizer()
{
    if (!m_thread)
        return;
    // The engine is deleted on its own thread, which then ends.
    SpeechdEngineHost *host = m_host;
    QMetaObject::invokeMethod(
        host,
        [host] {
            delete host;
            QThread::currentThread()->quit();
        },
        Qt::QueuedConnection);
    if (m_thread->wait(shutdownWaitMs))
        delete m_thread;
    // Otherwise the thread is stuck inside speech-dispatcher; it ends with the process.
}

void LocalSynthesizer::setEngineState(EngineState state)
{
    if (m_engineState == state)
        return;
    m_engineState = state;
    Q_EMIT engineStateChanged();
}

void LocalSynthesizer::prepare()
{
    if (m_engineState != EngineState::notStarted)
        return;
    m_thread = new QThread;
    m_thread->setObjectName(QStringLiteral("speechd"));
    auto *host = new SpeechdEngineHost;
    host->moveToThread(m_thread);
    m_host = host;
    connect(m_thread, &QThread::finished, host, &QObject::deleteLater);
    connect(host, &SpeechdEngineHost::ready, this, &LocalSynthesizer::onReady);
    connect(host, &SpeechdEngineHost::unavailable, this, &LocalSynthesizer::onUnavailable);
    connect(host, &SpeechdEngineHost::stateChanged, this, &LocalSynthesizer::onHostStateChanged);
    m_thread->start();
    QMetaObject::invokeMethod(host, &SpeechdEngineHost::start, Qt::QueuedConnection);
    setEngineState(EngineState::starting);
    m_deadline.start(startDeadlineMs);
}

void LocalSynthesizer::onReady(const QList<LocalVoice> &voices)
{
    m_deadline.stop();
    QList<LocalVoice> sorted = voices;
    QCollator collator;
    collator.setCaseSensitivity(Qt::CaseInsensitive);
    std::stable_sort(sorted.begin(), sorted.end(), [&](const LocalVoice &a, const LocalVoice &b) {
        if (a.quality != b.quality)
            return a.quality > b.quality;
        return collator.compare(a.name, b.name) < 0;
    });
    m_romanianVoices = sorted;
    setEngineState(EngineState::ready);
    startNext();
}

void LocalSynthesizer::onUnavailable(const QString &reason)
{
    m_deadline.stop();
    m_unavailableReason = reason;
    setEngineState(EngineState::unavailable);
    if (!m_queue.isEmpty())
        fail(reason);
}

void LocalSynthesizer::enqueue(const Utterance &utterance)
{
    m_queue.enqueue(utterance);
    switch (m_engineState) {
    case EngineState::notStarted:
        prepare();
        break;
    case EngineState::starting:
        break;
    case EngineState::ready:
        startNext();
        break;
    case EngineState::unavailable:
        fail(m_unavailableReason);
        break;
    }
}

void LocalSynthesizer::stopAll()
{
    const bool wasSpeaking = m_current != nullptr;
    m_queue.clear();
    m_current.reset();
    m_currentStarted = false;
    m_delay.stop();
    m_delay.disconnect(this);
    if (m_engineState == EngineState::ready)
        m_deadline.stop();
    if (wasSpeaking && m_host)
        QMetaObject::invokeMethod(m_host, &SpeechdEngineHost::stop, Qt::QueuedConnection);
}

int LocalSynthesizer::deadlineMs(const Utterance &utterance)
{
    // eSpeak at its slowest reads about 8 characters a second; allow that twice over, plus the
    // time speech-dispatcher takes to open the audio stream.
    return 5'000 + int(utterance.text.size()) * 250 + utterance.preDelayMs;
}

void LocalSynthesizer::startNext()
{
    if (m_current || m_queue.isEmpty() || m_engineState != EngineState::ready)
        return;
    m_current = std::make_unique<Utterance>(m_queue.dequeue());
    m_currentStarted = false;
    m_delay.disconnect(this);
    connect(&m_delay, &QTimer::timeout, this, &LocalSynthesizer::speakCurrent);
    m_delay.start(m_current->preDelayMs);
}

QString LocalSynthesizer::resolvedVoice(const QString &identifier) const
{
    const bool known = std::any_of(m_romanianVoices.begin(), m_romanianVoices.end(),
        [&](const LocalVoice &voice) { return voice.identifier == identifier; });
    if (!identifier.isEmpty() && known)
        return identifier;
    return m_romanianVoices.isEmpty() ? QString() : m_romanianVoices.first().identifier;
}

void LocalSynthesizer::speakCurrent()
{
    m_delay.disconnect(this);
    if (!m_current || !m_host)
        return;
    m_deadline.start(deadlineMs(*m_current));
    SpeechdEngineHost *host = m_host;
    QMetaObject::invokeMethod(
        host,
        [host, text = m_current->text, voice = resolvedVoice(m_current->voiceIdentifier),
            rate = SpeechText::qtRate(m_current->rate)] { host->say(text, voice, rate); },
        Qt::QueuedConnection);
}

void LocalSynthesizer::onHostStateChanged(int state, const QString &errorString)
{
    if (!m_current || m_delay.isActive())
        return;
    switch (QTextToSpeech::State(state)) {
    case QTextToSpeech::Speaking:
        if (!m_currentStarted) {
            m_currentStarted = true;
            Q_EMIT didStart(m_current->id);
        }
        break;
    case QTextToSpeech::Ready:
        // A Ready before this utterance began is the tail of one that was stopped.
        if (m_currentStarted)
            finishCurrent();
        break;
    case QTextToSpeech::Error: {
        QString text = QStringLiteral("Vocea locală s-a oprit cu o eroare (speech-dispatcher).");
        if (!errorString.isEmpty())
            text += QLatin1Char(' ') + errorString;
        fail(text);
        break;
    }
    case QTextToSpeech::Paused:
        break;
    }
}

void LocalSynthesizer::finishCurrent()
{
    m_deadline.stop();
    const Utterance finished = *m_current;
    m_current.reset();
    Q_EMIT didFinish(finished.id);
    // The pause after an utterance holds back the next one, not the finish event.
    if (m_current || m_queue.isEmpty())
        return;
    m_delay.disconnect(this);
    connect(&m_delay, &QTimer::timeout, this, &LocalSynthesizer::startNext);
    m_delay.start(finished.postDelayMs);
}

void LocalSynthesizer::fail(const QString &description)
{
    stopAll();
    Q_EMIT failed(description);
}

void LocalSynthesizer::abandonEngine()
{
    if (m_host)
        m_host->disconnect(this);
    m_host = nullptr;
    if (m_thread) {
        // Should the daemon ever answer again, the thread winds down and cleans up after itself.
        connect(m_thread, &QThread::finished, m_thread, &QObject::deleteLater);
        m_thread->quit();
        m_thread = nullptr;
    }
    setEngineState(EngineState::notStarted);
}
