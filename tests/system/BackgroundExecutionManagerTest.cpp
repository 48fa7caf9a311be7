#include "system/BackgroundExecutionManager.h"

#include "AsyncTest.h"

#include <QDBusConnectionInterface>
#include <QDBusContext>
#include <QDBusError>
#include <QProcess>
#include <QStandardPaths>
#include <QTest>

#include <poll.h>
#include <unistd.h>

// logind's manager: a pipe per lock, whose read end hangs up once the lock is released.
class FakeLogind
    : public QObject
    , protected QDBusContext
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.freedesktop.login1.Manager")

public:
    bool refuse = false;
    int requests = 0;
    QList<std::pair<QStringList, int>> locks; // the arguments of each lock and its read end

    ~FakeLogind() override
    {
        for (const auto &lock : std::as_const(locks))
            ::close(lock.second);
    }

    // The reasons ("why") of the locks somebody still holds.
    QStringList heldReasons() const
    {
        QStringList reasons;
        for (const auto &[arguments, readEnd] : locks) {
            pollfd probe { readEnd, POLLIN, 0 };
            if (::poll(&probe, 1, 0) == 0)
                reasons.append(arguments.at(2));
        }
        return reasons;
    }

public Q_SLOTS:
    QDBusUnixFileDescriptor Inhibit(const QString &what, const QString &who, const QString &why, const QString &mode)
    {
        ++requests;
        int ends[2];
        if (refuse || ::pipe(ends) != 0) {
            sendErrorReply(QDBusError::AccessDenied, "no");
            return {};
        }
        locks.append({ { what, who, why, mode }, ends[0] });
        QDBusUnixFileDescriptor handed(ends[1]); // duplicates the descriptor
        ::close(ends[1]);
        return handed;
    }
};

class BackgroundExecutionManagerTest : public QObject
{
    Q_OBJECT

    QProcess m_daemon;
    QString m_address;
    FakeLogind m_logind;
    int m_connections = 0;

    QDBusConnection connect() { return QDBusConnection::connectToBus(m_address, QString::number(++m_connections)); }

    bool settled(int requests, const QStringList &held)
    {
        return AsyncTest::waitUntil(
            [&] { return m_logind.requests == requests && m_logind.heldReasons() == held; }, 5'000);
    }

private Q_SLOTS:
    void initTestCase()
    {
        if (QStandardPaths::findExecutable("dbus-daemon").isEmpty())
            QSKIP("dbus-daemon is not installed");
        m_daemon.start("dbus-daemon", { "--session", "--nofork", "--nopidfile", "--print-address=1" });
        QVERIFY(AsyncTest::waitUntil([&] { return m_daemon.canReadLine(); }, 5'000));
        m_address = QString::fromUtf8(m_daemon.readLine()).trimmed();
        QDBusConnection service = connect();
        QVERIFY(service.registerObject("/org/freedesktop/login1", &m_logind, QDBusConnection::ExportAllSlots));
        QVERIFY(service.registerService("org.freedesktop.login1"));
    }

    void eachBeginHoldsOneSleepLockUntilEndNextBeginOrExpiry()
    {
        auto background = std::make_unique<BackgroundExecutionManager>(connect(), nullptr);
        background->end(); // nothing open: harmless
        background->begin("Kelo response");
        QVERIFY(settled(1, { "Kelo response" }) && background->holdsSleepLock());
        QCOMPARE(m_logind.locks.first().first, (QStringList { "sleep", "Kelo", "Kelo response", "block" }));
        background->end();
        QVERIFY(!background->isActive() && !background->holdsSleepLock());
        QVERIFY(settled(1, {}));

        // A new begin gives the previous lock back at once, not when the new one arrives.
        background->begin("Kelo cloud voice");
        QVERIFY(settled(2, { "Kelo cloud voice" }));
        background->begin("Kelo response");
        QCOMPARE(m_logind.heldReasons(), QStringList());
        // A lock that arrives after its task ended is given back.
        background->end();
        QVERIFY(settled(3, {}));

        // A task its owner never ends expires; a manager destroyed mid-task gives its lock back.
        background->setExpirationInterval(std::chrono::milliseconds(100));
        background->begin("expiră");
        QVERIFY(settled(4, { "expiră" }));
        QVERIFY(AsyncTest::waitUntil([&] { return !background->isActive(); }, 5'000));
        QVERIFY(settled(4, {}));
        background->setExpirationInterval(std::chrono::milliseconds(200));
        background->begin("abandonat");
        QVERIFY(settled(5, { "abandonat" }));
        background.reset();
        QVERIFY(settled(5, {}));
        QTest::qWait(300); // the expiry of a destroyed manager must not fire into freed memory

        // Refused by logind (a missing logind answers with an error too), or no bus at all: no task stays open.
        m_logind.refuse = true;
        BackgroundExecutionManager refused(connect(), nullptr);
        refused.begin("refuzat");
        QVERIFY(AsyncTest::waitUntil([&] { return !refused.isActive(); }, 5'000));
        QCOMPARE(m_logind.requests, 6);
        BackgroundExecutionManager detached(
            QDBusConnection::connectToBus("unix:path=/nonexistent/bus", "none"), nullptr);
        detached.begin("Kelo response");
        QVERIFY(!detached.isActive());
        QDBusConnection::disconnectFromBus("none");
    }
};

QTEST_GUILESS_MAIN(BackgroundExecutionManagerTest)
#include "BackgroundExecutionManagerTest.moc"
