#include "LocalVoice.h"

QString LocalVoice::qualityLabel() const
{
    switch (quality) {
    case Quality::premium:
        return QStringLiteral("Premium");
    case Quality::enhanced:
        return QStringLiteral("Îmbunătățită");
    case Quality::standard:
        break;
    }
    return QStringLiteral("Standard");
}

LocalVoice::Quality LocalVoice::qualityOfVoiceNamed(const QString &name)
{
    const QString lower = name.toLower();
    for (const char *neural : { "piper", "rhvoice", "neural" }) {
        if (lower.contains(QLatin1StringView(neural)))
            return Quality::premium;
    }
    if (lower.startsWith(QLatin1StringView("mb-")) || lower.contains(QLatin1StringView("mbrola")))
        return Quality::enhanced;
    return Quality::standard;
}
