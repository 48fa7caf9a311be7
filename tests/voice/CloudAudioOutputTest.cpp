#include "voice/CloudAudioOutput.h"

#include "AsyncTest.h"
#include "VoiceTestSupport.h"
#include "voice/Mp3PcmStream.h"
#include "voice/ProviderError.h"

#include <QSignalSpy>
#include <QTest>

using namespace Qt::StringLiterals;
using namespace VoiceTestSupport;

// MP3 decoding of real LAME output, and playback into the null sink checked by recording it.
class CloudAudioOutputTest : public QObject
{
    Q_OBJECT

    QByteArray m_mp3;

private Q_SLOTS:
    void initTestCase()
    {
        m_mp3 = makeSpeechMp3(u"Bună ziua. Aceasta este o probă de voce pentru Kelo, în limba română."_s);
        if (m_mp3.isEmpty())
            QSKIP("espeak-ng and lame are needed to make test audio (scripts/install-deps.sh)");
    }

    // Files decoded at their own rate (a cut one up to where it stops), no-audio refused; pieces heard
    // in full back to back, and one at another rate after a dry spell (counted once) still plays.
    void decodesAndPlaysPiecesBackToBack()
    {
        const QList<QByteArray> pieces { m_mp3, m_mp3.left(m_mp3.size() / 2), m_mp3.left(m_mp3.size() / 4),
            makeSpeechMp3(u"Și încă o frază."_s, u"44.1"_s) };
        QList<double> seconds;
        double expected = 0;
        for (const QByteArray &piece : pieces) {
            Mp3PcmStream stream(piece);
            QCOMPARE(stream.format().channelCount(), 1);
            QCOMPARE(stream.format().sampleFormat(), QAudioFormat::Int16);
            QByteArray pcm;
            char buffer[3000];
            qint64 read = 0;
            while ((read = stream.read(buffer, sizeof buffer)) > 0)
                pcm.append(buffer, read);
            QVERIFY(read == 0 && stream.atEnd());
            seconds.append(double(pcm.size()) / 2 / stream.format().sampleRate());
            expected += seconds.last();
        }
        QCOMPARE(Mp3PcmStream(pieces.first()).format().sampleRate(), 24'000);
        QCOMPARE(Mp3PcmStream(pieces.last()).format().sampleRate(), 44'100);
        // eSpeak reads the sentence in about four to six seconds.
        QVERIFY2(seconds[0] > 3.0 && seconds[0] < 8.0, qPrintable(QString::number(seconds[0])));
        QVERIFY2(
            seconds[1] > seconds[0] / 3 && seconds[1] < seconds[0] * 2 / 3, qPrintable(QString::number(seconds[1])));
        // No audio at all, and (the last) less than one whole frame.
        for (const QByteArray &data : { QByteArray(), QByteArray("{\"error\":\"quota\"}"),
                 QByteArray("<html><body>Service Unavailable</body></html>").repeated(50), m_mp3.left(40) })
            QVERIFY_THROWS_EXCEPTION(ProviderError, Mp3PcmStream { data });

        KELO_REQUIRE_AUDIO();
        MonitorRecording recording;
        CloudAudioOutput output;
        QSignalSpy finished(&output, &CloudAudioOutput::finished);
        QSignalSpy started(&output, &CloudAudioOutput::pieceStarted);
        QSignalSpy firstAudio(&output, &CloudAudioOutput::firstAudioQueued);
        for (const QByteArray &piece : pieces.first(3))
            output.append(piece);
        QVERIFY(AsyncTest::waitUntil([&] { return output.underruns() > 0; }, 20'000));
        QCOMPARE(started.size(), 3);
        QTest::qWait(300);
        QVERIFY(finished.isEmpty());
        output.append(pieces.last());
        output.endInput();
        QVERIFY(AsyncTest::waitUntil([&] { return !finished.isEmpty(); }, 10'000));
        QCOMPARE(firstArguments(finished), QStringList { "true" });
        QCOMPARE(started.size(), 4);
        QCOMPARE(firstAudio.size(), 1);
        QCOMPARE(output.underruns(), 1);

        QTest::qWait(2'500); // the tail still in the null sink when the output reports its end
        const AudioLevels levels = measure(recording.stop());
        QVERIFY2(levels.peak > 3'000, qPrintable(QString::number(levels.peak)));
        // Speech has pauses between words; most of it is above the floor, none of it beyond the pieces.
        QVERIFY2(levels.audibleSeconds > expected * 0.5 && levels.audibleSeconds < expected + 0.3,
            qPrintable(u"audible %1 s of %2 s"_s.arg(levels.audibleSeconds).arg(expected)));
    }
};

QTEST_MAIN(CloudAudioOutputTest)
#include "CloudAudioOutputTest.moc"
