#include "Resampler.h"

#include <algorithm>
#include <cmath>

namespace {
constexpr int kZeroCrossings = 8;
constexpr double kPi = 3.14159265358979323846;
} // namespace

Resampler::Resampler(int inputRate, int outputRate)
    : m_inputRate(std::max(inputRate, 1))
    , m_outputRate(std::max(outputRate, 1))
    , m_step(double(m_inputRate) / double(m_outputRate))
    // Downsampling must cut below the new Nyquist frequency, with a little room for the transition.
    , m_cutoff(std::min(1.0, double(m_outputRate) / double(m_inputRate)) * 0.95)
    , m_halfWidth(int(std::ceil(kZeroCrossings / m_cutoff)))
{ }

float Resampler::interpolate(double position) const
{
    const auto centre = qsizetype(std::floor(position));
    double sum = 0.0;
    for (qsizetype k = centre - m_halfWidth + 1; k <= centre + m_halfWidth; ++k) {
        if (k < 0 || k >= qsizetype(m_history.size()))
            continue;
        const double distance = position - double(k);
        const double x = m_cutoff * distance;
        const double sinc = std::abs(x) < 1e-9 ? 1.0 : std::sin(kPi * x) / (kPi * x);
        const double w = 0.5 + 0.5 * std::cos(kPi * distance / m_halfWidth);
        sum += m_history[size_t(k)] * m_cutoff * sinc * w;
    }
    return float(sum);
}

QVector<float> Resampler::process(const QVector<float> &input)
{
    if (m_inputRate == m_outputRate)
        return input;
    m_history.insert(m_history.end(), input.cbegin(), input.cend());
    QVector<float> output;
    output.reserve(qsizetype(double(input.size()) / m_step) + 2);
    while (m_position + m_halfWidth < double(m_history.size())) {
        output.append(interpolate(m_position));
        m_position += m_step;
    }
    const auto consumed = qsizetype(std::floor(m_position)) - m_halfWidth;
    if (consumed > 0) {
        m_history.erase(m_history.begin(), m_history.begin() + consumed);
        m_position -= double(consumed);
    }
    return output;
}

QVector<float> Resampler::flush()
{
    if (m_inputRate == m_outputRate)
        return {};
    const double end = double(m_history.size());
    m_history.insert(m_history.end(), size_t(m_halfWidth), 0.0f);
    QVector<float> output;
    while (m_position < end) {
        output.append(interpolate(m_position));
        m_position += m_step;
    }
    m_history.clear();
    m_position = 0.0;
    return output;
}
