#include "voice/MicrophoneInput.h"

#include "AsyncTest.h"
#include "RandomWhisperModel.h"
#include "TemporaryHome.h"
#include "VoiceSamples.h"
#include "voice/AudioMath.h"
#include "voice/Resampler.h"
#include "voice/SpeechRecognizer.h"
#include "voice/WhisperModelManager.h"

#include <QFile>
#include <QProcess>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QTest>

#include <csignal>
#include <thread>

// The microphone path against a real PulseAudio server: a private daemon whose default source is a
// pipe the test writes PCM into, so the capture, format choice and resampling are those of a user.
class MicrophoneInputTest : public QObject
{
    Q_OBJECT

    QTemporaryDir m_runtime;
    QString m_fifo;
    bool m_started = false;

    static bool run(const QString &program, const QStringList &arguments)
    {
        QProcess process;
        // Off the session bus: a shared test server there already holds PulseAudio's bus name.
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.remove(QStringLiteral("DBUS_SESSION_BUS_ADDRESS"));
        process.setProcessEnvironment(environment);
        process.start(program, arguments);
        return process.waitForFinished(20'000) && process.exitStatus() == QProcess::NormalExit
            && process.exitCode() == 0;
    }

    // 16-bit little-endian mono at 16 kHz, written on a thread: the pipe blocks while PulseAudio
    // reads it in real time.
    std::thread feed(const QVector<float> &mono16k)
    {
        return std::thread([path = m_fifo, pcm = VoiceSamples::wavBytes(mono16k, 16000, 1).mid(44)] {
            QFile fifo(path);
            if (fifo.open(QIODevice::WriteOnly | QIODevice::Unbuffered))
                fifo.write(pcm);
        });
    }

private Q_SLOTS:
    void initTestCase()
    {
        const QString pulseaudio = QStandardPaths::findExecutable(QStringLiteral("pulseaudio"));
        const QString pactl = QStandardPaths::findExecutable(QStringLiteral("pactl"));
        if (pulseaudio.isEmpty() || pactl.isEmpty())
            QSKIP("PulseAudio is not installed");
        // Before anything touches Qt Multimedia: it connects once and never again.
        qputenv("XDG_RUNTIME_DIR", m_runtime.path().toUtf8());
        qunsetenv("PULSE_SERVER");
        m_started = run(pulseaudio,
            { QStringLiteral("--daemonize=yes"), QStringLiteral("--exit-idle-time=-1"), QStringLiteral("-n"),
                QStringLiteral("--use-pid-file=yes"),
                QStringLiteral("--load=module-native-protocol-unix auth-anonymous=1"),
                QStringLiteral("--load=module-null-sink sink_name=nullsink rate=48000") });
        if (!m_started)
            QSKIP("a private PulseAudio server could not be started");
        m_fifo = m_runtime.filePath(QStringLiteral("mic.fifo"));
        QVERIFY(run(pactl,
            { QStringLiteral("load-module"), QStringLiteral("module-pipe-source"),
                QStringLiteral("source_name=pipemic"), QStringLiteral("file=") + m_fifo, QStringLiteral("format=s16le"),
                QStringLiteral("rate=16000"), QStringLiteral("channels=1") }));
        QVERIFY(run(pactl, { QStringLiteral("set-default-source"), QStringLiteral("pipemic") }));
    }

    void cleanupTestCase()
    {
        if (!m_started)
            return;
        QFile pidFile(m_runtime.filePath(QStringLiteral("pulse/pid")));
        if (pidFile.open(QIODevice::ReadOnly)) {
            const int pid = pidFile.readAll().trimmed().toInt();
            if (pid > 0 && ::kill(pid, SIGTERM) == 0)
                AsyncTest::waitUntil([pid] { return ::kill(pid, 0) != 0; }, 5'000);
        }
    }

    void capturedAudioArrivesAtItsLevel()
    {
        std::thread writer = feed(VoiceSamples::sine(300, 0.5, 16000, 3.0));
        MicrophoneInput microphone;
        QVector<float> captured;
        int sampleRate = 0;
        int channels = 0;
        double loudest = 0;
        connect(&microphone, &AudioInput::bufferCaptured, this, [&](const QVector<float> &buffer, int rate, int count) {
            sampleRate = rate;
            channels = count;
            loudest = std::max(loudest, AudioMath::inputLevel(buffer.constData(), buffer.size() / count, count));
            captured += AudioMath::downmix(buffer, count);
        });
        microphone.start();
        const bool heard = AsyncTest::waitUntil([&] { return loudest >= 1.0 && captured.size() > sampleRate; }, 15'000);
        microphone.stop();
        writer.join();
        QVERIFY2(heard, qPrintable(QStringLiteral("level %1 after %2 samples").arg(loudest).arg(captured.size())));
        QVERIFY(sampleRate > 0 && channels > 0);

        // Whatever the device gave, at 16 kHz the tone is the one written.
        Resampler resampler(sampleRate, 16000);
        QVector<float> mono = resampler.process(captured);
        double peak = 0;
        for (float sample : mono)
            peak = std::max(peak, double(std::abs(sample)));
        QVERIFY2(std::abs(peak - 0.5) < 0.05, qPrintable(QString::number(peak)));
    }

    void aTurnThroughTheMicrophoneIsSubmitted()
    {
        TemporaryHome home;
        QTemporaryDir dir;
        const QString model = dir.filePath(QStringLiteral("ggml-random.bin"));
        RandomWhisperModel::write(model, RandomWhisperModel::tiny());
        SpeechRecognizer speech;
        speech.recognitionModels()->setModelPath(model);
        QStringList submitted;
        connect(
            &speech, &SpeechRecognizer::finalTranscript, this, [&](const QString &text) { submitted.append(text); });

        AsyncTest::await(speech.startListening(true, true));
        QVERIFY2(speech.isListening(), qPrintable(speech.lastError()));
        feed(VoiceSamples::sine(200, 0.3, 16000, 3.0)).join();
        QTest::qWait(300);
        speech.finishListening();
        QVERIFY(AsyncTest::waitUntil([&] { return !speech.isListening(); }, 30'000));
        QCOMPARE(submitted.size(), 1);
        QVERIFY(!submitted.first().isEmpty());
    }
};

QTEST_GUILESS_MAIN(MicrophoneInputTest)
#include "MicrophoneInputTest.moc"
