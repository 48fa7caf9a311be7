#include "voice/CloudAudioOutput.h"

#include "AsyncTest.h"
#include "VoiceTestSupport.h"
#include "voice/Mp3PcmStream.h"
#include "voice/ProviderError.h"

#include <QSignalSpy>
#include <QTest>

#include <optional>

using namespace VoiceTestSupport;

namespace {

std::optional<ProviderError> constructionError(const QByteArray &data)
{
    try {
        Mp3PcmStream stream(data);
    } catch (const ProviderError &error) {
        return error;
    }
    return std::nullopt;
}

} // namespace

// MP3 decoding on real LAME output and playback of successive pieces through the PulseAudio null
// sink of the test services, checked by recording what the sink played.
class CloudAudioOutputTest : public QObject
{
    Q_OBJECT

    QByteArray m_mp3;

private Q_SLOTS:
    void initTestCase()
    {
        m_mp3 = makeSpeechMp3(QStringLiteral("Bună ziua. Aceasta este o probă de voce pentru Kelo, în limba română."));
        if (m_mp3.isEmpty())
            QSKIP("espeak-ng and lame are needed to make test audio (scripts/install-deps.sh)");
    }

    void decodesTheWholeFileOrWhatThereIsOfItAtItsOwnFormat()
    {
        Mp3PcmStream stream(m_mp3);
        QCOMPARE(stream.format().sampleRate(), 24'000);
        QCOMPARE(stream.format().channelCount(), 1);
        QCOMPARE(stream.format().sampleFormat(), QAudioFormat::Int16);

        QByteArray pcm;
        char buffer[3000];
        while (!stream.atEnd()) {
            const qint64 read = stream.read(buffer, sizeof buffer);
            QVERIFY(read >= 0);
            pcm.append(buffer, read);
        }
        const double seconds = double(pcm.size()) / 2 / 24'000;
        // eSpeak reads this sentence in about four to six seconds.
        QVERIFY2(seconds > 3.0 && seconds < 8.0, qPrintable(QString::number(seconds)));
        QCOMPARE(stream.read(buffer, sizeof buffer), qint64(0));

        // A file cut short plays up to where it stops.
        Mp3PcmStream half(m_mp3.left(m_mp3.size() / 2));
        const qint64 halfBytes = half.readAll().size();
        QVERIFY(half.atEnd());
        QVERIFY2(halfBytes > pcm.size() / 3 && halfBytes < pcm.size() * 2 / 3,
            qPrintable(QStringLiteral("%1 of %2").arg(halfBytes).arg(pcm.size())));
    }

    void refusesDataThatHoldsNoAudio()
    {
        const QByteArray notAudio[] = {
            QByteArray(),
            QByteArray("{\"error\":\"quota\"}"),
            QByteArray("<html><body>Service Unavailable</body></html>").repeated(50),
            // Less than one whole frame.
            m_mp3.left(40),
        };
        for (const QByteArray &data : notAudio) {
            const std::optional<ProviderError> error = constructionError(data);
            QVERIFY2(error, data.left(40).constData());
            QCOMPARE(error->domain(), QStringLiteral("Kelo.Voice"));
            QCOMPARE(error->code(), 3);
            QCOMPARE(error->description(), QStringLiteral("Fișierul audio nu a putut fi redat."));
        }
    }

    // Three pieces, the last at another rate (the sink reopens for it), all there before playback:
    // heard in full, back to back, with no pull that found nothing.
    void playsPiecesBackToBackThroughOneOutput()
    {
        KELO_REQUIRE_AUDIO();
        const QByteArray other = makeSpeechMp3(QStringLiteral("Și încă o frază."), QStringLiteral("44.1"));
        const QList<QByteArray> pieces { m_mp3, m_mp3.left(m_mp3.size() / 2), other };
        double expected = 0;
        for (const QByteArray &piece : pieces) {
            Mp3PcmStream stream(piece);
            expected += double(stream.readAll().size()) / 2 / stream.format().sampleRate();
        }

        MonitorRecording recording;
        QVERIFY(recording.isRecording());
        CloudAudioOutput output;
        QSignalSpy finished(&output, &CloudAudioOutput::finished);
        QSignalSpy started(&output, &CloudAudioOutput::pieceStarted);
        QSignalSpy firstAudio(&output, &CloudAudioOutput::firstAudioQueued);
        for (const QByteArray &piece : pieces)
            output.append(piece);
        output.endInput();
        QVERIFY(AsyncTest::waitUntil([&] { return !finished.isEmpty(); }, int(expected * 1000) + 10'000));
        QCOMPARE(finished.first().first().toBool(), true);
        QCOMPARE(started.size(), 3);
        QCOMPARE(firstAudio.size(), 1);
        QCOMPARE(output.underruns(), 0);
        // The null sink still holds the tail of the stream when the output reports its end.
        QTest::qWait(2'500);
        const AudioLevels levels = measure(recording.stop());
        QVERIFY2(levels.peak > 3'000, qPrintable(QString::number(levels.peak)));
        // Speech has pauses between words; most of it is above the floor, none of it beyond the pieces.
        QVERIFY2(levels.audibleSeconds > expected * 0.5 && levels.audibleSeconds < expected + 0.3,
            qPrintable(QStringLiteral("audible %1 s of %2 s").arg(levels.audibleSeconds).arg(expected)));
    }

    // A piece that comes after the device ran dry still plays, and the dry spell is counted once.
    void aLatePieceResumesPlaybackAndCountsOneUnderrun()
    {
        KELO_REQUIRE_AUDIO();
        const QByteArray shortPiece = m_mp3.left(m_mp3.size() / 4);
        CloudAudioOutput output;
        QSignalSpy finished(&output, &CloudAudioOutput::finished);
        QSignalSpy started(&output, &CloudAudioOutput::pieceStarted);
        output.append(shortPiece);
        QVERIFY(AsyncTest::waitUntil([&] { return output.underruns() > 0; }, 10'000));
        QTest::qWait(300);
        QVERIFY(finished.isEmpty());
        output.append(shortPiece);
        output.endInput();
        QVERIFY(AsyncTest::waitUntil([&] { return !finished.isEmpty(); }, 10'000));
        QCOMPARE(finished.first().first().toBool(), true);
        QCOMPARE(started.size(), 2);
        QCOMPARE(output.underruns(), 1);
    }
};

QTEST_MAIN(CloudAudioOutputTest)
#include "CloudAudioOutputTest.moc"
