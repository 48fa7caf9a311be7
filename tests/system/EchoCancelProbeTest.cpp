#include "system/EchoCancelProbe.h"

#include "AsyncTest.h"

#include <QElapsedTimer>
#include <QFile>
#include <QProcess>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QTest>

namespace {

// A pactl stand-in: logs its arguments, then runs the given shell body.
QString fakePactl(const QTemporaryDir &dir, const QByteArray &body)
{
    const QString path = dir.filePath(QStringLiteral("pactl"));
    QFile script(path);
    script.open(QIODevice::WriteOnly);
    script.write("#!/bin/sh\necho \"$@\" >> \"$(dirname \"$0\")/calls\"\n" + body + "\n");
    script.close();
    script.setPermissions(script.permissions() | QFileDevice::ExeOwner);
    return path;
}

QStringList calls(const QTemporaryDir &dir)
{
    QFile log(dir.filePath(QStringLiteral("calls")));
    log.open(QIODevice::ReadOnly);
    return QString::fromUtf8(log.readAll()).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
}

} // namespace

class EchoCancelProbeTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void reportsWhyNotOrCleansUp_data()
    {
        QTest::addColumn<QByteArray>("body");
        QTest::addColumn<bool>("available");
        QTest::addColumn<QString>("reasonPart");
        QTest::addColumn<QString>("lastCall");

        QTest::newRow("no server") << QByteArray("echo 'Connection failure: Connection refused' >&2; exit 1") << false
                                   << QStringLiteral("niciun server de sunet") << QStringLiteral("info");
        QTest::newRow("module refused") << QByteArray(
            "[ \"$1\" = info ] && exit 0\necho 'Failure: Module initialization failed' >&2; exit 1")
                                        << false << QStringLiteral("Module initialization failed")
                                        << QStringLiteral("load-module");
        QTest::newRow("loaded, then unloaded") << QByteArray("[ \"$1\" = load-module ] && echo 536870913\nexit 0")
                                               << true << QString() << QStringLiteral("unload-module 536870913");
        QTest::newRow("garbage instead of an index")
            << QByteArray("[ \"$1\" = load-module ] && head -c 300 /dev/urandom\nexit 0") << true << QString()
            << QStringLiteral("load-module");
        QTest::newRow("killed by a signal")
            << QByteArray("kill -9 $$") << false << QStringLiteral("nu a răspuns") << QStringLiteral("info");
        QTest::newRow("refused, with a flood on stderr")
            << QByteArray("[ \"$1\" = info ] && exit 0\nhead -c 200000 /dev/zero | tr '\\0' x >&2; exit 1") << false
            << QStringLiteral("module-echo-cancel") << QStringLiteral("load-module");
    }

    void reportsWhyNotOrCleansUp()
    {
        QFETCH(QByteArray, body);
        QFETCH(bool, available);
        QFETCH(QString, reasonPart);
        QFETCH(QString, lastCall);
        QTemporaryDir dir;
        const EchoCancelProbe::Result result = AsyncTest::await(EchoCancelProbe(fakePactl(dir, body)).probe());
        QCOMPARE(result.available, available);
        QVERIFY2(result.reason.contains(reasonPart), qPrintable(result.reason));
        QVERIFY(result.reason.size() < 400);
        QCOMPARE(result.reason.isEmpty(), available);
        QVERIFY(calls(dir).constLast().startsWith(lastCall));
    }

    void missingOrBrokenPactlIsNamedPromptly()
    {
        const EchoCancelProbe::Result missing
            = AsyncTest::await(EchoCancelProbe(QStringLiteral("/nonexistent/pactl")).probe());
        QVERIFY(!missing.available);
        QVERIFY2(missing.reason.contains(QStringLiteral("pactl")), qPrintable(missing.reason));

        // Executable, but with an interpreter that is not there: exec fails after the file was found.
        QTemporaryDir dir;
        QFile script(dir.filePath(QStringLiteral("pactl")));
        QVERIFY(script.open(QIODevice::WriteOnly));
        script.write("#!/nonexistent/interpreter\n");
        script.close();
        script.setPermissions(script.permissions() | QFileDevice::ExeOwner);
        QElapsedTimer timer;
        timer.start();
        const EchoCancelProbe::Result broken = AsyncTest::await(EchoCancelProbe(script.fileName()).probe());
        QVERIFY(!broken.available);
        QVERIFY(!broken.reason.isEmpty());
        QVERIFY2(timer.elapsed() < EchoCancelProbe::kTimeoutMs * 2, qPrintable(QString::number(timer.elapsed())));
    }

    // With the PulseAudio of the test services: the module loads, and nothing is left behind.
    void realServerLeavesNoModuleLoaded()
    {
        QProcess info;
        info.start(QStringLiteral("pactl"), { QStringLiteral("info") });
        if (!info.waitForFinished(5000) || info.exitStatus() != QProcess::NormalExit || info.exitCode() != 0)
            QSKIP("no PulseAudio server");
        const EchoCancelProbe::Result result = AsyncTest::await(EchoCancelProbe().probe());
        QVERIFY2(result.available, qPrintable(result.reason));
        QProcess modules;
        modules.start(
            QStringLiteral("pactl"), { QStringLiteral("list"), QStringLiteral("short"), QStringLiteral("modules") });
        QVERIFY(modules.waitForFinished(5000));
        QVERIFY(!modules.readAllStandardOutput().contains("kelo_echo_probe"));
    }
};

QTEST_GUILESS_MAIN(EchoCancelProbeTest)
#include "EchoCancelProbeTest.moc"
