#include "AsyncTest.h"
#include "VoiceTestSupport.h"
#include "voice/CloudAudioPlayer.h"
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

// MP3 decoding on real LAME output and playback through the PulseAudio null sink of the test
// services, checked by recording what the sink played.
class CloudAudioPlaybackTest : public QObject
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

    void playsAudibly()
    {
        KELO_REQUIRE_AUDIO();

        const qint64 expectedMs = [&] {
            Mp3PcmStream stream(m_mp3);
            return stream.readAll().size() * 1000 / 2 / 24'000;
        }();

        MonitorRecording recording;
        QVERIFY(recording.isRecording());
        CloudAudioPlayer player(m_mp3);
        QSignalSpy finished(&player, &CloudAudioPlayer::finished);
        QSignalSpy firstAudio(&player, &CloudAudioPlayer::firstAudioQueued);
        QVERIFY(player.play());
        QVERIFY(AsyncTest::waitUntil([&] { return !finished.isEmpty(); }, int(expectedMs) + 10'000));
        QCOMPARE(finished.first().first().toBool(), true);
        QCOMPARE(firstAudio.size(), 1);
        // The null sink still holds the tail of the stream when the player reports its end.
        QTest::qWait(2'500);
        const AudioLevels levels = measure(recording.stop());

        const double expected = expectedMs / 1000.0;
        QVERIFY2(levels.peak > 3'000, qPrintable(QString::number(levels.peak)));
        // Speech has pauses between words; most of it is above the floor, none of it beyond the file.
        QVERIFY2(levels.audibleSeconds > expected * 0.5 && levels.audibleSeconds < expected + 0.3,
            qPrintable(QStringLiteral("audible %1 s of %2 s").arg(levels.audibleSeconds).arg(expected)));
    }
};

QTEST_MAIN(CloudAudioPlaybackTest)
#include "CloudAudioPlaybackTest.moc"
