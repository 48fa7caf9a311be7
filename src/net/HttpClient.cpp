#include "HttpClient.h"

#include "URLError.h"

#include <QCoroNetworkReply>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QPointer>

namespace {

// Errors Qt derives from an HTTP status: the exchange itself worked, so the caller gets the reply.
bool isHttpStatusError(QNetworkReply::NetworkError error)
{
    // Qt reports an HTTP 400 as ProtocolInvalidOperationError.
    return (error >= QNetworkReply::ContentAccessDenied && error <= QNetworkReply::UnknownContentError)
        || (error >= QNetworkReply::InternalServerError && error <= QNetworkReply::UnknownServerError)
        || error == QNetworkReply::ProtocolInvalidOperationError;
}

struct Download
{
    QByteArray body;
    bool truncated = false;
    bool tooLarge = false;
    bool endedEarly = false;
};

} // namespace

HttpClient::HttpClient(QObject *parent)
    : QObject(parent)
    , m_manager(new QNetworkAccessManager(this))
{
}

QCoro::Task<HttpReply> HttpClient::get(QNetworkRequest request, Options options)
{
    return send("GET", std::move(request), {}, std::move(options));
}

QCoro::Task<HttpReply> HttpClient::post(QNetworkRequest request, QByteArray body, Options options)
{
    return send("POST", std::move(request), std::move(body), std::move(options));
}

QCoro::Task<HttpReply> HttpClient::send(QByteArray verb, QNetworkRequest request, QByteArray body, Options options)
{
    const QUrl url = request.url();
    if (!url.isValid() || url.scheme().isEmpty() || url.host().isEmpty())
        throw URLError(URLError::badURL, url.toString());

    request.setTransferTimeout(options.timeoutMs);
    QNetworkReply *reply = m_manager->sendCustomRequest(request, verb, body);

    auto download = std::make_shared<Download>();
    QObject::connect(reply, &QNetworkReply::readyRead, reply,
                     [reply, download, limit = options.maxBodyBytes, cut = options.truncateAtLimit,
                      isComplete = options.isComplete] {
        if (download->endedEarly)
            return;
        download->body += reply->readAll();
        if (download->body.size() > limit) {
            download->truncated = true;
            download->tooLarge = !cut;
            download->body.truncate(limit);
            download->endedEarly = true;
            reply->abort();
        } else if (isComplete && isComplete(download->body)) {
            download->endedEarly = true;
            reply->abort();
        }
    });

    co_await reply;
    reply->deleteLater();
    if (!download->endedEarly)
        download->body += reply->readAll();

    if (download->tooLarge)
        throw URLError(URLError::dataLengthExceedsMaximum);

    const QVariant statusAttribute = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute);
    const QNetworkReply::NetworkError error = reply->error();
    const bool transportFailed = error != QNetworkReply::NoError && !isHttpStatusError(error) && !download->endedEarly;
    if (transportFailed) {
        // Qt reports its own transfer time-out as a cancellation; we never cancel otherwise.
        if (error == QNetworkReply::OperationCanceledError)
            throw URLError(URLError::timedOut, reply->errorString());
        throw URLError::fromNetworkError(error, reply->errorString());
    }

    HttpReply result;
    result.status = statusAttribute.isValid() ? statusAttribute.toInt() : 0;
    result.body = std::move(download->body);
    result.truncated = download->truncated;
    result.headers = reply->rawHeaderPairs();
    co_return result;
}
