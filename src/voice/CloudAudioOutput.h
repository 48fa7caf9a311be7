#pragma once

#include <QByteArray>
#include <QObject>

class ChainedPcmStream;
class QAudioSink;

// The one audio output of the cloud voices: the MP3 pieces of an answer are decoded as the device
// pulls them and play back to back through a single sink. Made for one answer; stop() or the end
// of the last piece finishes it.
class CloudAudioOutput : public QObject
{
    Q_OBJECT

public:
    explicit CloudAudioOutput(QObject *parent = nullptr);
    ~CloudAudioOutput() override;

    // Queues a piece behind those playing. Throws ProviderError::audioNotPlayable() when it holds
    // no audio or no output device takes it.
    void append(const QByteArray &mp3);
    // No piece follows: finished() comes once the last one has been heard.
    void endInput();
    // Silences the device at once and drops what is queued; no signal follows.
    void stop();

    int underruns() const;

Q_SIGNALS:
    // Everything appended was played (successfully) or the device gave up (not successfully).
    void finished(bool successfully);
    void firstAudioQueued();
    void pieceStarted();
    void pieceDamaged(const QString &detail);

private:
    bool openSink();
    void closeSink();
    void onStateChanged();
    void reportEndOnceHeard();

    ChainedPcmStream *m_stream;
    QAudioSink *m_sink = nullptr;
    bool m_done = false;
};
