#include "net/HttpClient.h"

#include "AsyncTest.h"
#include "FakeHttpServer.h"
#include "net/URLError.h"

#include <QTcpServer>
#include <QTest>

using Reply = FakeHttpServer::Reply;

class HttpClientTest : public QObject
{
    Q_OBJECT

private:
    static QNetworkRequest requestTo(const QString &url) { return QNetworkRequest(QUrl(url)); }

private Q_SLOTS:
    void errorStatusesAreRepliesAndHeadersAreReadCaseInsensitively()
    {
        FakeHttpServer server;
        server.on("GET", "/missing", Reply::text("nope", 404));
        server.on("POST", "/broken", Reply::text("", 500));
        Reply reply = Reply::text("ok");
        reply.headers.append(qMakePair(QByteArray("mcp-session-ID"), QByteArray("abc")));
        server.on("POST", "/rpc", reply);
        HttpClient client;

        const HttpReply missing = AsyncTest::await(client.get(requestTo(server.baseUrl() + "/missing"), {}));
        QCOMPARE(missing.status, 404);
        QCOMPARE(missing.body, QByteArray("nope"));
        QVERIFY(!missing.isSuccess());

        const HttpReply broken = AsyncTest::await(client.post(requestTo(server.baseUrl() + "/broken"), "{}", {}));
        QCOMPARE(broken.status, 500);
        QVERIFY(broken.body.isEmpty());

        QNetworkRequest request = requestTo(server.baseUrl() + "/rpc");
        request.setRawHeader("X-Probe", "1");

        const HttpReply answer = AsyncTest::await(client.post(request, "body", {}));
        QCOMPARE(answer.header("Mcp-Session-Id"), QByteArray("abc"));
        QCOMPARE(server.requests("/rpc").first().header("x-probe"), QByteArray("1"));
        QCOMPARE(server.requests("/rpc").first().body, QByteArray("body"));
    }

    void chunkedBodiesArriveWholeAndThePredicateEndsAnOpenStream()
    {
        FakeHttpServer server;
        Reply reply = Reply::text({});
        reply.chunks = { "first ", "second ", "third" };
        reply.chunkIntervalMs = 20;
        reply.delayMs = 50;
        server.on("GET", "/stream", reply);
        // A stream that never ends: the first chunk arrives, the terminator never does.
        Reply hanging = Reply::text({}, 200, "text/event-stream");
        hanging.chunks = { "data: {\"a\":1}\n\n", "never" };
        hanging.chunkIntervalMs = 60'000;
        server.on("POST", "/hang", hanging);
        HttpClient client;
        QCOMPARE(AsyncTest::await(client.get(requestTo(server.baseUrl() + "/stream"), {})).body,
            QByteArray("first second third"));

        HttpClient::Options options;
        options.timeoutMs = 20'000;
        options.isComplete = [](const QByteArray &body) { return body.contains("\n\n"); };

        QElapsedTimer timer;
        timer.start();
        const HttpReply answer = AsyncTest::await(client.post(requestTo(server.baseUrl() + "/hang"), {}, options));
        QVERIFY(answer.body.startsWith("data: {\"a\":1}"));
        QCOMPARE(answer.status, 200);
        QVERIFY(timer.elapsed() < 5'000);
    }

    void oversizedBodiesAreRefusedOrCut()
    {
        FakeHttpServer server;
        server.on("GET", "/huge", Reply::text(QByteArray(300'000, 'x')));
        HttpClient client;

        HttpClient::Options refuse;
        refuse.maxBodyBytes = 100'000;
        const auto error = AsyncTest::awaitError<URLError>(client.get(requestTo(server.baseUrl() + "/huge"), refuse));
        QVERIFY(error);
        QCOMPARE(error->code(), URLError::dataLengthExceedsMaximum);

        HttpClient::Options cut = refuse;
        cut.truncateAtLimit = true;
        const HttpReply answer = AsyncTest::await(client.get(requestTo(server.baseUrl() + "/huge"), cut));
        QCOMPARE(answer.body.size(), 100'000);
        QVERIFY(answer.truncated);
        QCOMPARE(answer.status, 200);
    }

    void transportFailuresAndTimeOutsBecomeURLErrors()
    {
        HttpClient client;
        QTcpServer closed;
        QVERIFY(closed.listen(QHostAddress::LocalHost));
        const quint16 port = closed.serverPort();
        closed.close();

        const auto refused = AsyncTest::awaitError<URLError>(
            client.get(requestTo(QStringLiteral("http://127.0.0.1:%1/x").arg(port)), {}));
        QVERIFY(refused);
        QCOMPARE(refused->code(), URLError::cannotConnectToHost);
        QVERIFY(!refused->description().isEmpty());

        const auto bad = AsyncTest::awaitError<URLError>(client.get(requestTo(QStringLiteral("not a url")), {}));
        QVERIFY(bad);
        QCOMPARE(bad->code(), URLError::badURL);

        FakeHttpServer server;
        Reply silent;
        silent.neverAnswer = true;
        server.on("GET", "/silent", silent);
        HttpClient::Options options;
        options.timeoutMs = 300;
        const auto timedOut
            = AsyncTest::awaitError<URLError>(client.get(requestTo(server.baseUrl() + "/silent"), options));
        QVERIFY(timedOut);
        QCOMPARE(timedOut->code(), URLError::timedOut);
    }
};

QTEST_GUILESS_MAIN(HttpClientTest)
#include "HttpClientTest.moc"
