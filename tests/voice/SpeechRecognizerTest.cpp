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

namespace {

const QString kSpoken = QStringLiteral("Bună ziua. Ce mai faci astăzi?");

// What one run handed over, and what the orb saw while it ran.
struct Observed
{
    QStringList submitted;
    bool wasListening = false;
    double loudest = 0.0;
};

} // namespace

class SpeechRecognizerTest : public QObject
{
    Q_OBJECT

    QTemporaryDir m_dir;
    QString m_modelPath;
    QString m_spokenPath;
    std::unique_ptr<TemporaryHome> m_home;

    void feedFrom(SpeechRecognizer &speech, const QString &wavPath, double speed)
    {
        speech.setAudioInputFactory(
            [wavPath, speed] { return std::unique_ptr<AudioInput>(new WavFileInput(WavFile::read(wavPath), speed)); });
    }

    void observe(SpeechRecognizer &speech, Observed &observed)
    {
        connect(&speech, &SpeechRecognizer::finalTranscript, this,
            [&observed](const QString &text) { observed.submitted.append(text); });
        connect(&speech, &SpeechRecognizer::changed, this, [&speech, &observed] {
            observed.wasListening = observed.wasListening || speech.isListening();
            observed.loudest = std::max(observed.loudest, speech.inputLevel());
        });
    }

private Q_SLOTS:
    void initTestCase()
    {
        m_modelPath = m_dir.filePath(QStringLiteral("ggml-random.bin"));
        RandomWhisperModel::write(m_modelPath, RandomWhisperModel::tiny());
        m_spokenPath = VoiceSamples::speakRomanian(m_dir.path(), kSpoken);
    }

    void init() { m_home = std::make_unique<TemporaryHome>(); }
    void cleanup() { m_home.reset(); }

    void withoutAUsableModelListeningSaysWhyAndNothingIsDownloaded()
    {
        FakeHttpServer server;
        ScopedEnvironment base("KELO_WHISPER_MODEL_BASE_URL", server.baseUrl());
        SpeechRecognizer speech;
        QVERIFY(!speech.recognitionAvailable());
        speech.preload(); // nothing to load, nothing to say
        QCOMPARE(speech.recognitionModels()->statusText(), SpeechRecognitionError::unavailableText());

        AsyncTest::await(speech.startListening(true, true));
        QCOMPARE(speech.lastError(), QStringLiteral("Recunoașterea vocală în română nu este disponibilă momentan."));
        QVERIFY(!speech.isListening());
        QTest::qWait(100);
        QVERIFY(server.requests().isEmpty());

        // Unusable models say why, and no run starts.
        const QString english = m_dir.filePath(QStringLiteral("ggml-small.en.bin"));
        QFile::remove(english);
        QVERIFY(QFile::copy(m_modelPath, english));
        speech.recognitionModels()->setModelPath(english);
        QVERIFY(!speech.recognitionAvailable());
        AsyncTest::await(speech.startListening(false, true));
        QVERIFY(speech.lastError().contains(QStringLiteral("doar engleza")));
        QVERIFY(!speech.isListening());

        const QString garbage = m_dir.filePath(QStringLiteral("garbage.bin"));
        VoiceSamples::writeWav(garbage, QVector<float>(100, 0.5f), 16000, 1);
        speech.recognitionModels()->setModelPath(garbage);
        AsyncTest::await(speech.startListening(false, true));
        QVERIFY(speech.lastError().contains(QStringLiteral("nu este un model")));
        QVERIFY(!speech.isListening());
    }

    // Preloaded, the first press listens at once: no load is left to wait for.
    void aPreloadedModelMakesTheFirstStartImmediate()
    {
        SpeechRecognizer speech;
        speech.recognitionModels()->setModelPath(m_modelPath);
        QSignalSpy preloaded(&speech, &SpeechRecognizer::preloadEnded);
        speech.preload();
        speech.preload();
        QVERIFY(preloaded.wait(30'000));
        QCOMPARE(preloaded.size(), 1);
        QVERIFY(speech.lastError().isEmpty());

        auto starting = speech.startListening(true, true);
        QVERIFY(speech.isListening());
        AsyncTest::await(std::move(starting));
        speech.cancelListening();

        // A start while the preload runs waits for it instead of loading a second time.
        SpeechRecognizer other;
        other.recognitionModels()->setModelPath(m_modelPath);
        other.preload();
        AsyncTest::await(other.startListening(true, true));
        QVERIFY(other.isListening());
        QCOMPARE(other.transcriptionWorker()->peakConcurrency(), 1);
        other.cancelListening();
    }

    void aSpokenRomanianTurnEndsInOneSubmittedTranscript()
    {
        if (m_spokenPath.isEmpty())
            QSKIP("espeak-ng is not installed");
        SpeechRecognizer speech;
        speech.recognitionModels()->setModelPath(m_modelPath);
        feedFrom(speech, m_spokenPath, 1.0);
        Observed observed;
        observe(speech, observed);

        AsyncTest::await(speech.startListening(true, true));
        QVERIFY(speech.isListening());
        QVERIFY(speech.lastError().isEmpty());
        // Hold for a while (partials come in), then release like a finger leaving the orb. Generous
        // waits: a partial takes many seconds under AddressSanitizer on a busy machine.
        QVERIFY(AsyncTest::waitUntil([&] { return !speech.transcript().isEmpty(); }, 60'000));
        speech.finishListening();
        QVERIFY(AsyncTest::waitUntil([&] { return !observed.submitted.isEmpty(); }, 60'000));
        QTest::qWait(300);

        QCOMPARE(observed.submitted.size(), 1);
        QVERIFY(!observed.submitted.first().isEmpty());
        QCOMPARE(observed.submitted.first(), speech.transcript().trimmed());
        QVERIFY(observed.wasListening);
        QVERIFY(observed.loudest > 0.1);
        QVERIFY(!speech.isListening());
        QCOMPARE(speech.inputLevel(), 0.0);
        QCOMPARE(speech.transcriptionWorker()->peakConcurrency(), 1);
    }

    void releaseBeforeStartSilenceCancelAndRestartSendNothing()
    {
        SpeechRecognizer speech;
        speech.recognitionModels()->setModelPath(m_modelPath);
        Observed observed;
        observe(speech, observed);
        const QString silence = m_dir.filePath(QStringLiteral("silence.wav"));
        VoiceSamples::writeWav(silence, QVector<float>(16000 * 2, 0.0f), 16000, 1);
        feedFrom(speech, silence, 1.0);

        // The model loads on the worker; the finger is already gone when it is ready.
        auto starting = speech.startListening(true, true);
        speech.finishListening();
        AsyncTest::await(std::move(starting));
        QVERIFY(!speech.isListening());
        QVERIFY(observed.submitted.isEmpty());

        // Without auto-submit the transcript stays but nothing is handed over.
        const QString tone = m_dir.filePath(QStringLiteral("tone.wav"));
        VoiceSamples::writeWav(tone, VoiceSamples::sine(200, 0.3, 16000, 1.5), 16000, 1);
        feedFrom(speech, tone, 0.0);
        AsyncTest::await(speech.startListening(true, false));
        QVERIFY(AsyncTest::waitUntil([&] { return !speech.isListening(); }, 30'000));
        QVERIFY(!speech.transcript().isEmpty());
        QVERIFY(speech.lastError().isEmpty());

        const QString longTone = m_dir.filePath(QStringLiteral("long.wav"));
        VoiceSamples::writeWav(longTone, VoiceSamples::sine(200, 0.3, 16000, 6.0), 16000, 1);
        feedFrom(speech, longTone, 1.0);
        AsyncTest::await(speech.startListening(true, true));
        QTest::qWait(1500);
        speech.cancelListening();
        QVERIFY(!speech.isListening());
        QCOMPARE(speech.inputLevel(), 0.0);

        // A new start ends the running one without handing its words over.
        AsyncTest::await(speech.startListening(true, true));
        QTest::qWait(1500);
        AsyncTest::await(speech.startListening(true, true));
        QVERIFY(speech.isListening());
        speech.cancelListening();
        QTest::qWait(500);
        QVERIFY(observed.submitted.isEmpty());

        // A service that goes away while its model loads takes that start with it; a start resuming
        // into the freed service is what the sanitizer build reports.
        {
            SpeechRecognizer closing;
            closing.recognitionModels()->setModelPath(m_modelPath);
            auto starting = closing.startListening(true, true);
        }
        QTest::qWait(100);
    }
};

QTEST_GUILESS_MAIN(SpeechRecognizerTest)
#include "SpeechRecognizerTest.moc"
