#include "WavFileInput.h"

#include <algorithm>
#include <cmath>

namespace {
constexpr qsizetype kFramesPerBuffer = 1024;
}

WavFileInput::WavFileInput(WavFile wav, double speed, QObject *parent)
    : AudioInput(parent)
    , m_wav(std::move(wav))
{
    const double bufferMs = m_wav.sampleRate > 0 ? 1000.0 * kFramesPerBuffer / m_wav.sampleRate : 0.0;
    m_timer.setInterval(speed > 0 ? int(std::lround(bufferMs / speed)) : 0);
    m_timer.setTimerType(Qt::PreciseTimer);
    connect(&m_timer, &QTimer::timeout, this, &WavFileInput::deliverNext);
}

void WavFileInput::start()
{
    m_nextFrame = 0;
    m_timer.start();
}

void WavFileInput::stop()
{
    m_timer.stop();
}

void WavFileInput::deliverNext()
{
    const qsizetype total = m_wav.frames();
    if (m_nextFrame >= total) {
        m_timer.stop();
        Q_EMIT ended();
        return;
    }
    const qsizetype frames = std::min(kFramesPerBuffer, total - m_nextFrame);
    const QVector<float> buffer = m_wav.interleaved.mid(m_nextFrame * m_wav.channels, frames * m_wav.channels);
    m_nextFrame += frames;
    Q_EMIT bufferCaptured(buffer, m_wav.sampleRate, m_wav.channels);
}
