#include "voice/CloudAudioOutput.h"

#include "AsyncTest.h"
#include "VoiceTestSupport.h"
#include "voice/Mp3PcmStream.h"
#include "voice/ProviderError.h"

#include <QSignalSpy>
#include <QTest>

using namespace Qt::StringLiterals;
using namespace VoiceTestSupport;

// MP3 decoding on real LAME output, and playback of successive pieces through the PulseAudio null
// sink of the test services, checked by recording what the sink played.
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

    // The whole file at its own format in small reads, a file cut short up to where it stops, and
    // data that holds no audio refused.
    void decodesWhatThereIsAndRefusesTheRest()
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
        QCOMPARE(stream.read(buffer, sizeof buffer), qint64(0));
        // eSpeak reads this sentence in about four to six seconds.
        const double seconds = double(pcm.size()) / 2 / 24'000;
        QVERIFY2(seconds > 3.0 && seconds < 8.0, qPrintable(QString::number(seconds)));
        const qint64 halfBytes = Mp3PcmStream(m_mp3.left(m_mp3.size() / 2)).readAll().size();
        QVERIFY2(halfBytes > pcm.size() / 3 && halfBytes < pcm.size() * 2 / 3, qPrintable(QString::number(halfBytes)));

        // The last: less than one whole frame.
        for (const QByteArray &data : { QByteArray(), QByteArray("{\"error\":\"quota\"}"),
                 QByteArray("<html><body>Service Unavailable</body></html>").repeated(50), m_mp3.left(40) }) {
            try {
                Mp3PcmStream refused(data);
                QFAIL(data.left(40).constData());
            } catch (const ProviderError &error) {
                QCOMPARE(error.description(), u"Fișierul audio nu a putut fi redat."_s);
            }
        }
    }

    // Three pieces all there before playback are heard in full and back to back. A piece at another
    // rate after the device ran dry still plays (the sink reopens for it); the dry spell counts once.
    void playsPiecesBackToBackAndResumesAfterADrySpell()
    {
        KELO_REQUIRE_AUDIO();
        const QList<QByteArray> pieces { m_mp3, m_mp3.left(m_mp3.size() / 2), m_mp3.left(m_mp3.size() / 4),
            makeSpeechMp3(u"Și încă o frază."_s, u"44.1"_s) };
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
        for (const QByteArray &piece : pieces.first(3))
            output.append(piece);
        QVERIFY(AsyncTest::waitUntil([&] { return output.underruns() > 0; }, int(expected * 1000) + 10'000));
        QCOMPARE(started.size(), 3);
        QTest::qWait(300);
        QVERIFY(finished.isEmpty());
        output.append(pieces.last());
        output.endInput();
        QVERIFY(AsyncTest::waitUntil([&] { return !finished.isEmpty(); }, 10'000));
        QCOMPARE(finished.first().first().toBool(), true);
        QCOMPARE(started.size(), 4);
        QCOMPARE(firstAudio.size(), 1);
        QCOMPARE(output.underruns(), 1);

        // The null sink still holds the tail of the stream when the output reports its end.
        QTest::qWait(2'500);
        const AudioLevels levels = measure(recording.stop());
        QVERIFY2(levels.peak > 3'000, qPrintable(QString::number(levels.peak)));
        // Speech has pauses between words; most of it is above the floor, none of it beyond the pieces.
        QVERIFY2(levels.audibleSeconds > expected * 0.5 && levels.audibleSeconds < expected + 0.3,
            qPrintable(u"audible %1 s of %2 s"_s.arg(levels.audibleSeconds).arg(expected)));
    }
};

QTEST_MAIN(CloudAudioOutputTest)
#include "CloudAudioOutputTest.moc"
