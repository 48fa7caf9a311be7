#pragma once

#include "FakeHttpServer.h"
#include "skills/MCPServerConfig.h"

#include <QJsonArray>
#include <QSet>
#include <QStringList>

#include <functional>
#include <optional>

// The one fake of an MCP service, on one loopback server. By default it sits behind OAuth as strict
// hosted services do: it publishes its metadata, registers clients, approves every authorization at
// once (checking PKCE), issues access tokens that only it can expire and rotates the refresh token
// on every renewal; every handshake starts a session that it can forget. Without requiresToken it is
// a plain, lenient MCP server (no token, no session check). It lists its tools page by page; "echo"
// answers with its message unless onCall answers tools/call.
class FakeOAuthMCPServer
{
public:
    using Reply = FakeHttpServer::Reply;

    FakeOAuthMCPServer();

    FakeHttpServer http;
    bool requiresToken = true;
    // The tools, one array per page.
    QList<QJsonArray> toolPages;
    std::function<Reply(const QJsonObject &params)> onCall;
    // Delay of every answer at the MCP endpoint.
    int delayMs = 0;
    // The code the authorization step hands out (characters that need encoding on purpose).
    QString issuedCode = QStringLiteral("granted+/=ă");
    // Where the authorization step sends the browser; by default the app with the code and state.
    std::function<QString(const QUrlQuery &authorization)> redirect;
    QString accessToken;
    QString refreshToken;
    // 0: the token replies state no lifetime.
    int expiresInSeconds = 3600;
    // When set, the answer to every refresh.
    std::optional<Reply> refreshReply;
    bool forgetsEverySession = false;

    QString endpoint() const { return http.baseUrl() + QStringLiteral("/mcp"); }
    QJsonObject authorizationServerMetadata() const;
    // The query of the last authorization the browser asked for.
    QUrlQuery lastAuthorization() const;
    // The token it issued stops working (as after its lifetime).
    void expireToken() { accessToken = QStringLiteral("expired-") + accessToken; }
    void forgetSessions() { m_liveSessions.clear(); }
    int sessionsStarted() const { return m_sessionsStarted; }
    // The JSON-RPC methods received at the endpoint, in order.
    QStringList methods() const;
    // A server connected through it, holding its current tokens.
    MCPServerConfig connectedServer(const QString &name = QStringLiteral("Guarded")) const;
    // What the MCP endpoint answers; for a test that takes over one method and leaves it the rest.
    Reply answerMCP(const QJsonObject &message, const QByteArray &authorization, const QByteArray &session);

private:
    Reply token(const FakeHttpServer::Request &request);
    Reply issueTokens();

    int m_issued = 0;
    int m_sessionsStarted = 0;
    QSet<QString> m_liveSessions;
};
