#pragma once

#include <QJsonObject>
#include <QString>

// A tool call the model asked for.
struct ZenToolCall
{
    QString id;
    QString name;
    QJsonObject arguments;

    friend bool operator==(const ZenToolCall &, const ZenToolCall &) = default;
};
