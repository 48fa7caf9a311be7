#include "MCPServerListEditor.h"

#include <QUrl>
#include <QUuid>

QList<MCPServerConfig> MCPServerListEditor::withGalleryConnection(QList<MCPServerConfig> servers,
    const MCPGalleryItem &item, const QString &token, const QString &authLabel, const MCPOAuthGrant &grant)
{
    const std::optional<QString> sourceID = item.id.isEmpty() ? std::nullopt : std::optional<QString>(item.id);
    const MCPServerConfig server { QUuid::createUuid(), item.name, item.endpoint, token, true, sourceID, authLabel,
        grant, false };
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

MCPServerConfig MCPServerListEditor::manualServer(const QString &name, const QString &endpoint, const QString &token)
{
    const QString trimmedEndpoint = endpoint.trimmed();
    QString displayName = name.trimmed();
    // Without a name the host is the most recognisable label.
    if (displayName.isEmpty())
        displayName = QUrl(trimmedEndpoint).host();
    if (displayName.isEmpty())
        displayName = trimmedEndpoint;

    MCPServerConfig server;
    server.id = QUuid::createUuid();
    server.name = displayName;
    server.endpoint = trimmedEndpoint;
    server.bearerToken = token.trimmed();
    server.enabled = true;
    server.authLabel = manualAuthLabel(token);
    return server;
}

QString MCPServerListEditor::manualAuthLabel(const QString &token)
{
    return token.trimmed().isEmpty() ? QStringLiteral("Fără auth") : QStringLiteral("Token");
}

QList<MCPServerConfig> MCPServerListEditor::withEnabled(
    QList<MCPServerConfig> servers, const QString &serverID, bool enabled)
{
    for (MCPServerConfig &server : servers) {
        if (server.idString().compare(serverID, Qt::CaseInsensitive) == 0)
            server.enabled = enabled;
    }
    return servers;
}

QList<MCPServerConfig> MCPServerListEditor::without(QList<MCPServerConfig> servers, const QString &serverID)
{
    servers.removeIf([&serverID](const MCPServerConfig &server) {
        return server.idString().compare(serverID, Qt::CaseInsensitive) == 0;
    });
    return servers;
}

const MCPServerConfig *MCPServerListEditor::find(const QList<MCPServerConfig> &servers, const QString &serverID)
{
    for (const MCPServerConfig &server : servers) {
        if (server.idString().compare(serverID, Qt::CaseInsensitive) == 0)
            return &server;
    }
    return nullptr;
}
