#include "VoiceSamples.h"

#include <QDataStream>
#include <QFile>
#include <QProcess>
#include <QStandardPaths>

#include <cmath>
#include <stdexcept>

namespace VoiceSamples {

QVector<float> sine(double frequency, double amplitude, int sampleRate, double seconds)
{
    QVector<float> out(qsizetype(sampleRate * seconds));
    for (qsizetype i = 0; i < out.size(); ++i)
        out[i] = float(amplitude * std::sin(2.0 * M_PI * frequency * double(i) / sampleRate));
    return out;
}

QByteArray wavBytes(const QVector<float> &interleaved, int sampleRate, int channels, int bits)
{
    const auto dataSize = quint32(interleaved.size() * bits / 8);
    QByteArray out;
    QDataStream stream(&out, QIODevice::WriteOnly);
    stream.setByteOrder(QDataStream::LittleEndian);
    stream.setFloatingPointPrecision(QDataStream::SinglePrecision);
    stream.writeRawData("RIFF", 4);
    stream << quint32(36 + dataSize);
    stream.writeRawData("WAVEfmt ", 8);
    stream << quint32(16) << quint16(bits == 32 ? 3 : 1) << quint16(channels) << quint32(sampleRate)
           << quint32(sampleRate * channels * bits / 8) << quint16(channels * bits / 8) << quint16(bits);
    stream.writeRawData("data", 4);
    stream << dataSize;
    for (float sample : interleaved)
        bits == 32 ? stream << sample : stream << qint16(std::lround(std::clamp(sample, -1.0f, 1.0f) * 32767.0f));
    return out;
}

void writeWav(const QString &path, const QVector<float> &interleaved, int sampleRate, int channels, int bits)
{
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate))
        throw std::runtime_error("cannot write the WAV file");
    file.write(wavBytes(interleaved, sampleRate, channels, bits));
}

QString speakRomanian(const QString &directory, const QString &text)
{
    const QString program = QStandardPaths::findExecutable(QStringLiteral("espeak-ng"));
    if (program.isEmpty())
        return {};
    const QString path = directory + QStringLiteral("/spoken.wav");
    QProcess process;
    process.start(program, { QStringLiteral("-v"), QStringLiteral("ro"), QStringLiteral("-w"), path, text });
    if (!process.waitForFinished(30'000) || process.exitCode() != 0 || !QFile::exists(path))
        return {};
    return path;
}

} // namespace VoiceSamples
