#include "VoiceSamples.h"

#include <QFile>
#include <QProcess>
#include <QStandardPaths>
#include <QtEndian>

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

namespace {
template<typename T> void append(QByteArray &out, T value)
{
    const T le = qToLittleEndian(value);
    out.append(reinterpret_cast<const char *>(&le), sizeof le);
}
} // namespace

QByteArray wavBytes(const QVector<float> &interleaved, int sampleRate, int channels, int bits)
{
    QByteArray data;
    for (float sample : interleaved) {
        if (bits == 32) {
            data.append(reinterpret_cast<const char *>(&sample), 4);
        } else {
            const auto value = qint16(std::lround(std::clamp(sample, -1.0f, 1.0f) * 32767.0f));
            append(data, value);
        }
    }
    QByteArray out("RIFF");
    append<quint32>(out, quint32(36 + data.size()));
    out.append("WAVEfmt ");
    append<quint32>(out, 16);
    append<quint16>(out, bits == 32 ? 3 : 1);
    append<quint16>(out, quint16(channels));
    append<quint32>(out, quint32(sampleRate));
    append<quint32>(out, quint32(sampleRate * channels * bits / 8));
    append<quint16>(out, quint16(channels * bits / 8));
    append<quint16>(out, quint16(bits));
    out.append("data");
    append<quint32>(out, quint32(data.size()));
    return out + data;
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
