#pragma once

#include "settings/Presets.h"

#include <QMetaType>
#include <QString>
#include <QtQml/qqmlregistration.h>

#include <optional>

// A voice of one of the cloud engines, as listed on the settings screen.
class CloudVoice
{
    Q_GADGET
    QML_VALUE_TYPE(cloudVoice)
    Q_PROPERTY(QString id MEMBER id CONSTANT)
    Q_PROPERTY(QString name MEMBER name CONSTANT)
    Q_PROPERTY(QString provider READ providerRawValue CONSTANT)
    Q_PROPERTY(QString gender READ genderOrEmpty CONSTANT)
    Q_PROPERTY(QString detail READ detailOrEmpty CONSTANT)

public:
    QString id;
    QString name;
    VoiceEnginePreset provider = VoiceEnginePreset::googleCloud;
    std::optional<QString> gender;
    std::optional<QString> detail;

    QString providerRawValue() const { return Presets::rawValue(provider); }
    QString genderOrEmpty() const { return gender.value_or(QString()); }
    QString detailOrEmpty() const { return detail.value_or(QString()); }

    friend bool operator==(const CloudVoice &, const CloudVoice &) = default;
};

Q_DECLARE_METATYPE(CloudVoice)
