#include "MCPServerConfig.h"

#include <QJsonDocument>

bool MCPServerConfig::holdsSecrets() const
{
    return !bearerToken.isEmpty() || !oauth.refreshToken.isEmpty() || !oauth.clientSecret.isEmpty();
}

QJsonObject MCPServerConfig::toJson(Secrets secrets) const
{
    QJsonObject object {
        { QStringLiteral("id"), idString() },
        { QStringLiteral("name"), name },
        { QStringLiteral("endpoint"), endpoint },
        { QStringLiteral("enabled"), enabled },
    };
    if (secrets == Secrets::included)
        object.insert(QStringLiteral("bearerToken"), bearerToken);
    if (sourceID)
        object.insert(QStringLiteral("sourceID"), *sourceID);
    if (authLabel)
        object.insert(QStringLiteral("authLabel"), *authLabel);
    const QJsonObject grant = oauth.toJson(secrets == Secrets::included);
    if (!grant.isEmpty())
        object.insert(QStringLiteral("oauth"), grant);
    if (needsReconnect)
        object.insert(QStringLiteral("needsReconnect"), true);
    return object;
}

std::optional<MCPServerConfig> MCPServerConfig::fromJson(const QJsonValue &value)
{
    if (!value.isObject())
        return std::nullopt;
    const QJsonObject object = value.toObject();
    const QUuid id = QUuid::fromString(object.value(QLatin1String("id")).toString());
    const QJsonValue name = object.value(QLatin1String("name"));
    const QJsonValue endpoint = object.value(QLatin1String("endpoint"));
    const QJsonValue token = object.value(QLatin1String("bearerToken"));
    const QJsonValue enabled = object.value(QLatin1String("enabled"));
    const bool tokenUsable = token.isUndefined() || token.isString();
    if (id.isNull() || !name.isString() || !endpoint.isString() || !tokenUsable || !enabled.isBool())
        return std::nullopt;

    MCPServerConfig server { id, name.toString(), endpoint.toString(), token.toString(), enabled.toBool(), {}, {} };
    const auto optionalString = [&object](QLatin1String key) -> std::optional<std::optional<QString>> {
        const QJsonValue member = object.value(key);
        if (member.isUndefined() || member.isNull())
            return std::optional<QString>();
        if (!member.isString())
            return std::nullopt;
        return std::optional<QString>(member.toString());
    };
    const auto sourceID = optionalString(QLatin1String("sourceID"));
    const auto authLabel = optionalString(QLatin1String("authLabel"));
    if (!sourceID || !authLabel)
        return std::nullopt;
    server.sourceID = *sourceID;
    server.authLabel = *authLabel;

    const QJsonValue grant = object.value(QLatin1String("oauth"));
    if (!grant.isUndefined()) {
        const auto decoded = grant.isObject() ? MCPOAuthGrant::fromJson(grant.toObject()) : std::nullopt;
        if (!decoded)
            return std::nullopt;
        server.oauth = *decoded;
    }
    const QJsonValue needsReconnect = object.value(QLatin1String("needsReconnect"));
    if (!needsReconnect.isUndefined() && !needsReconnect.isBool())
        return std::nullopt;
    server.needsReconnect = needsReconnect.toBool(false);
    return server;
}

QJsonArray MCPServerConfig::listToJson(const QList<MCPServerConfig> &servers, Secrets secrets)
{
    QJsonArray array;
    for (const MCPServerConfig &server : servers)
        array.append(server.toJson(secrets));
    return array;
}

std::optional<QList<MCPServerConfig>> MCPServerConfig::listFromJson(const QByteArray &data)
{
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson(data, &error);
    if (error.error != QJsonParseError::NoError || !document.isArray())
        return std::nullopt;
    QList<MCPServerConfig> servers;
    for (const QJsonValue &entry : document.array()) {
        auto server = fromJson(entry);
        if (!server)
            return std::nullopt;
        servers.append(std::move(*server));
    }
    return servers;
}
