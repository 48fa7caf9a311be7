#pragma once

#include "settings/Presets.h"

#include <QString>
#include <QStringList>

#include <optional>

// The --engine option of the voice commands: local, google, azure or elevenlabs.
namespace VoiceEngineOption {

std::optional<VoiceEnginePreset> parse(const QString &word);
QString usageError(const QString &word);
// The engine names after --engine, else the option itself.
QStringList completions(const QStringList &previous);

} // namespace VoiceEngineOption
