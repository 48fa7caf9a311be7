#pragma once

#include "VoiceEngineCard.h"

#include <QColor>
#include <QList>
#include <QObject>
#include <QStringList>
#include <QtQml/qqmlregistration.h>

// The fixed choices and texts the settings and skills screens show, so that the views hold no copy
// of what the core already defines.
class ViewPresets : public QObject
{
    Q_OBJECT
    QML_ELEMENT
    QML_SINGLETON

    Q_PROPERTY(QList<VoiceEngineCard> voiceEngineCards READ voiceEngineCards CONSTANT)
    Q_PROPERTY(QStringList personalities READ personalities CONSTANT)
    Q_PROPERTY(QStringList responseLengths READ responseLengths CONSTANT)
    Q_PROPERTY(QString memoryPlaceholder READ memoryPlaceholder CONSTANT)
    Q_PROPERTY(QString automaticVoiceLabel READ automaticVoiceLabel CONSTANT)

public:
    using QObject::QObject;

    static QList<VoiceEngineCard> voiceEngineCards();
    static QStringList personalities();
    static QStringList responseLengths();
    static QString memoryPlaceholder();
    static QString automaticVoiceLabel();
    // The colour of a gallery service's tint name; an unknown name gets a neutral grey.
    Q_INVOKABLE static QColor tintColor(const QString &tintName);
};
