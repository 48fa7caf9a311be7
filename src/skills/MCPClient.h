#pragma once

#include "MCPServerConfig.h"
#include "MCPTokenRefresher.h"
#include "MCPToolBinding.h"

#include <QCoroTask>
#include <QHash>
#include <QJsonObject>
#include <QObject>
#include <QSet>

#include <memory>
#include <optional>

class HttpClient;

// Speaks JSON-RPC 2.0 over HTTP POST to MCP servers: one session id and one handshake per endpoint,
// tool discovery into model-facing bindings, and tool calls flattened to text. A session the server
// has forgotten is started again; an OAuth access token that expired is renewed once, shared by
// every request to that server, and later requests use the renewed one whatever copy of the server
// they carry.
class MCPClient : public QObject
{
    Q_OBJECT

public:
    static constexpr int defaultTimeoutMs = 25'000;
    // A server may keep a call open with progress events or keep-alive comments; no tool result is
    // worth holding a spoken turn for longer than this.
    static constexpr int defaultDeadlineMs = 60'000;
    // Enough for any real tool list; a server that pages on and on is cut off here.
    static constexpr int maxToolPages = 100;

    explicit MCPClient(QObject *parent = nullptr);
    // Tests use a short inactivity time-out instead of waiting the production 25 s; the deadline
    // keeps its proportion to it.
    MCPClient(int timeoutMs, QObject *parent);
    ~MCPClient() override;

    QCoro::Task<> initialize(MCPServerConfig server);
    // Every page of the listing, in order.
    QCoro::Task<QList<QJsonObject>> listTools(MCPServerConfig server);
    // Never throws: a server that fails contributes nothing. Servers are contacted concurrently;
    // the bindings come back in server order, then tool order.
    QCoro::Task<QList<MCPToolBinding>> discoverBindings(QList<MCPServerConfig> servers);
    // `name` is the tool's remote name.
    QCoro::Task<QString> callTool(MCPServerConfig server, QString name, QJsonObject arguments);

    // "mcp_<server>_<tool>" lowercased, every other character than [a-z0-9_] made "_", at most 64.
    static QString modelToolName(const QString &serverName, const QString &toolName);
    // The bindings of one server's listed tools, in listed order.
    static QList<MCPToolBinding> bindingsFor(const MCPServerConfig &server, const QList<QJsonObject> &tools);
    // A "tools/call" result as text for the model.
    static QString flattenToolResult(const QJsonObject &result);
    // The JSON-RPC message of a reply body: a JSON object, or the first reply in an event stream.
    static std::optional<QJsonObject> decodeReplyBody(const QByteArray &body);
    // The "result" of a JSON-RPC reply; throws MCPError for an error reply or a missing result.
    static QJsonObject resultOf(const QJsonObject &reply);
    // The tools of one "tools/list" page; nothing when the page lists anything but objects.
    static std::optional<QList<QJsonObject>> toolsOfPage(const QJsonObject &result);
Q_SIGNALS:
    // A server's credentials changed: renewed tokens, or the mark that it must be connected again.
    void serverCredentialsChanged(const MCPServerConfig &server);

private:
    QCoro::Task<QList<MCPToolBinding>> discoverOne(MCPServerConfig server);
    // A request after the handshake; a forgotten session is started again and the request repeated once.
    QCoro::Task<QJsonObject> request(MCPServerConfig server, QString method, QJsonObject params);
    QCoro::Task<QJsonObject> rpc(const MCPServerConfig &server, const QString &method, const QJsonObject &params);
    QCoro::Task<> notification(const MCPServerConfig &server, const QString &method, const QJsonObject &params);
    // One exchange with the newest credentials, renewed once when they have expired or are refused.
    QCoro::Task<QJsonObject> authorizedPost(MCPServerConfig server, QJsonObject payload, bool allowEmpty);
    QCoro::Task<QJsonObject> post(const MCPServerConfig &server, const QJsonObject &payload, bool allowEmpty);

    MCPServerConfig withLatestCredentials(const MCPServerConfig &server) const;
    // The credentials after the renewal of `rejected`'s; one renewal per server at a time.
    QCoro::Task<MCPServerConfig> renewedCredentials(MCPServerConfig rejected);
    QCoro::Task<> renew(MCPServerConfig server);
    void forgetSession(const QString &endpoint, const QString &sessionID);

    HttpClient *m_http;
    int m_timeoutMs;
    int m_deadlineMs;
    MCPTokenRefresher m_refresher;
    qint64 m_nextID = 1;
    QHash<QString, QString> m_sessionIDs;
    QSet<QString> m_initializedEndpoints;
    // The protocol version each endpoint agreed to in its handshake.
    QHash<QString, QString> m_protocolVersions;
    // Renewed credentials by server id: they win over the (older) copy a caller passes in.
    QHash<QUuid, MCPServerConfig> m_latestCredentials;
    QHash<QUuid, std::shared_ptr<QCoro::Task<>>> m_renewals;
};
