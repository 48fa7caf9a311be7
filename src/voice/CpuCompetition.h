#pragma once

#include <QtGlobal>

#include <optional>

// How many cores other programs keep busy. Measured over the time since the previous call from the
// system's CPU counters minus this process's own, so our own transcriptions (which use every core
// they get) and the threads that run for a moment at the release never count against us.
class CpuCompetition
{
public:
    // Busy cores since the previous call; the first call, or one too soon after the last, falls back
    // to the tasks of other programs runnable at this moment.
    int busyCores();
    // Tasks of other programs that want a core right now, from /proc/loadavg (0 when unreadable).
    static int runnableNow();

private:
    struct Sample
    {
        qint64 total = 0;
        qint64 busy = 0;
        qint64 own = 0;
    };
    static std::optional<Sample> sampleNow();
    static int ownRunningThreads();

    std::optional<Sample> m_last;
};
