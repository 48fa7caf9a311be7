#include "HttpRedirect.h"

#include "URLError.h"

#include <QUrl>

namespace {

// Headers that prove who the caller is: they stay with the origin they were meant for.
const QList<QByteArray> credentialHeaders { "Authorization", "Proxy-Authorization", "Cookie",
    "Ocp-Apim-Subscription-Key", "xi-api-key" };

bool isRedirectStatus(int status)
{
    return status == 301 || status == 302 || status == 303 || status == 307 || status == 308;
}

bool becomesGet(int status, const QByteArray &verb)
{
    if (status == 303)
        return verb != "HEAD";
    return (status == 301 || status == 302) && verb == "POST";
}

bool sameOrigin(const QUrl &a, const QUrl &b)
{
    return a.scheme().compare(b.scheme(), Qt::CaseInsensitive) == 0
        && a.host().compare(b.host(), Qt::CaseInsensitive) == 0 && a.port() == b.port();
}

QUrl target(const QUrl &current, const QByteArray &location)
{
    const QUrl resolved = current.resolved(QUrl(QString::fromUtf8(location.trimmed())));
    const QString scheme = resolved.scheme().toLower();
    if (!resolved.isValid() || resolved.host().isEmpty()
        || (scheme != QLatin1String("http") && scheme != QLatin1String("https")))
        throw URLError(URLError::badURL, QString::fromUtf8(location));
    if (current.scheme().toLower() == QLatin1String("https") && scheme == QLatin1String("http"))
        throw URLError(URLError::appTransportSecurityRequiresSecureConnection, resolved.toString());
    return resolved;
}

} // namespace

std::optional<HttpRedirect::Hop> HttpRedirect::next(const Hop &from, int status, const QByteArray &location)
{
    if (!isRedirectStatus(status) || location.trimmed().isEmpty())
        return std::nullopt;

    const QUrl url = target(from.request.url(), location);
    Hop hop = from;
    hop.request.setUrl(url);
    if (becomesGet(status, from.verb)) {
        hop.verb = "GET";
        hop.body.clear();
        hop.request.setHeader(QNetworkRequest::ContentTypeHeader, QVariant());
        hop.request.setRawHeader("Content-Type", QByteArray());
    }
    if (!sameOrigin(from.request.url(), url)) {
        for (const QByteArray &name : credentialHeaders)
            hop.request.setRawHeader(name, QByteArray());
    }
    return hop;
}
