#include "FakeOAuthMCPServer.h"

#include <QCryptographicHash>

using Reply = FakeHttpServer::Reply;

namespace {

Reply rpcResult(const QJsonValue &id, const QJsonObject &result)
{
    return Reply::json(QJsonObject { { "jsonrpc", "2.0" }, { "id", id }, { "result", result } });
}

QString challengeOf(const QString &verifier)
{
    return QString::fromLatin1(QCryptographicHash::hash(verifier.toUtf8(), QCryptographicHash::Sha256)
                                   .toBase64(QByteArray::Base64UrlEncoding | QByteArray::OmitTrailingEquals));
}

} // namespace

FakeOAuthMCPServer::FakeOAuthMCPServer()
{
    issueTokens();
    toolPages = { QJsonArray { QJsonObject { { "name", "echo" }, { "description", "Repetă mesajul" } } } };
    redirect = [this](const QUrlQuery &authorization) {
        QUrlQuery back { { "code", QString::fromLatin1(QUrl::toPercentEncoding(issuedCode)) },
            { "state", authorization.queryItemValue("state") } };
        return QStringLiteral("kelo://oauth?") + back.toString(QUrl::FullyEncoded);
    };
    http.on("GET", "/.well-known/oauth-protected-resource",
        Reply::json(
            QJsonObject { { "resource", endpoint() }, { "authorization_servers", QJsonArray { http.baseUrl() } },
                { "scopes_supported", QJsonArray { "tools", "offline_access" } } }));
    http.on("GET", "/.well-known/oauth-authorization-server", Reply::json(authorizationServerMetadata()));
    http.on("POST", "/register", Reply::json(QJsonObject { { "client_id", "kelo-client" } }, 201));
    http.on("GET", "/authorize", [this](const FakeHttpServer::Request &request) {
        return Reply::redirect(302, redirect(request.query).toUtf8());
    });
    http.on("POST", "/token", [this](const FakeHttpServer::Request &request) { return token(request); });
    http.on("POST", "/mcp", [this](const FakeHttpServer::Request &request) {
        Reply reply = answerMCP(request.json(), request.header("Authorization"), request.header("Mcp-Session-Id"));
        reply.delayMs = delayMs;
        return reply;
    });
}

QJsonObject FakeOAuthMCPServer::authorizationServerMetadata() const
{
    const QString base = http.baseUrl();
    return { { "issuer", base }, { "authorization_endpoint", base + "/authorize" },
        { "token_endpoint", base + "/token" }, { "registration_endpoint", base + "/register" } };
}

QUrlQuery FakeOAuthMCPServer::lastAuthorization() const
{
    const auto asked = http.requests("/authorize");
    return asked.isEmpty() ? QUrlQuery() : asked.last().query;
}

Reply FakeOAuthMCPServer::issueTokens()
{
    accessToken = QStringLiteral("access-%1").arg(++m_issued);
    refreshToken = QStringLiteral("refresh-%1").arg(m_issued);
    QJsonObject tokens { { "access_token", accessToken }, { "token_type", "Bearer" },
        { "refresh_token", refreshToken } };
    if (expiresInSeconds > 0)
        tokens.insert("expires_in", expiresInSeconds);
    return Reply::json(tokens);
}

Reply FakeOAuthMCPServer::token(const FakeHttpServer::Request &request)
{
    const QUrlQuery form(QString::fromUtf8(request.body));
    const auto field = [&form](const char *name) { return form.queryItemValue(name, QUrl::FullyDecoded); };
    const bool verified = challengeOf(field("code_verifier")) == lastAuthorization().queryItemValue("code_challenge");
    if (field("grant_type") == "authorization_code" && field("code") == issuedCode && verified)
        return issueTokens();
    if (field("grant_type") == "refresh_token" && refreshReply)
        return *refreshReply;
    if (field("grant_type") == "refresh_token" && field("refresh_token") == refreshToken)
        return issueTokens();
    return Reply::json(QJsonObject { { "error", "invalid_grant" } }, 400);
}

Reply FakeOAuthMCPServer::answerMCP(
    const QJsonObject &message, const QByteArray &authorization, const QByteArray &session)
{
    if (requiresToken && authorization != "Bearer " + accessToken.toUtf8()) {
        Reply challenge = Reply::text("token invalid", 401);
        challenge.headers.append(
            { "WWW-Authenticate", QByteArray(R"(Bearer error="invalid_token", scope="tools offline_access")") });
        return challenge;
    }
    const QString method = message.value("method").toString();
    const QJsonObject params = message.value("params").toObject();
    if (method == "initialize") {
        const QString started = QStringLiteral("session-%1").arg(++m_sessionsStarted);
        m_liveSessions.insert(started);
        Reply reply = rpcResult(message.value("id"), { { "protocolVersion", "2025-06-18" } });
        reply.headers.append({ "Mcp-Session-Id", started.toUtf8() });
        return reply;
    }
    if (requiresToken && (forgetsEverySession || !m_liveSessions.contains(QString::fromUtf8(session))))
        return Reply::text("unknown session", 404);
    if (method == "notifications/initialized")
        return Reply::text({}, 202);
    if (method == "tools/list") {
        const int page = params.value("cursor").toString().toInt();
        QJsonObject result { { "tools", toolPages.value(page) } };
        if (page + 1 < toolPages.size())
            result.insert("nextCursor", QString::number(page + 1));
        return rpcResult(message.value("id"), result);
    }
    if (onCall)
        return onCall(params);
    const QString text = QStringLiteral("ecou: ") + params.value("arguments")["message"].toString("ok");
    return rpcResult(
        message.value("id"), { { "content", QJsonArray { QJsonObject { { "type", "text" }, { "text", text } } } } });
}

QStringList FakeOAuthMCPServer::methods() const
{
    QStringList list;
    for (const auto &request : http.requests("/mcp"))
        list.append(request.json().value("method").toString());
    return list;
}

MCPServerConfig FakeOAuthMCPServer::connectedServer() const
{
    MCPServerConfig config { QUuid::createUuid(), "Guarded", endpoint(), accessToken };
    config.oauth.tokenEndpoint = http.baseUrl() + "/token";
    config.oauth.clientID = "kelo-client";
    config.oauth.refreshToken = refreshToken;
    return config;
}
