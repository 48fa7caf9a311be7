#pragma once

#include <QJsonObject>
#include <QString>
#include <QStringList>

#include <optional>

// The JSON documents of an OAuth connection, decoded strictly: every member is optional, but a member
// of the wrong type makes the whole document undecodable, so a stray error page is never mistaken for
// metadata.

struct OAuthProtectedResourceMetadata
{
    std::optional<QString> resource;
    std::optional<QStringList> authorizationServers;
    std::optional<QStringList> scopesSupported;

    static std::optional<OAuthProtectedResourceMetadata> fromJson(const QJsonObject &object);
};

struct OAuthAuthorizationServerMetadata
{
    std::optional<QString> issuer;
    std::optional<QString> authorizationEndpoint;
    std::optional<QString> tokenEndpoint;
    std::optional<QString> registrationEndpoint;
    std::optional<QStringList> scopesSupported;

    static std::optional<OAuthAuthorizationServerMetadata> fromJson(const QJsonObject &object);
};

struct OAuthRegistrationResponse
{
    std::optional<QString> clientID;
    std::optional<QString> clientSecret;

    static std::optional<OAuthRegistrationResponse> fromJson(const QJsonObject &object);
};

struct OAuthTokenResponse
{
    std::optional<QString> accessToken;
    std::optional<QString> tokenType;
    std::optional<QString> refreshToken;
    // Seconds the access token lives. Some providers send it as text; a value that is no positive
    // number is taken as unknown rather than failing the whole reply.
    std::optional<qint64> expiresIn;

    static std::optional<OAuthTokenResponse> fromJson(const QJsonObject &object);
};

// What a Bearer challenge ("WWW-Authenticate") of a protected resource names, quoted or not.
struct OAuthBearerChallenge
{
    std::optional<QString> resourceMetadata;
    QStringList scopes;

    static OAuthBearerChallenge fromHeader(const QByteArray &header);
};

struct DiscoveryResult
{
    std::optional<OAuthProtectedResourceMetadata> resourceMetadata;
    OAuthAuthorizationServerMetadata metadata;
    // The scopes the resource's challenge asked for, if it sent one.
    QStringList challengeScopes;
};
