#pragma once

#include "settings/Presets.h"

#include <QString>

#include <optional>

// The --engine option of the voice commands: local, google, azure or elevenlabs.
namespace VoiceEngineOption {

std::optional<VoiceEnginePreset> parse(const QString &word);
QString usageError(const QString &word);

} // namespace VoiceEngineOption
