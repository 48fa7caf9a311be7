#include "FakeHttpServer.h"

#include <QHostAddress>
#include <QHttpServerRequest>
#include <QHttpServerResponder>
#include <QMetaEnum>
#include <QPointer>
#include <QTcpSocket>
#include <QTimer>

using Reply = FakeHttpServer::Reply;

QByteArray FakeHttpServer::Request::header(QByteArrayView name) const
{
    for (const auto &[key, value] : headers)
        if (key.compare(name, Qt::CaseInsensitive) == 0)
            return value;
    return {};
}

Reply Reply::eventStream(const QList<QByteArray> &dataLines, int status)
{
    QByteArray body;
    for (const QByteArray &line : dataLines)
        body += "data: " + line + "\n\n";
    return text(body, status, "text/event-stream");
}

Reply Reply::drip(const QByteArray &body, int intervalMs, const QByteArray &contentType)
{
    Reply reply { 200, { { "Content-Type", contentType } }, {}, {}, 0, intervalMs };
    for (char byte : body)
        reply.chunks.append(QByteArray(1, byte));
    return reply;
}

FakeHttpServer::FakeHttpServer(QObject *parent)
    : QObject(parent)
{
    m_server.setMissingHandler([this](const QHttpServerRequest &request, QHttpServerResponder &&responder) {
        const auto method = QMetaEnum::fromType<QHttpServerRequest::Method>().valueToKey(int(request.method()));
        m_requests.append(
            { QByteArray(method).toUpper(), request.url().path(), request.query(), request.headers(), request.body() });
        const Request &recorded = m_requests.last();
        const QString key = recorded.method + ' ' + recorded.path;
        const auto match = m_routes.find(key);
        Reply reply = Reply::text("no route for " + key.toUtf8(), 404);
        if (match != m_routes.end() && !match->second.queue.isEmpty())
            reply = match->second.queue.takeFirst();
        else if (match != m_routes.end())
            reply = match->second.handler ? match->second.handler(recorded) : Reply::text("route exhausted", 500);
        answer(std::make_shared<QHttpServerResponder>(std::move(responder)), reply);
    });
    m_port = m_server.listen(QHostAddress::LocalHost, 0);
    Q_ASSERT(m_port != 0);
}

QList<FakeHttpServer::Request> FakeHttpServer::requests(const QString &path) const
{
    QList<Request> matching;
    for (const Request &request : m_requests)
        if (request.path == path)
            matching.append(request);
    return matching;
}

void FakeHttpServer::answer(std::shared_ptr<QHttpServerResponder> responder, const Reply &reply)
{
    if (reply.neverAnswer)
        m_heldResponders.append(responder);
    else if (reply.delayMs > 0) {
        // The responder keeps a raw socket pointer: a client that gives up meanwhile must be noticed here.
        const QPointer<QTcpSocket> socket(responder->socket());
        QTimer::singleShot(reply.delayMs, this, [this, socket, responder, reply] {
            if (socket)
                send(responder, reply);
        });
    } else
        send(responder, reply);
}

void FakeHttpServer::send(std::shared_ptr<QHttpServerResponder> responder, const Reply &reply)
{
    // A client that gave up takes its socket with it: what was still to be sent is dropped.
    const QPointer<QTcpSocket> socket(responder->socket());
    if (!socket)
        return;
    responder->writeStatusLine(static_cast<QHttpServerResponder::StatusCode>(reply.status));
    for (const auto &[key, value] : reply.headers)
        responder->writeHeader(key, value);
    if (reply.chunks.isEmpty()) {
        responder->writeHeader("Content-Length", QByteArray::number(reply.body.size()));
        responder->writeBody(reply.body);
        return;
    }
    responder->writeHeader("Transfer-Encoding", "chunked");
    if (reply.holdOpenAfterChunks)
        m_heldResponders.append(responder);
    // The empty chunk that ends the body is sent only when the body ends.
    QList<QByteArray> chunks = reply.chunks;
    if (!reply.holdOpenAfterChunks && !reply.dropAfterChunks)
        chunks.append(QByteArray());
    for (qsizetype i = 0; i < chunks.size(); ++i) {
        const QByteArray framed = QByteArray::number(chunks[i].size(), 16) + "\r\n" + chunks[i] + "\r\n";
        // Precise: coarse timers may fire 5 % early or late and swap neighbouring chunks.
        QTimer::singleShot(reply.chunkIntervalMs * i, Qt::PreciseTimer, this, [responder, socket, framed] {
            if (socket && socket->state() == QAbstractSocket::ConnectedState)
                responder->writeBody(framed);
        });
    }
    if (reply.dropAfterChunks) {
        QTimer::singleShot(reply.chunkIntervalMs * reply.chunks.size(), Qt::PreciseTimer, this, [socket] {
            if (socket)
                socket->disconnectFromHost();
        });
    }
}
