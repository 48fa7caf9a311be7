#include "voice/SpeechRecognizer.h"

#include "AsyncTest.h"
#include "FakeHttpServer.h"
#include "RandomWhisperModel.h"
#include "TemporaryHome.h"
#include "VoiceSamples.h"
#include "voice/SpeechRecognitionError.h"
#include "voice/TranscriptionWorker.h"
#include "voice/WavFileInput.h"
#include "voice/WhisperModelManager.h"

#include <QFile>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>

class SpeechRecognizerTest : public QObject
{
    Q_OBJECT

    QTemporaryDir m_dir;
    QString m_modelPath;
    TemporaryHome m_home;

    // A recogniser on the random model, hearing a 200 Hz tone from a file at this speed (0: at once).
    std::unique_ptr<SpeechRecognizer> recognizer(double seconds, double amplitude = 0.3, double speed = 1.0)
    {
        const QString wav = m_dir.filePath(QStringLiteral("tone-%1-%2.wav").arg(seconds).arg(amplitude));
        VoiceSamples::writeWav(wav, VoiceSamples::sine(200, amplitude, 16000, seconds), 16000, 1);
        auto speech = std::make_unique<SpeechRecognizer>();
        speech->recognitionModels()->setModelPath(m_modelPath);
        speech->setAudioInputFactory(
            [wav, speed] { return std::unique_ptr<AudioInput>(new WavFileInput(WavFile::read(wav), speed)); });
        connect(speech.get(), &SpeechRecognizer::finalTranscript, this,
            [this](const QString &text) { m_submitted.append(text); });
        return speech;
    }

    QStringList m_submitted;

private Q_SLOTS:
    void initTestCase()
    {
        m_modelPath = m_dir.filePath(QStringLiteral("ggml-random.bin"));
        RandomWhisperModel::write(m_modelPath, RandomWhisperModel::tiny());
    }

    void init() { m_submitted.clear(); }

    void withoutAUsableModelListeningSaysWhyAndNothingIsDownloaded()
    {
        FakeHttpServer server;
        ScopedEnvironment base("KELO_WHISPER_MODEL_BASE_URL", server.baseUrl());
        const QString english = m_dir.filePath(QStringLiteral("ggml-small.en.bin"));
        QVERIFY(QFile::copy(m_modelPath, english));
        const QString garbage = m_dir.filePath(QStringLiteral("garbage.bin"));
        VoiceSamples::writeWav(garbage, QVector<float>(100, 0.5f), 16000, 1);

        SpeechRecognizer speech;
        speech.preload(); // nothing to load, nothing to say
        for (const auto &[model, says] : { std::pair { english, QStringLiteral("doar engleza") },
                 { garbage, QStringLiteral("nu este un model") } }) {
            speech.recognitionModels()->setModelPath(model);
            QVERIFY(!speech.recognitionAvailable());
            AsyncTest::await(speech.startListening(true, true));
            QVERIFY2(speech.lastError().contains(says) && !speech.isListening(), qPrintable(speech.lastError()));
        }
        QTest::qWait(100);
        QVERIFY(server.requests().isEmpty());
    }

    // Preloaded, the first press listens at once; held, then released, the turn is handed over once.
    void aPreloadedHeldTurnEndsInOneSubmittedTranscript()
    {
        auto speech = recognizer(6.0);
        QSignalSpy preloaded(speech.get(), &SpeechRecognizer::preloadEnded);
        speech->preload();
        speech->preload();
        QVERIFY(preloaded.wait(30'000));
        double loudest = 0.0;
        connect(
            speech.get(), &SpeechRecognizer::changed, this, [&] { loudest = std::max(loudest, speech->inputLevel()); });
        auto starting = speech->startListening(true, true);
        QVERIFY(speech->isListening());
        AsyncTest::await(std::move(starting));
        // Generous waits: a partial takes many seconds under AddressSanitizer on a busy machine.
        QVERIFY(AsyncTest::waitUntil([&] { return !speech->transcript().isEmpty(); }, 60'000));
        speech->finishListening();
        QVERIFY(AsyncTest::waitUntil([&] { return !m_submitted.isEmpty(); }, 60'000));
        QTest::qWait(300);
        QCOMPARE(m_submitted, QStringList { speech->transcript().trimmed() });
        QVERIFY(!m_submitted.first().isEmpty() && loudest > 0.1 && speech->inputLevel() == 0.0);
        QCOMPARE(preloaded.size(), 1);

        // A start while the preload runs waits for it instead of loading a second time.
        auto other = recognizer(1.0);
        other->preload();
        AsyncTest::await(other->startListening(true, true));
        QVERIFY(other->isListening());
        QCOMPARE(other->transcriptionWorker()->completedJobs(), 1);
    }

    void releaseBeforeStartSilenceCancelAndRestartSubmitNothing()
    {
        // The model loads on the worker; the finger is already gone when it is ready.
        auto silent = recognizer(2.0, 0.0);
        auto starting = silent->startListening(true, true);
        silent->finishListening();
        AsyncTest::await(std::move(starting));
        QVERIFY(!silent->isListening());

        // Without auto-submit the transcript stays but nothing is handed over.
        auto quick = recognizer(1.5, 0.3, 0.0);
        AsyncTest::await(quick->startListening(true, false));
        QVERIFY(AsyncTest::waitUntil([&] { return !quick->isListening(); }, 30'000));
        QVERIFY(!quick->transcript().isEmpty() && quick->lastError().isEmpty());

        auto speech = recognizer(6.0);
        AsyncTest::await(speech->startListening(true, true));
        QTest::qWait(1500);
        speech->cancelListening();
        QVERIFY(!speech->isListening() && speech->inputLevel() == 0.0);
        // A new start ends the running one without handing its words over.
        AsyncTest::await(speech->startListening(true, true));
        QTest::qWait(1500);
        AsyncTest::await(speech->startListening(true, true));
        QVERIFY(speech->isListening());
        speech->cancelListening();
        QTest::qWait(500);
        QVERIFY(m_submitted.isEmpty());
    }
};

QTEST_GUILESS_MAIN(SpeechRecognizerTest)
#include "SpeechRecognizerTest.moc"
