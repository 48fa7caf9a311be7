#pragma once

#include <QVector>

#include <vector>

// Streaming band-limited resampler for one channel (windowed sinc). Microphones often offer only
// 44.1 or 48 kHz while the recogniser wants 16 kHz; buffers may arrive in any size.
class Resampler
{
public:
    Resampler(int inputRate, int outputRate);

    int inputRate() const { return m_inputRate; }
    int outputRate() const { return m_outputRate; }

    QVector<float> process(const QVector<float> &input);
    // Pushes out the samples still held back for the filter's look-ahead.
    QVector<float> flush();

private:
    float interpolate(double position) const;

    int m_inputRate;
    int m_outputRate;
    double m_step;
    double m_cutoff;
    int m_halfWidth;
    std::vector<float> m_history;
    double m_position = 0.0;
};
