#include "AsyncTest.h"
#include "TemporaryHome.h"
#include "voice/LocalSynthesizer.h"

#include <QDirIterator>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>

#include <signal.h>

namespace {

// The daemon this test spawned hangs in its audio output and ignores SIGTERM; it and its modules
// share its session, so the whole process group goes.
void killSpawnedDaemon(const QString &runtimeDir)
{
    QDirIterator files(runtimeDir + QStringLiteral("/speech-dispatcher"), { QStringLiteral("*.pid") }, QDir::Files,
        QDirIterator::Subdirectories);
    while (files.hasNext()) {
        QFile file(files.next());
        if (!file.open(QIODevice::ReadOnly))
            continue;
        const pid_t pid = pid_t(file.readAll().trimmed().toLongLong());
        if (pid > 1)
            ::kill(-pid, SIGKILL);
    }
}

} // namespace

// speech-dispatcher without any sound server: it accepts the text and then never reports the end.
// The engine must give up on its own and say so, instead of leaving Kelo "speaking" forever.
class LocalSynthesizerWithoutSoundTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void aStuckEngineFailsAtTheDeadline()
    {
        // A runtime directory of our own: no PulseAudio socket, and a speech-dispatcher of its own.
        QTemporaryDir runtime;
        QFile::setPermissions(runtime.path(), QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
        ScopedEnvironment noSound("XDG_RUNTIME_DIR", runtime.path());
        ScopedEnvironment noServer("PULSE_SERVER", QStringLiteral("unix:/nonexistent"));

        auto cleanup = qScopeGuard([&] { killSpawnedDaemon(runtime.path()); });
        LocalSynthesizer synthesizer;
        QSignalSpy started(&synthesizer, &LocalSynthesizer::didStart);
        QSignalSpy finished(&synthesizer, &LocalSynthesizer::didFinish);
        QSignalSpy failed(&synthesizer, &LocalSynthesizer::failed);
        LocalSynthesizer::Utterance utterance;
        utterance.id = 1;
        utterance.text = QStringLiteral("Da.");
        synthesizer.enqueue(utterance);
        QCOMPARE(synthesizer.engineState(), LocalSynthesizer::EngineState::starting);

        QVERIFY(AsyncTest::waitUntil(
            [&] { return synthesizer.engineState() != LocalSynthesizer::EngineState::starting; }, 60'000));
        if (synthesizer.engineState() == LocalSynthesizer::EngineState::unavailable)
            QSKIP(qPrintable("speech-dispatcher is not usable here: " + synthesizer.unavailableReason()));

        const int deadline = LocalSynthesizer::deadlineMs(utterance);
        QVERIFY(AsyncTest::waitUntil([&] { return !failed.isEmpty() || !finished.isEmpty(); }, deadline + 5'000));
        if (!finished.isEmpty())
            QSKIP("speech-dispatcher found another audio output here; nothing got stuck");
        QVERIFY(failed.first().first().toString().startsWith(QStringLiteral("Vocea locală nu a răspuns la timp.")));

        // The stuck engine was left behind; the next utterance starts afresh.
        QCOMPARE(synthesizer.engineState(), LocalSynthesizer::EngineState::notStarted);
        QVERIFY(finished.isEmpty());
    }
};

QTEST_GUILESS_MAIN(LocalSynthesizerWithoutSoundTest)
#include "LocalSynthesizerWithoutSoundTest.moc"
