#include "MCPTokenRefresher.h"

#include "MCPError.h"
#include "OAuthTokenEndpoint.h"

namespace {

// invalid_grant and invalid_client (RFC 6749 §5.2): only connecting again helps.
bool isRefusal(const HttpReply &reply)
{
    return reply.status == 400 || reply.status == 401 || reply.status == 403;
}

} // namespace

MCPTokenRefresher::MCPTokenRefresher(HttpClient *http, int timeoutMs)
    : m_http(http)
    , m_timeoutMs(timeoutMs)
{ }

bool MCPTokenRefresher::canRefresh(const MCPServerConfig &server)
{
    return server.oauth.canRefresh() && !server.needsReconnect;
}

bool MCPTokenRefresher::hasExpired(const MCPServerConfig &server, const QDateTime &now)
{
    const auto &expiresAt = server.oauth.accessTokenExpiresAt;
    return expiresAt && now.secsTo(*expiresAt) <= expiryMarginSeconds;
}

QCoro::Task<MCPServerConfig> MCPTokenRefresher::refresh(MCPServerConfig server) const
{
    const QUrl endpoint(server.oauth.tokenEndpoint, QUrl::StrictMode);
    OAuthTokenEndpoint::Form form {
        { QStringLiteral("grant_type"), QStringLiteral("refresh_token") },
        { QStringLiteral("refresh_token"), server.oauth.refreshToken },
        { QStringLiteral("client_id"), server.oauth.clientID },
        { QStringLiteral("resource"), server.oauth.resource.isEmpty() ? server.endpoint : server.oauth.resource },
    };
    if (!server.oauth.clientSecret.isEmpty())
        form.append({ QStringLiteral("client_secret"), server.oauth.clientSecret });

    HttpReply reply;
    try {
        const OAuthTokenEndpoint tokens(m_http, m_timeoutMs);
        reply = co_await tokens.post(endpoint, form);
    } catch (...) {
        // A provider out of reach says nothing about the grant: it is tried again next time.
        throw MCPError(MCPError::unauthorized);
    }
    if (isRefusal(reply)) {
        server.needsReconnect = true;
        co_return server;
    }
    OAuthTokenResponse token;
    try {
        token = OAuthTokenEndpoint::tokenFrom(reply);
    } catch (...) {
        throw MCPError(MCPError::unauthorized);
    }
    server.bearerToken = *token.accessToken;
    if (token.refreshToken && !token.refreshToken->isEmpty())
        server.oauth.refreshToken = *token.refreshToken;
    server.oauth.accessTokenExpiresAt.reset();
    if (token.expiresIn)
        server.oauth.accessTokenExpiresAt = QDateTime::currentDateTimeUtc().addSecs(*token.expiresIn);
    co_return server;
}
