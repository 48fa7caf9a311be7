#pragma once

#include <QByteArray>
#include <QHttpServer>
#include <QJsonArray>
#include <QJsonObject>
#include <QList>
#include <QObject>
#include <QPair>
#include <QString>
#include <QUrlQuery>

#include <functional>
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
        QJsonObject json() const;
    };

    struct Reply
    {
        int status = 200;
        Headers headers;
        QByteArray body;
        // Wait this long before answering.
        int delayMs = 0;
        // When not empty, the body is sent with chunked encoding, one chunk each chunkIntervalMs.
        QList<QByteArray> chunks;
        int chunkIntervalMs = 0;
        // Keep the connection open and never answer (a server that hangs).
        bool neverAnswer = false;
        // With chunks: send them, then keep the connection open without ending the body (a stream
        // the server never closes).
        bool holdOpenAfterChunks = false;
        // With chunks: send them, then close the connection without ending the body (a server
        // that goes away halfway).
        bool dropAfterChunks = false;

        static Reply json(const QJsonObject &object, int status = 200);
        static Reply json(const QJsonArray &array, int status = 200);
        static Reply text(const QByteArray &body, int status = 200, const QByteArray &contentType = "text/plain");
        // An event-stream body, one "data:" event per entry.
        static Reply eventStream(const QList<QByteArray> &dataLines, int status = 200);
        // An event-stream body sent as these chunks, exactly as given (events may span chunks).
        static Reply eventStreamChunks(const QList<QByteArray> &chunks, int intervalMs = 0);
        // The body one byte at a time, a byte each intervalMs: never idle, never done in good time.
        static Reply drip(const QByteArray &body, int intervalMs, const QByteArray &contentType = "text/plain");
        static Reply redirect(int status, const QByteArray &location);
    };

    using Handler = std::function<Reply(const Request &)>;

    explicit FakeHttpServer(QObject *parent = nullptr);
    ~FakeHttpServer() override;

    // "http://127.0.0.1:PORT", without a trailing slash.
    QString baseUrl() const;
    quint16 port() const { return m_port; }

    // The answer to every request with this method and path (path without query).
    void on(const QByteArray &method, const QString &path, Handler handler);
    void on(const QByteArray &method, const QString &path, Reply reply);
    // Answers used once each, in order, before the handler set with on() (if any) takes over.
    void enqueue(const QByteArray &method, const QString &path, Reply reply);

    QList<Request> requests() const { return m_requests; }
    QList<Request> requests(const QString &path) const;
    int requestCount(const QString &path) const { return requests(path).size(); }
    void clearRequests() { m_requests.clear(); }

private:
    struct Route
    {
        QByteArray method;
        QString path;
        Handler handler;
        QList<Reply> queue;
    };

    Route *route(const QByteArray &method, const QString &path);
    void answer(std::shared_ptr<QHttpServerResponder> responder, const Reply &reply);
    static void writeHead(QHttpServerResponder &responder, const Reply &reply, bool chunked);

    QHttpServer m_server;
    quint16 m_port = 0;
    QList<Route> m_routes;
    QList<Request> m_requests;
    QList<std::shared_ptr<QHttpServerResponder>> m_heldResponders;
};
