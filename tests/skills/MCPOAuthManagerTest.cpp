#include "skills/MCPOAuthManager.h"

#include "AsyncTest.h"
#include "FakeHttpServer.h"
#include "FakeOAuthMCPServer.h"
#include "net/URLError.h"
#include "skills/MCPOAuthError.h"
#include "skills/WebAuthenticationError.h"

#include <QElapsedTimer>
#include <QJsonArray>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QSignalSpy>
#include <QTcpServer>
#include <QTemporaryDir>
#include <QTest>

using Reply = FakeHttpServer::Reply;

// The authorization server: the MCP fake's OAuth side, its metadata at `prefix` only.
struct AuthServer : FakeOAuthMCPServer
{
    explicit AuthServer(const QString &prefix = {})
    {
        http.on("GET", "/.well-known/oauth-protected-resource", Reply::text("none", 404));
        if (!prefix.isEmpty()) {
            http.on("GET", "/.well-known/oauth-authorization-server", Reply::text("none", 404));
            http.on(
                "GET", prefix + "/.well-known/oauth-authorization-server", Reply::json(authorizationServerMetadata()));
        }
    }
    QString base() const { return http.baseUrl(); }
};

class MCPOAuthManagerTest : public QObject
{
    Q_OBJECT

    QTemporaryDir m_callbacks;
    QNetworkAccessManager m_network;
    QList<QUrl> m_opened;

    // Loads a loopback authorization page and hands its redirect over as the desktop would.
    bool openBrowser(const QUrl &url)
    {
        m_opened.append(url);
        if (url.host() != QLatin1String("127.0.0.1"))
            return true;
        QNetworkRequest request(url);
        request.setAttribute(QNetworkRequest::RedirectPolicyAttribute, QNetworkRequest::ManualRedirectPolicy);
        QNetworkReply *reply = m_network.get(request);
        QObject::connect(reply, &QNetworkReply::finished, reply, [this, reply] {
            reply->deleteLater();
            const QUrl location(QString::fromUtf8(reply->rawHeader("Location")));
            if (location.scheme() == QLatin1String("kelo"))
                OAuthCallbackChannel::deliver(location, m_callbacks.path()); // runs on by itself; never throws
        });
        return true;
    }

    MCPOAuthManager::Options options()
    {
        MCPOAuthManager::Options o;
        o.callbackDirectory = m_callbacks.path();
        o.callbackTimeoutMs = 10'000;
        o.metadataTimeoutMs = o.requestTimeoutMs = 3'000;
        o.openBrowser = [this](const QUrl &url) { return openBrowser(url); };
        return o;
    }

    static MCPGalleryItem itemFor(const QString &endpoint, const QStringList &scopes = {})
    {
        return MCPGalleryItem { "test-service", "Serviciu", "", endpoint, "", "", scopes, "" };
    }

    template<typename E>
    static E expectError(MCPOAuthManager &manager, const MCPGalleryItem &item, const QString &clientID = {})
    {
        return AsyncTest::awaitError<E>(manager.connect(item, clientID, {}), 15'000).value();
    }

private Q_SLOTS:
    void init() { m_opened.clear(); }

    void connectsThroughASeparateAuthorizationServer()
    {
        AuthServer auth;
        auth.expiresInSeconds = 0;
        FakeHttpServer mcp;
        const QString endpoint = mcp.baseUrl() + "/mcp";
        mcp.on("GET", "/.well-known/oauth-protected-resource",
            Reply::json(
                QJsonObject { { "resource", endpoint }, { "authorization_servers", QJsonArray { auth.base() } } }));

        MCPOAuthManager manager(options());
        QStringList statuses;
        QObject::connect(&manager, &MCPOAuthManager::statusTextChanged, [&] { statuses.append(manager.statusText()); });
        QSignalSpy running(&manager, &MCPOAuthManager::runningChanged);

        const MCPOAuthManager::Connection connection = AsyncTest::await(manager.connect(itemFor(endpoint), "", ""));
        QCOMPARE(connection.accessToken, auth.accessToken);
        // What renewing the token needs is kept; this provider states no lifetime.
        QCOMPARE(connection.grant.tokenEndpoint, auth.base() + "/token");
        QCOMPARE(connection.grant.clientID, QString("kelo-client"));
        QCOMPARE(connection.grant.resource, endpoint);
        QCOMPARE(connection.grant.accessTokenExpiresAt, std::nullopt);
        QCOMPARE(statuses,
            QStringList({ "Descopăr configurația OAuth…", "Înregistrez Kelo la provider…", "Aștept autentificarea…",
                "Finalizez conexiunea…", "" }));
        QCOMPARE(running.size(), 2);
        // The fake checks PKCE; the wire format is checked against a strict real provider in the journeys.
        const QUrlQuery form(QString::fromUtf8(auth.http.requests("/token").first().body));
        QVERIFY(QRegularExpression("^[0-9A-F]{64}$").match(form.queryItemValue("code_verifier")).hasMatch());
        QCOMPARE(mcp.requestCount("/.well-known/oauth-authorization-server"), 0);
    }

    void suppliedClientSkipsRegistrationAndSendsScopesAndSecret()
    {
        AuthServer auth;
        MCPOAuthManager manager(options());
        const MCPGalleryItem item = itemFor(auth.base() + "/mcp/", { "drive.readonly", "mail read" });
        const auto connection = AsyncTest::await(manager.connect(item, "  my-client ", "s3cr&t"));
        QCOMPARE(connection.grant.clientSecret, QString("s3cr&t"));
        QCOMPARE(auth.http.requestCount("/register"), 0);
        QCOMPARE(auth.lastAuthorization().queryItemValue("client_id"), QString("my-client"));
        QCOMPARE(
            auth.lastAuthorization().queryItemValue("scope", QUrl::FullyDecoded), QString("drive.readonly mail read"));
        const QUrlQuery form(QString::fromUtf8(auth.http.requests("/token").first().body));
        QCOMPARE(form.queryItemValue("client_secret", QUrl::FullyDecoded), QString("s3cr&t"));
        // Nothing published about the resource (the suffixed place was tried too): its origin is the issuer.
        QCOMPARE(auth.http.requestCount("/.well-known/oauth-protected-resource/mcp/"), 1);
    }

    // A path-suffixed document, one the challenge names, an OpenID configuration; no "//" from an issuer
    // with a path and a trailing slash.
    void findsMetadataWhereRealServersPutIt()
    {
        AuthServer auth("/tenant");
        FakeHttpServer mcp;
        const QString endpoint = mcp.baseUrl() + "/v1/mcp";
        const QJsonObject resource { { "resource", endpoint },
            { "authorization_servers", QJsonArray { auth.base() + "/tenant/" } } };
        mcp.on("GET", "/.well-known/oauth-protected-resource", Reply::json(QJsonObject { { "resource", endpoint } }));
        mcp.on("GET", "/.well-known/oauth-protected-resource/v1/mcp", Reply::json(resource));
        MCPOAuthManager manager(options());
        QCOMPARE(AsyncTest::await(manager.connect(itemFor(endpoint), "", "")).accessToken, auth.accessToken);

        Reply challenge = Reply::text("{}", 401, "application/json");
        challenge.headers.append(qMakePair(QByteArray("www-authenticate"),
            "Bearer error=\"invalid_token\", resource_metadata=\"" + mcp.baseUrl().toUtf8() + "/meta/prm\""));
        mcp.on("POST", "/v1/mcp", challenge);
        mcp.on("GET", "/.well-known/oauth-protected-resource/v1/mcp", Reply::text("none", 404));
        mcp.on("GET", "/meta/prm", Reply::json(resource));
        QCOMPARE(AsyncTest::await(manager.connect(itemFor(endpoint), "", "")).accessToken, auth.accessToken);

        auth.http.on("GET", "/tenant/.well-known/oauth-authorization-server", Reply::text("none", 404));
        auth.http.on(
            "GET", "/tenant/.well-known/openid-configuration", Reply::json(auth.authorizationServerMetadata()));
        QCOMPARE(AsyncTest::await(manager.connect(itemFor(endpoint), "", "")).accessToken, auth.accessToken);
        for (const auto &request : auth.http.requests() + mcp.requests())
            QVERIFY2(!request.path.contains("//"), qPrintable(request.path));
    }

    // Scopes are the challenge's, else the resource's, else the authorization server's.
    void scopeAndResourceComeFromWhatTheServerPublishes()
    {
        AuthServer auth;
        QJsonObject metadata = auth.authorizationServerMetadata();
        metadata.insert("scopes_supported", QJsonArray { "openid", "offline_access" });
        auth.http.on("GET", "/.well-known/oauth-authorization-server", Reply::json(metadata));
        auth.http.enqueue("POST", "/token",
            Reply::json(QJsonObject { { "access_token", "a" }, { "refresh_token", "r" }, { "expires_in", "3600" } }));
        FakeHttpServer mcp;
        // The resource names itself with another spelling of the host than the one typed.
        const QString declared = QStringLiteral("http://localhost:%1/mcp").arg(mcp.port());
        QJsonObject resource { { "resource", declared }, { "authorization_servers", QJsonArray { auth.base() } },
            { "scopes_supported", QJsonArray { "files", "offline_access" } } };
        mcp.on("GET", "/.well-known/oauth-protected-resource", [&](const auto &) { return Reply::json(resource); });
        Reply challenge = Reply::text({}, 401);
        challenge.headers.append(qMakePair(QByteArray("WWW-Authenticate"),
            QByteArray(R"(Bearer realm="mcp", scope="mcp:read mcp:write", error="invalid_token")")));
        mcp.enqueue("POST", "/mcp", challenge);

        MCPOAuthManager manager(options());
        for (const QString scope : { "mcp:read mcp:write", "files offline_access", "openid offline_access" }) {
            const QDateTime before = QDateTime::currentDateTimeUtc();
            const auto connection = AsyncTest::await(manager.connect(itemFor(mcp.baseUrl() + "/mcp"), "", ""));
            QCOMPARE(auth.lastAuthorization().queryItemValue("scope", QUrl::FullyDecoded), scope);
            QCOMPARE(auth.lastAuthorization().queryItemValue("resource", QUrl::FullyDecoded), declared);
            const QUrlQuery form(QString::fromUtf8(auth.http.requests("/token").last().body));
            QCOMPARE(form.queryItemValue("resource", QUrl::FullyDecoded), declared);
            QCOMPARE(connection.grant.resource, declared);
            QVERIFY(qAbs(before.secsTo(connection.grant.accessTokenExpiresAt.value()) - 3600) < 5);
            if (scope.startsWith("files"))
                resource.remove("scopes_supported");
        }
    }

    void discoveryFailsFastWhenTheServerIsOutOfReach()
    {
        // Nothing listens on this port: the network error is the answer, at once.
        QTcpServer closed;
        QVERIFY(closed.listen(QHostAddress::LocalHost));
        const quint16 port = closed.serverPort();
        closed.close();
        MCPOAuthManager manager(options());
        QElapsedTimer clock;
        clock.start();
        const auto unreachable
            = expectError<URLError>(manager, itemFor(QStringLiteral("http://127.0.0.1:%1/mcp").arg(port)));
        QCOMPARE(unreachable.code(), URLError::cannotConnectToHost);
        QVERIFY(clock.elapsed() < 2'000);

        // Metadata that never comes costs the discovery budget, not a minute per document.
        FakeHttpServer silent;
        Reply never;
        never.neverAnswer = true;
        for (const char *path : { "/.well-known/oauth-protected-resource", "/.well-known/oauth-protected-resource/mcp",
                 "/.well-known/oauth-authorization-server", "/.well-known/openid-configuration" })
            silent.on("GET", path, never);
        MCPOAuthManager::Options budgeted = options();
        budgeted.metadataTimeoutMs = 60'000;
        budgeted.discoveryBudgetMs = 1'500;
        MCPOAuthManager patient(budgeted);
        clock.restart();
        QCOMPARE(expectError<MCPOAuthError>(patient, itemFor(silent.baseUrl() + "/mcp")).kind(),
            MCPOAuthError::metadataUnavailable);
        QVERIFY2(clock.elapsed() < 4'000, qPrintable(QString::number(clock.elapsed())));
    }

    void providersWithoutMetadataUseTheFallbackTable()
    {
        MCPOAuthManager manager(options());
        const MCPGalleryItem github = itemFor("http://github.invalid/mcp/");
        QCOMPARE(expectError<MCPOAuthError>(manager, github).kind(), MCPOAuthError::clientIDRequired);
        QVERIFY(m_opened.isEmpty());

        QTimer::singleShot(300, &manager, &MCPOAuthManager::cancel);
        QCOMPARE(
            expectError<WebAuthenticationError>(manager, github, "gh-client").kind(), WebAuthenticationError::canceled);
        QCOMPARE(m_opened.size(), 1);
        const QUrl opened = m_opened.first();
        QCOMPARE(opened.toString(QUrl::RemoveQuery), QString("https://github.com/login/oauth/authorize"));
        QCOMPARE(QUrlQuery(opened).queryItemValue("client_id"), QString("gh-client"));

        // Matched by host, so an unknown provider is not mistaken for a known one.
        QVERIFY(!MCPOAuthManager::fallbackMetadata(QUrl("https://mcp.example.com/mcp")));
    }

    // The provider's own words reach the user; a state it never issued is refused.
    void providerFailuresAreReported()
    {
        AuthServer auth;
        const MCPGalleryItem item = itemFor(auth.base() + "/mcp");
        MCPOAuthManager manager(options());
        const auto approve = auth.redirect;
        const QList<std::pair<QString, QString>> callbacks {
            { "error=invalid_scope&error_description=Scope+%22x%22%0Anu+e%C8%99ti&state=",
                "Providerul a refuzat autentificarea: Scope \"x\" nu ești" },
            { "state=", MCPOAuthError(MCPOAuthError::invalidCallback).description() },
            { "code=x&state=FOREIGN", MCPOAuthError(MCPOAuthError::stateMismatch).description() },
        };
        for (const auto &[callback, description] : callbacks) {
            auth.redirect = [callback](const QUrlQuery &query) {
                return "kelo://oauth?" + callback + (callback.endsWith('=') ? query.queryItemValue("state") : "");
            };
            QCOMPARE(expectError<MCPOAuthError>(manager, item).description(), description);
        }
        QCOMPARE(auth.http.requestCount("/token"), 0);
        auth.redirect = approve;

        auth.http.enqueue("POST", "/register", Reply::text("redirect_uri not allowed", 400));
        MCPOAuthError error = expectError<MCPOAuthError>(manager, item);
        QCOMPARE(error.kind(), MCPOAuthError::registrationFailed);
        QCOMPARE(error.description(), QString("Înregistrarea OAuth a eșuat: redirect_uri not allowed"));
        auth.http.enqueue("POST", "/register", Reply::json(QJsonObject { { "client_id", 7 } }));
        QCOMPARE(expectError<MCPOAuthError>(manager, item).kind(), MCPOAuthError::registrationFailed);

        auth.http.enqueue("POST", "/token", Reply::json(QJsonObject { { "access_token", "" } }));
        QCOMPARE(expectError<MCPOAuthError>(manager, item).kind(), MCPOAuthError::tokenMissing);

        FakeHttpServer bare;
        bare.on("GET", "/.well-known/oauth-authorization-server", Reply::json(QJsonObject { { "issuer", 5 } }));
        QCOMPARE(expectError<MCPOAuthError>(manager, itemFor(bare.baseUrl() + "/mcp")).kind(),
            MCPOAuthError::metadataUnavailable);
        QCOMPARE(
            expectError<MCPOAuthError>(manager, itemFor("not an endpoint")).kind(), MCPOAuthError::invalidEndpoint);
        QCOMPARE(manager.statusText(), QString());
    }
};

QTEST_GUILESS_MAIN(MCPOAuthManagerTest)
#include "MCPOAuthManagerTest.moc"
