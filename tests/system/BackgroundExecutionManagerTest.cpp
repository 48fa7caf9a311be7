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

namespace {

// Stands in for logind's manager: hands out the write end of a pipe per lock and watches the read
// end, which reports a hang-up once every copy of the write end is closed, that is, once the lock
// is released.
class FakeLogind
    : public QObject
    , protected QDBusContext
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.freedesktop.login1.Manager")

public:
    struct Lock
    {
        QStringList arguments;
        int readEnd;
    };

    bool refuse = false;

    ~FakeLogind() override
    {
        for (const Lock &lock : std::as_const(m_locks))
            ::close(lock.readEnd);
    }

    int requestCount() const { return m_requests; }
    QList<Lock> locks() const { return m_locks; }

    // The reasons ("why") of the locks somebody still holds.
    QStringList heldReasons() const
    {
        QStringList reasons;
        for (const Lock &lock : m_locks) {
            pollfd probe { lock.readEnd, POLLIN, 0 };
            if (::poll(&probe, 1, 0) == 0)
                reasons.append(lock.arguments.at(2));
        }
        return reasons;
    }

public Q_SLOTS:
    QDBusUnixFileDescriptor Inhibit(const QString &what, const QString &who, const QString &why, const QString &mode)
    {
        ++m_requests;
        if (refuse) {
            sendErrorReply(QDBusError::AccessDenied, QStringLiteral("no"));
            return {};
        }
        int ends[2];
        if (::pipe(ends) != 0)
            return {};
        m_locks.append(Lock { { what, who, why, mode }, ends[0] });
        QDBusUnixFileDescriptor handed(ends[1]); // duplicates the descriptor
        ::close(ends[1]);
        return handed;
    }

private:
    int m_requests = 0;
    QList<Lock> m_locks;
};

} // namespace

class BackgroundExecutionManagerTest : public QObject
{
    Q_OBJECT

private:
    QProcess m_daemon;
    QString m_address;
    std::unique_ptr<FakeLogind> m_logind;
    int m_connections = 0;
    QString m_serviceName;
    QStringList m_connectionNames;

    QDBusConnection connect(const QString &role)
    {
        m_connectionNames.append(role + QString::number(++m_connections));
        return QDBusConnection::connectToBus(m_address, m_connectionNames.last());
    }

    std::unique_ptr<BackgroundExecutionManager> manager()
    {
        return std::make_unique<BackgroundExecutionManager>(connect(QStringLiteral("client")), nullptr);
    }

    bool settled(int requests, const QStringList &held)
    {
        return AsyncTest::waitUntil(
            [&] { return m_logind->requestCount() == requests && m_logind->heldReasons() == held; }, 5'000);
    }

private Q_SLOTS:
    void initTestCase()
    {
        const QString daemon = QStandardPaths::findExecutable(QStringLiteral("dbus-daemon"));
        if (daemon.isEmpty())
            QSKIP("dbus-daemon is not installed");
        m_daemon.start(daemon, { "--session", "--nofork", "--nopidfile", "--print-address=1" });
        QVERIFY(m_daemon.waitForStarted());
        QVERIFY(AsyncTest::waitUntil([&] { return m_daemon.canReadLine(); }, 5'000));
        m_address = QString::fromUtf8(m_daemon.readLine()).trimmed();
    }

    void cleanupTestCase()
    {
        if (m_daemon.state() != QProcess::NotRunning) {
            m_daemon.kill();
            m_daemon.waitForFinished();
        }
    }

    void init()
    {
        m_logind = std::make_unique<FakeLogind>();
        QDBusConnection service = connect(QStringLiteral("logind"));
        m_serviceName = service.name();
        QVERIFY(service.registerObject("/org/freedesktop/login1", m_logind.get(), QDBusConnection::ExportAllSlots));
        QVERIFY(service.registerService("org.freedesktop.login1"));
    }

    void cleanup()
    {
        m_logind.reset();
        for (const QString &name : std::as_const(m_connectionNames))
            QDBusConnection::disconnectFromBus(name);
        m_connectionNames.clear();
    }

    void eachBeginHoldsOneSleepLockUntilEndOrTheNextBegin()
    {
        auto background = manager();
        QVERIFY(!background->isActive());
        background->end(); // nothing open: harmless

        background->begin(QStringLiteral("Kelo response"));
        QVERIFY(background->isActive());
        QVERIFY(settled(1, { "Kelo response" }));
        QVERIFY(background->holdsSleepLock());
        QCOMPARE(m_logind->locks().first().arguments, (QStringList { "sleep", "Kelo", "Kelo response", "block" }));

        background->end();
        QVERIFY(!background->isActive());
        QVERIFY(!background->holdsSleepLock());
        QVERIFY(settled(1, {}));

        // A lock that arrives after the task already ended is given back.
        background->begin(QStringLiteral("scurt"));
        background->end();
        QVERIFY(AsyncTest::waitUntil([&] { return m_logind->locks().size() == 2; }));
        QVERIFY(settled(2, {}));
        QVERIFY(!background->isActive());

        // A new begin gives the previous lock back at once, not when the new one arrives.
        background->begin(QStringLiteral("Kelo cloud voice"));
        QVERIFY(settled(3, { "Kelo cloud voice" }));
        background->begin(QStringLiteral("Kelo response"));
        QCOMPARE(m_logind->heldReasons(), QStringList());
        QVERIFY(settled(4, { "Kelo response" }));
        // Two begins before any lock has arrived: only the second one's is kept.
        background->begin(QStringLiteral("unu"));
        background->begin(QStringLiteral("doi"));
        QVERIFY(settled(6, { "doi" }));
        QVERIFY(background->isActive() && background->holdsSleepLock());
    }

    void expirationAndOwnerGoneReleaseTheLock()
    {
        auto background = manager();
        background->setExpirationInterval(std::chrono::milliseconds(100));
        background->begin(QStringLiteral("expiră"));
        QVERIFY(settled(1, { "expiră" }));
        QVERIFY(AsyncTest::waitUntil([&] { return !background->isActive(); }, 5'000));
        QVERIFY(settled(1, {}));

        background->setExpirationInterval(std::chrono::milliseconds(200));
        background->begin(QStringLiteral("abandonat"));
        QVERIFY(settled(2, { "abandonat" }));
        background.reset();
        QVERIFY(settled(2, {}));
        QTest::qWait(300); // the expiry of a destroyed manager must not fire into freed memory
    }

    void refusedOrMissingLogindOrBusLeavesNoTaskOpen()
    {
        m_logind->refuse = true;
        auto background = manager();
        background->begin(QStringLiteral("refuzat"));
        QVERIFY(AsyncTest::waitUntil([&] { return !background->isActive(); }, 5'000));
        QCOMPARE(m_logind->requestCount(), 1);
        QVERIFY(!background->holdsSleepLock());
        background->end();

        // A bus without logind on it.
        QDBusConnection(m_serviceName).unregisterService("org.freedesktop.login1");
        auto orphan = manager();
        orphan->begin(QStringLiteral("fără logind"));
        QVERIFY(AsyncTest::waitUntil([&] { return !orphan->isActive(); }, 5'000));
        orphan->end();

        // No bus at all.
        BackgroundExecutionManager detached(
            QDBusConnection::connectToBus(QStringLiteral("unix:path=/nonexistent/kelo-bus"), QStringLiteral("none")),
            nullptr);
        detached.begin(QStringLiteral("Kelo response"));
        QVERIFY(!detached.isActive());
        detached.end();
        QVERIFY(!detached.isActive());
        QDBusConnection::disconnectFromBus(QStringLiteral("none"));
    }
};

QTEST_GUILESS_MAIN(BackgroundExecutionManagerTest)
#include "BackgroundExecutionManagerTest.moc"
