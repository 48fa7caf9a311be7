#pragma once

#include <QList>
#include <QString>

#include <optional>

// The three preset enumerations of the settings. Their raw values are the titles shown to the user
// and the strings stored in the settings file.

enum class PersonalityPreset { calm, creative, direct, companion };
// `short` is a C++ keyword, hence the trailing underscore.
enum class ResponseLengthPreset { short_, balanced, detailed };
enum class VoiceEnginePreset { appleLocal, googleCloud, azureSpeech, elevenLabs };

namespace Presets {

QList<PersonalityPreset> allPersonalities();
QList<ResponseLengthPreset> allResponseLengths();
QList<VoiceEnginePreset> allVoiceEngines();

QString rawValue(PersonalityPreset preset);
QString rawValue(ResponseLengthPreset preset);
QString rawValue(VoiceEnginePreset preset);

// Exact, case-sensitive matches against the raw values.
std::optional<PersonalityPreset> personalityFromRawValue(const QString &raw);
std::optional<ResponseLengthPreset> responseLengthFromRawValue(const QString &raw);
std::optional<VoiceEnginePreset> voiceEngineFromRawValue(const QString &raw);

// The sentence each preset contributes to the system prompt.
QString promptSentence(PersonalityPreset preset);
QString promptSentence(ResponseLengthPreset preset);

} // namespace Presets
