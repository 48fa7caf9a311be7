#pragma once

#include "Presets.h"

#include <QMetaType>
#include <QString>

// How the settings screen presents one voice engine on its selectable card.
class VoiceEngineCard
{
    Q_GADGET
    Q_PROPERTY(QString engine READ engineRawValue CONSTANT)
    Q_PROPERTY(QString key MEMBER key CONSTANT)
    Q_PROPERTY(QString title MEMBER title CONSTANT)
    Q_PROPERTY(QString badge MEMBER badge CONSTANT)
    Q_PROPERTY(QString symbol MEMBER symbol CONSTANT)
    Q_PROPERTY(QString description MEMBER description CONSTANT)

public:
    VoiceEnginePreset engine = VoiceEnginePreset::appleLocal;
    // Stable, ASCII: names the card's objects.
    QString key;
    QString title;
    QString badge;
    QString symbol;
    QString description;

    QString engineRawValue() const { return Presets::rawValue(engine); }

    static VoiceEngineCard of(VoiceEnginePreset engine);
};

Q_DECLARE_METATYPE(VoiceEngineCard)
