#include "LocalSynthesizer.h"

#include "SpeechText.h"

#include <QCollator>
#include <QLocale>
#include <QTextToSpeech>
#include <QThread>

#include <algorithm>
#include <utility>

namespace {

const QString engineName = QStringLiteral("speechd");

QString missingEngineText()
{
    return QStringLiteral("Vocea locală nu este disponibilă: lipsește speech-dispatcher. Instalează pachetele "
                          "speech-dispatcher și speech-dispatcher-espeak-ng sau alege o voce din cloud.");
}

QString brokenEngineText(const QString &detail)
{
    QString text = QStringLiteral("Vocea locală nu a putut porni (speech-dispatcher).");
    if (!detail.isEmpty())
        text += QLatin1Char(' ') + detail;
    return text;
}

QString stuckEngineText()
{
    return QStringLiteral("Vocea locală nu a răspuns la timp. Verifică serverul de sunet (PulseAudio) și "
                          "speech-dispatcher.");
}

// Never a fallback engine: a Romanian answer read by an English synthesiser helps nobody.
QTextToSpeech *buildEngine()
{
    if (!QTextToSpeech::availableEngines().contains(engineName))
        return nullptr;
    return new QTextToSpeech(engineName);
}

} // namespace

LocalSynthesizer::LocalSynthesizer(QObject *parent)
    : QObject(parent)
{
    m_delay.setSingleShot(true);
    m_deadline.setSingleShot(true);
    connect(&m_deadline, &QTimer::timeout, this, [this] { fail(stuckEngineText()); });
}

LocalSynthesizer::~LocalSynthesizer()
{
    if (m_builder) {
        m_builder->wait();
        delete m_builder;
        // Built but never handed over: the hand-over runs from the event loop, which is past now.
        delete m_builtEngine;
    }
}

void LocalSynthesizer::prepare()
{
    if (m_engineState != EngineState::notStarted)
        return;
    m_engineState = EngineState::starting;
    Q_EMIT engineStateChanged();

    QThread *home = thread();
    // The destructor waits for this thread, so `this` outlives it.
    m_builder = QThread::create([this, home] {
        m_builtEngine = buildEngine();
        if (m_builtEngine)
            m_builtEngine->moveToThread(home);
    });
    connect(m_builder, &QThread::finished, this, &LocalSynthesizer::engineBuilt, Qt::QueuedConnection);
    m_builder->start();
}

void LocalSynthesizer::engineBuilt()
{
    m_builder->wait();
    delete m_builder;
    m_builder = nullptr;
    QTextToSpeech *engine = std::exchange(m_builtEngine, nullptr);

    if (!engine) {
        m_unavailableReason = missingEngineText();
    } else if (engine->state() == QTextToSpeech::Error) {
        m_unavailableReason = brokenEngineText(engine->errorString());
        delete engine;
    } else {
        m_engine = engine;
        m_engine->setParent(this);
        connect(m_engine, &QTextToSpeech::stateChanged, this,
            [this](QTextToSpeech::State state) { onEngineStateChanged(int(state)); });
        loadRomanianVoices();
    }
    m_engineState = m_engine ? EngineState::ready : EngineState::unavailable;
    Q_EMIT engineStateChanged();
    if (m_engine)
        startNext();
    else if (!m_queue.isEmpty())
        fail(m_unavailableReason);
}

void LocalSynthesizer::loadRomanianVoices()
{
    const QLocale initial = m_engine->locale();
    QList<LocalVoice> voices;
    for (const QLocale &locale : m_engine->availableLocales()) {
        const QString language = locale.bcp47Name();
        if (!language.toLower().startsWith(QLatin1StringView("ro")))
            continue;
        m_engine->setLocale(locale);
        for (const QVoice &voice : m_engine->availableVoices()) {
            LocalVoice local;
            local.identifier = voice.name();
            local.name = voice.name();
            local.language = language;
            local.quality = LocalVoice::qualityOfVoiceNamed(voice.name());
            if (m_voicesByIdentifier.contains(local.identifier))
                continue;
            m_voicesByIdentifier.insert(local.identifier, voice);
            voices.append(local);
        }
    }
    m_engine->setLocale(initial);

    QCollator collator;
    collator.setCaseSensitivity(Qt::CaseInsensitive);
    std::stable_sort(voices.begin(), voices.end(), [&](const LocalVoice &a, const LocalVoice &b) {
        if (a.quality != b.quality)
            return a.quality > b.quality;
        return collator.compare(a.name, b.name) < 0;
    });
    m_romanianVoices = voices;
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
    m_queue.clear();
    m_current.reset();
    m_currentStarted = false;
    m_delay.stop();
    m_delay.disconnect(this);
    m_deadline.stop();
    if (m_engine && m_engine->state() != QTextToSpeech::Ready)
        m_engine->stop(QTextToSpeech::BoundaryHint::Immediate);
}

int LocalSynthesizer::deadlineMs(const Utterance &utterance)
{
    // eSpeak at its slowest reads about 8 characters a second; allow that twice over, plus the
    // time speech-dispatcher takes to open the audio stream.
    return 5'000 + int(utterance.text.size()) * 250 + utterance.preDelayMs;
}

void LocalSynthesizer::startNext()
{
    if (m_current || m_queue.isEmpty() || !m_engine)
        return;
    m_current = std::make_unique<Utterance>(m_queue.dequeue());
    m_currentStarted = false;
    m_delay.disconnect(this);
    connect(&m_delay, &QTimer::timeout, this, &LocalSynthesizer::speakCurrent);
    m_delay.start(m_current->preDelayMs);
}

void LocalSynthesizer::speakCurrent()
{
    m_delay.disconnect(this);
    if (!m_current)
        return;
    applyVoice(m_current->voiceIdentifier);
    m_engine->setRate(SpeechText::qtRate(m_current->rate));
    m_engine->setPitch(0.0);
    m_engine->setVolume(1.0);
    m_deadline.start(deadlineMs(*m_current));
    m_engine->say(m_current->text);
}

void LocalSynthesizer::applyVoice(const QString &identifier)
{
    const auto chosen = m_voicesByIdentifier.constFind(identifier);
    if (!identifier.isEmpty() && chosen != m_voicesByIdentifier.constEnd()) {
        m_engine->setVoice(*chosen);
    } else if (!m_romanianVoices.isEmpty()) {
        m_engine->setVoice(m_voicesByIdentifier.value(m_romanianVoices.first().identifier));
    } else {
        m_engine->setLocale(QLocale(QStringLiteral("ro_RO")));
    }
}

void LocalSynthesizer::onEngineStateChanged(int state)
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
    case QTextToSpeech::Error:
        fail(brokenEngineText(m_engine->errorString()));
        break;
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
