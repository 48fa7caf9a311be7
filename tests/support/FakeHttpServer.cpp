#include "FakeHttpServer.h"

#include <QHostAddress>
#include <QHttpServerRequest>
#include <QHttpServerResponder>
#include <QJsonDocument>
#include <QMetaEnum>
#include <QPointer>
#include <QTcpSocket>
#include <QTimer>

namespace {

QByteArray methodName(QHttpServerRequest::Method method)
{
    return QByteArray(QMetaEnum::fromType<QHttpServerRequest::Method>().valueToKey(int(method))).toUpper();
}

} // namespace

QByteArray FakeHttpServer::Request::header(QByteArrayView name) const
{
    for (const auto &[key, value] : headers) {
        if (key.compare(name, Qt::CaseInsensitive) == 0)
            return value;
    }
    return {};
}

QJsonObject FakeHttpServer::Request::json() const
{
    return QJsonDocument::fromJson(body).object();
}

FakeHttpServer::Reply FakeHttpServer::Reply::json(const QJsonObject &object, int status)
{
    return text(QJsonDocument(object).toJson(QJsonDocument::Compact), status, "application/json");
}

FakeHttpServer::Reply FakeHttpServer::Reply::json(const QJsonArray &array, int status)
{
    return text(QJsonDocument(array).toJson(QJsonDocument::Compact), status, "application/json");
}

FakeHttpServer::Reply FakeHttpServer::Reply::text(const QByteArray &body, int status, const QByteArray &contentType)
{
    Reply reply;
    reply.status = status;
    reply.body = body;
    reply.headers.append(qMakePair(QByteArray("Content-Type"), contentType));
    return reply;
}

FakeHttpServer::Reply FakeHttpServer::Reply::eventStream(const QList<QByteArray> &dataLines, int status)
{
    QByteArray body;
    for (const QByteArray &line : dataLines)
        body += "data: " + line + "\n\n";
    return text(body, status, "text/event-stream");
}

FakeHttpServer::Reply FakeHttpServer::Reply::eventStreamChunks(const QList<QByteArray> &chunks, int intervalMs)
{
    Reply reply = text({}, 200, "text/event-stream");
    reply.chunks = chunks;
    reply.chunkIntervalMs = intervalMs;
    return reply;
}

FakeHttpServer::Reply FakeHttpServer::Reply::drip(const QByteArray &body, int intervalMs, const QByteArray &contentType)
{
    Reply reply = text({}, 200, contentType);
    for (char byte : body)
        reply.chunks.append(QByteArray(1, byte));
    reply.chunkIntervalMs = intervalMs;
    return reply;
}

FakeHttpServer::Reply FakeHttpServer::Reply::redirect(int status, const QByteArray &location)
{
    Reply reply = text({}, status);
    reply.headers.append(qMakePair(QByteArray("Location"), location));
    return reply;
}

FakeHttpServer::FakeHttpServer(QObject *parent)
    : QObject(parent)
{
    m_server.setMissingHandler([this](const QHttpServerRequest &request, QHttpServerResponder &&responder) {
        Request recorded { methodName(request.method()), request.url().path(), request.query(), request.headers(),
            request.body() };
        m_requests.append(recorded);
        auto held = std::make_shared<QHttpServerResponder>(std::move(responder));

        Route *match = route(recorded.method, recorded.path);
        if (!match) {
            answer(held, Reply::text("no route for " + recorded.method + ' ' + recorded.path.toUtf8(), 404));
            return;
        }
        if (!match->queue.isEmpty()) {
            answer(held, match->queue.takeFirst());
            return;
        }
        if (match->handler) {
            answer(held, match->handler(recorded));
            return;
        }
        answer(held, Reply::text("route exhausted", 500));
    });
    m_port = m_server.listen(QHostAddress::LocalHost, 0);
    Q_ASSERT(m_port != 0);
}

FakeHttpServer::~FakeHttpServer() = default;

QString FakeHttpServer::baseUrl() const
{
    return QStringLiteral("http://127.0.0.1:%1").arg(m_port);
}

FakeHttpServer::Route *FakeHttpServer::route(const QByteArray &method, const QString &path)
{
    for (Route &candidate : m_routes) {
        if (candidate.method == method && candidate.path == path)
            return &candidate;
    }
    return nullptr;
}

void FakeHttpServer::on(const QByteArray &method, const QString &path, Handler handler)
{
    if (Route *existing = route(method, path)) {
        existing->handler = std::move(handler);
        return;
    }
    m_routes.append(Route { method, path, std::move(handler), {} });
}

void FakeHttpServer::on(const QByteArray &method, const QString &path, Reply reply)
{
    on(method, path, [reply](const Request &) { return reply; });
}

void FakeHttpServer::enqueue(const QByteArray &method, const QString &path, Reply reply)
{
    if (!route(method, path))
        m_routes.append(Route { method, path, {}, {} });
    route(method, path)->queue.append(std::move(reply));
}

QList<FakeHttpServer::Request> FakeHttpServer::requests(const QString &path) const
{
    QList<Request> matching;
    for (const Request &request : m_requests) {
        if (request.path == path)
            matching.append(request);
    }
    return matching;
}

void FakeHttpServer::writeHead(QHttpServerResponder &responder, const Reply &reply, bool chunked)
{
    responder.writeStatusLine(static_cast<QHttpServerResponder::StatusCode>(reply.status));
    for (const auto &[key, value] : reply.headers)
        responder.writeHeader(key, value);
    if (chunked)
        responder.writeHeader("Transfer-Encoding", "chunked");
    else
        responder.writeHeader("Content-Length", QByteArray::number(reply.body.size()));
}

void FakeHttpServer::answer(std::shared_ptr<QHttpServerResponder> responder, const Reply &reply)
{
    if (reply.neverAnswer) {
        m_heldResponders.append(responder);
        return;
    }
    QPointer<FakeHttpServer> self(this);
    // A client that gave up takes its socket with it: what was still to be sent is dropped.
    const QPointer<QTcpSocket> socket(responder->socket());
    auto send = [self, responder, socket, reply] {
        if (!self || !socket)
            return;
        if (reply.chunks.isEmpty()) {
            writeHead(*responder, reply, false);
            responder->writeBody(reply.body);
            return;
        }
        writeHead(*responder, reply, true);
        if (reply.holdOpenAfterChunks)
            self->m_heldResponders.append(responder);
        const bool endsBody = !reply.holdOpenAfterChunks && !reply.dropAfterChunks;
        const qsizetype last = endsBody ? reply.chunks.size() : reply.chunks.size() - 1;
        for (qsizetype i = 0; i <= last; ++i) {
            const QByteArray chunk = i < reply.chunks.size() ? reply.chunks.at(i) : QByteArray();
            const QByteArray framed = QByteArray::number(chunk.size(), 16) + "\r\n" + chunk + "\r\n";
            // Precise: coarse timers may fire 5 % early or late and swap neighbouring chunks.
            QTimer::singleShot(reply.chunkIntervalMs * i, Qt::PreciseTimer, self, [responder, socket, framed] {
                if (socket && socket->state() == QAbstractSocket::ConnectedState)
                    responder->writeBody(framed);
            });
        }
        if (reply.dropAfterChunks) {
            QTimer::singleShot(reply.chunkIntervalMs * reply.chunks.size(), Qt::PreciseTimer, self, [socket] {
                if (socket)
                    socket->disconnectFromHost();
            });
        }
    };
    if (reply.delayMs > 0)
        QTimer::singleShot(reply.delayMs, this, send);
    else
        send();
}
