#include "skills/WebSkillService.h"

#include "AsyncTest.h"
#include "FakeHttpServer.h"
#include "TemporaryHome.h"
#include "net/BlockedAddressError.h"
#include "net/DecodingError.h"
#include "net/PublicAddressGuard.h"
#include "net/URLError.h"

#include <QJsonArray>
#include <QTcpServer>
#include <QTest>

using Reply = FakeHttpServer::Reply;

class WebSkillServiceTest : public QObject
{
    Q_OBJECT

    static inline const QString searchPath = "/w/rest.php/v1/search/page";
    static Reply pages(const QJsonArray &list) { return Reply::json(QJsonObject { { "pages", list } }); }
    // Declares a charset it does not use: pages are read as UTF-8.
    static Reply html(const QByteArray &body, int status = 200)
    {
        return Reply::text(body, status, "text/html; charset=iso-8859-2");
    }
    static QJsonObject page(const QString &title, const QJsonValue &excerpt = {}, const QJsonValue &description = {})
    {
        return { { "title", title }, { "excerpt", excerpt }, { "description", description } };
    }

    std::unique_ptr<FakeHttpServer> m_server;
    std::optional<ScopedEnvironment> m_wikipedia;
    std::optional<ScopedEnvironment> m_allowPrivate; // the pages live on loopback, refused by default
    std::unique_ptr<WebSkillService> m_service;

    QString search(const QString &query) { return AsyncTest::await(m_service->searchRomanianWeb(query)); }
    QString fetch(const QString &path) { return AsyncTest::await(m_service->fetchURL(m_server->baseUrl() + path)); }

private Q_SLOTS:
    void init()
    {
        m_server = std::make_unique<FakeHttpServer>();
        m_wikipedia.emplace("KELO_WIKIPEDIA_BASE_URL", m_server->baseUrl() + "/");
        m_allowPrivate.emplace("KELO_FETCH_ALLOW_PRIVATE", "1");
        m_service = std::make_unique<WebSkillService>();
    }

    void searchRequestDigestAndFailures()
    {
        const QJsonObject sixth = page("Al șaselea", "nu apare");
        m_server->enqueue("GET", searchPath, pages({}));
        m_server->enqueue("GET", searchPath,
            pages({ page("Brașov", "Orașul <span class=\"searchmatch\">Brașov</span> este", "municipiu din România"),
                QJsonObject { { "title", "Gol" } },
                page("Ceai",
                    "Un <span class=\"searchmatch\">ceai</span> <b>negru</b> <SPAN class=\"searchmatch\">x</SPAN>"),
                page("Descriere goală", "extras", ""), page("Nul", "extras păstrat", QJsonValue::Null), sixth,
                sixth }));
        const QString query = QStringLiteral("ștefan cel mare & fiii+nepoții #1 100%");

        QCOMPARE(search(query), QStringLiteral("Nu am găsit rezultate relevante."));
        // Descriptions win over excerpts, only lower-case match spans are stripped, five hits at most.
        QCOMPARE(search(QStringLiteral("brașov")),
            QStringLiteral("• Brașov: municipiu din România\n"
                           "• Gol: \n"
                           "• Ceai: Un ceai <b>negru</b> <SPAN class=\"searchmatch\">x</SPAN>\n"
                           "• Descriere goală: \n"
                           "• Nul: extras păstrat"));

        const auto request = m_server->requests(searchPath).first();
        QCOMPARE(request.header("User-Agent"), QByteArray("KeloCompanion/2.0 (iOS)"));
        QCOMPARE(request.query.queryItems(QUrl::FullyDecoded),
            (QList<QPair<QString, QString>> { { "q", query }, { "limit", "5" } }));
        const QString wire = request.query.toString(QUrl::FullyEncoded);
        QVERIFY2(wire.startsWith(QLatin1String("q=%C8%99tefan%20cel%20mare%20%26%20fiii%2Bnepo")), qPrintable(wire));

        // Failures are typed errors, never text for the model.
        m_server->enqueue("GET", searchPath, Reply::json(QJsonObject { { "pages", QJsonArray {} } }, 404));
        QCOMPARE(AsyncTest::awaitError<URLError>(m_service->searchRomanianWeb("x")).value().code(),
            URLError::badServerResponse);
        for (const Reply &reply :
            { Reply::text("{\"pages\":[", 200, "application/json"), Reply::json(QJsonObject { { "pages", "none" } }),
                pages({ "text" }), pages({ QJsonObject { { "title", 7 } } }), pages({ page("Titlu", 5) }) }) {
            m_server->enqueue("GET", searchPath, reply);
            const auto error = AsyncTest::awaitError<DecodingError>(m_service->searchRomanianWeb("x"));
            QVERIFY2(error && error->description().startsWith("Răspunsul serverului nu are forma așteptată"),
                reply.body.constData());
        }
    }

    // Only web pages are asked for, and a failed page is an error, not text for the model.
    void unusableAddressesAndFailedPagesAreTypedErrors()
    {
        m_server->on("GET", "/lipsa", html("<h1>Pagina nu există</h1>", 404));
        QTcpServer closed;
        QVERIFY(closed.listen(QHostAddress::LocalHost));
        const QString refused = QStringLiteral("http://127.0.0.1:%1/x").arg(closed.serverPort());
        closed.close();
        const QList<QPair<QString, URLError::Code>> cases { { "ftp://127.0.0.1/pagina", URLError::badURL },
            { "", URLError::badURL }, { m_server->baseUrl() + "/lipsa", URLError::badServerResponse },
            { refused, URLError::cannotConnectToHost } };
        for (const auto &[url, code] : cases) {
            const auto error = AsyncTest::awaitError<URLError>(m_service->fetchURL(url));
            QVERIFY2(error && error->code() == code, qPrintable(url));
        }
        QCOMPARE(m_server->requests().size(), 1);

        // Upper-case schemes are let through; HTTPS fails only at the TLS handshake with a plain server.
        m_server->on("GET", "/pagina", html("<p>Salut</p>"));
        QString upper = m_server->baseUrl().replace("http", "HTTP") + "/pagina";
        QCOMPARE(AsyncTest::await(m_service->fetchURL(upper)), QStringLiteral(" Salut "));
        const auto handshake = AsyncTest::awaitError<URLError>(m_service->fetchURL(upper.replace("HTTP", "HTTPS")));
        QVERIFY(handshake && handshake->code() != URLError::badURL);
    }

    void pagesAreReducedToTheirVisibleTextAndCut()
    {
        m_server->on("GET", "/articol",
            html("<html>\n<head><title>Titlu</title>\n"
                 "<script type=\"text/javascript\">\n  var a = '<p>ascuns</p>';\n  if (a < b) go();\n</script>\n"
                 "<style>\n  p { color: red; }\n</style></head>\n"
                 "<body>  <p class=\"x\">Primul&nbsp;paragraf</p>\n\n\t<script>unu()</script>"
                 "vizibil<script>doi()</script>\n"
                 "<SCRIPT>MARE()</SCRIPT>\xc2\xa0 sfârșit \xff</body></html>\n"));
        QCOMPARE(fetch("/articol"), QStringLiteral(" Titlu Primul&nbsp;paragraf vizibil MARE() sfârșit \uFFFD "));

        // At most 14,000 characters, never half of one, from at most 80,000 bytes of body.
        m_server->on(
            "GET", "/lung", html("<p>" + QByteArray(13'998, 'a') + "\xf0\x9f\x98\x80" + QByteArray(5'000, 'b')));
        QCOMPARE(fetch("/lung"), QLatin1Char(' ') + QString(13'998, QLatin1Char('a')) + QStringLiteral("😀"));

        // The cut at byte 80,000 halves the "ă" starting at byte 79,999.
        const QByteArray body
            = "<div data-x=\"" + QByteArray(79'975, 'x') + "\">abcdefgh \xc4\x83" + QByteArray(300'000, 'c');
        m_server->on("GET", "/mare", html(body));
        QCOMPARE(fetch("/mare"), QStringLiteral(" abcdefgh \uFFFD"));
        QCOMPARE(WebSkillService::readableText(body), QStringLiteral(" abcdefgh \uFFFD"));
    }

    // A page the model reads must not steer it at the user's own machine or network.
    void localAndPrivateAddressesAreRefused()
    {
        m_allowPrivate.reset();
        m_server->on("GET", "/secret", html("<p>secret</p>"));
        const QString port = QString::number(m_server->port());
        for (const char *host : { "127.0.0.1", "localhost", "2130706433", "0x7f.1", "[::ffff:127.0.0.1]", "[::1]",
                 "0.0.0.0", "10.0.0.1", "172.31.255.1", "192.168.1.1", "100.64.0.1", "169.254.169.254", "[fd00::1]",
                 "[fe80::1]", "224.0.0.251", "[ff02::1]" }) {
            const QString url = QStringLiteral("http://%1:%2/secret").arg(QLatin1String(host), port);
            const auto error = AsyncTest::awaitError<BlockedAddressError>(m_service->fetchURL(url));
            QVERIFY2(error, qPrintable(url));
            QVERIFY(error->description().contains(QStringLiteral("rețele locale ori private")));
        }
        QVERIFY(m_server->requests().isEmpty());

        for (const char *address :
            { "8.8.8.8", "172.32.0.1", "100.128.0.1", "11.0.0.1", "2a00:1450::1", "::ffff:8.8.8.8" })
            QVERIFY2(PublicAddressGuard::isPublic(QHostAddress(QLatin1String(address))), address);
        QVERIFY(!PublicAddressGuard::isPublic(QHostAddress(QStringLiteral("64:ff9b::a00:1"))));

        // The first hop is vouched for by the test's resolver; the redirect's own target is refused.
        WebSkillService trusting(
            [](QString host) -> QCoro::Task<QList<QHostAddress>> {
                co_return host == QLatin1String("localhost") ? QList { QHostAddress(QStringLiteral("93.184.216.34")) }
                                                             : QList<QHostAddress>();
            },
            nullptr);
        m_server->on("GET", "/start", Reply::redirect(302, m_server->baseUrl().toUtf8() + "/secret"));
        const auto redirected
            = AsyncTest::awaitError<BlockedAddressError>(trusting.fetchURL("http://localhost:" + port + "/start"));
        QCOMPARE(redirected.value().address(), QStringLiteral("127.0.0.1"));
        QCOMPARE(m_server->requestCount("/start"), 1);
        QCOMPARE(m_server->requestCount("/secret"), 0);

        // Self-hosters opt in.
        ScopedEnvironment allowed("KELO_FETCH_ALLOW_PRIVATE", "1");
        QCOMPARE(fetch("/start"), QStringLiteral(" secret "));
    }
};

QTEST_GUILESS_MAIN(WebSkillServiceTest)
#include "WebSkillServiceTest.moc"
