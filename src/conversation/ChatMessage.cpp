#include "ChatMessage.h"

#include <cmath>

namespace {
const QDateTime referenceDate(QDate(2001, 1, 1), QTime(0, 0), Qt::UTC);
// About 31,700 years either way: far beyond any message, well inside what milliseconds in 64 bits hold.
constexpr double maxReferenceSeconds = 1e12;
} // namespace

namespace ReferenceDate {

double secondsSinceReference(const QDateTime &date)
{
    return referenceDate.msecsTo(date) / 1000.0;
}

QDateTime fromSecondsSinceReference(double seconds)
{
    if (!(std::abs(seconds) <= maxReferenceSeconds))
        return {};
    return referenceDate.addMSecs(qRound64(seconds * 1000.0));
}

} // namespace ReferenceDate

ChatMessage ChatMessage::make(Role role, QString text)
{
    return ChatMessage { QUuid::createUuid(), role, std::move(text), QDateTime::currentDateTimeUtc() };
}

ChatMessage ChatMessage::notice(QString text)
{
    ChatMessage message = make(Role::assistant, std::move(text));
    message.fromApp = true;
    return message;
}

QString ChatMessage::idString() const
{
    return id.toString(QUuid::WithoutBraces).toUpper();
}

QString ChatMessage::rawValue(Role role)
{
    switch (role) {
    case Role::user:
        return QStringLiteral("user");
    case Role::assistant:
        return QStringLiteral("assistant");
    case Role::system:
        return QStringLiteral("system");
    }
    return {};
}

std::optional<ChatMessage::Role> ChatMessage::roleFromRawValue(const QString &raw)
{
    for (Role role : { Role::user, Role::assistant, Role::system }) {
        if (rawValue(role) == raw)
            return role;
    }
    return std::nullopt;
}

QJsonObject ChatMessage::toJson() const
{
    QJsonObject object {
        { QStringLiteral("id"), idString() },
        { QStringLiteral("role"), rawValue(role) },
        { QStringLiteral("text"), text },
        { QStringLiteral("createdAt"), ReferenceDate::secondsSinceReference(createdAt) },
    };
    if (fromApp)
        object.insert(QStringLiteral("fromApp"), true);
    return object;
}

std::optional<ChatMessage> ChatMessage::fromJson(const QJsonValue &value)
{
    if (!value.isObject())
        return std::nullopt;
    const QJsonObject object = value.toObject();
    const auto role = roleFromRawValue(object.value(QLatin1String("role")).toString());
    const QJsonValue text = object.value(QLatin1String("text"));
    if (!role || !text.isString())
        return std::nullopt;

    ChatMessage message = make(*role, text.toString());
    const QUuid id = QUuid::fromString(object.value(QLatin1String("id")).toString());
    if (!id.isNull())
        message.id = id;
    // A date that cannot be one (a huge number) counts as missing.
    const QDateTime created
        = ReferenceDate::fromSecondsSinceReference(object.value(QLatin1String("createdAt")).toDouble(NAN));
    if (created.isValid())
        message.createdAt = created;
    message.fromApp = object.value(QLatin1String("fromApp")).toBool(false);
    return message;
}
