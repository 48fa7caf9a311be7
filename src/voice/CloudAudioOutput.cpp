#include "CloudAudioOutput.h"

#include "ChainedPcmStream.h"
#include "Mp3PcmStream.h"
#include "ProviderError.h"

#include <QAudioDevice>
#include <QAudioSink>
#include <QMediaDevices>
#include <QTimer>

#include <memory>

CloudAudioOutput::CloudAudioOutput(QObject *parent)
    : QObject(parent)
    , m_stream(new ChainedPcmStream(this))
{
    connect(m_stream, &ChainedPcmStream::firstSamplesRead, this, &CloudAudioOutput::firstAudioQueued);
    connect(m_stream, &ChainedPcmStream::pieceDamaged, this, &CloudAudioOutput::pieceDamaged);
    connect(m_stream, &ChainedPcmStream::pieceStarted, this, &CloudAudioOutput::pieceStarted);
}

CloudAudioOutput::~CloudAudioOutput()
{
    stop();
}

void CloudAudioOutput::append(const QByteArray &mp3)
{
    if (m_done)
        return;
    auto piece = std::make_unique<Mp3PcmStream>(mp3);
    m_stream->append(piece.release());
    if (!m_sink && !openSink())
        throw ProviderError::audioNotPlayable();
    // A sink that ran dry stops pulling; suspending and resuming it starts it again without
    // dropping what the server still plays.
    if (m_sink->state() == QAudio::IdleState) {
        m_sink->suspend();
        m_sink->resume();
    }
}

void CloudAudioOutput::endInput()
{
    m_stream->endInput();
    // A sink already idle waiting for more pulls no more: the end has to be noticed here.
    if (m_sink && m_sink->state() == QAudio::IdleState)
        onStateChanged();
}

void CloudAudioOutput::stop()
{
    m_done = true;
    closeSink();
}

int CloudAudioOutput::underruns() const
{
    return m_stream->underruns();
}

bool CloudAudioOutput::openSink()
{
    const QAudioDevice device = QMediaDevices::defaultAudioOutput();
    if (device.isNull())
        return false;
    // Without a parent: Qt 6.4 gives the sink's backend the parent passed here, so a parent would
    // delete the backend a second time.
    m_sink = new QAudioSink(device, m_stream->format());
    connect(m_sink, &QAudioSink::stateChanged, this, &CloudAudioOutput::onStateChanged);
    m_sink->start(m_stream);
    if (m_sink->error() != QAudio::NoError || m_sink->state() == QAudio::StoppedState) {
        closeSink();
        return false;
    }
    return true;
}

void CloudAudioOutput::closeSink()
{
    if (!m_sink)
        return;
    QAudioSink *sink = std::exchange(m_sink, nullptr);
    sink->disconnect(this);
    // reset() drops what the server still buffers; stop() alone would let it play out.
    sink->reset();
    sink->stop();
    // Deleting a sink runs the event loop, which the caller may not expect.
    sink->deleteLater();
}

void CloudAudioOutput::onStateChanged()
{
    if (m_done || !m_sink)
        return;
    const QAudio::State state = m_sink->state();
    if (state == QAudio::StoppedState && m_sink->error() != QAudio::NoError) {
        m_done = true;
        Q_EMIT finished(false);
        return;
    }
    if (state != QAudio::IdleState || m_stream->bytesAvailable() > 0)
        return;
    if (m_stream->atEnd()) {
        reportEndOnceHeard();
    } else if (m_stream->headFormat() != m_stream->format()) {
        // The next piece has another rate or channel count: the device is reopened for it.
        closeSink();
        m_stream->adoptHeadFormat();
        if (!openSink()) {
            m_done = true;
            Q_EMIT finished(false);
        }
    }
}

void CloudAudioOutput::reportEndOnceHeard()
{
    m_done = true;
    // The device has taken the last samples but still holds up to a buffer of them; the end is
    // reported once that has been heard, so hands-free listening does not hear Kelo.
    const qint64 tailMs = m_stream->format().durationForBytes(qint32(m_sink->bufferSize())) / 1000;
    QTimer::singleShot(tailMs, this, [this] {
        if (m_sink)
            Q_EMIT finished(true);
    });
}
