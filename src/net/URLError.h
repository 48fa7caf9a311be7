#pragma once

#include "KeloError.h"

#include <QNetworkReply>

// Transport-level failures, named after the platform URL error codes the rest of the system expects.
class URLError : public KeloError
{
public:
    enum Code {
        badURL,
        badServerResponse,
        cannotDecodeContentData,
        timedOut,
        cannotFindHost,
        cannotConnectToHost,
        networkConnectionLost,
        notConnectedToInternet,
        secureConnectionFailed,
        cancelled,
        dataLengthExceedsMaximum,
        httpTooManyRedirects,
        // A redirect from https to plain http.
        appTransportSecurityRequiresSecureConnection,
        unknown,
    };

    explicit URLError(Code code, QString detail = {});

    Code code() const { return m_code; }
    QString detail() const { return m_detail; }
    QString description() const override;

    static URLError fromNetworkError(QNetworkReply::NetworkError error, const QString &detail = {});

private:
    Code m_code;
    QString m_detail;
};
