#pragma once

#include "conversation/ChatStore.h"
#include "voice/CloudAudioOutput.h"
#include "voice/SpeechRecognizer.h"
#include "voice/SpeechSynthesizer.h"

#include <QObject>
#include <QString>

#include <functional>

// The few places where the voice-to-voice benchmark meets the store's voice objects, kept together
// because they change when listening and speaking become objects of their own and answers stream.
namespace VoiceTurnAdapter {

// Whether the store speaks an answer while it is still being written.
inline bool streamsAnswers()
{
    return true;
}

// The object that listens (audio input factory, models, worker).
inline auto *recognizerOf(ChatStore &store)
{
    return store.recognizer();
}

// The object that speaks.
inline auto *synthesizerOf(ChatStore &store)
{
    return store.synthesizer();
}

// Calls `firstAudio` each time a cloud voice's first decoded samples are pulled by the device, until
// `context` is destroyed.
inline void onFirstAudio(ChatStore &store, QObject *context, std::function<void()> firstAudio)
{
    auto *speech = synthesizerOf(store);
    QObject::connect(speech, &SpeechSynthesizer::isSpeakingChanged, context, [speech, context, firstAudio] {
        if (speech->isSpeaking() && speech->cloudAudioOutput())
            QObject::connect(speech->cloudAudioOutput(), &CloudAudioOutput::firstAudioQueued, context, firstAudio);
    });
}

inline bool isSpeaking(ChatStore &store)
{
    return synthesizerOf(store)->isSpeaking();
}

inline QString lastVoiceError(ChatStore &store)
{
    return synthesizerOf(store)->lastError();
}

} // namespace VoiceTurnAdapter
