#pragma once

#include "MCPServerConfig.h"
#include "conversation/ZenToolDefinition.h"

// A remote MCP tool bound to the tool definition the model sees.
struct MCPToolBinding
{
    MCPServerConfig server;
    // The tool's name as the server reported it; used verbatim in "tools/call".
    QString remoteName;
    ZenToolDefinition definition;
};
