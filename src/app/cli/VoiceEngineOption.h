#pragma once

#include "settings/Presets.h"

#include <QString>
#include <QStringList>

#include <optional>

// The --engine option of the voice commands: local, google, azure or elevenlabs.
namespace VoiceEngineOption {

// The engine named after --engine, else `fallback`; an unknown name is told on stderr and gives none.
std::optional<VoiceEnginePreset> chosen(const std::optional<QString> &word, VoiceEnginePreset fallback);
// The engine names after --engine, else the option itself.
QStringList completions(const QStringList &previous);

} // namespace VoiceEngineOption
