#pragma once

#include "skills/MCPToolBinding.h"

#include <QCoroTask>
#include <QDateTime>
#include <QObject>

#include <optional>

class AppSettings;
class MCPClient;

// The tool bindings of the enabled MCP servers, discovered once and reused for ten minutes.
class MCPToolCache : public QObject
{
    Q_OBJECT

public:
    MCPToolCache(AppSettings *settings, MCPClient *mcp, QObject *parent = nullptr);

    QCoro::Task<QList<MCPToolBinding>> currentBindings();
    // The next call discovers the tools again.
    void invalidate();
    // One line per tool of the server ("• name: description"), or why they could not be listed.
    QCoro::Task<QString> describeTools(MCPServerConfig server);

Q_SIGNALS:
    // Discovery runs (true) or ended (false); only when there is a server to ask.
    void syncing(bool running);

private:
    QList<MCPServerConfig> enabledServers() const;
    QList<MCPToolBinding> bindingsOfEnabledServers(const QList<MCPToolBinding> &bindings) const;

    AppSettings *m_settings;
    MCPClient *m_mcp;
    QList<MCPToolBinding> m_cached;
    std::optional<QDateTime> m_refreshedAt;
    // Bumped whenever the cache stops being valid, so a discovery that was running then does not
    // store what it found.
    quint64 m_generation = 0;
};
