#pragma once

#include <QJsonObject>
#include <QString>

#include <optional>

// One entry of ElevenLabs' voice list ("voice_id", "name", "category").
struct NeuralVoice
{
    QString voiceID;
    QString name;
    QString category;
    // From "labels.gender" when the account's entry has it.
    QString gender;

    // Nothing when the entry lacks an id or a name (or they are not strings).
    static std::optional<NeuralVoice> fromJson(const QJsonObject &object);
};
