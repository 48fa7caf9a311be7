#include "LiveActivityFeed.h"

#include "conversation/ChatStore.h"
#include "system/LiveActivityManager.h"
#include "voice/SpeechService.h"

LiveActivityFeed::LiveActivityFeed(ChatStore *store, LiveActivityManager *activity, QObject *parent)
    : QObject(parent)
    , m_store(store)
    , m_activity(activity)
{
    for (auto signal : { &ChatStore::activityTextChanged, &ChatStore::toolStatusChanged, &ChatStore::isThinkingChanged,
             &ChatStore::changed })
        connect(store, signal, this, &LiveActivityFeed::refresh);
    SpeechService *speech = store->speech();
    for (auto signal : { &SpeechService::isListeningChanged, &SpeechService::isSpeakingChanged,
             &SpeechService::isPreparingVoiceChanged, &SpeechService::transcriptChanged })
        connect(speech, signal, this, &LiveActivityFeed::refresh);
    refresh();
}

void LiveActivityFeed::refresh()
{
    const SpeechService *speech = m_store->speech();
    m_activity->refresh({ m_store->activityText(), m_store->toolStatus(), speech->transcript(), m_store->isThinking(),
        speech->isListening(), speech->isSpeaking(), speech->isPreparingVoice() });
}
