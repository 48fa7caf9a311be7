// The stored MCP server list: decoded strictly, and what was decoded survives being stored again.
#include "FuzzEnvironment.h"
#include "skills/MCPServerConfig.h"

#include <QJsonDocument>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const auto servers = MCPServerConfig::listFromJson(FuzzEnvironment::bytes(data, size));
    if (!servers)
        return 0;
    const QByteArray stored = QJsonDocument(MCPServerConfig::listToJson(*servers)).toJson(QJsonDocument::Compact);
    if (MCPServerConfig::listFromJson(stored) != servers)
        FuzzEnvironment::fail("a server list changes when stored again");
    return 0;
}
