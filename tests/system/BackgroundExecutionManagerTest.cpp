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
    std::unique_ptr<FakeLogind> m_logind;
    QStringList m_connections;

    QDBusConnection connect(const QString &role)
    {
        m_connections.append(role + QString::number(m_connections.size()));
        return QDBusConnection::connectToBus(m_address, m_connections.last());
    }

    std::unique_ptr<BackgroundExecutionManager> manager()
    {
        return std::make_unique<BackgroundExecutionManager>(connect("client"), nullptr);
    }

    bool settled(int requests, const QStringList &held)
    {
        return AsyncTest::waitUntil(
            [&] { return m_logind->requests == requests && m_logind->heldReasons() == held; }, 5'000);
    }

private Q_SLOTS:
    void initTestCase()
    {
        if (QStandardPaths::findExecutable("dbus-daemon").isEmpty())
            QSKIP("dbus-daemon is not installed");
        m_daemon.start("dbus-daemon", { "--session", "--nofork", "--nopidfile", "--print-address=1" });
        QVERIFY(AsyncTest::waitUntil([&] { return m_daemon.canReadLine(); }, 5'000));
        m_address = QString::fromUtf8(m_daemon.readLine()).trimmed();
    }

    void init()
    {
        m_logind = std::make_unique<FakeLogind>();
        QDBusConnection service = connect("logind");
        QVERIFY(service.registerObject("/org/freedesktop/login1", m_logind.get(), QDBusConnection::ExportAllSlots));
        QVERIFY(service.registerService("org.freedesktop.login1"));
    }

    void cleanup()
    {
        m_logind.reset();
        for (const QString &name : std::as_const(m_connections))
            QDBusConnection::disconnectFromBus(name);
        m_connections.clear();
    }

    void eachBeginHoldsOneSleepLockUntilEndNextBeginOrExpiry()
    {
        auto background = manager();
        background->end(); // nothing open: harmless
        background->begin("Kelo response");
        QVERIFY(background->isActive());
        QVERIFY(settled(1, { "Kelo response" }));
        QVERIFY(background->holdsSleepLock());
        QCOMPARE(m_logind->locks.first().first, (QStringList { "sleep", "Kelo", "Kelo response", "block" }));
        background->end();
        QVERIFY(!background->isActive() && !background->holdsSleepLock());
        QVERIFY(settled(1, {}));

        // A lock that arrives after the task already ended is given back.
        background->begin("scurt");
        background->end();
        QVERIFY(settled(2, {}));
        QVERIFY(!background->isActive());

        // A new begin gives the previous lock back at once, not when the new one arrives.
        background->begin("Kelo cloud voice");
        QVERIFY(settled(3, { "Kelo cloud voice" }));
        background->begin("Kelo response");
        QCOMPARE(m_logind->heldReasons(), QStringList());
        QVERIFY(settled(4, { "Kelo response" }));
        // Two begins before any lock has arrived: only the second one's is kept.
        background->begin("unu");
        background->begin("doi");
        QVERIFY(settled(6, { "doi" }));
        QVERIFY(background->isActive() && background->holdsSleepLock());

        // A task its owner never ends expires; a manager destroyed mid-task gives its lock back.
        background->setExpirationInterval(std::chrono::milliseconds(100));
        background->begin("expiră");
        QVERIFY(settled(7, { "expiră" }));
        QVERIFY(AsyncTest::waitUntil([&] { return !background->isActive(); }, 5'000));
        QVERIFY(settled(7, {}));
        background->setExpirationInterval(std::chrono::milliseconds(200));
        background->begin("abandonat");
        QVERIFY(settled(8, { "abandonat" }));
        background.reset();
        QVERIFY(settled(8, {}));
        QTest::qWait(300); // the expiry of a destroyed manager must not fire into freed memory
    }

    // Refused by logind, no logind on the bus, no bus at all.
    void refusedOrMissingLogindOrBusLeavesNoTaskOpen()
    {
        m_logind->refuse = true;
        auto refused = manager();
        refused->begin("refuzat");
        QVERIFY(AsyncTest::waitUntil([&] { return !refused->isActive(); }, 5'000));
        QCOMPARE(m_logind->requests, 1);
        QVERIFY(!refused->holdsSleepLock());
        QDBusConnection(m_connections.first()).unregisterService("org.freedesktop.login1");
        auto orphan = manager();
        orphan->begin("fără logind");
        QVERIFY(AsyncTest::waitUntil([&] { return !orphan->isActive(); }, 5'000));
        BackgroundExecutionManager detached(
            QDBusConnection::connectToBus("unix:path=/nonexistent/bus", "none"), nullptr);
        detached.begin("Kelo response");
        QVERIFY(!detached.isActive());
        QDBusConnection::disconnectFromBus("none");
    }
};

QTEST_GUILESS_MAIN(BackgroundExecutionManagerTest)
#include "BackgroundExecutionManagerTest.moc"
