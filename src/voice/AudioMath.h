#pragma once

#include <QAudioFormat>
#include <QByteArray>
#include <QVector>

// Small sample-level helpers shared by the capture path, the level meter and the tests.
namespace AudioMath {

// The orb's input level of one buffer: RMS of the first channel × 20, capped at 1.0.
double inputLevel(const float *interleaved, qsizetype frames, int channels);

// Converts raw device bytes into interleaved floats in -1…1. Unknown formats yield nothing.
QVector<float> toFloat(const QByteArray &bytes, const QAudioFormat &format);

// Averages the channels of interleaved samples into one.
QVector<float> downmix(const QVector<float> &interleaved, int channels);

} // namespace AudioMath
