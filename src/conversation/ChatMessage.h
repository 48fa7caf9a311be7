#pragma once

#include <QDateTime>
#include <QJsonObject>
#include <QMetaType>
#include <QString>
#include <QUuid>

#include <optional>

// One message of the conversation, as shown in the chat and kept in the memory file.
class ChatMessage
{
    Q_GADGET
    Q_PROPERTY(QString id READ idString CONSTANT)
    Q_PROPERTY(QString role READ roleName CONSTANT)
    Q_PROPERTY(QString text MEMBER text)
    Q_PROPERTY(QDateTime createdAt MEMBER createdAt)

public:
    enum class Role { user, assistant, system };

    QUuid id;
    Role role = Role::user;
    QString text;
    QDateTime createdAt;

    static ChatMessage make(Role role, QString text);

    QString idString() const;
    QString roleName() const { return rawValue(role); }

    static QString rawValue(Role role);
    static std::optional<Role> roleFromRawValue(const QString &raw);

    // Keys "id", "role", "text", "createdAt"; dates as seconds since 1 January 2001 UTC.
    QJsonObject toJson() const;
    // A missing id or date gets a fresh one; a missing or unknown role or a missing text fails.
    static std::optional<ChatMessage> fromJson(const QJsonValue &value);

    friend bool operator==(const ChatMessage &, const ChatMessage &) = default;
};

Q_DECLARE_METATYPE(ChatMessage)

// Dates are stored the way the original encoder wrote them: seconds since 2001-01-01T00:00:00Z.
namespace ReferenceDate {
double secondsSinceReference(const QDateTime &date);
// Invalid for a number that is no date: not finite, or tens of thousands of years away.
QDateTime fromSecondsSinceReference(double seconds);
} // namespace ReferenceDate
