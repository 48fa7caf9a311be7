#include "MCPOAuthGrant.h"

#include "net/JsonSupport.h"

namespace {

void insertIfSet(QJsonObject &object, const QString &key, const QString &value)
{
    if (!value.isEmpty())
        object.insert(key, value);
}

} // namespace

QJsonObject MCPOAuthGrant::toJson(bool withSecrets) const
{
    QJsonObject object;
    insertIfSet(object, QStringLiteral("tokenEndpoint"), tokenEndpoint);
    insertIfSet(object, QStringLiteral("clientID"), clientID);
    insertIfSet(object, QStringLiteral("resource"), resource);
    if (accessTokenExpiresAt)
        object.insert(QStringLiteral("accessTokenExpiresAt"), accessTokenExpiresAt->toUTC().toString(Qt::ISODate));
    if (withSecrets) {
        insertIfSet(object, QStringLiteral("refreshToken"), refreshToken);
        insertIfSet(object, QStringLiteral("clientSecret"), clientSecret);
    }
    return object;
}

std::optional<MCPOAuthGrant> MCPOAuthGrant::fromJson(const QJsonObject &object)
{
    MCPOAuthGrant grant;
    QString expiresAt;
    const std::pair<const char *, QString *> members[] = { { "tokenEndpoint", &grant.tokenEndpoint },
        { "clientID", &grant.clientID }, { "resource", &grant.resource }, { "refreshToken", &grant.refreshToken },
        { "clientSecret", &grant.clientSecret }, { "accessTokenExpiresAt", &expiresAt } };
    for (const auto &[key, target] : members) {
        std::optional<QString> value;
        if (!JsonSupport::readOptionalString(object, QLatin1String(key), value))
            return std::nullopt;
        *target = value.value_or(QString());
    }
    if (!expiresAt.isEmpty()) {
        const QDateTime time = QDateTime::fromString(expiresAt, Qt::ISODate);
        if (!time.isValid())
            return std::nullopt;
        grant.accessTokenExpiresAt = time.toUTC();
    }
    return grant;
}
