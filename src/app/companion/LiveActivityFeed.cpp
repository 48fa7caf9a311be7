#include "LiveActivityFeed.h"

#include "conversation/ChatStore.h"
#include "system/LiveActivityManager.h"
#include "voice/SpeechRecognizer.h"
#include "voice/SpeechSynthesizer.h"

LiveActivityFeed::LiveActivityFeed(ChatStore *store, LiveActivityManager *activity, QObject *parent)
    : QObject(parent)
    , m_store(store)
    , m_activity(activity)
{
    for (auto signal : { &ChatStore::activityTextChanged, &ChatStore::toolStatusChanged, &ChatStore::isThinkingChanged,
             &ChatStore::changed })
        connect(store, signal, this, &LiveActivityFeed::refresh);
    for (auto signal : { &SpeechRecognizer::isListeningChanged, &SpeechRecognizer::transcriptChanged })
        connect(store->recognizer(), signal, this, &LiveActivityFeed::refresh);
    for (auto signal : { &SpeechSynthesizer::isSpeakingChanged, &SpeechSynthesizer::isPreparingVoiceChanged })
        connect(store->synthesizer(), signal, this, &LiveActivityFeed::refresh);
    refresh();
}

void LiveActivityFeed::refresh()
{
    const SpeechRecognizer *recognizer = m_store->recognizer();
    const SpeechSynthesizer *synthesizer = m_store->synthesizer();
    m_activity->refresh({ m_store->activityText(), m_store->toolStatus(), recognizer->transcript(),
        m_store->isThinking(), recognizer->isListening(), synthesizer->isSpeaking(), synthesizer->isPreparingVoice() });
}
