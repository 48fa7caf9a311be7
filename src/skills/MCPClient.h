#pragma once

#include "MCPServerConfig.h"
#include "MCPToolBinding.h"

#include <QCoroTask>
#include <QHash>
#include <QJsonObject>
#include <QObject>
#include <QSet>

class HttpClient;

// Speaks JSON-RPC 2.0 over HTTP POST to MCP servers: one session id and one handshake per endpoint,
// tool discovery into model-facing bindings, and tool calls flattened to text.
class MCPClient : public QObject
{
    Q_OBJECT

public:
    explicit MCPClient(QObject *parent = nullptr);
    ~MCPClient() override;

    QCoro::Task<> initialize(MCPServerConfig server);
    QCoro::Task<QList<QJsonObject>> listTools(MCPServerConfig server);
    // Never throws: a server that fails contributes nothing.
    QCoro::Task<QList<MCPToolBinding>> discoverBindings(QList<MCPServerConfig> servers);
    // `name` is the tool's remote name.
    QCoro::Task<QString> callTool(MCPServerConfig server, QString name, QJsonObject arguments);

private:
    HttpClient *m_http;
    qint64 m_nextID = 1;
    QHash<QString, QString> m_sessionIDs;
    QSet<QString> m_initializedEndpoints;
};
