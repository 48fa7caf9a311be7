#include "TranscriptionWorker.h"

#include <QPromise>

#include <memory>

TranscriptionWorker::TranscriptionWorker()
{
    m_pool.setMaxThreadCount(1);
    // whisper's decoder keeps sizeable arrays on the stack.
    m_pool.setStackSize(8 * 1024 * 1024);
}

TranscriptionWorker::~TranscriptionWorker()
{
    m_pool.waitForDone();
}

void TranscriptionWorker::enter()
{
    const int now = ++m_running;
    int peak = m_peak.load();
    while (now > peak && !m_peak.compare_exchange_weak(peak, now)) { }
}

void TranscriptionWorker::leave()
{
    --m_running;
    ++m_completed;
}

QFuture<QString> TranscriptionWorker::submit(std::function<QString()> job)
{
    auto promise = std::make_shared<QPromise<QString>>();
    QFuture<QString> future = promise->future();
    promise->start();
    m_pool.start([this, promise, job = std::move(job)] {
        enter();
        try {
            promise->addResult(job());
        } catch (...) {
            promise->setException(std::current_exception());
        }
        leave();
        promise->finish();
    });
    return future;
}

QFuture<void> TranscriptionWorker::submitVoid(std::function<void()> job)
{
    auto promise = std::make_shared<QPromise<void>>();
    QFuture<void> future = promise->future();
    promise->start();
    m_pool.start([this, promise, job = std::move(job)] {
        enter();
        try {
            job();
        } catch (...) {
            promise->setException(std::current_exception());
        }
        leave();
        promise->finish();
    });
    return future;
}
