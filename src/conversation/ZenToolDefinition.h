#pragma once

#include <QJsonObject>
#include <QString>

// A tool offered to the model; sent as a "function" tool whose parameters are inputSchema.
struct ZenToolDefinition
{
    QString name;
    QString description;
    QJsonObject inputSchema;

    friend bool operator==(const ZenToolDefinition &, const ZenToolDefinition &) = default;
};
