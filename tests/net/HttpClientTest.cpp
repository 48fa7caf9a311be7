#include "net/HttpClient.h"

#include "AsyncTest.h"
#include "FakeHttpServer.h"
#include "net/HeaderValueError.h"
#include "net/HeaderValues.h"
#include "net/HttpRedirect.h"
#include "net/URLError.h"

#include <QTcpServer>
#include <QTest>

using Reply = FakeHttpServer::Reply;

class HttpClientTest : public QObject
{
    Q_OBJECT

private:
    static QNetworkRequest requestTo(const QString &url) { return QNetworkRequest(QUrl(url)); }

    static HttpRedirect::Hop hop(const QByteArray &verb, const QString &url)
    {
        QNetworkRequest request = requestTo(url);
        request.setRawHeader("Authorization", "Bearer t");
        request.setRawHeader("Content-Type", "application/json");
        return { verb, request, "{}" };
    }

private Q_SLOTS:
    void errorStatusesAreRepliesAndHeadersAreReadCaseInsensitively()
    {
        FakeHttpServer server;
        server.on("GET", "/missing", Reply::text("nope", 404));
        Reply reply = Reply::text("ok");
        reply.headers.append(qMakePair(QByteArray("mcp-session-ID"), QByteArray("abc")));
        server.on("POST", "/rpc", reply);
        HttpClient client;

        const HttpReply missing = AsyncTest::await(client.get(requestTo(server.baseUrl() + "/missing"), {}));
        QCOMPARE(missing.status, 404);
        QCOMPARE(missing.body, QByteArray("nope"));
        QVERIFY(!missing.isSuccess());

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

    // A streamed read hands a successful body on as it arrives, under the buffered read's rules.
    void streamedBodiesArriveInPiecesUnderTheSameRules()
    {
        FakeHttpServer server;
        Reply open = Reply::text({}, 200, "text/event-stream");
        open.chunks = { "one ", "two ", "end" };
        open.chunkIntervalMs = 30;
        open.holdOpenAfterChunks = true;
        server.on("GET", "/open", open);
        server.on("GET", "/moved", Reply::redirect(307, "/open"));
        server.on("GET", "/failed", Reply::text("busy", 503, "text/event-stream"));
        server.on("GET", "/plain", Reply::text("whole"));
        HttpClient client;
        const auto get = [&](const char *path, const HttpClient::Options &options) {
            return client.get(requestTo(server.baseUrl() + path), options);
        };
        QByteArrayList chunks;
        HttpClient::Options options;
        options.timeoutMs = 300;
        options.deadlineMs = 0;
        options.streamsBody = [](const HttpReply &head) { return head.header("content-type") == "text/event-stream"; };
        options.onChunk = [&chunks](const QByteArray &chunk) {
            chunks.append(chunk);
            return chunks.join().endsWith("end");
        };

        // Past a redirect; the consumer ends it while the server still holds the connection.
        const HttpReply streamed = AsyncTest::await(get("/moved", options));
        QVERIFY(streamed.streamed);
        QVERIFY(streamed.body.isEmpty());
        QCOMPARE(streamed.status, 200);
        QCOMPARE(chunks.join(), QByteArray("one two end"));
        QVERIFY(chunks.size() >= 2);

        chunks.clear();
        for (const char *path : { "/failed", "/plain" }) {
            const HttpReply whole = AsyncTest::await(get(path, options));
            QVERIFY2(!whole.streamed && !whole.body.isEmpty(), path);
        }
        QVERIFY(chunks.isEmpty());

        // A stall longer than the inactivity limit ends it, after what did arrive.
        options.onChunk = [&chunks](const QByteArray &chunk) {
            chunks.append(chunk);
            return false;
        };
        QCOMPARE(AsyncTest::awaitError<URLError>(get("/open", options))->code(), URLError::timedOut);
        QCOMPARE(chunks.join(), QByteArray("one two end"));

        HttpClient::Options small = options;
        small.maxBodyBytes = 5;
        QCOMPARE(AsyncTest::awaitError<URLError>(get("/open", small))->code(), URLError::dataLengthExceedsMaximum);
        options.onChunk = [](const QByteArray &) -> bool { throw URLError(URLError::cannotDecodeContentData); };
        QCOMPARE(AsyncTest::awaitError<URLError>(get("/open", options))->code(), URLError::cannotDecodeContentData);
    }

    // Each transport failure is its own URLError; a body over the limit may be cut instead.
    void transportFailuresBecomeURLErrors()
    {
        FakeHttpServer server;
        server.on("GET", "/huge", Reply::text(QByteArray(300'000, 'x')));
        Reply silent;
        silent.neverAnswer = true;
        server.on("GET", "/silent", silent);
        QTcpServer closed;
        QVERIFY(closed.listen(QHostAddress::LocalHost));
        const QString refused = QStringLiteral("http://127.0.0.1:%1/x").arg(closed.serverPort());
        closed.close();
        HttpClient client;
        HttpClient::Options options;
        options.maxBodyBytes = 100'000;
        options.timeoutMs = 300;
        const auto codeOf = [&](const QString &url) {
            const auto error = AsyncTest::awaitError<URLError>(client.get(requestTo(url), options));
            return error ? int(error->code()) : -1;
        };
        QCOMPARE(codeOf(server.baseUrl() + "/huge"), int(URLError::dataLengthExceedsMaximum));
        QCOMPARE(codeOf(refused), int(URLError::cannotConnectToHost));
        QCOMPARE(codeOf(QStringLiteral("not a url")), int(URLError::badURL));
        QCOMPARE(codeOf(server.baseUrl() + "/silent"), int(URLError::timedOut));

        options.truncateAtLimit = true;
        const HttpReply cut = AsyncTest::await(client.get(requestTo(server.baseUrl() + "/huge"), options));
        QVERIFY(cut.truncated && cut.status == 200);
        QCOMPARE(cut.body.size(), 100'000);
    }

    // A steady drip cannot keep a request alive past its deadline.
    void aDrippingServerMeetsTheDeadline()
    {
        FakeHttpServer server;
        server.on("GET", "/drip", Reply::drip(QByteArray(12, 'x'), 100));
        HttpClient client;
        HttpClient::Options options;
        options.timeoutMs = 400;
        options.deadlineMs = 900;

        QElapsedTimer timer;
        timer.start();
        const auto error = AsyncTest::awaitError<URLError>(client.get(requestTo(server.baseUrl() + "/drip"), options));
        QVERIFY(error && error->code() == URLError::timedOut);
        QVERIFY(error->description().contains(QStringLiteral("a expirat")));
        QVERIFY2(timer.elapsed() >= 850 && timer.elapsed() < 2'500, qPrintable(QString::number(timer.elapsed())));

        // Unset, the deadline is twice the inactivity limit; 0 means none.
        HttpClient::Options derived;
        derived.timeoutMs = 400;
        timer.restart();
        QCOMPARE(AsyncTest::awaitError<URLError>(client.get(requestTo(server.baseUrl() + "/drip"), derived))->code(),
            URLError::timedOut);
        QVERIFY2(timer.elapsed() >= 750 && timer.elapsed() < 2'500, qPrintable(QString::number(timer.elapsed())));
        HttpClient::Options none = derived;
        none.deadlineMs = 0;
        QCOMPARE(AsyncTest::await(client.get(requestTo(server.baseUrl() + "/drip"), none)).body, QByteArray(12, 'x'));
    }

    void redirectRules_data()
    {
        QTest::addColumn<QByteArray>("verb");
        QTest::addColumn<int>("status");
        QTest::addColumn<QByteArray>("expectedVerb");
        QTest::addColumn<bool>("keepsBody");
        QTest::newRow("307 POST") << QByteArray("POST") << 307 << QByteArray("POST") << true;
        QTest::newRow("308 PUT") << QByteArray("PUT") << 308 << QByteArray("PUT") << true;
        QTest::newRow("301 POST") << QByteArray("POST") << 301 << QByteArray("GET") << false;
        QTest::newRow("302 POST") << QByteArray("POST") << 302 << QByteArray("GET") << false;
        QTest::newRow("302 DELETE") << QByteArray("DELETE") << 302 << QByteArray("DELETE") << true;
        QTest::newRow("303 PUT") << QByteArray("PUT") << 303 << QByteArray("GET") << false;
    }

    void redirectRules()
    {
        QFETCH(QByteArray, verb);
        QFETCH(int, status);
        const auto next = HttpRedirect::next(hop(verb, "https://a.ro/x/mcp"), status, "../v2/mcp?s=1");
        QVERIFY(next);
        QTEST(next->verb, "expectedVerb");
        QCOMPARE(next->request.url(), QUrl("https://a.ro/v2/mcp?s=1"));
        QFETCH(bool, keepsBody);
        QCOMPARE(next->body, keepsBody ? QByteArray("{}") : QByteArray());
        QCOMPARE(next->request.hasRawHeader("Content-Type"), keepsBody);
        QCOMPARE(next->request.rawHeader("Authorization"), QByteArray("Bearer t"));
    }

    void redirectsNeverDowngradeNorCarryCredentialsAway()
    {
        const auto downgrade = [] { HttpRedirect::next(hop("GET", "https://a.ro/"), 302, "http://a.ro/"); };
        try {
            downgrade();
            QFAIL("an https page redirected to http was followed");
        } catch (const URLError &e) {
            QCOMPARE(e.code(), URLError::appTransportSecurityRequiresSecureConnection);
            QVERIFY(e.description().contains(QStringLiteral("nesecurizată")));
        }
        for (const QByteArray &location : { QByteArray("javascript:alert(1)"), QByteArray("file:///etc/passwd") }) {
            QVERIFY_THROWS_EXCEPTION(URLError, HttpRedirect::next(hop("GET", "http://a.ro/"), 302, location));
        }

        const auto upgrade = HttpRedirect::next(hop("GET", "http://a.ro/"), 301, "https://b.ro/");
        QCOMPARE(upgrade->request.url(), QUrl("https://b.ro/"));
        QVERIFY(!upgrade->request.hasRawHeader("Authorization"));
        QVERIFY(!HttpRedirect::next(hop("GET", "http://a.ro/"), 200, "/x"));
        QVERIFY(!HttpRedirect::next(hop("GET", "http://a.ro/"), 304, "/x"));
        QVERIFY(!HttpRedirect::next(hop("GET", "http://a.ro/"), 302, ""));
    }

    // Qt's own redirect following failed about every second time on this path.
    void aTemporaryRedirectKeepsMethodAndBodyEveryTimeAndLoopsEnd()
    {
        FakeHttpServer server;
        server.on("POST", "/api/mcp", Reply::redirect(307, "v2/mcp?s=1"));
        server.on("POST", "/api/v2/mcp",
            [](const FakeHttpServer::Request &request) { return Reply::text(request.body, 200, "application/json"); });
        HttpClient client;
        for (int i = 0; i < 20; ++i) {
            QNetworkRequest request = requestTo(server.baseUrl() + "/api/mcp");
            request.setRawHeader("Authorization", "Bearer t");
            request.setHeader(QNetworkRequest::ContentTypeHeader, "application/json");
            const QByteArray body = "{\"id\":" + QByteArray::number(i) + "}";
            const HttpReply reply = AsyncTest::await(client.post(request, body, {}));
            QCOMPARE(reply.status, 200);
            QCOMPARE(reply.body, body);
        }
        const QList<FakeHttpServer::Request> arrived = server.requests("/api/v2/mcp");
        QCOMPARE(arrived.size(), 20);
        QCOMPARE(arrived.last().method, QByteArray("POST"));
        QCOMPARE(arrived.last().query.queryItemValue("s"), QStringLiteral("1"));
        QCOMPARE(arrived.last().header("Authorization"), QByteArray("Bearer t"));
        QCOMPARE(arrived.last().header("Content-Type"), QByteArray("application/json"));

        // Loops end after five hops.
        server.on("GET", "/loop", Reply::redirect(302, "/loop"));
        const auto error = AsyncTest::awaitError<URLError>(client.get(requestTo(server.baseUrl() + "/loop"), {}));
        QCOMPARE(error->code(), URLError::httpTooManyRedirects);
        QCOMPARE(server.requestCount("/loop"), 1 + HttpRedirect::maxRedirects);
    }

    void controlCharactersNeverReachTheWire()
    {
        QNetworkRequest request = requestTo("http://127.0.0.1:1/");
        for (const QByteArray &value : { QByteArray("a\r\nX-Injected: 1"), QByteArray("a\nb"), QByteArray("a\x7f"),
                 QByteArray("a\tb"), QByteArray("a\0b", 3) }) {
            QVERIFY_THROWS_EXCEPTION(HeaderValueError, HeaderValues::set(request, "Authorization", value));
        }
        QVERIFY(!request.hasRawHeader("Authorization"));
        HeaderValues::set(request, "X-Name", "Ștefan cel Mare");
        QCOMPARE(request.rawHeader("X-Name"), QByteArray("Ștefan cel Mare"));

        // A header set around the helper is still caught before anything is sent.
        FakeHttpServer server;
        server.on("GET", "/", Reply::text("ok"));
        QNetworkRequest smuggled = requestTo(server.baseUrl() + "/");
        smuggled.setRawHeader("xi-api-key", "cheie\r\nX-Injected: 1");
        HttpClient client;
        const auto error = AsyncTest::awaitError<HeaderValueError>(client.get(smuggled, {}));
        QVERIFY(error && error->headerName() == QStringLiteral("xi-api-key"));
        QVERIFY(error->description().contains(QStringLiteral("caractere de control")));
        QVERIFY(server.requests().isEmpty());
    }
};

QTEST_GUILESS_MAIN(HttpClientTest)
#include "HttpClientTest.moc"
