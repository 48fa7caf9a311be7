#include "skills/OAuthCallbackChannel.h"

#include "AsyncTest.h"
#include "skills/WebAuthenticationError.h"
#include "skills/WebAuthenticationSession.h"

#include <QDir>
#include <QFileInfo>
#include <QLocalServer>
#include <QLocalSocket>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>
#include <QTimer>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

class OAuthCallbackChannelTest : public QObject
{
    Q_OBJECT

    QTemporaryDir m_root;

    QString freshDirectory() { return m_root.filePath(QUuid::createUuid().toString(QUuid::Id128)); }

private Q_SLOTS:
    void theFlowThatIssuedTheStateTakesTheCallback()
    {
        const QString dir = freshDirectory();
        OAuthCallbackChannel app(dir);
        OAuthCallbackChannel cli(dir);
        QVERIFY(app.listen());
        QVERIFY(cli.listen());
        QCOMPARE(QFileInfo(dir).permissions() & (QFile::ReadGroup | QFile::ReadOther), QFile::Permissions());
        app.addPendingState("APP");
        cli.addPendingState("CLI");
        QSignalSpy appSpy(&app, &OAuthCallbackChannel::callbackReceived);
        QSignalSpy cliSpy(&cli, &OAuthCallbackChannel::callbackReceived);

        const QUrl callback(QStringLiteral("kelo://oauth?code=a%2Bb&state=CLI"));
        QVERIFY(AsyncTest::await(OAuthCallbackChannel::deliver(callback, dir)));
        QCOMPARE(cliSpy.size(), 1);
        QCOMPARE(cliSpy.first().first().toUrl(), callback);
        QCOMPARE(appSpy.size(), 0);

        // With two flows waiting, a redirect that neither issued belongs to nobody.
        QVERIFY(!AsyncTest::await(OAuthCallbackChannel::deliver(QUrl("kelo://oauth?code=x&state=OLD"), dir)));
        QCOMPARE(appSpy.size() + cliSpy.size(), 1);
    }

    void theOnlyWaitingFlowGetsAForeignStateAndNoFlowGetsNothing()
    {
        const QString dir = freshDirectory();
        OAuthCallbackChannel idle(dir);
        OAuthCallbackChannel waiting(dir);
        QVERIFY(idle.listen());
        QVERIFY(waiting.listen());
        QSignalSpy idleSpy(&idle, &OAuthCallbackChannel::callbackReceived);
        QSignalSpy waitingSpy(&waiting, &OAuthCallbackChannel::callbackReceived);
        const QUrl foreign("kelo://oauth?code=x&state=FOREIGN");
        QVERIFY(!AsyncTest::await(OAuthCallbackChannel::deliver(foreign, dir)));

        waiting.addPendingState("MINE");
        QVERIFY(AsyncTest::await(OAuthCallbackChannel::deliver(foreign, dir)));
        QCOMPARE(waitingSpy.size(), 1);
        QCOMPARE(idleSpy.size(), 0);

        waiting.removePendingState("MINE");
        QVERIFY(!AsyncTest::await(OAuthCallbackChannel::deliver(foreign, dir)));
    }

    void foreignOrMalformedMessagesAreDropped()
    {
        const QString dir = freshDirectory();
        OAuthCallbackChannel channel(dir);
        QVERIFY(channel.listen());
        channel.addPendingState("ok");
        QSignalSpy spy(&channel, &OAuthCallbackChannel::callbackReceived);
        QVERIFY(!AsyncTest::await(OAuthCallbackChannel::deliver(QUrl("https://example.org/oauth?state=ok"), dir)));
        QVERIFY(!AsyncTest::await(OAuthCallbackChannel::deliver(QUrl("kelo://other?state=ok"), dir)));

        // A writer that never ends its line and floods the socket is cut off.
        const QString socketPath = QDir(dir).entryInfoList(QDir::System).first().absoluteFilePath();
        QLocalSocket flood;
        flood.connectToServer(socketPath);
        QVERIFY(flood.waitForConnected(1000));
        flood.write(QByteArray(200 * 1024, 'k'));
        flood.flush();
        QVERIFY(AsyncTest::waitUntil([&] { return flood.state() == QLocalSocket::UnconnectedState; }, 5000));

        QVERIFY(AsyncTest::await(OAuthCallbackChannel::deliver(QUrl("kelo://oauth?state=ok"), dir)));
        QCOMPARE(spy.size(), 1);
        QCOMPARE(spy.first().first().toUrl(), QUrl("kelo://oauth?state=ok"));
    }

    void socketsOfEndedProcessesAreCleanedUp()
    {
        const QString dir = freshDirectory();
        QDir().mkpath(dir);
        // A socket file bound by a process that died without closing it: connecting is refused.
        const QByteArray stalePath = QFile::encodeName(dir + "/4242-stale");
        const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
        sockaddr_un address {};
        address.sun_family = AF_UNIX;
        qstrncpy(address.sun_path, stalePath.constData(), sizeof(address.sun_path));
        QCOMPARE(::bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof(address)), 0);
        ::close(fd);
        QVERIFY(QFileInfo::exists(stalePath));

        OAuthCallbackChannel live(dir);
        QVERIFY(live.listen());
        QVERIFY(!AsyncTest::await(OAuthCallbackChannel::deliver(QUrl("kelo://oauth?state=x"), dir)));
        QVERIFY(live.isListening());
        QVERIFY(!QFileInfo::exists(stalePath));
    }

    void handOffArgumentsOnlyTakeCallbackURLs()
    {
        const QString dir = freshDirectory();
        QCOMPARE(OAuthCallbackChannel::handOffArguments({ "kelo-companion" }, dir), -1);
        QCOMPARE(OAuthCallbackChannel::handOffArguments({ "kelo-companion", "--verbose", "https://x.org" }, dir), -1);
        QCOMPARE(OAuthCallbackChannel::handOffArguments({ "kelo-companion", "kelo://oauth?code=1&state=2" }, dir), 1);

        OAuthCallbackChannel channel(dir);
        QVERIFY(channel.listen());
        QCOMPARE(OAuthCallbackChannel::handOffArguments({ "kelo", "kelo://oauth?code=1&state=2" }, dir), 1);
        channel.addPendingState("2");
        QSignalSpy spy(&channel, &OAuthCallbackChannel::callbackReceived);
        QCOMPARE(OAuthCallbackChannel::handOffArguments({ "kelo", "kelo://oauth?code=1&state=2" }, dir), 0);
        QCOMPARE(spy.size(), 1);
    }

    void sessionReturnsTheRedirectOfItsFlow()
    {
        const QString dir = freshDirectory();
        OAuthCallbackChannel other(dir);
        QVERIFY(other.listen());
        other.addPendingState("OTHER");
        QSignalSpy otherSpy(&other, &OAuthCallbackChannel::callbackReceived);

        OAuthCallbackChannel channel(dir);
        QUrl opened;
        WebAuthenticationSession session(
            &channel,
            [&](const QUrl &url) {
                opened = url;
                [](QString dir) -> QCoro::Task<> {
                    co_await OAuthCallbackChannel::deliver(QUrl("kelo://oauth?code=stray&state=UNKNOWN"), dir);
                    co_await OAuthCallbackChannel::deliver(QUrl("kelo://oauth?code=theirs&state=OTHER"), dir);
                    co_await OAuthCallbackChannel::deliver(QUrl("kelo://oauth?code=mine&state=MINE"), dir);
                }(dir);
                return true;
            },
            5'000);
        const QUrl callback = AsyncTest::await(session.start(QUrl("https://auth.example/authorize"), "MINE"));
        QCOMPARE(opened, QUrl("https://auth.example/authorize"));
        QCOMPARE(callback, QUrl("kelo://oauth?code=mine&state=MINE"));
        QCOMPARE(otherSpy.size(), 1);
    }

    void sessionEndsOnCancelTimeOutOrNoBrowser()
    {
        const QString dir = freshDirectory();
        OAuthCallbackChannel channel(dir);

        WebAuthenticationSession cancelled(
            &channel, [](const QUrl &) { return true; }, 60'000);
        QTimer::singleShot(20, &cancelled, &WebAuthenticationSession::cancel);
        auto error
            = AsyncTest::awaitError<WebAuthenticationError>(cancelled.start(QUrl("https://a.example"), "S"), 5'000);
        QVERIFY(error);
        QCOMPARE(error->kind(), WebAuthenticationError::canceled);

        WebAuthenticationSession slow(
            &channel, [](const QUrl &) { return true; }, 100);
        error = AsyncTest::awaitError<WebAuthenticationError>(slow.start(QUrl("https://a.example"), "S"), 5'000);
        QVERIFY(error);
        QCOMPARE(error->kind(), WebAuthenticationError::timedOut);

        WebAuthenticationSession noBrowser(
            &channel, [](const QUrl &) { return false; }, 60'000);
        error = AsyncTest::awaitError<WebAuthenticationError>(noBrowser.start(QUrl("https://a.example"), "S"), 5'000);
        QVERIFY(error);
        QCOMPARE(error->kind(), WebAuthenticationError::browserUnavailable);

        OAuthCallbackChannel blocked(m_root.filePath("a-file"));
        QFile file(m_root.filePath("a-file"));
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.close();
        WebAuthenticationSession nowhere(
            &blocked, [](const QUrl &) { return true; }, 60'000);
        error = AsyncTest::awaitError<WebAuthenticationError>(nowhere.start(QUrl("https://a.example"), "S"), 5'000);
        QVERIFY(error);
        QCOMPARE(error->kind(), WebAuthenticationError::callbackChannelUnavailable);
    }
};

QTEST_GUILESS_MAIN(OAuthCallbackChannelTest)
#include "OAuthCallbackChannelTest.moc"
