#include "MCPEndpoint.h"

#include <QUrl>

namespace MCPEndpoint {

QString validationError(const QString &text)
{
    const QString trimmed = text.trimmed();
    const QUrl url(trimmed, QUrl::StrictMode);
    const QString scheme = url.scheme().toLower();
    // StrictMode still accepts inner spaces in a path; an endpoint typed with one is a typo.
    const bool usable = url.isValid() && (scheme == u"http" || scheme == u"https") && !url.host().isEmpty()
        && !trimmed.contains(QLatin1Char(' '));
    if (usable)
        return {};
    return QStringLiteral("Endpoint-ul trebuie să fie un URL complet http:// sau https://.");
}

} // namespace MCPEndpoint
