#pragma once

#include <QByteArray>
#include <QList>
#include <QPair>

// One finished HTTP exchange. A status of 0 means the answer was not an HTTP response at all.
struct HttpReply
{
    int status = 0;
    QByteArray body;
    QList<QPair<QByteArray, QByteArray>> headers;
    // The body was cut at the caller's byte limit (the rest was never downloaded).
    bool truncated = false;
    // The body went to the caller's onChunk as it arrived; `body` stays empty.
    bool streamed = false;

    bool isHttp() const { return status > 0; }
    bool isSuccess() const { return status >= 200 && status <= 299; }

    // Header lookup is case-insensitive, as HTTP wants; an absent header gives an empty array.
    QByteArray header(QByteArrayView name) const
    {
        for (const auto &[key, value] : headers) {
            if (key.compare(name, Qt::CaseInsensitive) == 0)
                return value;
        }
        return {};
    }
};
