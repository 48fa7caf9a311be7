#pragma once

#include "MCPServerConfig.h"
#include "MCPToolBinding.h"

#include <QCoroTask>
#include <QHash>
#include <QJsonObject>
#include <QObject>
#include <QSet>

#include <optional>

class HttpClient;

// Speaks JSON-RPC 2.0 over HTTP POST to MCP servers: one session id and one handshake per endpoint,
// tool discovery into model-facing bindings, and tool calls flattened to text.
class MCPClient : public QObject
{
    Q_OBJECT

public:
    static constexpr int defaultTimeoutMs = 25'000;
    // A server may keep a call open with progress events or keep-alive comments; no tool result is
    // worth holding a spoken turn for longer than this.
    static constexpr int defaultDeadlineMs = 60'000;

    explicit MCPClient(QObject *parent = nullptr);
    // Tests use a short inactivity time-out instead of waiting the production 25 s; the deadline
    // keeps its proportion to it.
    MCPClient(int timeoutMs, QObject *parent);
    ~MCPClient() override;

    QCoro::Task<> initialize(MCPServerConfig server);
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
    // The first JSON-RPC reply carried by an event-stream body (messages the server starts itself,
    // such as progress notifications, are passed over).
    static std::optional<QJsonObject> firstReplyInEventStream(const QByteArray &body);

private:
    QCoro::Task<QList<MCPToolBinding>> discoverOne(MCPServerConfig server);
    QCoro::Task<QJsonObject> rpc(const MCPServerConfig &server, const QString &method, const QJsonObject &params);
    QCoro::Task<> notification(const MCPServerConfig &server, const QString &method, const QJsonObject &params);
    QCoro::Task<QJsonObject> post(const MCPServerConfig &server, const QJsonObject &payload, bool allowEmpty);

    HttpClient *m_http;
    int m_timeoutMs;
    int m_deadlineMs;
    qint64 m_nextID = 1;
    QHash<QString, QString> m_sessionIDs;
    QSet<QString> m_initializedEndpoints;
};
