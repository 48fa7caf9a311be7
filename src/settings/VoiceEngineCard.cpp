#include "VoiceEngineCard.h"

VoiceEngineCard VoiceEngineCard::of(VoiceEnginePreset engine)
{
    switch (engine) {
    case VoiceEnginePreset::appleLocal:
        return { engine, QStringLiteral("appleLocal"), QStringLiteral("Voce locală"),
            QStringLiteral("GRATUIT · OFFLINE"), QStringLiteral("iphone"),
            QStringLiteral("Offline · fără API · calitatea depinde de vocile instalate pe calculator") };
    case VoiceEnginePreset::googleCloud:
        return { engine, QStringLiteral("googleCloud"), QStringLiteral("Google Cloud TTS"),
            QStringLiteral("FREE TIER · API"), QStringLiteral("cloud"),
            QStringLiteral("API · Romanian WaveNet / Chirp · are free tier pentru unele voci") };
    case VoiceEnginePreset::azureSpeech:
        return { engine, QStringLiteral("azureSpeech"), QStringLiteral("Azure Speech"),
            QStringLiteral("F0 / FREE TIER · API"), QStringLiteral("waveform.path.ecg"),
            QStringLiteral("API · Romanian Neural · disponibil și cu resursă Azure F0") };
    case VoiceEnginePreset::elevenLabs:
        return { engine, QStringLiteral("elevenLabs"), QStringLiteral("ElevenLabs"),
            QStringLiteral("CALITATE RIDICATĂ · API"), QStringLiteral("sparkles"),
            QStringLiteral("API · foarte natural · cost/credit în funcție de cont") };
    }
    return {};
}
