#pragma once

#include <QString>
#include <QUrl>

// The one rule for an MCP server's address, shared by the skills screen, the command line, the
// OAuth flow and the client: an absolute http(s) URL with a host.
class MCPEndpoint
{
public:
    // Why `text` cannot be an endpoint (Romanian, for the user), or an empty string when it can.
    // Surrounding white space is ignored; callers store the trimmed text.
    static QString validationError(const QString &text);
    // The same rule for an address already parsed, such as one a server's metadata names.
    static bool isHttpURL(const QUrl &url);
};
