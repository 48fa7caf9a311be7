#include "SpeechService.h"

#include "net/HttpClient.h"
#include "system/VariantLists.h"

SpeechService::SpeechService(QObject *parent)
    : QObject(parent)
{
    initRecognition();
    initSynthesis();
}

SpeechService::~SpeechService()
{
    close();
}

void SpeechService::close()
{
    HttpClient::closeAllUnder(this);
    endRecognitionForGood();
}

QVariantList SpeechService::googleVoiceList() const
{
    return VariantLists::from(m_googleVoices);
}

QVariantList SpeechService::azureVoiceList() const
{
    return VariantLists::from(m_azureVoices);
}

QVariantList SpeechService::elevenVoiceList() const
{
    return VariantLists::from(m_elevenVoices);
}

#define KELO_SPEECH_SETTER(setter, member, signal)                                                                     \
    void SpeechService::setter(decltype(member) value)                                                                 \
    {                                                                                                                  \
        if (member == value)                                                                                           \
            return;                                                                                                    \
        member = value;                                                                                                \
        Q_EMIT signal();                                                                                               \
        Q_EMIT changed();                                                                                              \
    }

KELO_SPEECH_SETTER(setListening, m_isListening, isListeningChanged)
KELO_SPEECH_SETTER(setInputLevel, m_inputLevel, inputLevelChanged)
KELO_SPEECH_SETTER(setSpeaking, m_isSpeaking, isSpeakingChanged)
KELO_SPEECH_SETTER(setPreparingVoice, m_isPreparingVoice, isPreparingVoiceChanged)
KELO_SPEECH_SETTER(setLoadingVoices, m_isLoadingVoices, isLoadingVoicesChanged)

#undef KELO_SPEECH_SETTER

void SpeechService::setTranscript(const QString &value)
{
    if (m_transcript == value)
        return;
    m_transcript = value;
    Q_EMIT transcriptChanged();
    Q_EMIT changed();
}

void SpeechService::setLastError(const QString &value)
{
    if (m_lastError == value)
        return;
    m_lastError = value;
    Q_EMIT lastErrorChanged();
    Q_EMIT changed();
}
