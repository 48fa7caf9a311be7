#include "BackgroundExecutionManager.h"

#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QPointer>
#include <QTimer>

namespace {

const QString loginService = QStringLiteral("org.freedesktop.login1");
const QString loginPath = QStringLiteral("/org/freedesktop/login1");
const QString loginManager = QStringLiteral("org.freedesktop.login1.Manager");
// The call runs asynchronously; this only bounds how long a task waits for a lock that never comes.
constexpr int inhibitCallTimeoutMs = 5'000;

} // namespace

BackgroundExecutionManager::BackgroundExecutionManager(QObject *parent)
    : BackgroundExecutionManager(QDBusConnection::systemBus(), parent)
{ }

BackgroundExecutionManager::BackgroundExecutionManager(const QDBusConnection &bus, QObject *parent)
    : QObject(parent)
    , m_bus(bus)
    , m_expiration(new QTimer(this))
{
    m_expiration->setSingleShot(true);
    m_expiration->setInterval(defaultExpiration);
    // The timer dies with the manager, so an expiry after the owner is gone never fires.
    connect(m_expiration, &QTimer::timeout, this, &BackgroundExecutionManager::end);
}

BackgroundExecutionManager::~BackgroundExecutionManager() = default;

void BackgroundExecutionManager::begin(const QString &name)
{
    release();
    if (!m_bus.isConnected()) {
        Q_EMIT activeChanged();
        return;
    }
    m_task = ++m_lastTask;
    m_expiration->start();
    requestLock(name, m_task);
    Q_EMIT activeChanged();
}

void BackgroundExecutionManager::end()
{
    if (m_task == 0)
        return;
    release();
    Q_EMIT activeChanged();
}

bool BackgroundExecutionManager::isActive() const
{
    return m_task != 0;
}

void BackgroundExecutionManager::setExpirationInterval(std::chrono::milliseconds interval)
{
    m_expiration->setInterval(interval);
}

void BackgroundExecutionManager::requestLock(const QString &name, quint64 task)
{
    QDBusMessage call
        = QDBusMessage::createMethodCall(loginService, loginPath, loginManager, QStringLiteral("Inhibit"));
    call << QStringLiteral("sleep") << QStringLiteral("Kelo") << name << QStringLiteral("block");
    auto *watcher = new QDBusPendingCallWatcher(m_bus.asyncCall(call, inhibitCallTimeoutMs), this);
    connect(watcher, &QDBusPendingCallWatcher::finished, this, [this, watcher, task] {
        watcher->deleteLater();
        // A lock granted to a task that has since ended is dropped (and so closed) right here.
        const QDBusPendingReply<QDBusUnixFileDescriptor> reply = *watcher;
        if (task != m_task)
            return;
        if (reply.isError() || !reply.value().isValid()) {
            release();
        } else {
            m_lock = reply.value();
        }
        Q_EMIT activeChanged();
    });
}

// Closing our copy of the descriptor is what hands the lock back to logind.
void BackgroundExecutionManager::release()
{
    m_expiration->stop();
    m_lock = QDBusUnixFileDescriptor();
    m_task = 0;
}
