#pragma once

#include <QHttpServer>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QUrlQuery>

#include <functional>
#include <map>
#include <memory>

class QHttpServerResponder;

// A scripted HTTP server on 127.0.0.1 for tests: records every request and answers with replies the
// test sets per method and path (status, headers, body, delay, chunks, or no answer at all).
class FakeHttpServer : public QObject
{
    Q_OBJECT

public:
    using Headers = QList<QPair<QByteArray, QByteArray>>;

    struct Request
    {
        QByteArray method;
        QString path;
        QUrlQuery query;
        Headers headers;
        QByteArray body;

        QByteArray header(QByteArrayView name) const;
        QJsonObject json() const { return QJsonDocument::fromJson(body).object(); }
    };

    struct Reply
    {
        int status = 200;
        Headers headers;
        QByteArray body;
        // When chunks is not empty, the body is sent chunked, one chunk each chunkIntervalMs; then,
        // unless holdOpenAfterChunks or dropAfterChunks, the body ends.
        QList<QByteArray> chunks;
        int delayMs = 0, chunkIntervalMs = 0;
        bool neverAnswer = false, holdOpenAfterChunks = false, dropAfterChunks = false;

        static Reply json(const QJsonObject &object, int status = 200) { return json(QJsonDocument(object), status); }
        static Reply json(const QJsonArray &array, int status = 200) { return json(QJsonDocument(array), status); }
        static Reply json(const QJsonDocument &document, int status)
        {
            return text(document.toJson(QJsonDocument::Compact), status, "application/json");
        }
        static Reply text(const QByteArray &body, int status = 200, const QByteArray &contentType = "text/plain")
        {
            return Reply { status, { { "Content-Type", contentType } }, body };
        }
        // One "data:" event per entry.
        static Reply eventStream(const QList<QByteArray> &dataLines, int status = 200);
        // Sent as these chunks exactly (events may span chunks).
        static Reply eventStreamChunks(const QList<QByteArray> &chunks, int intervalMs = 0)
        {
            return Reply { 200, { { "Content-Type", "text/event-stream" } }, {}, chunks, 0, intervalMs };
        }
        // One byte each intervalMs: never idle, never done in good time.
        static Reply drip(const QByteArray &body, int intervalMs, const QByteArray &contentType = "text/plain");
        static Reply redirect(int status, const QByteArray &location)
        {
            return Reply { status, { { "Content-Type", "text/plain" }, { "Location", location } } };
        }
    };

    using Handler = std::function<Reply(const Request &)>;

    explicit FakeHttpServer(QObject *parent = nullptr);

    // "http://127.0.0.1:PORT", without a trailing slash.
    QString baseUrl() const { return QStringLiteral("http://127.0.0.1:%1").arg(m_port); }
    quint16 port() const { return m_port; }

    // The answer to every request with this method and path (path without query).
    void on(const QByteArray &method, const QString &path, Handler handler) { route(method, path).handler = handler; }
    void on(const QByteArray &method, const QString &path, Reply reply)
    {
        on(method, path, [reply](const Request &) { return reply; });
    }
    // Answers used once each, in order, before the handler set with on() (if any) takes over.
    void enqueue(const QByteArray &method, const QString &path, Reply reply)
    {
        route(method, path).queue.append(reply);
    }

    QList<Request> requests() const { return m_requests; }
    QList<Request> requests(const QString &path) const;
    int requestCount(const QString &path) const { return requests(path).size(); }
    void clearRequests() { m_requests.clear(); }

private:
    struct Route
    {
        Handler handler;
        QList<Reply> queue;
    };

    Route &route(const QByteArray &method, const QString &path) { return m_routes[method + ' ' + path]; }
    void answer(std::shared_ptr<QHttpServerResponder> responder, const Reply &reply);
    void send(std::shared_ptr<QHttpServerResponder> responder, const Reply &reply);

    QHttpServer m_server;
    quint16 m_port = 0;
    // By "METHOD /path"; a map, so a handler may add routes while it runs.
    std::map<QString, Route> m_routes;
    QList<Request> m_requests;
    QList<std::shared_ptr<QHttpServerResponder>> m_heldResponders;
};
