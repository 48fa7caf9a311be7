#include "SpeechdEngineHost.h"

#include <QLocale>
#include <QTextToSpeech>

namespace {

const QString engineName = QStringLiteral("speechd");

} // namespace

SpeechdEngineHost::SpeechdEngineHost() = default;

SpeechdEngineHost::~SpeechdEngineHost() = default;

void SpeechdEngineHost::start()
{
    // flite, the only other engine on Linux, speaks English only: no fallback.
    if (!QTextToSpeech::availableEngines().contains(engineName)) {
        Q_EMIT unavailable(QStringLiteral("Vocea locală nu este disponibilă: lipsește speech-dispatcher. Instalează "
                                          "pachetele speech-dispatcher și speech-dispatcher-espeak-ng sau alege o "
                                          "voce din cloud."));
        return;
    }
    m_engine = new QTextToSpeech(engineName, this);
    if (m_engine->state() == QTextToSpeech::Error) {
        QString reason = QStringLiteral("Vocea locală nu a putut porni (speech-dispatcher).");
        if (!m_engine->errorString().isEmpty())
            reason += QLatin1Char(' ') + m_engine->errorString();
        delete m_engine;
        m_engine = nullptr;
        Q_EMIT unavailable(reason);
        return;
    }
    connect(m_engine, &QTextToSpeech::stateChanged, this, [this](QTextToSpeech::State state) {
        Q_EMIT stateChanged(int(state), state == QTextToSpeech::Error ? m_engine->errorString() : QString());
    });
    Q_EMIT ready(loadRomanianVoices());
}

QList<LocalVoice> SpeechdEngineHost::loadRomanianVoices()
{
    const QLocale initial = m_engine->locale();
    QList<LocalVoice> voices;
    for (const QLocale &locale : m_engine->availableLocales()) {
        const QString language = locale.bcp47Name();
        if (!language.toLower().startsWith(QLatin1StringView("ro")))
            continue;
        m_engine->setLocale(locale);
        for (const QVoice &voice : m_engine->availableVoices()) {
            // speech-dispatcher names are unique per engine, which makes them stable identifiers.
            if (m_voicesByIdentifier.contains(voice.name()))
                continue;
            m_voicesByIdentifier.insert(voice.name(), voice);
            LocalVoice local;
            local.identifier = voice.name();
            local.name = voice.name();
            local.language = language;
            local.quality = LocalVoice::qualityOfVoiceNamed(voice.name());
            voices.append(local);
        }
    }
    m_engine->setLocale(initial);
    return voices;
}

void SpeechdEngineHost::say(const QString &text, const QString &voiceIdentifier, double qtRate)
{
    if (!m_engine)
        return;
    const auto voice = m_voicesByIdentifier.constFind(voiceIdentifier);
    if (voice != m_voicesByIdentifier.constEnd())
        m_engine->setVoice(*voice);
    else
        m_engine->setLocale(QLocale(QStringLiteral("ro_RO")));
    m_engine->setRate(qtRate);
    m_engine->setPitch(0.0);
    m_engine->setVolume(1.0);
    m_engine->say(text);
}

void SpeechdEngineHost::stop()
{
    // Unconditionally: a say() handed over just before may not have reached the daemon's queue yet.
    if (m_engine)
        m_engine->stop(QTextToSpeech::BoundaryHint::Immediate);
}
