#include "Presets.h"

namespace Presets {

namespace {
template<typename Enum> std::optional<Enum> fromRawValue(const QList<Enum> &all, const QString &raw)
{
    for (Enum value : all) {
        if (rawValue(value) == raw)
            return value;
    }
    return std::nullopt;
}
} // namespace

QList<PersonalityPreset> allPersonalities()
{
    return { PersonalityPreset::calm, PersonalityPreset::creative, PersonalityPreset::direct,
        PersonalityPreset::companion };
}

QList<ResponseLengthPreset> allResponseLengths()
{
    return { ResponseLengthPreset::short_, ResponseLengthPreset::balanced, ResponseLengthPreset::detailed };
}

QList<VoiceEnginePreset> allVoiceEngines()
{
    return { VoiceEnginePreset::appleLocal, VoiceEnginePreset::googleCloud, VoiceEnginePreset::azureSpeech,
        VoiceEnginePreset::elevenLabs };
}

QString rawValue(PersonalityPreset preset)
{
    switch (preset) {
    case PersonalityPreset::calm:
        return QStringLiteral("Calm");
    case PersonalityPreset::creative:
        return QStringLiteral("Creativ");
    case PersonalityPreset::direct:
        return QStringLiteral("Direct");
    case PersonalityPreset::companion:
        return QStringLiteral("Companion");
    }
    return {};
}

QString rawValue(ResponseLengthPreset preset)
{
    switch (preset) {
    case ResponseLengthPreset::short_:
        return QStringLiteral("Scurt");
    case ResponseLengthPreset::balanced:
        return QStringLiteral("Echilibrat");
    case ResponseLengthPreset::detailed:
        return QStringLiteral("Detaliat");
    }
    return {};
}

QString rawValue(VoiceEnginePreset preset)
{
    switch (preset) {
    case VoiceEnginePreset::appleLocal:
        return QStringLiteral("Apple Local");
    case VoiceEnginePreset::googleCloud:
        return QStringLiteral("Google Cloud TTS");
    case VoiceEnginePreset::azureSpeech:
        return QStringLiteral("Azure Speech");
    case VoiceEnginePreset::elevenLabs:
        return QStringLiteral("ElevenLabs");
    }
    return {};
}

std::optional<PersonalityPreset> personalityFromRawValue(const QString &raw)
{
    return fromRawValue(allPersonalities(), raw);
}

std::optional<ResponseLengthPreset> responseLengthFromRawValue(const QString &raw)
{
    return fromRawValue(allResponseLengths(), raw);
}

std::optional<VoiceEnginePreset> voiceEngineFromRawValue(const QString &raw)
{
    return fromRawValue(allVoiceEngines(), raw);
}

QString promptSentence(PersonalityPreset preset)
{
    switch (preset) {
    case PersonalityPreset::calm:
        return QStringLiteral("Vorbești calm, clar, empatic și pragmatic.");
    case PersonalityPreset::creative:
        return QStringLiteral("Ești creativ, curios și vii cu idei originale, dar rămâi practic.");
    case PersonalityPreset::direct:
        return QStringLiteral("Ești direct, foarte clar și orientat spre acțiune.");
    case PersonalityPreset::companion:
        return QStringLiteral("Ești un companion inteligent, cald și natural, cu umor subtil.");
    }
    return {};
}

QString promptSentence(ResponseLengthPreset preset)
{
    switch (preset) {
    case ResponseLengthPreset::short_:
        return QStringLiteral("Răspunde scurt, de regulă în 1–3 propoziții și sub 100 de cuvinte.");
    case ResponseLengthPreset::balanced:
        return QStringLiteral("Răspunde concis și complet, de regulă în maximum 5–7 propoziții.");
    case ResponseLengthPreset::detailed:
        return QStringLiteral("Poți răspunde detaliat când este util, dar evită repetițiile și umplutura.");
    }
    return {};
}

} // namespace Presets
