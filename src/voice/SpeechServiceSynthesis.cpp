#include "SpeechService.h"

// Speech output is not built yet: speaking reports that plainly instead of pretending.

namespace {
QString unavailableText()
{
    return QStringLiteral("Vocea nu este încă disponibilă în această versiune.");
}
} // namespace

void SpeechService::initSynthesis()
{ }

void SpeechService::speak(const QString &text, AppSettings *settings)
{
    Q_UNUSED(text)
    Q_UNUSED(settings)
    setLastError(unavailableText());
}

QCoro::Task<> SpeechService::previewCloudVoice(VoiceEnginePreset engine, AppSettings *settings)
{
    Q_UNUSED(engine)
    Q_UNUSED(settings)
    setLastError(unavailableText());
    co_return;
}

void SpeechService::stopSpeaking()
{
    setSpeaking(false);
    setPreparingVoice(false);
}

QCoro::Task<> SpeechService::refreshGoogleVoices(const QString &)
{
    setLastError(unavailableText());
    co_return;
}

QCoro::Task<> SpeechService::refreshAzureVoices(const QString &, const QString &)
{
    setLastError(unavailableText());
    co_return;
}

QCoro::Task<> SpeechService::refreshElevenVoices(const QString &)
{
    setLastError(unavailableText());
    co_return;
}
