#include "HttpClient.h"

#include "HeaderValues.h"
#include "HttpRedirect.h"
#include "URLError.h"

#include <QCoroNetworkReply>
#include <QDeadlineTimer>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QTimer>

#include <exception>
#include <optional>

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
    qint64 received = 0;
    bool truncated = false;
    bool tooLarge = false;
    bool endedEarly = false;
    // Decided from the head, when the first bytes of the body arrive.
    std::optional<bool> streaming;
    std::exception_ptr chunkError;
};

HttpReply headOf(QNetworkReply *reply)
{
    HttpReply head;
    const QVariant status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute);
    head.status = status.isValid() ? status.toInt() : 0;
    head.headers = reply->rawHeaderPairs();
    return head;
}

bool deliversChunk(const HttpClient::Options &options, const QByteArray &chunk, Download &download)
{
    if (chunk.isEmpty())
        return false;
    // Thrown into Qt's signal delivery it would end the program; the awaiter gets it instead.
    try {
        return options.onChunk(chunk);
    } catch (...) {
        download.chunkError = std::current_exception();
        return true;
    }
}

// What arrived since the last call: kept in the body, or handed on when the answer is streamed.
void receive(QNetworkReply *reply, Download &download, const HttpClient::Options &options)
{
    // An aborted reply is closed; reading it only draws a warning.
    if (download.endedEarly || !reply->isOpen())
        return;
    if (!download.streaming) {
        const HttpReply head = headOf(reply);
        download.streaming = options.onChunk && options.streamsBody && head.isSuccess() && options.streamsBody(head);
    }
    QByteArray chunk = reply->readAll();
    const qint64 room = options.maxBodyBytes - download.received;
    const bool overflows = chunk.size() > room;
    if (overflows)
        chunk.truncate(room);
    download.received += chunk.size();

    bool ends = false;
    if (*download.streaming) {
        ends = deliversChunk(options, chunk, download);
    } else {
        download.body += chunk;
        ends = !overflows && options.isComplete && options.isComplete(download.body);
    }
    if (overflows) {
        download.truncated = true;
        download.tooLarge = !options.truncateAtLimit;
        ends = true;
    }
    if (ends) {
        download.endedEarly = true;
        reply->abort();
    }
}

QDeadlineTimer deadlineFor(const HttpClient::Options &options)
{
    const int deadlineMs = options.deadlineMs.value_or(2 * options.timeoutMs);
    return deadlineMs > 0 ? QDeadlineTimer(deadlineMs) : QDeadlineTimer(QDeadlineTimer::Forever);
}

void checkBeforeSending(const QNetworkRequest &request)
{
    const QUrl url = request.url();
    if (!url.isValid() || url.scheme().isEmpty() || url.host().isEmpty())
        throw URLError(URLError::badURL, url.toString());
    HeaderValues::checkAll(request);
}

// Ends the reply when the overall deadline passes; Qt then reports a cancellation, as for its own
// inactivity time-out.
void abortAtDeadline(QNetworkReply *reply, QDeadlineTimer deadline)
{
    if (deadline.isForever())
        return;
    auto *timer = new QTimer(reply);
    timer->setSingleShot(true);
    QObject::connect(timer, &QTimer::timeout, reply, &QNetworkReply::abort);
    timer->start(std::chrono::milliseconds(std::max<qint64>(0, deadline.remainingTime())));
}

// One request and its answer, without following redirects.
QCoro::Task<HttpReply> exchange(QNetworkAccessManager *manager, const HttpRedirect::Hop &hop,
    const HttpClient::Options &options, QDeadlineTimer deadline)
{
    QNetworkRequest request = hop.request;
    request.setTransferTimeout(options.timeoutMs);
    request.setAttribute(QNetworkRequest::RedirectPolicyAttribute, QNetworkRequest::ManualRedirectPolicy);
    QNetworkReply *reply = manager->sendCustomRequest(request, hop.verb, hop.body);
    abortAtDeadline(reply, deadline);

    auto download = std::make_shared<Download>();
    QObject::connect(
        reply, &QNetworkReply::readyRead, reply, [reply, download, options] { receive(reply, *download, options); });

    co_await reply;
    reply->deleteLater();
    receive(reply, *download, options);

    if (download->chunkError)
        std::rethrow_exception(download->chunkError);
    if (download->tooLarge)
        throw URLError(URLError::dataLengthExceedsMaximum);

    const QNetworkReply::NetworkError error = reply->error();
    const bool transportFailed = error != QNetworkReply::NoError && !isHttpStatusError(error) && !download->endedEarly;
    if (transportFailed) {
        // Qt reports its own transfer time-out as a cancellation, and the deadline aborts; we never
        // cancel otherwise.
        if (error == QNetworkReply::OperationCanceledError)
            throw URLError(URLError::timedOut, reply->errorString());
        throw URLError::fromNetworkError(error, reply->errorString());
    }

    HttpReply result = headOf(reply);
    result.body = std::move(download->body);
    result.truncated = download->truncated;
    result.streamed = download->streaming.value_or(false);
    co_return result;
}

} // namespace

HttpClient::HttpClient(QObject *parent)
    : QObject(parent)
    , m_manager(new QNetworkAccessManager(this))
{ }

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
    const QDeadlineTimer deadline = deadlineFor(options);
    HttpRedirect::Hop hop { std::move(verb), std::move(request), std::move(body) };
    for (int redirects = 0;; ++redirects) {
        if (m_closed)
            throw URLError(URLError::cancelled);
        checkBeforeSending(hop.request);
        if (options.beforeEachHop)
            co_await options.beforeEachHop(hop.request.url());
        if (deadline.hasExpired())
            throw URLError(URLError::timedOut);

        HttpReply reply = co_await exchange(m_manager, hop, options, deadline);
        std::optional<HttpRedirect::Hop> next = HttpRedirect::next(hop, reply.status, reply.header("Location"));
        if (!next)
            co_return reply;
        if (redirects == HttpRedirect::maxRedirects)
            throw URLError(URLError::httpTooManyRedirects);
        hop = std::move(*next);
    }
}

void HttpClient::close()
{
    m_closed = true;
    // Replies are the manager's children; aborting one emits finished() before abort() returns.
    const QList<QNetworkReply *> replies = m_manager->findChildren<QNetworkReply *>();
    for (QNetworkReply *reply : replies)
        reply->abort();
}

void HttpClient::closeAllUnder(QObject *owner)
{
    const QList<HttpClient *> clients = owner->findChildren<HttpClient *>();
    for (HttpClient *client : clients)
        client->close();
}
