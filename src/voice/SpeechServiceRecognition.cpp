#include "SpeechService.h"

// On-device recognition is not built yet: every run ends at once with the unavailability text, so
// the push-to-talk flow stays honest about it.

void SpeechService::initRecognition()
{
}

QCoro::Task<> SpeechService::startListening(bool preferOnDevice, bool autoSubmitOnFinal)
{
    Q_UNUSED(preferOnDevice)
    Q_UNUSED(autoSubmitOnFinal)
    setTranscript({});
    setLastError(QStringLiteral("Recunoașterea vocală în română nu este disponibilă momentan."));
    co_return;
}

void SpeechService::finishListening()
{
    setListening(false);
    setInputLevel(0.0);
}

void SpeechService::cancelListening()
{
    finishListening();
}
