#include "CpuCompetition.h"

#include <QDir>
#include <QFile>
#include <QList>
#include <QThread>

#include <cmath>
#include <utility>

namespace {

QByteArray firstLine(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readLine(1024) : QByteArray();
}

// The fields after "tid (name)": a name may hold spaces and ')' itself.
QList<QByteArray> statFields(const QByteArray &line)
{
    const qsizetype nameEnd = line.lastIndexOf(')');
    return nameEnd < 0 ? QList<QByteArray>() : line.mid(nameEnd + 2).trimmed().split(' ');
}

} // namespace

int CpuCompetition::busyCores()
{
    const std::optional<Sample> now = sampleNow();
    const std::optional<Sample> before = std::exchange(m_last, now);
    const int cores = std::max(1, QThread::idealThreadCount());
    // Under about 50 ms the counters (100 ticks a second) say too little.
    if (!now || !before || now->total - before->total < 5 * cores)
        return runnableNow();
    const qint64 others = (now->busy - before->busy) - (now->own - before->own);
    const double share = double(std::max<qint64>(0, others)) / double(now->total - before->total);
    return int(std::lround(share * cores));
}

std::optional<CpuCompetition::Sample> CpuCompetition::sampleNow()
{
    // "cpu  user nice system idle iowait irq softirq steal …", in ticks summed over every core.
    const QList<QByteArray> system = firstLine(QStringLiteral("/proc/stat")).simplified().split(' ');
    const QList<QByteArray> own = statFields(firstLine(QStringLiteral("/proc/self/stat")));
    if (system.size() < 9 || system.first() != "cpu" || own.size() < 13)
        return std::nullopt;
    Sample sample;
    for (int i = 1; i <= 8; ++i)
        sample.total += system[i].toLongLong();
    sample.busy = sample.total - system[4].toLongLong() - system[5].toLongLong();
    sample.own = own[11].toLongLong() + own[12].toLongLong(); // user and system time
    return sample;
}

int CpuCompetition::runnableNow()
{
    // "0.52 0.58 0.59 3/467 12345": the averages, then tasks runnable now / all tasks. The averages
    // hold our own earlier transcriptions; what counts is who competes for the cores at this moment.
    const QList<QByteArray> fields = firstLine(QStringLiteral("/proc/loadavg")).split(' ');
    const int runnable = fields.value(3).split('/').value(0).toInt();
    return std::max(0, runnable - ownRunningThreads());
}

int CpuCompetition::ownRunningThreads()
{
    int running = 0;
    const QDir tasks(QStringLiteral("/proc/self/task"));
    for (const QString &task : tasks.entryList(QDir::Dirs | QDir::NoDotAndDotDot))
        running += statFields(firstLine(tasks.filePath(task + QStringLiteral("/stat")))).value(0) == "R" ? 1 : 0;
    // The thread reading this runs, whatever the files said.
    return std::max(1, running);
}
