#pragma once

#include "FakeHttpServer.h"
#include "skills/MCPServerConfig.h"

#include <QJsonArray>
#include <QSet>
#include <QStringList>

#include <optional>

// An MCP service behind OAuth on one loopback server, as strict hosted services behave: it publishes
// its metadata, registers clients, approves every authorization at once, issues access tokens that
// only it can expire and rotates the refresh token on every renewal. Every handshake starts a
// session that it can forget, and it lists its tools page by page; "echo" answers with its message.
class FakeOAuthMCPServer
{
public:
    FakeOAuthMCPServer();

    FakeHttpServer http;
    // The tools, one array per page.
    QList<QJsonArray> toolPages;
    QString accessToken;
    QString refreshToken;
    int expiresInSeconds = 3600;
    // When set, the answer to every refresh.
    std::optional<FakeHttpServer::Reply> refreshReply;
    bool forgetsEverySession = false;

    QString endpoint() const { return http.baseUrl() + QStringLiteral("/mcp"); }
    // The token it issued stops working (as after its lifetime).
    void expireToken() { accessToken = QStringLiteral("expired-") + accessToken; }
    void forgetSessions() { m_liveSessions.clear(); }
    int sessionsStarted() const { return m_sessionsStarted; }
    // The JSON-RPC methods received at the endpoint, in order.
    QStringList methods() const;
    // A server connected through it, holding its current tokens.
    MCPServerConfig connectedServer(const QString &name = QStringLiteral("Guarded")) const;

private:
    FakeHttpServer::Reply token(const FakeHttpServer::Request &request);
    FakeHttpServer::Reply mcp(const FakeHttpServer::Request &request);
    FakeHttpServer::Reply issueTokens();

    int m_issued = 0;
    int m_sessionsStarted = 0;
    QSet<QString> m_liveSessions;
};
