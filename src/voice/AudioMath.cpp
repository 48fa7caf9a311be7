#include "AudioMath.h"

#include <algorithm>
#include <cmath>
#include <cstring>

namespace AudioMath {

double inputLevel(const float *interleaved, qsizetype frames, int channels)
{
    if (!interleaved || channels < 1)
        return 0.0;
    double sumOfSquares = 0.0;
    for (qsizetype i = 0; i < frames; ++i) {
        const double sample = interleaved[i * channels];
        sumOfSquares += sample * sample;
    }
    const double rms = std::sqrt(sumOfSquares / double(std::max<qsizetype>(frames, 1)));
    return std::min(rms * 20.0, 1.0);
}

namespace {
template<typename T> T readSample(const char *data)
{
    T value;
    std::memcpy(&value, data, sizeof(T));
    return value;
}
} // namespace

QVector<float> toFloat(const QByteArray &bytes, const QAudioFormat &format)
{
    const int bytesPerSample = format.bytesPerSample();
    if (bytesPerSample <= 0)
        return {};
    const qsizetype count = bytes.size() / bytesPerSample;
    QVector<float> out(count);
    const char *data = bytes.constData();
    for (qsizetype i = 0; i < count; ++i, data += bytesPerSample) {
        switch (format.sampleFormat()) {
        case QAudioFormat::UInt8:
            out[i] = (float(quint8(*data)) - 128.0f) / 128.0f;
            break;
        case QAudioFormat::Int16:
            out[i] = float(readSample<qint16>(data)) / 32768.0f;
            break;
        case QAudioFormat::Int32:
            out[i] = float(double(readSample<qint32>(data)) / 2147483648.0);
            break;
        case QAudioFormat::Float:
            out[i] = readSample<float>(data);
            break;
        default:
            return {};
        }
    }
    return out;
}

QVector<float> downmix(const QVector<float> &interleaved, int channels)
{
    if (channels <= 1)
        return interleaved;
    const qsizetype frames = interleaved.size() / channels;
    QVector<float> mono(frames);
    for (qsizetype f = 0; f < frames; ++f) {
        float sum = 0.0f;
        for (int c = 0; c < channels; ++c)
            sum += interleaved[f * channels + c];
        mono[f] = sum / float(channels);
    }
    return mono;
}

} // namespace AudioMath
