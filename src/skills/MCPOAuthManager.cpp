#include "MCPOAuthManager.h"

#include "MCPEndpoint.h"
#include "MCPOAuthError.h"
#include "OAuthTokenEndpoint.h"
#include "net/HttpClient.h"
#include "net/JsonSupport.h"
#include "net/URLError.h"
#include "net/WireNames.h"

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

std::optional<QUrl> firstAuthorizationServer(const std::optional<OAuthProtectedResourceMetadata> &metadata)
{
    if (!metadata || !metadata->authorizationServers || metadata->authorizationServers->isEmpty())
        return std::nullopt;
    const QUrl url(metadata->authorizationServers->first(), QUrl::StrictMode);
    if (!MCPEndpoint::isHttpURL(url))
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

// A value of the provider's redirect, as a browser form encodes it ("+" for a space), on one line.
QString callbackText(const QUrlQuery &query, const QString &key)
{
    static const QRegularExpression controls(QStringLiteral("[\\x00-\\x1f\\x7f]+"));
    QString raw = query.queryItemValue(key, QUrl::FullyEncoded);
    raw.replace(QLatin1Char('+'), QLatin1Char(' '));
    return QUrl::fromPercentEncoding(raw.toUtf8())
        .replace(controls, QStringLiteral(" "))
        .trimmed()
        .left(maxDetailChars);
}

// The scopes to ask for: the service's own, else what the resource's challenge asked, else what
// its metadata lists, else what the authorization server offers. Strict providers refuse a
// request without any.
QStringList scopesFor(const MCPGalleryItem &item, const DiscoveryResult &discovery)
{
    if (!item.scopes.isEmpty())
        return item.scopes;
    if (!discovery.challengeScopes.isEmpty())
        return discovery.challengeScopes;
    if (discovery.resourceMetadata && discovery.resourceMetadata->scopesSupported
        && !discovery.resourceMetadata->scopesSupported->isEmpty())
        return *discovery.resourceMetadata->scopesSupported;
    return discovery.metadata.scopesSupported.value_or(QStringList());
}

// The resource as the protected-resource metadata names it (it may be spelled differently from the
// endpoint the user typed, and strict providers compare it exactly), else the endpoint.
QString resourceFor(const MCPGalleryItem &item, const DiscoveryResult &discovery)
{
    const QString declared
        = discovery.resourceMetadata ? discovery.resourceMetadata->resource.value_or(QString()) : QString();
    return MCPEndpoint::isHttpURL(QUrl(declared, QUrl::StrictMode)) ? declared : item.endpoint;
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

int MCPOAuthManager::discoveryTimeoutMs() const
{
    return int(std::min<qint64>(m_options.metadataTimeoutMs, m_discoveryDeadline.remainingTime()));
}

QCoro::Task<std::optional<QJsonObject>> MCPOAuthManager::fetchJSON(QUrl url)
{
    const int timeoutMs = discoveryTimeoutMs();
    if (timeoutMs <= 0)
        co_return std::nullopt;
    QNetworkRequest request(url);
    request.setRawHeader("Accept", "application/json");
    HttpClient::Options options;
    options.timeoutMs = timeoutMs;
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

QCoro::Task<OAuthBearerChallenge> MCPOAuthManager::probeChallenge(QUrl endpoint)
{
    // A request without a token is answered with a challenge that may name the resource's metadata
    // and the scopes it wants. It is also the first contact: a host that cannot be reached is
    // reported as such, not as a server without OAuth information.
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
    options.timeoutMs = discoveryTimeoutMs();
    options.maxBodyBytes = maxDocumentBytes;
    options.truncateAtLimit = true;
    // Only the status and headers matter; do not wait for a stream to end.
    options.isComplete = [](const QByteArray &body) { return !body.isEmpty(); };
    HttpReply reply;
    try {
        reply = co_await m_http->post(request, JsonSupport::compact(probe), options);
    } catch (const URLError &) {
        // The known providers' endpoints come from the table; for the others nothing can follow.
        if (!fallbackMetadata(endpoint))
            throw;
    }
    if (reply.status != 401 && reply.status != 403)
        co_return OAuthBearerChallenge();
    co_return OAuthBearerChallenge::fromHeader(reply.header("WWW-Authenticate"));
}

QCoro::Task<std::optional<OAuthProtectedResourceMetadata>> MCPOAuthManager::fetchProtectedResourceMetadata(
    QUrl endpoint, std::optional<QUrl> advertised)
{
    const QString wellKnown = QStringLiteral(".well-known/oauth-protected-resource");
    QList<QUrl> candidates;
    if (advertised)
        candidates.append(*advertised);
    const QUrl atOrigin = appendingPath(originURL(endpoint), wellKnown);
    candidates.append(atOrigin);
    const QString path = endpoint.path();
    if (!path.isEmpty() && path != QLatin1String("/"))
        candidates.append(appendingPath(atOrigin, path));

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
    m_discoveryDeadline = QDeadlineTimer(m_options.discoveryBudgetMs);
    const OAuthBearerChallenge challenge = co_await probeChallenge(endpoint);
    std::optional<QUrl> advertised;
    if (challenge.resourceMetadata) {
        const QUrl url = endpoint.resolved(QUrl(*challenge.resourceMetadata));
        if (MCPEndpoint::isHttpURL(url))
            advertised = url;
    }
    const auto resourceMetadata = co_await fetchProtectedResourceMetadata(endpoint, advertised);
    const QUrl issuer = firstAuthorizationServer(resourceMetadata).value_or(originURL(endpoint));
    auto metadata = co_await fetchAuthorizationServerMetadata(issuer);
    if (!metadata)
        metadata = fallbackMetadata(endpoint);
    if (!metadata)
        throw MCPOAuthError(MCPOAuthError::metadataUnavailable);
    co_return DiscoveryResult { resourceMetadata, *metadata, challenge.scopes };
}

QCoro::Task<OAuthRegistrationResponse> MCPOAuthManager::registerClient(QUrl registrationEndpoint)
{
    QNetworkRequest request(registrationEndpoint);
    request.setHeader(QNetworkRequest::ContentTypeHeader, QByteArrayLiteral("application/json"));
    request.setRawHeader("Accept", "application/json");
    const QJsonObject body {
        { QStringLiteral("client_name"), QString::fromLatin1(WireNames::oauthClientName) },
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
        throw MCPOAuthError(MCPOAuthError::registrationFailed, OAuthTokenEndpoint::failureDetail(reply));
    const auto object = JsonSupport::parseObject(reply.body);
    const auto registration = object ? OAuthRegistrationResponse::fromJson(*object) : std::nullopt;
    if (!registration || !registration->clientID || registration->clientID->isEmpty())
        throw MCPOAuthError(MCPOAuthError::registrationFailed, OAuthTokenEndpoint::failureDetail(reply));
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

QCoro::Task<MCPOAuthManager::Connection> MCPOAuthManager::runFlow(
    MCPGalleryItem item, QString suppliedClientID, QString suppliedClientSecret)
{
    setStatusText(QStringLiteral("Descopăr configurația OAuth…"));
    const QUrl endpoint(item.endpoint, QUrl::StrictMode);
    if (!MCPEndpoint::isHttpURL(endpoint))
        throw MCPOAuthError(MCPOAuthError::invalidEndpoint);

    const DiscoveryResult discovery = co_await discoverOAuth(endpoint);
    const OAuthAuthorizationServerMetadata &metadata = discovery.metadata;
    const QUrl authorizationEndpoint(metadata.authorizationEndpoint.value_or(QString()), QUrl::StrictMode);
    const QUrl tokenEndpoint(metadata.tokenEndpoint.value_or(QString()), QUrl::StrictMode);
    if (!MCPEndpoint::isHttpURL(authorizationEndpoint) || !MCPEndpoint::isHttpURL(tokenEndpoint))
        throw MCPOAuthError(MCPOAuthError::metadataUnavailable);

    QString clientID = suppliedClientID.trimmed();
    QString clientSecret = clientID.isEmpty() ? QString() : suppliedClientSecret.trimmed();
    if (clientID.isEmpty()) {
        const QUrl registrationEndpoint(metadata.registrationEndpoint.value_or(QString()), QUrl::StrictMode);
        if (!MCPEndpoint::isHttpURL(registrationEndpoint))
            throw MCPOAuthError(MCPOAuthError::clientIDRequired);
        setStatusText(QStringLiteral("Înregistrez Kelo la provider…"));
        const OAuthRegistrationResponse registration = co_await registerClient(registrationEndpoint);
        clientID = *registration.clientID;
        clientSecret = registration.clientSecret.value_or(QString());
    }

    const QString resource = resourceFor(item, discovery);
    const QStringList scopes = scopesFor(item, discovery);
    const QString verifier = compactUuid() + compactUuid();
    const QString state = compactUuid();
    OAuthTokenEndpoint::Form query {
        { QStringLiteral("response_type"), QStringLiteral("code") },
        { QStringLiteral("client_id"), clientID },
        { QStringLiteral("redirect_uri"), redirectURI },
        { QStringLiteral("state"), state },
        { QStringLiteral("code_challenge"), codeChallenge(verifier) },
        { QStringLiteral("code_challenge_method"), QStringLiteral("S256") },
        { QStringLiteral("resource"), resource },
    };
    if (!scopes.isEmpty())
        query.append({ QStringLiteral("scope"), scopes.join(QLatin1Char(' ')) });
    // OpenID providers grant offline access (the refresh token) only with explicit consent.
    if (scopes.contains(QLatin1String("offline_access")))
        query.append({ QStringLiteral("prompt"), QStringLiteral("consent") });
    QUrl authorizationURL = authorizationEndpoint;
    const QByteArray existingQuery = authorizationEndpoint.query(QUrl::FullyEncoded).toLatin1();
    authorizationURL.setQuery(QString::fromLatin1((existingQuery.isEmpty() ? QByteArray() : existingQuery + '&')
                                  + OAuthTokenEndpoint::formEncoded(query)),
        QUrl::StrictMode);

    setStatusText(QStringLiteral("Aștept autentificarea…"));
    const QUrl callback = co_await runWebAuthentication(authorizationURL, state);
    const QUrlQuery callbackQuery(callback);
    if (callbackQuery.queryItemValue(QStringLiteral("state"), QUrl::FullyDecoded) != state)
        throw MCPOAuthError(MCPOAuthError::stateMismatch);
    const QString refusal = callbackText(callbackQuery, QStringLiteral("error"));
    if (!refusal.isEmpty()) {
        const QString description = callbackText(callbackQuery, QStringLiteral("error_description"));
        throw MCPOAuthError(MCPOAuthError::authorizationRefused, description.isEmpty() ? refusal : description);
    }
    const QString code = callbackQuery.queryItemValue(QStringLiteral("code"), QUrl::FullyDecoded);
    if (code.isEmpty())
        throw MCPOAuthError(MCPOAuthError::invalidCallback);

    setStatusText(QStringLiteral("Finalizez conexiunea…"));
    OAuthTokenEndpoint::Form form {
        { QStringLiteral("grant_type"), QStringLiteral("authorization_code") },
        { QStringLiteral("code"), code },
        { QStringLiteral("redirect_uri"), redirectURI },
        { QStringLiteral("client_id"), clientID },
        { QStringLiteral("code_verifier"), verifier },
        { QStringLiteral("resource"), resource },
    };
    if (!clientSecret.isEmpty())
        form.append({ QStringLiteral("client_secret"), clientSecret });
    const OAuthTokenEndpoint tokens(m_http, m_options.requestTimeoutMs);
    const HttpReply reply = co_await tokens.post(tokenEndpoint, form);
    const OAuthTokenResponse token = OAuthTokenEndpoint::tokenFrom(reply);

    Connection connection;
    connection.accessToken = *token.accessToken;
    connection.grant.tokenEndpoint = tokenEndpoint.toString(QUrl::FullyEncoded);
    connection.grant.clientID = clientID;
    connection.grant.clientSecret = clientSecret;
    connection.grant.resource = resource;
    connection.grant.refreshToken = token.refreshToken.value_or(QString());
    if (token.expiresIn)
        connection.grant.accessTokenExpiresAt = QDateTime::currentDateTimeUtc().addSecs(*token.expiresIn);
    co_return connection;
}

QCoro::Task<MCPOAuthManager::Connection> MCPOAuthManager::connect(
    MCPGalleryItem item, QString suppliedClientID, QString suppliedClientSecret)
{
    setRunning(true);
    std::exception_ptr error;
    Connection connection;
    try {
        connection = co_await runFlow(std::move(item), std::move(suppliedClientID), std::move(suppliedClientSecret));
    } catch (...) {
        error = std::current_exception();
    }
    setStatusText(QString());
    setRunning(false);
    if (error)
        std::rethrow_exception(error);
    co_return connection;
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
            const Connection connection = co_await self->connect(std::move(item), std::move(id), std::move(secret));
            if (guard)
                Q_EMIT guard->connected(connection);
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
