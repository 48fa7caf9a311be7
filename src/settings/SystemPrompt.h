#pragma once

#include "Presets.h"

#include <QString>

// The system message of every request, composed from persona, length, memory and the user's own
// instructions.
class SystemPrompt
{
public:
    static QString compose(PersonalityPreset personality, ResponseLengthPreset responseLength,
        const QString &memorySummary, const QString &customPrompt);
};
