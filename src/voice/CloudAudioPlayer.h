#pragma once

#include <QByteArray>
#include <QObject>

class Mp3PcmStream;
class QAudioSink;

// Plays one MP3 file through the default audio output, like a media player object: made from the
// data (throws ProviderError::audioNotPlayable() when it holds no audio), started with play(),
// reporting its natural end or a decode error. One player per file.
class CloudAudioPlayer : public QObject
{
    Q_OBJECT

public:
    explicit CloudAudioPlayer(const QByteArray &mp3, QObject *parent = nullptr);
    ~CloudAudioPlayer() override;

    // False when there is no output device or it refuses the stream.
    bool play();
    // Stops at once; no signal follows.
    void stop();

Q_SIGNALS:
    // The file played to its end (successfully) or the device gave up (not successfully).
    void finished(bool successfully);
    void decodeErrorOccurred(const QString &detail);
    // The first decoded samples went to the audio device.
    void firstAudioQueued();

private:
    void onStateChanged();

    Mp3PcmStream *m_stream;
    QAudioSink *m_sink = nullptr;
    bool m_done = false;
};
