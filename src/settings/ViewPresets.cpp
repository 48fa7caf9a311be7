#include "ViewPresets.h"

#include <QHash>

namespace {
template<typename Enum> QStringList rawValues(const QList<Enum> &all)
{
    QStringList raw;
    for (Enum value : all)
        raw.append(Presets::rawValue(value));
    return raw;
}
} // namespace

QList<VoiceEngineCard> ViewPresets::voiceEngineCards()
{
    QList<VoiceEngineCard> cards;
    for (VoiceEnginePreset engine : Presets::allVoiceEngines())
        cards.append(VoiceEngineCard::of(engine));
    return cards;
}

QStringList ViewPresets::personalities()
{
    return rawValues(Presets::allPersonalities());
}

QStringList ViewPresets::responseLengths()
{
    return rawValues(Presets::allResponseLengths());
}

QString ViewPresets::memoryPlaceholder()
{
    return QStringLiteral("Memoria se construiește automat pe măsură ce conversația progresează.");
}

QString ViewPresets::automaticVoiceLabel()
{
    return QStringLiteral("Automat · cea mai bună");
}

QColor ViewPresets::tintColor(const QString &tintName)
{
    static const QHash<QString, QColor> tints {
        { QStringLiteral("violet"), QColor(0x9B7BFF) },
        { QStringLiteral("blue"), QColor(0x4C8DFF) },
        { QStringLiteral("pink"), QColor(0xFF6FAE) },
        { QStringLiteral("green"), QColor(0x4ED38A) },
        { QStringLiteral("red"), QColor(0xFF6B6B) },
        { QStringLiteral("cyan"), QColor(0x46D4F0) },
        { QStringLiteral("mint"), QColor(0x7CF5D0) },
        { QStringLiteral("orange"), QColor(0xFFA24C) },
        { QStringLiteral("indigo"), QColor(0x6A6CF0) },
        { QStringLiteral("purple"), QColor(0xA565F2) },
    };
    return tints.value(tintName, QColor(0x9AA3C0));
}
