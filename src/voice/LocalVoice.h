#pragma once

#include <QMetaType>
#include <QString>
#include <QtQml/qqmlregistration.h>

// A voice of the local synthesiser, as the settings screen lists it.
class LocalVoice
{
    Q_GADGET
    QML_VALUE_TYPE(localVoice)
    Q_PROPERTY(QString identifier MEMBER identifier CONSTANT)
    Q_PROPERTY(QString name MEMBER name CONSTANT)
    Q_PROPERTY(QString quality READ qualityLabel CONSTANT)

public:
    // Higher is better; the order of the settings screen's list.
    enum class Quality { standard, enhanced, premium };

    QString identifier;
    QString name;
    QString language;
    Quality quality = Quality::standard;

    // "Standard", "Îmbunătățită" or "Premium".
    QString qualityLabel() const;

    // The quality a synthesiser family is known for, read from the voice name: speech-dispatcher
    // names voices after their family ("Romanian+Adam" is an eSpeak variant, "mb-ro1" a MBROLA
    // diphone voice, RHVoice and Piper voices carry those names).
    static Quality qualityOfVoiceNamed(const QString &name);

    friend bool operator==(const LocalVoice &, const LocalVoice &) = default;
};

Q_DECLARE_METATYPE(LocalVoice)
