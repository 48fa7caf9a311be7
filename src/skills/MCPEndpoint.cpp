#include "MCPEndpoint.h"

namespace {

bool hasHttpScheme(const QUrl &url)
{
    const QString scheme = url.scheme().toLower();
    return scheme == QLatin1String("http") || scheme == QLatin1String("https");
}

} // namespace

QString MCPEndpoint::validationError(const QString &text)
{
    const QString trimmed = text.trimmed();
    if (trimmed.isEmpty())
        return QStringLiteral("Introdu adresa serverului MCP.");
    const QUrl url(trimmed, QUrl::StrictMode);
    // StrictMode still accepts inner spaces in a path; an endpoint typed with one is a typo.
    if (isHttpURL(url) && !trimmed.contains(QLatin1Char(' ')))
        return {};
    if (url.isValid() && hasHttpScheme(url) && url.host().isEmpty())
        return QStringLiteral("Adresa serverului MCP nu are gazdă (de exemplu https://mcp.exemplu.ro/mcp).");
    return QStringLiteral("Adresa serverului MCP trebuie să fie un URL complet, care începe cu https:// sau http://.");
}

bool MCPEndpoint::isHttpURL(const QUrl &url)
{
    return url.isValid() && hasHttpScheme(url) && !url.host().isEmpty();
}
