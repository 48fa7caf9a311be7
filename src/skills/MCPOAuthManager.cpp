#include "MCPOAuthManager.h"

#include "MCPOAuthError.h"
#include "net/HttpClient.h"
#include "net/JsonSupport.h"

#include <QCryptographicHash>
#include <QJsonArray>
#include <QJsonDocument>
#include <QRegularExpression>
#include <QUrlQuery>
#include <QUuid>

namespace {

constexpr qint64 maxDocumentBytes = 1024 * 1024;
constexpr qsizetype maxDetailChars = 500;

QString compactUuid()
{
    return QUuid::createUuid().toString(QUuid::WithoutBraces).toUpper().remove(QLatin1Char('-'));
}

// Percent-encodes a query or form value so that "+", "&" and "=" inside it survive.
QByteArray encoded(const QString &value)
{
    return QUrl::toPercentEncoding(value);
}

QByteArray encodedPairs(const QList<QPair<QString, QString>> &pairs)
{
    QByteArray out;
    for (const auto &[key, value] : pairs) {
        if (!out.isEmpty())
            out += '&';
        out += encoded(key) + '=' + encoded(value);
    }
    return out;
}

QString failureDetail(const HttpReply &reply)
{
    if (!reply.isHttp())
        return QStringLiteral("HTTP invalid");
    const QString text = QString::fromUtf8(reply.body).trimmed();
    if (text.isEmpty())
        return QStringLiteral("HTTP %1").arg(reply.status);
    return text.left(maxDetailChars);
}

bool isUsableHttpURL(const QUrl &url)
{
    const QString scheme = url.scheme().toLower();
    return url.isValid() && (scheme == QLatin1String("http") || scheme == QLatin1String("https"))
        && !url.host().isEmpty();
}

std::optional<QUrl> firstAuthorizationServer(const std::optional<OAuthProtectedResourceMetadata> &metadata)
{
    if (!metadata || !metadata->authorizationServers || metadata->authorizationServers->isEmpty())
        return std::nullopt;
    const QUrl url(metadata->authorizationServers->first(), QUrl::StrictMode);
    if (!isUsableHttpURL(url))
        return std::nullopt;
    return url;
}

bool hasFlowEndpoints(const OAuthAuthorizationServerMetadata &metadata)
{
    return metadata.authorizationEndpoint && !metadata.authorizationEndpoint->isEmpty() && metadata.tokenEndpoint
        && !metadata.tokenEndpoint->isEmpty();
}

OAuthAuthorizationServerMetadata providerMetadata(const char *issuer, const char *authorize, const char *token)
{
    OAuthAuthorizationServerMetadata m;
    m.issuer = QString::fromLatin1(issuer);
    m.authorizationEndpoint = QString::fromLatin1(authorize);
    m.tokenEndpoint = QString::fromLatin1(token);
    return m;
}

// The "resource_metadata" parameter of a Bearer challenge, quoted or not.
std::optional<QString> resourceMetadataParameter(const QByteArray &challenge)
{
    static const QRegularExpression parameter(
        QString::fromLatin1(R"re(resource_metadata\s*=\s*(?:"([^"]*)"|([^\s,]+)))re"),
        QRegularExpression::CaseInsensitiveOption);
    const QRegularExpressionMatch match = parameter.match(QString::fromUtf8(challenge));
    if (!match.hasMatch())
        return std::nullopt;
    const QString value = match.captured(1).isEmpty() ? match.captured(2) : match.captured(1);
    return value.isEmpty() ? std::nullopt : std::optional<QString>(value);
}

} // namespace

MCPOAuthManager::MCPOAuthManager(QObject *parent)
    : MCPOAuthManager(Options(), parent)
{ }

MCPOAuthManager::MCPOAuthManager(Options options, QObject *parent)
    : QObject(parent)
    , m_options(std::move(options))
    , m_http(new HttpClient(this))
{ }

MCPOAuthManager::~MCPOAuthManager()
{
    cancel();
}

void MCPOAuthManager::setStatusText(const QString &text)
{
    if (m_statusText == text)
        return;
    m_statusText = text;
    Q_EMIT statusTextChanged();
}

void MCPOAuthManager::setRunning(bool running)
{
    if (m_running == running)
        return;
    m_running = running;
    Q_EMIT runningChanged();
}

QUrl MCPOAuthManager::originURL(const QUrl &url)
{
    QUrl origin;
    origin.setScheme(url.scheme());
    origin.setHost(url.host());
    origin.setPort(url.port());
    return origin;
}

QUrl MCPOAuthManager::appendingPath(const QUrl &base, const QString &path)
{
    QUrl joined = base;
    QString basePath = base.path();
    while (basePath.endsWith(QLatin1Char('/')))
        basePath.chop(1);
    QString tail = path;
    while (tail.startsWith(QLatin1Char('/')))
        tail.remove(0, 1);
    joined.setPath(basePath + QLatin1Char('/') + tail);
    joined.setQuery(QString());
    joined.setFragment(QString());
    return joined;
}

QString MCPOAuthManager::codeChallenge(const QString &verifier)
{
    const QByteArray digest = QCryptographicHash::hash(verifier.toUtf8(), QCryptographicHash::Sha256);
    return QString::fromLatin1(digest.toBase64(QByteArray::Base64UrlEncoding | QByteArray::OmitTrailingEquals));
}

std::optional<OAuthAuthorizationServerMetadata> MCPOAuthManager::fallbackMetadata(const QUrl &endpoint)
{
    const QString host = endpoint.host().toLower();
    if (host.contains(QLatin1String("github")))
        return providerMetadata("https://github.com", "https://github.com/login/oauth/authorize",
            "https://github.com/login/oauth/access_token");
    if (host.contains(QLatin1String("slack")))
        return providerMetadata(
            "https://slack.com", "https://slack.com/oauth/v2/authorize", "https://slack.com/api/oauth.v2.access");
    if (host.contains(QLatin1String("googleapis")))
        return providerMetadata("https://accounts.google.com", "https://accounts.google.com/o/oauth2/v2/auth",
            "https://oauth2.googleapis.com/token");
    if (host.contains(QLatin1String("linear")))
        return providerMetadata(
            "https://linear.app", "https://linear.app/oauth/authorize", "https://api.linear.app/oauth/token");
    return std::nullopt;
}

QList<MCPServerConfig> MCPOAuthManager::withConnection(
    QList<MCPServerConfig> servers, const MCPGalleryItem &item, const QString &token, const QString &authLabel)
{
    // An item without an id is an endpoint typed by hand: it is the same service when a manually
    // added server has the same endpoint.
    const std::optional<QString> sourceID = item.id.isEmpty() ? std::nullopt : std::optional<QString>(item.id);
    const MCPServerConfig server { QUuid::createUuid(), item.name, item.endpoint, token, true, sourceID, authLabel };
    for (MCPServerConfig &existing : servers) {
        const bool same
            = sourceID ? existing.sourceID == sourceID : (!existing.sourceID && existing.endpoint == item.endpoint);
        if (same) {
            existing = server;
            return servers;
        }
    }
    servers.append(server);
    return servers;
}

QCoro::Task<std::optional<QJsonObject>> MCPOAuthManager::fetchJSON(QUrl url)
{
    QNetworkRequest request(url);
    request.setRawHeader("Accept", "application/json");
    HttpClient::Options options;
    options.timeoutMs = m_options.metadataTimeoutMs;
    options.maxBodyBytes = maxDocumentBytes;
    try {
        const HttpReply reply = co_await m_http->get(request, options);
        if (!reply.isSuccess())
            co_return std::nullopt;
        co_return JsonSupport::parseObject(reply.body);
    } catch (const std::exception &) {
        co_return std::nullopt;
    }
}

QCoro::Task<std::optional<QUrl>> MCPOAuthManager::resourceMetadataFromChallenge(QUrl endpoint)
{
    // A server that hides its metadata from the well-known paths still names it in the challenge
    // it sends to a client without a token.
    QNetworkRequest request(endpoint);
    request.setHeader(QNetworkRequest::ContentTypeHeader, QByteArrayLiteral("application/json"));
    request.setRawHeader("Accept", "application/json, text/event-stream");
    const QJsonObject probe { { QStringLiteral("jsonrpc"), QStringLiteral("2.0") }, { QStringLiteral("id"), 1 },
        { QStringLiteral("method"), QStringLiteral("initialize") },
        { QStringLiteral("params"),
            QJsonObject { { QStringLiteral("protocolVersion"), QStringLiteral("2025-06-18") },
                { QStringLiteral("capabilities"), QJsonObject() },
                { QStringLiteral("clientInfo"),
                    QJsonObject { { QStringLiteral("name"), QStringLiteral("KeloCompanion") },
                        { QStringLiteral("version"), QStringLiteral("2.0") } } } } } };
    HttpClient::Options options;
    options.timeoutMs = m_options.metadataTimeoutMs;
    options.maxBodyBytes = maxDocumentBytes;
    options.truncateAtLimit = true;
    // Only the status and headers matter; do not wait for a stream to end.
    options.isComplete = [](const QByteArray &body) { return !body.isEmpty(); };
    try {
        const HttpReply reply = co_await m_http->post(request, JsonSupport::compact(probe), options);
        if (reply.status != 401 && reply.status != 403)
            co_return std::nullopt;
        const auto parameter = resourceMetadataParameter(reply.header("WWW-Authenticate"));
        if (!parameter)
            co_return std::nullopt;
        const QUrl url = endpoint.resolved(QUrl(*parameter));
        co_return isUsableHttpURL(url) ? std::optional<QUrl>(url) : std::nullopt;
    } catch (const std::exception &) {
        co_return std::nullopt;
    }
}

QCoro::Task<std::optional<OAuthProtectedResourceMetadata>> MCPOAuthManager::fetchProtectedResourceMetadata(
    QUrl endpoint)
{
    const QString wellKnown = QStringLiteral(".well-known/oauth-protected-resource");
    QList<QUrl> candidates { appendingPath(originURL(endpoint), wellKnown) };
    const QString path = endpoint.path();
    if (!path.isEmpty() && path != QLatin1String("/"))
        candidates.append(appendingPath(candidates.first(), path));

    // The first document that names an authorization server wins; one that names none is kept in
    // case nothing better turns up.
    std::optional<OAuthProtectedResourceMetadata> firstDecoded;
    for (const QUrl &candidate : std::as_const(candidates)) {
        const auto object = co_await fetchJSON(candidate);
        const auto metadata = object ? OAuthProtectedResourceMetadata::fromJson(*object) : std::nullopt;
        if (firstAuthorizationServer(metadata))
            co_return metadata;
        if (metadata && !firstDecoded)
            firstDecoded = metadata;
    }
    const auto advertised = co_await resourceMetadataFromChallenge(endpoint);
    if (advertised) {
        const auto object = co_await fetchJSON(*advertised);
        if (object) {
            const auto metadata = OAuthProtectedResourceMetadata::fromJson(*object);
            if (firstAuthorizationServer(metadata))
                co_return metadata;
            if (metadata && !firstDecoded)
                firstDecoded = metadata;
        }
    }
    co_return firstDecoded;
}

QCoro::Task<std::optional<OAuthAuthorizationServerMetadata>> MCPOAuthManager::fetchAuthorizationServerMetadata(
    QUrl issuer)
{
    for (const QString &wellKnown : { QStringLiteral(".well-known/oauth-authorization-server"),
             QStringLiteral(".well-known/openid-configuration") }) {
        const auto object = co_await fetchJSON(appendingPath(issuer, wellKnown));
        if (!object)
            continue;
        const auto metadata = OAuthAuthorizationServerMetadata::fromJson(*object);
        if (metadata && hasFlowEndpoints(*metadata))
            co_return metadata;
    }
    co_return std::nullopt;
}

QCoro::Task<DiscoveryResult> MCPOAuthManager::discoverOAuth(QUrl endpoint)
{
    const auto resourceMetadata = co_await fetchProtectedResourceMetadata(endpoint);
    const QUrl issuer = firstAuthorizationServer(resourceMetadata).value_or(originURL(endpoint));
    auto metadata = co_await fetchAuthorizationServerMetadata(issuer);
    if (!metadata)
        metadata = fallbackMetadata(endpoint);
    if (!metadata)
        throw MCPOAuthError(MCPOAuthError::metadataUnavailable);
    co_return DiscoveryResult { resourceMetadata, *metadata };
}

QCoro::Task<OAuthRegistrationResponse> MCPOAuthManager::registerClient(QUrl registrationEndpoint)
{
    QNetworkRequest request(registrationEndpoint);
    request.setHeader(QNetworkRequest::ContentTypeHeader, QByteArrayLiteral("application/json"));
    request.setRawHeader("Accept", "application/json");
    const QJsonObject body {
        { QStringLiteral("client_name"), QStringLiteral("Kelo iOS") },
        { QStringLiteral("redirect_uris"), QJsonArray { redirectURI } },
        { QStringLiteral("grant_types"),
            QJsonArray { QStringLiteral("authorization_code"), QStringLiteral("refresh_token") } },
        { QStringLiteral("response_types"), QJsonArray { QStringLiteral("code") } },
        { QStringLiteral("token_endpoint_auth_method"), QStringLiteral("none") },
        // A custom-scheme redirect is only accepted from clients registered as native apps.
        { QStringLiteral("application_type"), QStringLiteral("native") },
    };
    HttpClient::Options options;
    options.timeoutMs = m_options.requestTimeoutMs;
    options.maxBodyBytes = maxDocumentBytes;
    const HttpReply reply = co_await m_http->post(request, JsonSupport::compact(body), options);
    if (!reply.isSuccess())
        throw MCPOAuthError(MCPOAuthError::registrationFailed, failureDetail(reply));
    const auto object = JsonSupport::parseObject(reply.body);
    const auto registration = object ? OAuthRegistrationResponse::fromJson(*object) : std::nullopt;
    if (!registration || !registration->clientID || registration->clientID->isEmpty())
        throw MCPOAuthError(MCPOAuthError::registrationFailed, failureDetail(reply));
    co_return *registration;
}

QCoro::Task<QUrl> MCPOAuthManager::runWebAuthentication(QUrl url, QString state)
{
    auto *channel = new OAuthCallbackChannel(m_options.callbackDirectory, this);
    m_webSession = new WebAuthenticationSession(channel, m_options.openBrowser, m_options.callbackTimeoutMs, channel);
    std::exception_ptr error;
    QUrl callback;
    try {
        callback = co_await m_webSession->start(url, state);
    } catch (...) {
        error = std::current_exception();
    }
    channel->deleteLater();
    if (error)
        std::rethrow_exception(error);
    co_return callback;
}

QCoro::Task<QString> MCPOAuthManager::exchangeCode(
    QString code, QUrl tokenEndpoint, QString clientID, QString clientSecret, QString verifier, QString resource)
{
    QList<QPair<QString, QString>> form {
        { QStringLiteral("grant_type"), QStringLiteral("authorization_code") },
        { QStringLiteral("code"), code },
        { QStringLiteral("redirect_uri"), redirectURI },
        { QStringLiteral("client_id"), clientID },
        { QStringLiteral("code_verifier"), verifier },
        { QStringLiteral("resource"), resource },
    };
    if (!clientSecret.isEmpty())
        form.append({ QStringLiteral("client_secret"), clientSecret });

    QNetworkRequest request(tokenEndpoint);
    request.setHeader(QNetworkRequest::ContentTypeHeader, QByteArrayLiteral("application/x-www-form-urlencoded"));
    request.setRawHeader("Accept", "application/json");
    HttpClient::Options options;
    options.timeoutMs = m_options.requestTimeoutMs;
    options.maxBodyBytes = maxDocumentBytes;
    const HttpReply reply = co_await m_http->post(request, encodedPairs(form), options);
    if (!reply.isSuccess())
        throw MCPOAuthError(MCPOAuthError::tokenExchangeFailed, failureDetail(reply));
    const auto object = JsonSupport::parseObject(reply.body);
    const auto token = object ? OAuthTokenResponse::fromJson(*object) : std::nullopt;
    if (!token || !token->accessToken || token->accessToken->isEmpty())
        throw MCPOAuthError(MCPOAuthError::tokenMissing);
    co_return QString(*token->accessToken);
}

QCoro::Task<QString> MCPOAuthManager::runFlow(
    MCPGalleryItem item, QString suppliedClientID, QString suppliedClientSecret)
{
    setStatusText(QStringLiteral("Descopăr configurația OAuth…"));
    const QUrl endpoint(item.endpoint, QUrl::StrictMode);
    if (!isUsableHttpURL(endpoint))
        throw MCPOAuthError(MCPOAuthError::invalidEndpoint);

    const DiscoveryResult discovery = co_await discoverOAuth(endpoint);
    const OAuthAuthorizationServerMetadata &metadata = discovery.metadata;
    const QUrl authorizationEndpoint(metadata.authorizationEndpoint.value_or(QString()), QUrl::StrictMode);
    const QUrl tokenEndpoint(metadata.tokenEndpoint.value_or(QString()), QUrl::StrictMode);
    if (!isUsableHttpURL(authorizationEndpoint) || !isUsableHttpURL(tokenEndpoint))
        throw MCPOAuthError(MCPOAuthError::metadataUnavailable);

    QString clientID = suppliedClientID.trimmed();
    QString clientSecret = clientID.isEmpty() ? QString() : suppliedClientSecret.trimmed();
    if (clientID.isEmpty()) {
        const QUrl registrationEndpoint(metadata.registrationEndpoint.value_or(QString()), QUrl::StrictMode);
        if (!isUsableHttpURL(registrationEndpoint))
            throw MCPOAuthError(MCPOAuthError::clientIDRequired);
        setStatusText(QStringLiteral("Înregistrez Kelo la provider…"));
        const OAuthRegistrationResponse registration = co_await registerClient(registrationEndpoint);
        clientID = *registration.clientID;
        clientSecret = registration.clientSecret.value_or(QString());
    }

    const QString verifier = compactUuid() + compactUuid();
    const QString state = compactUuid();
    QList<QPair<QString, QString>> query {
        { QStringLiteral("response_type"), QStringLiteral("code") },
        { QStringLiteral("client_id"), clientID },
        { QStringLiteral("redirect_uri"), redirectURI },
        { QStringLiteral("state"), state },
        { QStringLiteral("code_challenge"), codeChallenge(verifier) },
        { QStringLiteral("code_challenge_method"), QStringLiteral("S256") },
        { QStringLiteral("resource"), item.endpoint },
    };
    if (!item.scopes.isEmpty())
        query.append({ QStringLiteral("scope"), item.scopes.join(QLatin1Char(' ')) });
    QUrl authorizationURL = authorizationEndpoint;
    const QByteArray existingQuery = authorizationEndpoint.query(QUrl::FullyEncoded).toLatin1();
    authorizationURL.setQuery(
        QString::fromLatin1((existingQuery.isEmpty() ? QByteArray() : existingQuery + '&') + encodedPairs(query)),
        QUrl::StrictMode);

    setStatusText(QStringLiteral("Aștept autentificarea…"));
    const QUrl callback = co_await runWebAuthentication(authorizationURL, state);
    const QUrlQuery callbackQuery(callback);
    if (callbackQuery.queryItemValue(QStringLiteral("state"), QUrl::FullyDecoded) != state)
        throw MCPOAuthError(MCPOAuthError::stateMismatch);
    const QString code = callbackQuery.queryItemValue(QStringLiteral("code"), QUrl::FullyDecoded);
    if (code.isEmpty())
        throw MCPOAuthError(MCPOAuthError::invalidCallback);

    setStatusText(QStringLiteral("Finalizez conexiunea…"));
    co_return co_await exchangeCode(code, tokenEndpoint, clientID, clientSecret, verifier, item.endpoint);
}

QCoro::Task<QString> MCPOAuthManager::connect(
    MCPGalleryItem item, QString suppliedClientID, QString suppliedClientSecret)
{
    setRunning(true);
    std::exception_ptr error;
    QString token;
    try {
        token = co_await runFlow(std::move(item), std::move(suppliedClientID), std::move(suppliedClientSecret));
    } catch (...) {
        error = std::current_exception();
    }
    setStatusText(QString());
    setRunning(false);
    if (error)
        std::rethrow_exception(error);
    co_return token;
}

void MCPOAuthManager::start(const QString &galleryID, const QString &clientID, const QString &clientSecret)
{
    const MCPGalleryItem *item = MCPGalleryItem::find(galleryID);
    if (!item) {
        Q_EMIT failed(MCPOAuthError(MCPOAuthError::invalidEndpoint).description());
        return;
    }
    [](MCPOAuthManager *self, MCPGalleryItem item, QString id, QString secret) -> QCoro::Task<> {
        QPointer<MCPOAuthManager> guard(self);
        try {
            const QString token = co_await self->connect(std::move(item), std::move(id), std::move(secret));
            if (guard)
                Q_EMIT guard->connected(token);
        } catch (...) {
            if (guard)
                Q_EMIT guard->failed(describeException(std::current_exception()));
        }
    }(this, *item, clientID, clientSecret);
}

void MCPOAuthManager::cancel()
{
    if (m_webSession)
        m_webSession->cancel();
}
