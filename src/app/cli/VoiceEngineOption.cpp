#include "VoiceEngineOption.h"

namespace VoiceEngineOption {

std::optional<VoiceEnginePreset> parse(const QString &word)
{
    const QString lower = word.trimmed().toLower();
    if (lower == QLatin1StringView("local"))
        return VoiceEnginePreset::appleLocal;
    if (lower == QLatin1StringView("google"))
        return VoiceEnginePreset::googleCloud;
    if (lower == QLatin1StringView("azure"))
        return VoiceEnginePreset::azureSpeech;
    if (lower == QLatin1StringView("elevenlabs"))
        return VoiceEnginePreset::elevenLabs;
    return std::nullopt;
}

QStringList completions(const QStringList &previous)
{
    if (!previous.isEmpty() && previous.last() == QLatin1StringView("--engine"))
        return { QStringLiteral("local"), QStringLiteral("google"), QStringLiteral("azure"),
            QStringLiteral("elevenlabs") };
    return { QStringLiteral("--engine") };
}

QString usageError(const QString &word)
{
    return QStringLiteral("Motor de voce necunoscut: %1 (alege local, google, azure sau elevenlabs).").arg(word);
}

} // namespace VoiceEngineOption
