#pragma once

#include <QByteArray>
#include <QJsonArray>
#include <QJsonObject>
#include <QString>

#include <optional>

// Small helpers for reading JSON that came from outside and may be anything.
namespace JsonSupport {

// The document as an object, or nothing when it is not valid JSON or not an object.
std::optional<QJsonObject> parseObject(const QByteArray &data);

// A compact serialisation, as sent on the wire.
QByteArray compact(const QJsonObject &object);

// The member as a string only when it really is one.
std::optional<QString> string(const QJsonObject &object, QLatin1StringView key);

// For strict decoding of an optional member: false when it is present (not null) and no string;
// otherwise true, with `out` set when it is a string.
bool readOptionalString(const QJsonObject &object, QLatin1StringView key, std::optional<QString> &out);

} // namespace JsonSupport
