#include "system/EchoCancelProbe.h"

#include "AsyncTest.h"

#include <QElapsedTimer>
#include <QFile>
#include <QProcess>
#include <QTemporaryDir>
#include <QTest>

class EchoCancelProbeTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    // A logging pactl running the row's body ("#!…": the whole script; none: no pactl at all).
    void reportsWhyNotOrCleansUp_data()
    {
        QTest::addColumn<QByteArray>("body");
        QTest::addColumn<bool>("available");
        QTest::addColumn<QString>("reasonPart");
        QTest::addColumn<QString>("lastCall");
        const QByteArray infoWorks = "[ \"$1\" = info ] && exit 0\n";
        QTest::newRow("no server") << QByteArray("echo 'Connection refused' >&2; exit 1") << false
                                   << QString("niciun server de sunet") << QString("info");
        QTest::newRow("module refused at length")
            << infoWorks
                + "printf 'Failure: Module initialization failed' >&2\n"
                  "head -c 200000 /dev/zero | tr '\\0' x >&2; exit 1"
            << false << QString("Module initialization failed") << QString("load-module");
        QTest::newRow("loaded, then unloaded") << QByteArray("[ \"$1\" = load-module ] && echo 536870913\nexit 0")
                                               << true << QString() << QString("unload-module 536870913");
        QTest::newRow("garbage instead of an index")
            << QByteArray("[ \"$1\" = load-module ] && head -c 300 /dev/urandom\nexit 0") << true << QString()
            << QString("load-module");
        QTest::newRow("killed by a signal")
            << QByteArray("kill -9 $$") << false << QString("nu a răspuns") << QString("info");
        QTest::newRow("missing") << QByteArray() << false << QString("pactl") << QString();
        QTest::newRow("interpreter missing")
            << QByteArray("#!/nonexistent/interpreter\n") << false << QString("nu a răspuns") << QString();
    }

    void reportsWhyNotOrCleansUp()
    {
        QFETCH(QByteArray, body);
        QFETCH(bool, available);
        QFETCH(QString, reasonPart);
        QFETCH(QString, lastCall);
        QTemporaryDir dir;
        QFile script(dir.filePath("pactl"));
        if (!body.isEmpty()) {
            QVERIFY(script.open(QIODevice::WriteOnly));
            script.write(body.startsWith("#!") ? body : "#!/bin/sh\necho \"$@\" >> \"$0.calls\"\n" + body + "\n");
            script.close();
            script.setPermissions(script.permissions() | QFileDevice::ExeOwner);
        }
        QElapsedTimer timer;
        timer.start();
        const EchoCancelProbe::Result result = AsyncTest::await(EchoCancelProbe(script.fileName()).probe());
        QVERIFY2(timer.elapsed() < EchoCancelProbe::kTimeoutMs * 2, qPrintable(QString::number(timer.elapsed())));
        QCOMPARE(result.available, available);
        QVERIFY2(result.reason.contains(reasonPart) && result.reason.size() < 400, qPrintable(result.reason));
        QCOMPARE(result.reason.isEmpty(), available);
        QFile log(script.fileName() + ".calls");
        QCOMPARE(log.open(QIODevice::ReadOnly), !lastCall.isEmpty());
        if (log.isOpen())
            QVERIFY(QString::fromUtf8(log.readAll()).trimmed().section('\n', -1).startsWith(lastCall));
    }

    // With the PulseAudio of the test services: the module loads, and nothing is left behind.
    void realServerLeavesNoModuleLoaded()
    {
        QProcess pactl;
        pactl.start("pactl", { "info" });
        if (!pactl.waitForFinished(5000) || pactl.exitStatus() != QProcess::NormalExit || pactl.exitCode() != 0)
            QSKIP("no PulseAudio server");
        const EchoCancelProbe::Result result = AsyncTest::await(EchoCancelProbe().probe());
        QVERIFY2(result.available, qPrintable(result.reason));
        pactl.start("pactl", { "list", "short", "modules" });
        QVERIFY(pactl.waitForFinished(5000));
        QVERIFY(!pactl.readAllStandardOutput().contains("kelo_echo_probe"));
    }
};

QTEST_GUILESS_MAIN(EchoCancelProbeTest)
#include "EchoCancelProbeTest.moc"
