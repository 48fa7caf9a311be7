#include "WavFile.h"

#include "SpeechRecognitionError.h"

#include <QFile>
#include <QtEndian>

#include <cstring>

namespace {

constexpr quint16 kFormatPcm = 1;
constexpr quint16 kFormatFloat = 3;
constexpr quint16 kFormatExtensible = 0xFFFE;

[[noreturn]] void fail(const QString &reason)
{
    throw SpeechRecognitionError(SpeechRecognitionError::Kind::audioFailure,
        QStringLiteral("Fișierul audio nu poate fi citit: %1.").arg(reason));
}

float sampleAt(const uchar *p, quint16 format, int bits)
{
    if (format == kFormatFloat) {
        float value;
        std::memcpy(&value, p, sizeof value);
        return value;
    }
    switch (bits) {
    case 8:
        return (float(p[0]) - 128.0f) / 128.0f;
    case 16:
        return float(qFromLittleEndian<qint16>(p)) / 32768.0f;
    case 24: {
        const qint32 value = qint32(quint32(p[0]) << 8 | quint32(p[1]) << 16 | quint32(p[2]) << 24) >> 8;
        return float(value) / 8388608.0f;
    }
    default:
        return float(double(qFromLittleEndian<qint32>(p)) / 2147483648.0);
    }
}

} // namespace

WavFile WavFile::read(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        fail(QStringLiteral("%1 (%2)").arg(path, file.errorString()));
    // A few minutes of audio at most; anything larger is not a spoken turn.
    constexpr qint64 kMaxBytes = 256LL * 1024 * 1024;
    if (file.size() > kMaxBytes)
        fail(QStringLiteral("fișierul este prea mare"));
    return parse(file.readAll());
}

WavFile WavFile::parse(const QByteArray &bytes)
{
    const auto *data = reinterpret_cast<const uchar *>(bytes.constData());
    const qsizetype size = bytes.size();
    if (size < 12 || std::memcmp(data, "RIFF", 4) != 0 || std::memcmp(data + 8, "WAVE", 4) != 0)
        fail(QStringLiteral("nu este un fișier WAV"));

    quint16 format = 0;
    quint16 channels = 0;
    quint32 rate = 0;
    quint16 bits = 0;
    const uchar *samples = nullptr;
    qsizetype sampleBytes = 0;
    qsizetype offset = 12;
    while (offset + 8 <= size) {
        const uchar *chunk = data + offset;
        const quint32 chunkSize = qFromLittleEndian<quint32>(chunk + 4);
        const qsizetype available = size - offset - 8;
        if (std::memcmp(chunk, "fmt ", 4) == 0) {
            if (chunkSize < 16 || available < 16)
                fail(QStringLiteral("antetul formatului este incomplet"));
            format = qFromLittleEndian<quint16>(chunk + 8);
            channels = qFromLittleEndian<quint16>(chunk + 10);
            rate = qFromLittleEndian<quint32>(chunk + 12);
            bits = qFromLittleEndian<quint16>(chunk + 22);
            if (format == kFormatExtensible && chunkSize >= 26 && available >= 26)
                format = qFromLittleEndian<quint16>(chunk + 32);
        } else if (std::memcmp(chunk, "data", 4) == 0) {
            samples = chunk + 8;
            // Streamed files leave a placeholder size; take what is really there.
            sampleBytes = std::min<qsizetype>(chunkSize, available);
            break;
        }
        offset += 8 + qsizetype(chunkSize) + (chunkSize & 1);
    }

    if (channels == 0 || rate == 0)
        fail(QStringLiteral("lipsește antetul formatului"));
    if (!samples)
        fail(QStringLiteral("lipsesc datele audio"));
    const bool integer = format == kFormatPcm && (bits == 8 || bits == 16 || bits == 24 || bits == 32);
    const bool floating = format == kFormatFloat && bits == 32;
    if (!integer && !floating)
        fail(QStringLiteral("formatul %1 pe %2 biți nu este acceptat").arg(format).arg(bits));
    if (channels > 32 || rate < 1000 || rate > 384000)
        fail(QStringLiteral("parametri audio neplauzibili"));

    WavFile wav;
    wav.sampleRate = int(rate);
    wav.channels = channels;
    const int bytesPerSample = bits / 8;
    const qsizetype count = sampleBytes / bytesPerSample / channels * channels;
    wav.interleaved.resize(count);
    for (qsizetype i = 0; i < count; ++i)
        wav.interleaved[i] = sampleAt(samples + i * bytesPerSample, format, bits);
    return wav;
}
