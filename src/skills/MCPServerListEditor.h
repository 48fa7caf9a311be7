#pragma once

#include "MCPGalleryItem.h"
#include "MCPServerConfig.h"

#include <QList>
#include <QString>

// Every edit of the configured MCP servers (skills screen, command line, OAuth connections), as pure
// functions over the list: the caller stores the result in the settings, which persist it.
class MCPServerListEditor
{
public:
    // A new server for the gallery item; an existing server from the same item (for an item without
    // an id: a manually added server with the same endpoint) is replaced in place, keeping its
    // position, so a service is never listed twice.
    static QList<MCPServerConfig> withGalleryConnection(QList<MCPServerConfig> servers, const MCPGalleryItem &item,
        const QString &token, const QString &authLabel, const MCPOAuthGrant &grant = {});
    // A server added by hand: enabled, without a gallery source. The endpoint must pass
    // MCPEndpoint::validationError().
    static MCPServerConfig manualServer(const QString &name, const QString &endpoint, const QString &token);
    static QString manualAuthLabel(const QString &token);

    static QList<MCPServerConfig> withEnabled(QList<MCPServerConfig> servers, const QString &serverID, bool enabled);
    static QList<MCPServerConfig> without(QList<MCPServerConfig> servers, const QString &serverID);
    static const MCPServerConfig *find(const QList<MCPServerConfig> &servers, const QString &serverID);
};
