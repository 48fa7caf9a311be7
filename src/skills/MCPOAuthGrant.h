#pragma once

#include <QDateTime>
#include <QJsonObject>
#include <QString>

#include <optional>

// What renewing an OAuth access token needs, kept with the server it was granted for. Empty for a
// server connected with a pasted token.
struct MCPOAuthGrant
{
    QString tokenEndpoint;
    QString clientID;
    // The resource the grant was issued for; renewals must name the same one.
    QString resource;
    // Secrets: kept in the secure store, never in the settings file.
    QString refreshToken;
    QString clientSecret;
    // When the access token stops working, when the provider said so.
    std::optional<QDateTime> accessTokenExpiresAt;

    bool isEmpty() const { return tokenEndpoint.isEmpty() && refreshToken.isEmpty() && clientID.isEmpty(); }
    bool canRefresh() const { return !tokenEndpoint.isEmpty() && !clientID.isEmpty() && !refreshToken.isEmpty(); }

    // The secrets are written only with `withSecrets`.
    QJsonObject toJson(bool withSecrets) const;
    // Every member is optional; one of the wrong type fails the decode.
    static std::optional<MCPOAuthGrant> fromJson(const QJsonObject &object);

    friend bool operator==(const MCPOAuthGrant &, const MCPOAuthGrant &) = default;
};
