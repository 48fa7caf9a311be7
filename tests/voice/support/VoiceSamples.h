#pragma once

#include <QByteArray>
#include <QString>
#include <QVector>

// Audio made on the spot for voice tests: tones, WAV bytes and spoken Romanian.
namespace VoiceSamples {

QVector<float> sine(double frequency, double amplitude, int sampleRate, double seconds);

// 16-bit integer (bits 16) or 32-bit float (bits 32) RIFF/WAVE bytes of interleaved samples.
QByteArray wavBytes(const QVector<float> &interleaved, int sampleRate, int channels, int bits = 16);
void writeWav(const QString &path, const QVector<float> &interleaved, int sampleRate, int channels, int bits = 16);

// Speaks the text with espeak-ng's Romanian voice into a WAV file; empty when espeak-ng is missing.
QString speakRomanian(const QString &directory, const QString &text);

} // namespace VoiceSamples
