#include "FakeOAuthMCPServer.h"

#include <QJsonDocument>
#include <QUrlQuery>

using Reply = FakeHttpServer::Reply;

namespace {

QJsonObject rpcResult(const QJsonValue &id, const QJsonObject &result)
{
    return { { "jsonrpc", "2.0" }, { "id", id }, { "result", result } };
}

} // namespace

FakeOAuthMCPServer::FakeOAuthMCPServer()
{
    issueTokens();
    toolPages = { QJsonArray { QJsonObject { { "name", "echo" }, { "description", "Repetă mesajul" } } } };
    const QString base = http.baseUrl();
    http.on("GET", "/.well-known/oauth-protected-resource",
        Reply::json(QJsonObject { { "resource", endpoint() }, { "authorization_servers", QJsonArray { base } },
            { "scopes_supported", QJsonArray { "tools", "offline_access" } } }));
    http.on("GET", "/.well-known/oauth-authorization-server",
        Reply::json(QJsonObject { { "issuer", base }, { "authorization_endpoint", base + "/authorize" },
            { "token_endpoint", base + "/token" }, { "registration_endpoint", base + "/register" } }));
    http.on("POST", "/register", Reply::json(QJsonObject { { "client_id", "kelo-client" } }, 201));
    http.on("GET", "/authorize", [](const FakeHttpServer::Request &request) {
        Reply reply = Reply::text({}, 302);
        reply.headers.append(qMakePair(QByteArray("Location"),
            "kelo://oauth?code=granted&state=" + request.query.queryItemValue("state").toUtf8()));
        return reply;
    });
    http.on("POST", "/token", [this](const FakeHttpServer::Request &request) { return token(request); });
    http.on("POST", "/mcp", [this](const FakeHttpServer::Request &request) { return mcp(request); });
}

Reply FakeOAuthMCPServer::issueTokens()
{
    ++m_issued;
    accessToken = QStringLiteral("access-%1").arg(m_issued);
    refreshToken = QStringLiteral("refresh-%1").arg(m_issued);
    return Reply::json(QJsonObject { { "access_token", accessToken }, { "token_type", "Bearer" },
        { "refresh_token", refreshToken }, { "expires_in", expiresInSeconds } });
}

Reply FakeOAuthMCPServer::token(const FakeHttpServer::Request &request)
{
    const QUrlQuery form(QString::fromUtf8(request.body));
    const QString grant = form.queryItemValue("grant_type");
    if (grant == "authorization_code" && form.queryItemValue("code") == "granted")
        return issueTokens();
    if (grant == "refresh_token" && refreshReply)
        return *refreshReply;
    if (grant == "refresh_token" && form.queryItemValue("refresh_token", QUrl::FullyDecoded) == refreshToken)
        return issueTokens();
    return Reply::json(QJsonObject { { "error", "invalid_grant" } }, 400);
}

Reply FakeOAuthMCPServer::mcp(const FakeHttpServer::Request &request)
{
    if (request.header("Authorization") != "Bearer " + accessToken.toUtf8()) {
        Reply challenge = Reply::text("token invalid", 401);
        challenge.headers.append(qMakePair(QByteArray("WWW-Authenticate"),
            QByteArray("Bearer error=\"invalid_token\", scope=\"tools offline_access\"")));
        return challenge;
    }
    const QJsonObject message = request.json();
    const QString method = message.value("method").toString();
    const QJsonValue id = message.value("id");
    if (method == "initialize") {
        const QString session = QStringLiteral("session-%1").arg(++m_sessionsStarted);
        m_liveSessions.insert(session);
        Reply reply = Reply::json(rpcResult(id, { { "protocolVersion", "2025-06-18" } }));
        reply.headers.append(qMakePair(QByteArray("Mcp-Session-Id"), session.toUtf8()));
        return reply;
    }
    if (forgetsEverySession || !m_liveSessions.contains(QString::fromUtf8(request.header("Mcp-Session-Id"))))
        return Reply::text("unknown session", 404);
    if (method == "notifications/initialized")
        return Reply::text({}, 202);
    const QJsonObject params = message.value("params").toObject();
    if (method == "tools/list") {
        const int page = params.value("cursor").toString().toInt();
        QJsonObject result { { "tools", toolPages.value(page) } };
        if (page + 1 < toolPages.size())
            result.insert("nextCursor", QString::number(page + 1));
        return Reply::json(rpcResult(id, result));
    }
    const QString text = QStringLiteral("ecou: ") + params.value("arguments")["message"].toString("ok");
    return Reply::json(
        rpcResult(id, { { "content", QJsonArray { QJsonObject { { "type", "text" }, { "text", text } } } } }));
}

QStringList FakeOAuthMCPServer::methods() const
{
    QStringList list;
    for (const auto &request : http.requests("/mcp"))
        list.append(request.json().value("method").toString());
    return list;
}

MCPServerConfig FakeOAuthMCPServer::connectedServer(const QString &name) const
{
    MCPServerConfig config;
    config.id = QUuid::createUuid();
    config.name = name;
    config.endpoint = endpoint();
    config.bearerToken = accessToken;
    config.oauth.tokenEndpoint = http.baseUrl() + "/token";
    config.oauth.clientID = "kelo-client";
    config.oauth.refreshToken = refreshToken;
    return config;
}
