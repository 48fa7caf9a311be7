#include "AsyncTest.h"
#include "TemporaryHome.h"
#include "voice/LocalSynthesizer.h"

#include <QDirIterator>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>

#include <signal.h>

// speech-dispatcher without sound never reports the end: the engine gives up and says so.
class LocalSynthesizerWithoutSoundTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void aStuckEngineFailsAtTheDeadline()
    {
        // A runtime directory of our own: no PulseAudio socket, and a speech-dispatcher of its own.
        QTemporaryDir runtime;
        ScopedEnvironment noSound("XDG_RUNTIME_DIR", runtime.path());
        ScopedEnvironment noServer("PULSE_SERVER", QStringLiteral("unix:/nonexistent"));
        // That daemon hangs in its audio output and ignores SIGTERM; its modules share its session.
        auto killDaemon = qScopeGuard([&] {
            QDirIterator pidFiles(runtime.path() + QStringLiteral("/speech-dispatcher"), { QStringLiteral("*.pid") },
                QDir::Files, QDirIterator::Subdirectories);
            while (pidFiles.hasNext()) {
                QFile file(pidFiles.next());
                if (const pid_t pid = file.open(QIODevice::ReadOnly) ? file.readAll().trimmed().toInt() : 0; pid > 1)
                    ::kill(-pid, SIGKILL);
            }
        });

        LocalSynthesizer synthesizer;
        QSignalSpy finished(&synthesizer, &LocalSynthesizer::didFinish);
        QSignalSpy failed(&synthesizer, &LocalSynthesizer::failed);
        const LocalSynthesizer::Utterance utterance { 1, QStringLiteral("Da.") };
        synthesizer.enqueue(utterance);
        QVERIFY(AsyncTest::waitUntil([&] { return !failed.isEmpty() || !finished.isEmpty(); },
            LocalSynthesizer::startDeadlineMs + LocalSynthesizer::deadlineMs(utterance) + 5'000));
        if (synthesizer.engineState() == LocalSynthesizer::EngineState::unavailable)
            QSKIP(qPrintable("speech-dispatcher is not usable here: " + synthesizer.unavailableReason()));
        if (!finished.isEmpty())
            QSKIP("speech-dispatcher found another audio output here; nothing got stuck");
        QVERIFY(failed.first().first().toString().startsWith(QStringLiteral("Vocea locală nu a răspuns la timp.")));
        // The stuck engine was left behind; the next utterance starts afresh.
        QCOMPARE(synthesizer.engineState(), LocalSynthesizer::EngineState::notStarted);
    }
};

QTEST_GUILESS_MAIN(LocalSynthesizerWithoutSoundTest)
#include "LocalSynthesizerWithoutSoundTest.moc"
