#include "MCPClient.h"

#include "MCPError.h"
#include "net/HttpClient.h"

// Placeholder until the MCP protocol lands: no server is contacted and calls fail plainly.

MCPClient::MCPClient(QObject *parent)
    : QObject(parent)
    , m_http(new HttpClient(this))
{
}

MCPClient::~MCPClient() = default;

QCoro::Task<> MCPClient::initialize(MCPServerConfig)
{
    throw MCPError(MCPError::remote, QStringLiteral("clientul MCP nu este disponibil încă"));
    co_return;
}

QCoro::Task<QList<QJsonObject>> MCPClient::listTools(MCPServerConfig server)
{
    co_await initialize(server);
    co_return {};
}

QCoro::Task<QList<MCPToolBinding>> MCPClient::discoverBindings(QList<MCPServerConfig>)
{
    co_return {};
}

QCoro::Task<QString> MCPClient::callTool(MCPServerConfig server, QString, QJsonObject)
{
    co_await initialize(server);
    co_return {};
}
