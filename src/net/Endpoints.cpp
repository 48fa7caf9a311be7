#include "Endpoints.h"

#include <QtGlobal>

namespace Endpoints {

QString fromEnvironment(const char *variable, const QString &fallback)
{
    QString base = qEnvironmentVariable(variable).trimmed();
    if (base.isEmpty())
        base = fallback;
    while (base.endsWith(QLatin1Char('/')))
        base.chop(1);
    return base;
}

QString zenBaseURL()
{
    return fromEnvironment("KELO_ZEN_BASE_URL", QStringLiteral("https://opencode.ai/zen/v1"));
}

QString wikipediaBaseURL()
{
    return fromEnvironment("KELO_WIKIPEDIA_BASE_URL", QStringLiteral("https://ro.wikipedia.org"));
}

QString googleTTSBaseURL()
{
    return fromEnvironment("KELO_GOOGLE_TTS_BASE_URL", QStringLiteral("https://texttospeech.googleapis.com"));
}

QString azureTTSBaseURL(const QString &region)
{
    const QString fallback = QStringLiteral("https://%1.tts.speech.microsoft.com").arg(region);
    return fromEnvironment("KELO_AZURE_TTS_BASE_URL", fallback);
}

QString elevenLabsBaseURL()
{
    return fromEnvironment("KELO_ELEVENLABS_BASE_URL", QStringLiteral("https://api.elevenlabs.io"));
}

QString whisperModelBaseURL()
{
    return fromEnvironment(
        "KELO_WHISPER_MODEL_BASE_URL", QStringLiteral("https://huggingface.co/ggerganov/whisper.cpp/resolve/main"));
}

} // namespace Endpoints
