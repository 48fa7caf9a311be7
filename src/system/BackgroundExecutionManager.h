#pragma once

#include <QDBusConnection>
#include <QDBusUnixFileDescriptor>
#include <QObject>
#include <QString>

#include <chrono>

class QTimer;

// Keeps work that must not be cut off (a turn, a cloud voice request) alive: while a task is open,
// a systemd-logind "sleep" inhibitor lock is held, released by end(), by the next begin() or when
// the expiration timer runs out. Without logind the identifier simply stays invalid.
class BackgroundExecutionManager : public QObject
{
    Q_OBJECT

public:
    // How long one task may hold the lock when its owner never ends it.
    static constexpr std::chrono::milliseconds defaultExpiration = std::chrono::minutes(10);

    // Talks to logind on the system bus.
    explicit BackgroundExecutionManager(QObject *parent = nullptr);
    // Talks to whatever serves org.freedesktop.login1 on `bus` (a test's private bus).
    BackgroundExecutionManager(const QDBusConnection &bus, QObject *parent);
    ~BackgroundExecutionManager() override;

    void begin(const QString &name);
    void end();
    // A task is open: begun, not yet ended or expired, and not refused by the system. The lock
    // request is asynchronous, so right after begin() a task may be open while its lock is still
    // on its way; without logind begin() opens nothing.
    bool isActive() const;
    // The inhibitor lock is actually held.
    bool holdsSleepLock() const { return m_lock.isValid(); }

    void setExpirationInterval(std::chrono::milliseconds interval);

Q_SIGNALS:
    // The open task changed: opened, granted its lock, refused, ended or expired.
    void activeChanged();

private:
    void requestLock(const QString &name, quint64 task);
    void release();

    QDBusConnection m_bus;
    QTimer *m_expiration;
    // Identifies the open task; 0 is the invalid identifier. Replies for an older task are dropped.
    quint64 m_task = 0;
    quint64 m_lastTask = 0;
    QDBusUnixFileDescriptor m_lock;
};
