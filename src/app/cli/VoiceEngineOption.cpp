#include "VoiceEngineOption.h"

#include "Terminal.h"

namespace VoiceEngineOption {

namespace {

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

QString usageError(const QString &word)
{
    return QStringLiteral("Motor de voce necunoscut: %1 (alege local, google, azure sau elevenlabs).").arg(word);
}

} // namespace

QStringList completions(const QStringList &previous)
{
    if (!previous.isEmpty() && previous.last() == QLatin1StringView("--engine"))
        return { QStringLiteral("local"), QStringLiteral("google"), QStringLiteral("azure"),
            QStringLiteral("elevenlabs") };
    return { QStringLiteral("--engine") };
}

std::optional<VoiceEnginePreset> chosen(const std::optional<QString> &word, VoiceEnginePreset fallback)
{
    if (!word)
        return fallback;
    const auto engine = parse(*word);
    if (!engine)
        Terminal::err(usageError(*word));
    return engine;
}

} // namespace VoiceEngineOption
