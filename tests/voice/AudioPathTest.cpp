#include "AsyncTest.h"
#include "VoiceSamples.h"
#include "voice/AudioMath.h"
#include "voice/Resampler.h"
#include "voice/SpeechRecognitionError.h"
#include "voice/TranscriptText.h"
#include "voice/WavFile.h"
#include "voice/WavFileInput.h"

#include <QSignalSpy>
#include <QTest>

#include <cmath>

namespace {

double rms(const QVector<float> &samples, qsizetype from = 0, qsizetype to = -1)
{
    if (to < 0)
        to = samples.size();
    double sum = 0;
    for (qsizetype i = from; i < to; ++i)
        sum += double(samples[i]) * samples[i];
    return std::sqrt(sum / double(std::max<qsizetype>(to - from, 1)));
}

// Zero crossings per second, a frequency estimate that needs no FFT.
double crossingsPerSecond(const QVector<float> &samples, int rate)
{
    int crossings = 0;
    for (qsizetype i = 1; i < samples.size(); ++i)
        crossings += (samples[i - 1] < 0) != (samples[i] < 0);
    return crossings / (double(samples.size()) / rate) / 2.0;
}

QVector<float> resampleInPieces(Resampler &resampler, const QVector<float> &input, qsizetype piece)
{
    QVector<float> out;
    for (qsizetype i = 0; i < input.size(); i += piece)
        out += resampler.process(input.mid(i, piece));
    out += resampler.flush();
    return out;
}

} // namespace

class AudioPathTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void levelFollowsTheFirstChannelAndIsCapped()
    {
        const QVector<float> silence(1024, 0.0f);
        QCOMPARE(AudioMath::inputLevel(silence.constData(), 1024, 1), 0.0);

        const QVector<float> square = VoiceSamples::squareWave(440, 48000, 1024.0 / 48000);
        QCOMPARE(AudioMath::inputLevel(square.constData(), square.size(), 1), 1.0);

        // RMS of a sine is amplitude / √2; ×20 without any dB scale or smoothing.
        const QVector<float> quiet = VoiceSamples::sine(1000, 0.01, 48000, 0.5);
        QVERIFY(
            std::abs(AudioMath::inputLevel(quiet.constData(), quiet.size(), 1) - 0.01 / std::sqrt(2.0) * 20) < 1e-3);

        // Stereo: a loud right channel must not move the level of a silent left one.
        QVector<float> stereo;
        for (float sample : square)
            stereo << 0.0f << sample;
        QCOMPARE(AudioMath::inputLevel(stereo.constData(), square.size(), 2), 0.0);

        QCOMPARE(AudioMath::inputLevel(nullptr, 0, 1), 0.0);
        QCOMPARE(AudioMath::inputLevel(silence.constData(), 0, 1), 0.0);
    }

    void deviceBytesBecomeFloats()
    {
        QAudioFormat format;
        format.setSampleRate(16000);
        format.setChannelCount(1);

        format.setSampleFormat(QAudioFormat::Int16);
        const qint16 ints[] = { 0, 16384, -32768, 32767 };
        const QVector<float> fromInts
            = AudioMath::toFloat(QByteArray(reinterpret_cast<const char *>(ints), sizeof ints), format);
        QCOMPARE(fromInts.size(), 4);
        QCOMPARE(fromInts[1], 0.5f);
        QCOMPARE(fromInts[2], -1.0f);

        format.setSampleFormat(QAudioFormat::UInt8);
        const QVector<float> fromBytes = AudioMath::toFloat(QByteArray("\x80\x00\xff", 3), format);
        QCOMPARE(fromBytes[0], 0.0f);
        QCOMPARE(fromBytes[1], -1.0f);

        format.setSampleFormat(QAudioFormat::Int32);
        const qint32 wide[] = { 1 << 30 };
        QCOMPARE(AudioMath::toFloat(QByteArray(reinterpret_cast<const char *>(wide), 4), format)[0], 0.5f);

        // A trailing half sample is ignored rather than read past the end.
        format.setSampleFormat(QAudioFormat::Float);
        QCOMPARE(AudioMath::toFloat(QByteArray(6, '\0'), format).size(), 1);

        const QVector<float> mono = AudioMath::downmix({ 1.0f, 0.0f, -1.0f, -1.0f }, 2);
        QCOMPARE(mono, (QVector<float> { 0.5f, -1.0f }));
    }

    void resamplingKeepsPitchLoudnessAndLength_data()
    {
        QTest::addColumn<int>("inputRate");
        QTest::addColumn<qsizetype>("piece");
        QTest::newRow("48 kHz in device-sized buffers") << 48000 << qsizetype(1024);
        QTest::newRow("44.1 kHz in odd buffers") << 44100 << qsizetype(333);
        QTest::newRow("22.05 kHz (espeak-ng) in one go") << 22050 << qsizetype(1 << 20);
        QTest::newRow("8 kHz upsampled") << 8000 << qsizetype(160);
    }

    void resamplingKeepsPitchLoudnessAndLength()
    {
        QFETCH(int, inputRate);
        QFETCH(qsizetype, piece);
        const QVector<float> input = VoiceSamples::sine(440, 0.5, inputRate, 2.0);
        Resampler resampler(inputRate, 16000);
        const QVector<float> out = resampleInPieces(resampler, input, piece);

        QVERIFY2(std::abs(out.size() - 32000) <= 2, qPrintable(QString::number(out.size())));
        const qsizetype edge = 800; // the filter's ramp at both ends
        QVERIFY(std::abs(rms(out, edge, out.size() - edge) - 0.5 / std::sqrt(2.0)) < 0.01);
        QVERIFY(std::abs(crossingsPerSecond(out, 16000) - 440) < 3);
    }

    void resamplingFiltersOnlyWhenTheRateChanges()
    {
        // 12 kHz is above the new 8 kHz Nyquist limit; kept naively it would fold back to 4 kHz.
        const QVector<float> input = VoiceSamples::sine(12000, 0.5, 48000, 1.0);
        Resampler resampler(48000, 16000);
        const QVector<float> out = resampleInPieces(resampler, input, 1024);
        QVERIFY2(rms(out, 800, out.size() - 800) < 0.01, qPrintable(QString::number(rms(out))));

        // At the same rate nothing is filtered or delayed.
        Resampler same(16000, 16000);
        const QVector<float> speech = VoiceSamples::sine(300, 0.3, 16000, 0.1);
        QCOMPARE(same.process(speech), speech);
        QVERIFY(same.flush().isEmpty());
    }

    void wavFilesOfEveryCommonKindAreRead()
    {
        const QVector<float> stereo { 0.5f, -0.5f, 0.25f, -0.25f };
        const WavFile ints = WavFile::parse(VoiceSamples::wavBytes(stereo, 22050, 2, 16));
        QCOMPARE(ints.sampleRate, 22050);
        QCOMPARE(ints.channels, 2);
        QCOMPARE(ints.frames(), 2);
        QVERIFY(std::abs(ints.interleaved[1] + 0.5f) < 1e-3);

        const WavFile floats = WavFile::parse(VoiceSamples::wavBytes(stereo, 48000, 2, 32));
        QCOMPARE(floats.interleaved, stereo);

        // A data size larger than the file (streamed writers leave one) reads what is there.
        QByteArray streamed = VoiceSamples::wavBytes(stereo, 16000, 1, 16);
        streamed.replace(40, 4, QByteArray("\xff\xff\xff\x7f", 4));
        QCOMPARE(WavFile::parse(streamed).interleaved.size(), 4);
    }

    void brokenWavFilesGiveRomanianErrors_data()
    {
        QTest::addColumn<QByteArray>("bytes");
        const QByteArray good = VoiceSamples::wavBytes({ 0.1f, 0.2f }, 16000, 1, 16);
        QTest::newRow("empty") << QByteArray();
        QTest::newRow("not RIFF") << QByteArray("ID3\x03 this is an mp3");
        QTest::newRow("no data chunk") << good.left(36);
        QTest::newRow("cut inside fmt") << good.left(20);
        QByteArray adpcm = good;
        adpcm[20] = 2;
        QTest::newRow("compressed") << adpcm;
        QByteArray noChannels = good;
        noChannels[22] = 0;
        QTest::newRow("zero channels") << noChannels;
        QByteArray hugeChunk = good;
        hugeChunk.replace(16, 4, QByteArray("\xff\xff\xff\xff", 4));
        QTest::newRow("chunk size past the end") << hugeChunk;
    }

    void brokenWavFilesGiveRomanianErrors()
    {
        QFETCH(QByteArray, bytes);
        try {
            WavFile::parse(bytes);
            QFAIL("a broken file was accepted");
        } catch (const SpeechRecognitionError &error) {
            QCOMPARE(error.kind(), SpeechRecognitionError::Kind::audioFailure);
            QVERIFY(error.description().startsWith(QStringLiteral("Fișierul audio nu poate fi citit")));
        }
    }

    void fileInputDeliversEveryFrameThenEnds()
    {
        WavFile wav;
        wav.sampleRate = 16000;
        wav.channels = 2;
        wav.interleaved = VoiceSamples::sine(200, 0.2, 16000, 0.3 * 2);
        WavFileInput input(wav, 0.0);
        qsizetype frames = 0;
        connect(&input, &AudioInput::bufferCaptured, this, [&](const QVector<float> &buffer, int rate, int channels) {
            QCOMPARE(rate, 16000);
            QCOMPARE(channels, 2);
            QVERIFY(buffer.size() <= 1024 * 2);
            frames += buffer.size() / channels;
        });
        QSignalSpy ended(&input, &AudioInput::ended);
        input.start();
        QVERIFY(AsyncTest::waitUntil([&] { return ended.count() == 1; }));
        QCOMPARE(frames, wav.frames());
        QVERIFY(!input.isRunning());
    }

    void transcriptsUseCommaBelowLetters()
    {
        QCOMPARE(TranscriptText::normalised(QStringLiteral("  Aşa  ţară,\nŞTIU ŢARA  ")),
            QStringLiteral("Așa țară, ȘTIU ȚARA"));
        QCOMPARE(TranscriptText::normalised(QStringLiteral("bun\uFFFDă")), QStringLiteral("bună"));
        QCOMPARE(TranscriptText::normalised(QStringLiteral(" \t\n")), QString());
    }
};

QTEST_GUILESS_MAIN(AudioPathTest)
#include "AudioPathTest.moc"
