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
    Q_PROPERTY(bool fromApp MEMBER fromApp)

public:
    enum class Role { user, assistant, system };

    QUuid id;
    Role role = Role::user;
    QString text;
    QDateTime createdAt;
    // Written by the app itself (welcome, notices, failures), not by the model or the user.
    bool fromApp = false;

    static ChatMessage make(Role role, QString text);
    // An assistant message the app wrote itself.
    static ChatMessage notice(QString text);

    QString idString() const;
    QString roleName() const { return rawValue(role); }

    static QString rawValue(Role role);
    static std::optional<Role> roleFromRawValue(const QString &raw);

    // Keys "id", "role", "text", "createdAt" and, when set, "fromApp"; dates as seconds since
    // 1 January 2001 UTC.
    QJsonObject toJson() const;
    // A missing id or date gets a fresh one, a missing "fromApp" is false; a missing or unknown role or
    // a missing text fails.
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
