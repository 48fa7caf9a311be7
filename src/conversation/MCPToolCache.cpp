#include "MCPToolCache.h"

#include "net/KeloError.h"
#include "settings/AppSettings.h"
#include "skills/MCPClient.h"

#include <QSet>

namespace {
constexpr qint64 cacheSeconds = 600;
}

MCPToolCache::MCPToolCache(AppSettings *settings, MCPClient *mcp, QObject *parent)
    : QObject(parent)
    , m_settings(settings)
    , m_mcp(mcp)
{
    // The next turn must offer the servers as they are now, not the cached tools.
    connect(m_settings, &AppSettings::mcpServersChanged, this, &MCPToolCache::invalidate);
}

QCoro::Task<QList<MCPToolBinding>> MCPToolCache::currentBindings()
{
    const QDateTime now = QDateTime::currentDateTimeUtc();
    if (m_refreshedAt && m_refreshedAt->secsTo(now) < cacheSeconds)
        co_return QList<MCPToolBinding>(m_cached);

    const QList<MCPServerConfig> enabled = enabledServers();
    if (enabled.isEmpty())
        co_return QList<MCPToolBinding>();

    Q_EMIT syncing(true);
    const quint64 generation = m_generation;
    QList<MCPToolBinding> discovered = co_await m_mcp->discoverBindings(enabled);
    Q_EMIT syncing(false);
    if (generation != m_generation) {
        // The server list changed while we asked: keep only what is still enabled, and cache nothing.
        co_return bindingsOfEnabledServers(discovered);
    }
    m_cached = discovered;
    m_refreshedAt = QDateTime::currentDateTimeUtc();
    co_return discovered;
}

void MCPToolCache::invalidate()
{
    ++m_generation;
    m_refreshedAt.reset();
    m_cached.clear();
}

QList<MCPServerConfig> MCPToolCache::enabledServers() const
{
    QList<MCPServerConfig> enabled;
    for (const MCPServerConfig &server : m_settings->mcpServers()) {
        if (server.enabled)
            enabled.append(server);
    }
    return enabled;
}

QList<MCPToolBinding> MCPToolCache::bindingsOfEnabledServers(const QList<MCPToolBinding> &bindings) const
{
    // By id: a server whose token was renewed meanwhile is still the same server.
    QSet<QUuid> enabled;
    for (const MCPServerConfig &server : enabledServers())
        enabled.insert(server.id);
    QList<MCPToolBinding> kept;
    for (const MCPToolBinding &binding : bindings) {
        if (enabled.contains(binding.server.id))
            kept.append(binding);
    }
    return kept;
}

QCoro::Task<QString> MCPToolCache::describeTools(MCPServerConfig server)
{
    try {
        const QList<QJsonObject> tools = co_await m_mcp->listTools(server);
        if (tools.isEmpty())
            co_return QStringLiteral("Serverul %1 nu oferă instrumente.").arg(server.name);
        QStringList lines;
        for (const QJsonObject &tool : tools) {
            const QString name = tool.value(QLatin1String("name")).toString();
            if (name.isEmpty())
                continue;
            const QString description = tool.value(QLatin1String("description")).toString().trimmed();
            lines.append(description.isEmpty() ? QStringLiteral("• ") + name
                                               : QStringLiteral("• %1: %2").arg(name, description));
        }
        co_return lines.join(QLatin1Char('\n'));
    } catch (...) {
        co_return describeException(std::current_exception());
    }
}
