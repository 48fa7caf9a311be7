#include "HttpStatus.h"

#include <QHash>

QString httpStatusPhrase(int status)
{
    static const QHash<int, QString> phrases = {
        { 100, QStringLiteral("continue") },
        { 101, QStringLiteral("switching protocols") },
        { 200, QStringLiteral("no error") },
        { 201, QStringLiteral("created") },
        { 202, QStringLiteral("accepted") },
        { 204, QStringLiteral("no content") },
        { 301, QStringLiteral("moved permanently") },
        { 302, QStringLiteral("found") },
        { 304, QStringLiteral("not modified") },
        { 400, QStringLiteral("bad request") },
        { 401, QStringLiteral("unauthorized") },
        { 402, QStringLiteral("payment required") },
        { 403, QStringLiteral("forbidden") },
        { 404, QStringLiteral("not found") },
        { 405, QStringLiteral("method not allowed") },
        { 406, QStringLiteral("unacceptable") },
        { 408, QStringLiteral("request timed out") },
        { 409, QStringLiteral("conflict") },
        { 410, QStringLiteral("no longer exists") },
        { 413, QStringLiteral("request too large") },
        { 415, QStringLiteral("unsupported media type") },
        { 422, QStringLiteral("unprocessable entity") },
        { 429, QStringLiteral("too many requests") },
        { 500, QStringLiteral("internal server error") },
        { 501, QStringLiteral("unimplemented") },
        { 502, QStringLiteral("bad gateway") },
        { 503, QStringLiteral("service unavailable") },
        { 504, QStringLiteral("gateway timed out") },
    };
    if (const auto it = phrases.constFind(status); it != phrases.cend())
        return *it;
    if (status >= 500 && status < 600)
        return QStringLiteral("server error");
    if (status >= 400 && status < 500)
        return QStringLiteral("client error");
    if (status >= 300 && status < 400)
        return QStringLiteral("redirected");
    if (status >= 200 && status < 300)
        return QStringLiteral("success");
    return QStringLiteral("informational");
}
