#pragma once

#include "OAuthRecords.h"
#include "net/HttpReply.h"

#include <QCoroTask>
#include <QList>
#include <QPair>
#include <QUrl>

class HttpClient;

// The token endpoint of an authorization server. The code exchange and the refresh grant share the
// form encoding, the headers and the reading of the reply.
class OAuthTokenEndpoint
{
public:
    using Form = QList<QPair<QString, QString>>;

    // `http` belongs to the caller and outlives this object.
    OAuthTokenEndpoint(HttpClient *http, int timeoutMs);

    // The reply as it came; transport failures are thrown as URLError.
    QCoro::Task<HttpReply> post(QUrl endpoint, Form form) const;

    // The token reply of a successful exchange. MCPOAuthError tokenExchangeFailed for a non-2xx
    // status, tokenMissing for a reply without a non-empty access token.
    static OAuthTokenResponse tokenFrom(const HttpReply &reply);

    // "key=value&…" with every key and value percent-encoded, so "+", "&" and "=" inside survive.
    static QByteArray formEncoded(const Form &pairs);
    // What a failed reply said, short and on one line, for an error text.
    static QString failureDetail(const HttpReply &reply);

private:
    HttpClient *m_http;
    int m_timeoutMs;
};
