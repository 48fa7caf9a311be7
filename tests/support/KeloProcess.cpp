#include "KeloProcess.h"

#include "AsyncTest.h"

#include <QElapsedTimer>
#include <QProcess>

namespace KeloProcess {

Result run(const QString &executable, const QStringList &arguments, const Options &options)
{
    QProcess process;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    for (const auto &[name, value] : options.environment)
        environment.insert(name, value);
    process.setProcessEnvironment(environment);
    QElapsedTimer clock;
    clock.start();
    process.start(executable, arguments);
    process.write(options.input);
    process.closeWriteChannel();
    const bool finished = AsyncTest::waitUntil(
        [&] {
            if (options.whileRunning)
                options.whileRunning();
            return process.state() == QProcess::NotRunning;
        },
        options.timeoutMs);
    if (!finished) {
        process.kill();
        process.waitForFinished(5'000);
    }
    return { finished ? process.exitCode() : -1, QString::fromUtf8(process.readAllStandardOutput()),
        QString::fromUtf8(process.readAllStandardError()), clock.elapsed() };
}

} // namespace KeloProcess
