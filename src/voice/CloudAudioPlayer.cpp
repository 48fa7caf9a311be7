#include "CloudAudioPlayer.h"

#include "Mp3PcmStream.h"

#include <QAudioDevice>
#include <QAudioSink>
#include <QMediaDevices>
#include <QTimer>

CloudAudioPlayer::CloudAudioPlayer(const QByteArray &mp3, QObject *parent)
    : QObject(parent)
    , m_stream(new Mp3PcmStream(mp3, this))
{
    connect(m_stream, &Mp3PcmStream::decodeErrorOccurred, this, [this](const QString &detail) {
        if (m_done)
            return;
        stop();
        Q_EMIT decodeErrorOccurred(detail);
    });
    connect(m_stream, &Mp3PcmStream::firstSamplesRead, this, &CloudAudioPlayer::firstAudioQueued);
}

CloudAudioPlayer::~CloudAudioPlayer()
{
    stop();
}

bool CloudAudioPlayer::play()
{
    const QAudioDevice device = QMediaDevices::defaultAudioOutput();
    if (device.isNull())
        return false;
    m_sink = new QAudioSink(device, m_stream->format(), this);
    connect(m_sink, &QAudioSink::stateChanged, this, &CloudAudioPlayer::onStateChanged);
    m_sink->start(m_stream);
    if (m_sink->error() != QAudio::NoError || m_sink->state() == QAudio::StoppedState) {
        m_sink->disconnect(this);
        m_sink->deleteLater();
        m_sink = nullptr;
        return false;
    }
    return true;
}

void CloudAudioPlayer::stop()
{
    m_done = true;
    if (!m_sink)
        return;
    m_sink->disconnect(this);
    m_sink->stop();
    m_sink->deleteLater();
    m_sink = nullptr;
}

void CloudAudioPlayer::onStateChanged()
{
    if (m_done || !m_sink)
        return;
    const QAudio::State state = m_sink->state();
    if (state == QAudio::IdleState && m_stream->atEnd()) {
        m_done = true;
        // The device has taken the last samples but still holds up to a buffer of them; the end
        // is reported once that has been heard, so hands-free listening does not hear Kelo.
        const qint64 tailMs = m_stream->format().durationForBytes(qint32(m_sink->bufferSize())) / 1000;
        QTimer::singleShot(tailMs, this, [this] {
            if (m_sink)
                Q_EMIT finished(true);
        });
    } else if (state == QAudio::StoppedState && m_sink->error() != QAudio::NoError) {
        m_done = true;
        Q_EMIT finished(false);
    }
}
