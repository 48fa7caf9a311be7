#pragma once

#include <QFuture>
#include <QString>
#include <QThreadPool>

#include <atomic>
#include <functional>

// The one thread that runs whisper. Jobs queue up and run strictly one after another, so a model is
// never used by two transcriptions at once and the UI thread never waits for the CPU-heavy work.
class TranscriptionWorker
{
public:
    TranscriptionWorker();
    // Waits for the running job; callers abort it first.
    ~TranscriptionWorker();

    TranscriptionWorker(const TranscriptionWorker &) = delete;
    TranscriptionWorker &operator=(const TranscriptionWorker &) = delete;

    // The job's result (or its exception) arrives through the future.
    QFuture<QString> submit(std::function<QString()> job);
    QFuture<void> submitVoid(std::function<void()> job);

    // Blocks until every queued job has returned.
    void waitForDone() { m_pool.waitForDone(); }

    int runningJobs() const { return m_running.load(); }
    // The most jobs ever seen running at the same moment (1 unless something is badly wrong).
    int peakConcurrency() const { return m_peak.load(); }
    int completedJobs() const { return m_completed.load(); }

private:
    void enter();
    void leave();

    QThreadPool m_pool;
    std::atomic<int> m_running { 0 };
    std::atomic<int> m_peak { 0 };
    std::atomic<int> m_completed { 0 };
};
