#pragma once

#include "MCPGalleryItem.h"
#include "MCPOAuthGrant.h"
#include "MCPServerConfig.h"
#include "OAuthCallbackChannel.h"
#include "OAuthRecords.h"
#include "WebAuthenticationSession.h"

#include <QCoroTask>
#include <QDeadlineTimer>
#include <QObject>
#include <QPointer>
#include <QUrl>
#include <QtQml/qqmlregistration.h>

#include <optional>

class HttpClient;

// Connects an MCP service by OAuth: finds its authorization server, registers Kelo as a client when
// the server allows it (or uses the client id the user typed), runs the authorization-code flow with
// PKCE in the system browser and exchanges the code for the access token, keeping what renewing it
// needs.
class MCPOAuthManager : public QObject
{
    Q_OBJECT
    QML_ELEMENT
    Q_PROPERTY(QString statusText READ statusText NOTIFY statusTextChanged)
    Q_PROPERTY(bool running READ running NOTIFY runningChanged)

public:
    static inline const QString redirectURI = QStringLiteral("kelo://oauth");

    struct Options
    {
        int metadataTimeoutMs = 60'000;
        // All of discovery together: an unresponsive provider fails the flow in seconds, not minutes.
        int discoveryBudgetMs = 15'000;
        int requestTimeoutMs = 60'000;
        // How long the browser step may take before the flow gives up.
        int callbackTimeoutMs = 10 * 60'000;
        QString callbackDirectory = OAuthCallbackChannel::defaultDirectory();
        WebAuthenticationSession::BrowserOpener openBrowser = WebAuthenticationSession::systemBrowser();
    };

    struct Connection
    {
        QString accessToken;
        MCPOAuthGrant grant;
    };

    explicit MCPOAuthManager(QObject *parent = nullptr);
    explicit MCPOAuthManager(Options options, QObject *parent = nullptr);
    // Cancels a flow still waiting for the browser.
    ~MCPOAuthManager() override;

    // Runs the whole flow. Empty supplied strings count as not supplied.
    QCoro::Task<Connection> connect(MCPGalleryItem item, QString suppliedClientID, QString suppliedClientSecret);

    // For the interface: runs connect() for a gallery item and reports through connected()/failed().
    Q_INVOKABLE void start(const QString &galleryID, const QString &clientID, const QString &clientSecret);
    // Ends the browser step of a running flow; the flow fails with a cancel.
    Q_INVOKABLE void cancel();

    QString statusText() const { return m_statusText; }
    bool running() const { return m_running; }

    // Known providers' endpoints for servers that publish no metadata (matched by host).
    static std::optional<OAuthAuthorizationServerMetadata> fallbackMetadata(const QUrl &endpoint);
    // PKCE S256: Base64url of the verifier's SHA-256, without padding.
    static QString codeChallenge(const QString &verifier);
    // `base` with a path appended, with exactly one "/" between them.
    static QUrl appendingPath(const QUrl &base, const QString &path);
    static QUrl originURL(const QUrl &url);

Q_SIGNALS:
    void statusTextChanged();
    void runningChanged();
    void connected(const MCPOAuthManager::Connection &connection);
    void failed(const QString &message);

private:
    QCoro::Task<Connection> runFlow(MCPGalleryItem item, QString suppliedClientID, QString suppliedClientSecret);
    QCoro::Task<DiscoveryResult> discoverOAuth(QUrl endpoint);
    QCoro::Task<std::optional<OAuthProtectedResourceMetadata>> fetchProtectedResourceMetadata(
        QUrl endpoint, std::optional<QUrl> advertised);
    QCoro::Task<std::optional<OAuthAuthorizationServerMetadata>> fetchAuthorizationServerMetadata(QUrl issuer);
    QCoro::Task<OAuthBearerChallenge> probeChallenge(QUrl endpoint);
    QCoro::Task<std::optional<QJsonObject>> fetchJSON(QUrl url);
    QCoro::Task<OAuthRegistrationResponse> registerClient(QUrl registrationEndpoint);
    QCoro::Task<QUrl> runWebAuthentication(QUrl url, QString state);
    // What is left of the discovery budget, within the per-request time-out.
    int discoveryTimeoutMs() const;

    void setStatusText(const QString &text);
    void setRunning(bool running);

    Options m_options;
    HttpClient *m_http;
    QString m_statusText;
    bool m_running = false;
    QDeadlineTimer m_discoveryDeadline;
    QPointer<WebAuthenticationSession> m_webSession;
};
