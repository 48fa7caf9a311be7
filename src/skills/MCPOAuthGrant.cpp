#include "MCPOAuthGrant.h"

namespace {

bool readString(const QJsonObject &object, QLatin1StringView key, QString &out)
{
    const QJsonValue value = object.value(key);
    if (value.isUndefined() || value.isNull())
        return true;
    if (!value.isString())
        return false;
    out = value.toString();
    return true;
}

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
    if (!readString(object, QLatin1String("tokenEndpoint"), grant.tokenEndpoint)
        || !readString(object, QLatin1String("clientID"), grant.clientID)
        || !readString(object, QLatin1String("resource"), grant.resource)
        || !readString(object, QLatin1String("refreshToken"), grant.refreshToken)
        || !readString(object, QLatin1String("clientSecret"), grant.clientSecret)
        || !readString(object, QLatin1String("accessTokenExpiresAt"), expiresAt))
        return std::nullopt;
    if (!expiresAt.isEmpty()) {
        const QDateTime time = QDateTime::fromString(expiresAt, Qt::ISODate);
        if (!time.isValid())
            return std::nullopt;
        grant.accessTokenExpiresAt = time.toUTC();
    }
    return grant;
}
