#pragma once

#include "MCPOAuthGrant.h"

#include <QHashFunctions>
#include <QJsonArray>
#include <QJsonObject>
#include <QMetaType>
#include <QString>
#include <QUuid>

#include <optional>

// One MCP server the user added, from the gallery or by hand. Its secrets (the bearer token and the
// grant's refresh token and client secret) travel in this record in memory, but are stored in the
// secure store; the settings file keeps the rest.
class MCPServerConfig
{
    Q_GADGET
    Q_PROPERTY(QString id READ idString CONSTANT)
    Q_PROPERTY(QString name MEMBER name)
    Q_PROPERTY(QString endpoint MEMBER endpoint)
    Q_PROPERTY(bool enabled MEMBER enabled)
    Q_PROPERTY(QString sourceID READ sourceIDOrEmpty)
    Q_PROPERTY(QString authLabel READ authLabelOrEmpty)
    Q_PROPERTY(bool needsReconnect MEMBER needsReconnect)

public:
    QUuid id;
    QString name;
    QString endpoint;
    QString bearerToken;
    bool enabled = true;
    std::optional<QString> sourceID;
    std::optional<QString> authLabel;
    MCPOAuthGrant oauth;
    // The provider refused to renew the access token: only connecting again helps.
    bool needsReconnect = false;

    enum class Secrets { included, omitted };

    QString idString() const { return id.toString(QUuid::WithoutBraces).toUpper(); }
    QString sourceIDOrEmpty() const { return sourceID.value_or(QString()); }
    QString authLabelOrEmpty() const { return authLabel.value_or(QString()); }

    bool holdsSecrets() const;

    // Keys are the field names; absent optionals, an empty grant and a false needsReconnect are left out.
    QJsonObject toJson(Secrets secrets = Secrets::included) const;
    // "id", "name", "endpoint" and "enabled" are required with the right types; the others may be
    // absent ("bearerToken" is, once the token lives in the secure store).
    static std::optional<MCPServerConfig> fromJson(const QJsonValue &value);

    static QJsonArray listToJson(const QList<MCPServerConfig> &servers, Secrets secrets = Secrets::included);
    // The whole list, or nothing when any entry fails to decode (as a strict decoder would).
    static std::optional<QList<MCPServerConfig>> listFromJson(const QByteArray &data);

    friend bool operator==(const MCPServerConfig &, const MCPServerConfig &) = default;
};

inline size_t qHash(const MCPServerConfig &server, size_t seed = 0)
{
    return qHashMulti(seed, server.id, server.name, server.endpoint, server.bearerToken, server.enabled);
}

Q_DECLARE_METATYPE(MCPServerConfig)
