#pragma once

#include <QCoroFuture>
#include <QCoroTask>
#include <QList>
#include <QObject>
#include <QPromise>

#include <functional>

namespace SignalWait {

// Returns once `done()` holds, checked now and whenever one of the sender's signals fires. Unlike
// awaiting a signal itself (QCoro 0.8 queues one resumption per emission, so a burst of emissions
// resumes a frame that has moved on), the wait ends once, from the event loop.
template<typename Sender, typename... Signals>
QCoro::Task<> until(Sender *sender, std::function<bool()> done, Signals... changes)
{
    if (done())
        co_return;
    QPromise<void> settled;
    settled.start();
    const auto check = [&settled, &done] {
        if (done() && !settled.future().isFinished())
            settled.finish();
    };
    const QList<QMetaObject::Connection> connections { QObject::connect(sender, changes, check)... };
    co_await settled.future();
    for (const QMetaObject::Connection &connection : connections)
        QObject::disconnect(connection);
}

} // namespace SignalWait
