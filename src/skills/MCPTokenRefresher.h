#pragma once

#include "MCPServerConfig.h"

#include <QCoroTask>
#include <QDateTime>

class HttpClient;

// Renews an MCP server's OAuth access token with the refresh grant of its connection.
class MCPTokenRefresher
{
public:
    // A token this close to its stated expiry already counts as expired.
    static constexpr qint64 expiryMarginSeconds = 60;

    // `http` belongs to the caller and outlives this object.
    MCPTokenRefresher(HttpClient *http, int timeoutMs);

    static bool canRefresh(const MCPServerConfig &server);
    static bool hasExpired(const MCPServerConfig &server, const QDateTime &now);

    // The server with its renewed credentials (and the new refresh token when the provider rotates
    // it). When the provider refuses the refresh, the server comes back marked needsReconnect with
    // its credentials unchanged. Any other failure throws MCPError unauthorized, whose text is what
    // the user sees.
    QCoro::Task<MCPServerConfig> refresh(MCPServerConfig server) const;

private:
    HttpClient *m_http;
    int m_timeoutMs;
};
