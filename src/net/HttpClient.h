#pragma once

#include "HttpReply.h"

#include <QCoroTask>
#include <QNetworkRequest>
#include <QObject>
#include <QUrl>

#include <functional>
#include <optional>

class QNetworkAccessManager;

// The one way Kelo's services talk HTTP: an inactivity time-out and an overall deadline per
// request, redirects followed by our own rules (HttpRedirect), header values free of control
// characters, a cap on what a server may send, and transport failures turned into URLError. HTTP
// error statuses are *not* failures here; each service reads them according to its own protocol.
class HttpClient : public QObject
{
    Q_OBJECT

public:
    struct Options
    {
        // Inactivity time-out, like a URL session's request time-out.
        int timeoutMs = 30'000;
        // The whole exchange, redirects included, ends with URLError::timedOut after this long, however
        // steadily a server drips bytes or keep-alives. Unset: twice the inactivity time-out; 0: none.
        std::optional<int> deadlineMs;
        // Bodies beyond this are refused (or cut, with truncateAtLimit), so a hostile server cannot
        // fill the memory.
        qint64 maxBodyBytes = 32 * 1024 * 1024;
        bool truncateAtLimit = false;
        // Called with the body received so far; returning true ends the download early with what
        // has arrived (used for event streams that stay open after the answer).
        std::function<bool(const QByteArray &)> isComplete;
        // Streaming read: when this accepts the head of a successful final answer, its body goes to
        // onChunk piece by piece as it arrives instead of into HttpReply::body (maxBodyBytes still
        // bounds the total). onChunk returning true ends the download there; an exception it throws
        // ends it too and reaches the awaiter.
        std::function<bool(const HttpReply &head)> streamsBody;
        std::function<bool(const QByteArray &chunk)> onChunk;
        // Awaited before the first request and before every redirect hop; throwing refuses the hop
        // (used to keep the page reader away from private addresses).
        std::function<QCoro::Task<>(QUrl)> beforeEachHop;
    };

    explicit HttpClient(QObject *parent = nullptr);

    QCoro::Task<HttpReply> get(QNetworkRequest request, Options options);
    QCoro::Task<HttpReply> post(QNetworkRequest request, QByteArray body, Options options);
    QCoro::Task<HttpReply> send(QByteArray verb, QNetworkRequest request, QByteArray body, Options options);

    QNetworkAccessManager *manager() const { return m_manager; }

    // Ends every request of the clients in owner's tree at once (each fails with a transport error)
    // and refuses new ones. An owner calls this first thing in its destructor: a coroutine waiting on
    // a reply that is simply deleted is never resumed and stays suspended for good, while this way it
    // runs to its end while the owner is still whole.
    static void closeAllUnder(QObject *owner);

private:
    void close();

    QNetworkAccessManager *m_manager;
    bool m_closed = false;
};
