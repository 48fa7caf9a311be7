#pragma once

#include <QAudioFormat>
#include <QByteArray>
#include <QIODevice>

struct mpg123_handle_struct;

// 16-bit PCM decoded from an MP3 file in memory, on demand as the audio device pulls it, so a long
// answer never sits in memory as raw PCM. The constructor decodes the first frame and throws
// ProviderError::audioNotPlayable() when there is none (not MP3, or cut before a whole frame).
// A file cut later plays up to its last whole frame, as a media player would.
class Mp3PcmStream : public QIODevice
{
    Q_OBJECT

public:
    explicit Mp3PcmStream(QByteArray mp3, QObject *parent = nullptr);
    ~Mp3PcmStream() override;

    QAudioFormat format() const { return m_format; }

    bool isSequential() const override { return true; }
    bool atEnd() const override;
    qint64 bytesAvailable() const override;

Q_SIGNALS:
    // The data broke off in a way the decoder could not recover from; playback ends early.
    void decodeErrorOccurred(const QString &detail);
    // The audio device pulled the first samples.
    void firstSamplesRead();

protected:
    qint64 readData(char *data, qint64 maxSize) override;
    qint64 writeData(const char *data, qint64 size) override;

private:
    // Decodes the next piece into m_pending; false once the input is used up or broken.
    bool decodeMore();

    mpg123_handle_struct *m_handle = nullptr;
    QAudioFormat m_format;
    QByteArray m_pending;
    qsizetype m_pendingOffset = 0;
    bool m_inputEnded = false;
    bool m_anyRead = false;
};
