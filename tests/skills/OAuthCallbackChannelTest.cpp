#include "skills/OAuthCallbackChannel.h"

#include "AsyncTest.h"
#include "skills/WebAuthenticationError.h"
#include "skills/WebAuthenticationSession.h"

#include <QDir>
#include <QFileInfo>
#include <QLocalSocket>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

class OAuthCallbackChannelTest : public QObject
{
    Q_OBJECT

    QTemporaryDir m_root;

    QString freshDirectory() { return m_root.filePath(QUuid::createUuid().toString(QUuid::Id128)); }
    static bool deliver(const char *url, const QString &dir)
    {
        return AsyncTest::await(OAuthCallbackChannel::deliver(QUrl(url), dir));
    }

private Q_SLOTS:
    void callbacksGoToTheFlowThatIssuedTheirState()
    {
        const QString dir = freshDirectory();
        OAuthCallbackChannel app(dir);
        OAuthCallbackChannel cli(dir);
        QVERIFY(app.listen());
        QVERIFY(cli.listen());
        QCOMPARE(QFileInfo(dir).permissions() & (QFile::ReadGroup | QFile::ReadOther), QFile::Permissions());
        QSignalSpy appSpy(&app, &OAuthCallbackChannel::callbackReceived);
        QSignalSpy cliSpy(&cli, &OAuthCallbackChannel::callbackReceived);

        // No flow waits: nobody takes it. One flow waits: it takes even a state it never issued.
        QVERIFY(!deliver("kelo://oauth?code=x&state=FOREIGN", dir));
        cli.addPendingState("CLI");
        QVERIFY(deliver("kelo://oauth?code=x&state=FOREIGN", dir));
        QCOMPARE(cliSpy.size(), 1);

        // Two flows wait: each gets its own state and a foreign one belongs to nobody.
        app.addPendingState("APP");
        QVERIFY(deliver("kelo://oauth?code=a%2Bb&state=CLI", dir));
        QCOMPARE(cliSpy.size(), 2);
        QCOMPARE(cliSpy.last().first().toUrl(), QUrl(QStringLiteral("kelo://oauth?code=a%2Bb&state=CLI")));
        QVERIFY(!deliver("kelo://oauth?code=x&state=OLD", dir));
        QCOMPARE(appSpy.size(), 0);

        // A finished flow stops counting as waiting.
        app.removePendingState("APP");
        cli.removePendingState("CLI");
        QVERIFY(!deliver("kelo://oauth?code=x&state=FOREIGN", dir));
        QCOMPARE(appSpy.size() + cliSpy.size(), 2);
    }

    // A dead process's socket is cleaned up; foreign URLs and an endless line are dropped.
    void staleSocketsAndForeignOrMalformedMessagesAreDropped()
    {
        const QString dir = freshDirectory();
        QDir().mkpath(dir);
        const QByteArray stalePath = QFile::encodeName(dir + "/4242-stale");
        const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
        sockaddr_un address {};
        address.sun_family = AF_UNIX;
        qstrncpy(address.sun_path, stalePath.constData(), sizeof(address.sun_path));
        QCOMPARE(::bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof(address)), 0);
        ::close(fd);

        // Only callback URLs are handed off; one reaching its flow is driven through kelo-companion by the journeys.
        const auto handOff = [&dir](const QStringList &arguments) {
            return OAuthCallbackChannel::handOffArguments(QStringList { "kelo-companion" } + arguments, dir);
        };
        QCOMPARE(handOff({ "--verbose", "https://x.org" }), -1);
        OAuthCallbackChannel channel(dir);
        QVERIFY(channel.listen());
        QSignalSpy spy(&channel, &OAuthCallbackChannel::callbackReceived);
        QCOMPARE(handOff({ "kelo://oauth?code=1&state=2" }), 1);
        QVERIFY(!deliver("kelo://oauth?state=ok", dir));
        QVERIFY(!QFileInfo::exists(stalePath));
        channel.addPendingState("ok");
        QVERIFY(!deliver("https://example.org/oauth?state=ok", dir));
        QVERIFY(!deliver("kelo://other?state=ok", dir));

        QLocalSocket flood;
        flood.connectToServer(QDir(dir).entryInfoList(QDir::System).first().absoluteFilePath());
        QVERIFY(flood.waitForConnected(1000));
        flood.write(QByteArray(200 * 1024, 'k'));
        flood.flush();
        QVERIFY(AsyncTest::waitUntil([&] { return flood.state() == QLocalSocket::UnconnectedState; }, 5000));

        QVERIFY(channel.isListening());
        QVERIFY(deliver("kelo://oauth?state=ok", dir));
        QCOMPARE(spy.size(), 1);
        QCOMPARE(spy.first().first().toUrl(), QUrl("kelo://oauth?state=ok"));
    }

    // A session returning its redirect is driven by MCPOAuthManagerTest, cancelling too. It also ends when
    // timed out, without a browser or without a channel to listen on.
    void aSessionEndsWithoutItsRedirect()
    {
        OAuthCallbackChannel channel(freshDirectory());
        const auto failure = [](OAuthCallbackChannel *on, bool browserOpens, int timeoutMs) {
            WebAuthenticationSession session(
                on, [=](const QUrl &) { return browserOpens; }, timeoutMs);
            return AsyncTest::awaitError<WebAuthenticationError>(session.start(QUrl("https://a.example"), "S"), 5'000)
                .value()
                .kind();
        };
        QCOMPARE(failure(&channel, true, 100), WebAuthenticationError::timedOut);
        QCOMPARE(failure(&channel, false, 60'000), WebAuthenticationError::browserUnavailable);

        QFile file(m_root.filePath("a-file"));
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.close();
        OAuthCallbackChannel blocked(file.fileName());
        QCOMPARE(failure(&blocked, true, 60'000), WebAuthenticationError::callbackChannelUnavailable);
    }
};

QTEST_GUILESS_MAIN(OAuthCallbackChannelTest)
#include "OAuthCallbackChannelTest.moc"
