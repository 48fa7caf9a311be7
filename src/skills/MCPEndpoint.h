#pragma once

#include <QString>

namespace MCPEndpoint {

// Why the text cannot be an MCP server's endpoint (Romanian, for the user), or an empty string when
// it can: an absolute http(s) URL with a host. Surrounding white space is ignored.
QString validationError(const QString &text);

} // namespace MCPEndpoint
