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
#include <QSignalSpy>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QTest>

#include <thread>

using namespace Qt::Literals::StringLiterals;

// The microphone path against a real PulseAudio server: a private daemon whose default source is a
// pipe the test writes PCM into, so the capture, format choice and resampling are those of a user.
class MicrophoneInputTest : public QObject
{
    Q_OBJECT

    QTemporaryDir m_runtime;
    QString m_fifo;
    bool m_started = false;

    static bool run(const QString &commandLine)
    {
        QStringList arguments = QProcess::splitCommand(commandLine);
        QProcess process;
        process.start(arguments.takeFirst(), arguments);
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
        const QString pulseaudio = QStandardPaths::findExecutable(u"pulseaudio"_s);
        const QString pactl = QStandardPaths::findExecutable(u"pactl"_s);
        if (pulseaudio.isEmpty() || pactl.isEmpty())
            QSKIP("PulseAudio is not installed");
        // Before anything touches Qt Multimedia: it connects once and never again.
        qputenv("XDG_RUNTIME_DIR", m_runtime.path().toUtf8());
        qunsetenv("PULSE_SERVER");
        // Off the session bus: a shared test server there already holds PulseAudio's bus name.
        qunsetenv("DBUS_SESSION_BUS_ADDRESS");
        m_started = run(pulseaudio + uR"( --daemonize=yes --exit-idle-time=-1 -n --use-pid-file=yes
                  "--load=module-native-protocol-unix auth-anonymous=1"
                  "--load=module-null-sink sink_name=nullsink rate=48000")"_s);
        if (!m_started)
            QSKIP("a private PulseAudio server could not be started");
        m_fifo = m_runtime.filePath(u"mic.fifo"_s);
        QVERIFY(run(pactl
            + u" load-module module-pipe-source source_name=pipemic format=s16le rate=16000 channels=1 file="_s
            + m_fifo));
        QVERIFY(run(pactl + u" set-default-source pipemic"_s));
    }

    void cleanupTestCase()
    {
        if (m_started)
            run(QStandardPaths::findExecutable(u"pulseaudio"_s) + u" --kill"_s);
    }

    void capturedAudioArrivesAtItsLevelAndATurnIsSubmitted()
    {
        std::thread writer = feed(VoiceSamples::sine(300, 0.5, 16000, 3.0));
        MicrophoneInput microphone;
        QVector<float> captured;
        int sampleRate = 0;
        double loudest = 0;
        connect(&microphone, &AudioInput::bufferCaptured, this, [&](const QVector<float> &buffer, int rate, int count) {
            sampleRate = rate;
            loudest = std::max(loudest, AudioMath::inputLevel(buffer.constData(), buffer.size() / count, count));
            captured += AudioMath::downmix(buffer, count);
        });
        microphone.start();
        const bool heard = AsyncTest::waitUntil([&] { return loudest >= 1.0 && captured.size() > sampleRate; }, 15'000);
        microphone.stop();
        writer.join();
        QVERIFY2(heard, qPrintable(u"level %1 after %2 samples"_s.arg(loudest).arg(captured.size())));
        // Whatever the device gave, at 16 kHz the tone is the one written.
        const QVector<float> mono = Resampler(sampleRate, 16000).process(captured);
        const float peak = *std::max_element(mono.cbegin(), mono.cend());
        QVERIFY2(std::abs(peak - 0.5f) < 0.05f, qPrintable(QString::number(peak)));

        // A whole turn through the microphone is handed over once.
        TemporaryHome home;
        const QString model = m_runtime.filePath(u"ggml-random.bin"_s);
        RandomWhisperModel::write(model, RandomWhisperModel::tiny());
        SpeechRecognizer speech;
        speech.recognitionModels()->setModelPath(model);
        QSignalSpy submitted(&speech, &SpeechRecognizer::finalTranscript);

        AsyncTest::await(speech.startListening(true, true));
        QVERIFY2(speech.isListening(), qPrintable(speech.lastError()));
        feed(VoiceSamples::sine(200, 0.3, 16000, 3.0)).join();
        QTest::qWait(300);
        speech.finishListening();
        QVERIFY(AsyncTest::waitUntil([&] { return !speech.isListening(); }, 30'000));
        QCOMPARE(submitted.size(), 1);
        QVERIFY(!submitted.first().first().toString().isEmpty());
    }
};

QTEST_GUILESS_MAIN(MicrophoneInputTest)
#include "MicrophoneInputTest.moc"
