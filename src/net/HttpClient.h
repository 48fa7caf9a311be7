#pragma once

#include "HttpReply.h"

#include <QCoroTask>
#include <QNetworkRequest>
#include <QObject>

#include <functional>

class QNetworkAccessManager;

// The one way Kelo's services talk HTTP: per-request time-outs, a cap on what a server may send,
// and transport failures turned into URLError. HTTP error statuses are *not* failures here; each
// service reads them according to its own protocol.
class HttpClient : public QObject
{
    Q_OBJECT

public:
    struct Options
    {
        // Inactivity time-out, like a URL session's request time-out.
        int timeoutMs = 30'000;
        // Bodies beyond this are refused (or cut, with truncateAtLimit), so a hostile server cannot
        // fill the memory.
        qint64 maxBodyBytes = 32 * 1024 * 1024;
        bool truncateAtLimit = false;
        // Called with the body received so far; returning true ends the download early with what
        // has arrived (used for event streams that stay open after the answer).
        std::function<bool(const QByteArray &)> isComplete;
    };

    explicit HttpClient(QObject *parent = nullptr);

    QCoro::Task<HttpReply> get(QNetworkRequest request, Options options);
    QCoro::Task<HttpReply> post(QNetworkRequest request, QByteArray body, Options options);
    QCoro::Task<HttpReply> send(QByteArray verb, QNetworkRequest request, QByteArray body, Options options);

    QNetworkAccessManager *manager() const { return m_manager; }

private:
    QNetworkAccessManager *m_manager;
};
