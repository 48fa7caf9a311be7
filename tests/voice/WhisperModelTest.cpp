#include "voice/WhisperModel.h"

#include "RandomWhisperModel.h"
#include "VoiceSamples.h"
#include "voice/CpuCompetition.h"
#include "voice/SpeechRecognitionError.h"

#include <QElapsedTimer>
#include <QFile>
#include <QProcess>
#include <QTemporaryDir>
#include <QTest>
#include <QtEndian>

#include <thread>

namespace {

using Kind = SpeechRecognitionError::Kind;

std::optional<Kind> loadFailure(const QString &path)
{
    try {
        WhisperModel::load(path);
    } catch (const SpeechRecognitionError &error) {
        return error.kind();
    }
    return std::nullopt;
}

} // namespace

class WhisperModelTest : public QObject
{
    Q_OBJECT

    QTemporaryDir m_dir;
    QString m_modelPath;

private Q_SLOTS:
    void initTestCase()
    {
        m_modelPath = m_dir.filePath(QStringLiteral("ggml-random.bin"));
        RandomWhisperModel::write(m_modelPath, RandomWhisperModel::tiny());
    }

    void transcriptionIsRepeatableBoundedAbortableAndSparesBusyCores()
    {
        auto first = WhisperModel::load(m_modelPath);
        const QVector<float> tone = VoiceSamples::sine(220, 0.3, 16000, 10.0);
        const std::vector<float> audio(tone.cbegin(), tone.cbegin() + 2 * 16000), longer(tone.cbegin(), tone.cend());
        const QString text = first->transcribe(audio);
        // The vocabulary is full of cedilla letters; none may survive into a transcript.
        for (QChar cedilla : { QChar(0x015F), QChar(0x0163), QChar(0x015E), QChar(0x0162) })
            QVERIFY2(!text.contains(cedilla), qPrintable(text));
        QCOMPARE(text, text.simplified());
        // No state leaks from one run into the next, and two loaded copies may run side by side.
        auto second = WhisperModel::load(m_modelPath);
        QString again, other;
        std::thread one([&] { again = first->transcribe(audio); });
        std::thread two([&] { other = second->transcribe(audio); });
        one.join();
        two.join();
        QCOMPARE(again, text);
        QCOMPARE(other, text);

        // Random weights rarely end their text: without a bound the decoder would run through its whole context.
        const int unbounded = first->lastTokenCount();
        QVERIFY(unbounded <= WhisperModel::tokensFor(audio.size()));
        QVERIFY2(unbounded > 4, "the model ends too soon for the cap to be seen");
        first->setDecoding({ .maxTokens = 4 });
        QVERIFY(!first->transcribe(audio).isEmpty() && first->lastTokenCount() == 4);
        // A cap above the bound for the audio's length does not lift that bound.
        first->setDecoding({ .maxTokens = 1000 });
        first->transcribe(audio);
        QCOMPARE(first->lastTokenCount(), unbounded);

        QCOMPARE(first->audioContextFor(16000), 128); // 50 frames + margin, rounded up to 64
        QCOMPARE(first->audioContextFor(16000 * 60), 1500);

        std::atomic_bool abort { true };
        QElapsedTimer timer;
        timer.start();
        QCOMPARE(first->transcribe(longer, &abort), QString());
        const qint64 abortedMs = timer.restart();
        first->transcribe(longer);
        QVERIFY2(abortedMs <= timer.elapsed(), qPrintable(QString::number(abortedMs)));

        // Cores other programs keep busy count, whether seen at this moment or over a window; our
        // own busy threads do not.
        CpuCompetition competition;
        competition.busyCores();
        {
            auto spin = [](std::stop_token stop) {
                while (!stop.stop_requested()) { }
            };
            std::jthread a(spin), b(spin);
            QTest::qWait(300);
        }
        QVERIFY(competition.busyCores() < 2);
        QProcess spinners[2];
        for (QProcess &spinner : spinners)
            spinner.start(QStringLiteral("sh"), { QStringLiteral("-c"), QStringLiteral("while :; do :; done") });
        QTest::qWait(300);
        const int busy = CpuCompetition::runnableNow();
        const int busyOverWindow = competition.busyCores();
        for (QProcess &spinner : spinners)
            spinner.kill();
        for (QProcess &spinner : spinners)
            spinner.waitForFinished();
        QVERIFY2(busy >= 2, qPrintable(QString::number(busy)));
        QVERIFY2(busyOverWindow >= 1, qPrintable(QString::number(busyOverWindow)));
        QCOMPARE(WhisperModel::threadsFor(2, busy), 1);
        QCOMPARE(WhisperModel::threadsFor(4, 1), 3);
        QCOMPARE(WhisperModel::threadsFor(4, 0), 4);
    }

    // Files whisper would crash on or misread are refused before it sees them.
    void unusableFilesAreRefused()
    {
        QFile model(m_modelPath);
        QVERIFY(model.open(QIODevice::ReadOnly));
        const QByteArray good = model.readAll();
        auto patched = [&good](std::initializer_list<std::pair<qsizetype, qint32>> changes) {
            QByteArray bytes = good;
            for (const auto &[at, value] : changes) {
                const qint32 le = qToLittleEndian(value);
                bytes.replace(at, 4, QByteArray(reinterpret_cast<const char *>(&le), 4));
            }
            return bytes;
        };
        // The first tensor record follows the vocabulary: n_dims, name length, type, two dimensions, name.
        const qsizetype record = good.indexOf("encoder.positional_embedding") - 12 - 2 * 4;
        QVERIFY(record > 0);
        const QList<std::pair<QByteArray, Kind>> cases {
            { {}, Kind::modelInvalid }, { "X" + good.mid(1), Kind::modelInvalid },
            { good.left(good.size() - 10), Kind::modelInvalid }, // cut in the last tensor
            { patched({ { 4, 51864 } }), Kind::modelEnglishOnly }, // the English-only vocabulary
            { patched({ { 12, -512 } }), Kind::modelInvalid }, // negative state size
            { patched({ { 48, 80 }, { 52, 1 << 30 } }), Kind::modelInvalid }, // filter table beyond the file
            // A tensor with five dimensions, the three added ones of size 1: whisper reads at most four.
            { patched({ { record, 5 } }).insert(record + 20, QByteArray::fromHex("010000000100000001000000")),
                Kind::modelInvalid },
            { patched({ { record + 8, 999 } }), Kind::modelInvalid }, // a tensor of an unknown type
        };
        const QString broken = m_dir.filePath(QStringLiteral("broken.bin"));
        for (const auto &[bytes, kind] : cases) {
            QFile file(broken);
            QVERIFY(file.open(QIODevice::WriteOnly | QIODevice::Truncate) && file.write(bytes) == bytes.size());
            file.close();
            QVERIFY2(loadFailure(broken) == kind, bytes.left(16).toHex().constData());
        }

        QCOMPARE(loadFailure(m_dir.path()), std::optional<Kind>(Kind::modelMissing));
        // An English-only model is known by its name too; its Romanian text is checked where the service shows it.
        const QString named = m_dir.filePath(QStringLiteral("ggml-base.en.bin"));
        QVERIFY(QFile::copy(m_modelPath, named));
        QCOMPARE(loadFailure(named), std::optional<Kind>(Kind::modelEnglishOnly));
    }
};

QTEST_GUILESS_MAIN(WhisperModelTest)
#include "WhisperModelTest.moc"
