#pragma once

#include "FakeHttpServer.h"
#include "skills/MCPServerConfig.h"

#include <QSet>
#include <QStringList>

#include <optional>

// An MCP service on one loopback server. By default behind strict OAuth: it publishes metadata,
// registers clients, approves at once (checking PKCE), expires tokens only when told, rotates the
// refresh token on every renewal and can forget sessions. Without requiresToken, a lenient plain
// server. Lists toolPages page by page; "echo" answers its message unless onCall answers tools/call.
class FakeOAuthMCPServer
{
public:
    using Reply = FakeHttpServer::Reply;

    FakeOAuthMCPServer();

    FakeHttpServer http;
    bool requiresToken = true;
    QList<QJsonArray> toolPages;
    std::function<Reply(const QJsonObject &params)> onCall;
    int delayMs = 0; // of every answer at the MCP endpoint
    QString issuedCode = QStringLiteral("granted+/=ă"); // needs encoding on purpose
    // Where the authorization step sends the browser; by default the app with the code and state.
    std::function<QString(const QUrlQuery &authorization)> redirect;
    QString accessToken;
    QString refreshToken;
    int expiresInSeconds = 3600; // 0: the token replies state no lifetime
    std::optional<Reply> refreshReply; // when set, the answer to every refresh
    bool forgetsEverySession = false;

    QString endpoint() const { return http.baseUrl() + QStringLiteral("/mcp"); }
    QJsonObject authorizationServerMetadata() const;
    QUrlQuery lastAuthorization() const;
    void expireToken() { accessToken = QStringLiteral("expired-") + accessToken; }
    void forgetSessions() { m_liveSessions.clear(); }
    int sessionsStarted() const { return m_sessionsStarted; }
    // The JSON-RPC methods received at the endpoint, in order.
    QStringList methods() const;
    // A server connected through it, holding its current tokens.
    MCPServerConfig connectedServer() const;
    // What the MCP endpoint answers; for a test that takes over one method and leaves it the rest.
    Reply answerMCP(const QJsonObject &message, const QByteArray &authorization, const QByteArray &session);

private:
    Reply token(const FakeHttpServer::Request &request);
    Reply issueTokens();

    int m_issued = 0;
    int m_sessionsStarted = 0;
    QSet<QString> m_liveSessions;
};
