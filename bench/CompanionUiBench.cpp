// Start-up, memory and CPU of the desktop app, measured on the real app (chat store, views, tray).
// Run it with a display (Xvfb or a desktop) or QT_QPA_PLATFORM=offscreen; it prints one line per
// figure. Files go to a temporary home so a run never touches the user's settings or keys.

#include "CompanionApp.h"
#include "settings/LegacyLocalModelCleaner.h"

#include <QApplication>
#include <QElapsedTimer>
#include <QFile>
#include <QQuickWindow>
#include <QTemporaryDir>
#include <QTextStream>
#include <QTimer>

#include <cstdio>
#include <sys/resource.h>
#include <unistd.h>

namespace {

// Milliseconds since the kernel started this process (before the dynamic loader ran).
double msSinceProcessStart()
{
    QFile stat(QStringLiteral("/proc/self/stat"));
    QFile uptime(QStringLiteral("/proc/uptime"));
    if (!stat.open(QIODevice::ReadOnly) || !uptime.open(QIODevice::ReadOnly))
        return -1;
    const QByteArray line = stat.readAll();
    // Field 22 (starttime) counts after the ")" that closes the command name.
    const QList<QByteArray> fields = line.mid(line.lastIndexOf(')') + 2).split(' ');
    const double startTicks = fields.value(19).toDouble();
    const double uptimeSeconds = uptime.readAll().split(' ').value(0).toDouble();
    return (uptimeSeconds - startTicks / sysconf(_SC_CLK_TCK)) * 1000.0;
}

double residentMegabytes()
{
    QFile status(QStringLiteral("/proc/self/status"));
    if (!status.open(QIODevice::ReadOnly))
        return -1;
    for (const QByteArray &line : status.readAll().split('\n')) {
        if (line.startsWith("VmRSS:"))
            return line.mid(6).trimmed().split(' ').value(0).toDouble() / 1024.0;
    }
    return -1;
}

double cpuSeconds()
{
    rusage usage {};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_utime.tv_sec + usage.ru_stime.tv_sec + (usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

void runEventLoopFor(int ms)
{
    QEventLoop loop;
    QTimer::singleShot(ms, &loop, &QEventLoop::quit);
    loop.exec();
}

// Share of one core used while the event loop runs for `ms`.
double cpuShareOver(int ms)
{
    QElapsedTimer wall;
    const double before = cpuSeconds();
    wall.start();
    runEventLoopFor(ms);
    return (cpuSeconds() - before) / (wall.elapsed() / 1000.0) * 100.0;
}

} // namespace

int main(int argc, char *argv[])
{
    QElapsedTimer sinceMain;
    sinceMain.start();
    QTemporaryDir home;
    for (const char *name : { "XDG_CONFIG_HOME", "XDG_DATA_HOME", "XDG_CACHE_HOME" })
        qputenv(name, home.path().toUtf8() + '/' + name);
    qputenv("KELO_SECRET_STORE", "file");

    QApplication app(argc, argv);
    CompanionApp::configureApplication();
    LegacyLocalModelCleaner::runOnce();
    CompanionApp companion;
    double firstFrameSinceExec = -1;
    double firstFrameSinceMain = -1;
    if (!companion.start())
        return 1;
    QObject::connect(companion.window(), &QQuickWindow::frameSwapped, &app, [&] {
        if (firstFrameSinceMain < 0) {
            firstFrameSinceMain = sinceMain.nsecsElapsed() / 1e6;
            firstFrameSinceExec = msSinceProcessStart();
        }
    });
    QElapsedTimer waiting;
    waiting.start();
    while (firstFrameSinceMain < 0 && waiting.elapsed() < 10000)
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents, 50);

    const int measureMs = qEnvironmentVariableIntValue("KELO_BENCH_SECONDS") > 0
        ? qEnvironmentVariableIntValue("KELO_BENCH_SECONDS") * 1000
        : 10000;
    runEventLoopFor(2000); // settle: first layouts, lazy loads
    // A picture of the real app at rest, for a look at what was measured.
    const QString screenshot = qEnvironmentVariable("KELO_BENCH_SCREENSHOT");
    if (!screenshot.isEmpty())
        companion.window()->grabWindow().save(screenshot);
    const double rss = residentMegabytes();
    const double cpuShown = cpuShareOver(measureMs);
    companion.window()->hide();
    runEventLoopFor(500);
    const double cpuHidden = cpuShareOver(measureMs);

    QTextStream out(stdout);
    out << "platform " << QGuiApplication::platformName() << ", scene graph " << QQuickWindow::sceneGraphBackend()
        << '\n';
    out << "first frame shown: " << QString::number(firstFrameSinceExec, 'f', 0) << " ms since exec, "
        << QString::number(firstFrameSinceMain, 'f', 0) << " ms since main()  (target < 400 ms)\n";
    out << "resident memory at rest: " << QString::number(rss, 'f', 1) << " MB  (target < 150 MB)\n";
    out << "CPU, orb animating, window shown: " << QString::number(cpuShown, 'f', 1)
        << " % of one core  (target < 5 %)\n";
    out << "CPU, window hidden: " << QString::number(cpuHidden, 'f', 2) << " % of one core  (target ~0)\n";
    return 0;
}
