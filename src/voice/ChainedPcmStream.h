#pragma once

#include <QAudioFormat>
#include <QIODevice>
#include <QList>

class Mp3PcmStream;

// The PCM of successive MP3 pieces, one after the other, as one device an audio sink pulls from, so
// the pieces of an answer play back to back through a single output. A piece whose format differs
// from the one playing is held back until the output is reopened for it (see headFormat()).
class ChainedPcmStream : public QIODevice
{
    Q_OBJECT

public:
    explicit ChainedPcmStream(QObject *parent = nullptr);

    // Takes ownership; the first piece sets the format.
    void append(Mp3PcmStream *piece);
    // No piece follows the ones appended.
    void endInput();
    bool inputEnded() const { return m_inputEnded; }

    QAudioFormat format() const { return m_format; }
    // The format of the next piece to play; differs from format() when the output must reopen.
    QAudioFormat headFormat() const;
    // Adopts headFormat() for the output about to be reopened.
    void adoptHeadFormat() { m_format = headFormat(); }

    // Pulls that found nothing to play while more pieces were still to come, counted once per dry
    // spell: an upper bound on the gaps heard between pieces.
    int underruns() const { return m_underruns; }

    bool isSequential() const override { return true; }
    bool atEnd() const override;
    qint64 bytesAvailable() const override;

Q_SIGNALS:
    void firstSamplesRead();
    // The device pulled the first samples of the next piece.
    void pieceStarted();
    // A piece broke off in a way the decoder could not recover from; the next piece follows.
    void pieceDamaged(const QString &detail);

protected:
    qint64 readData(char *data, qint64 maxSize) override;
    qint64 writeData(const char *data, qint64 size) override;

private:
    qint64 readPieces(char *data, qint64 maxSize);
    void dropHead();

    QList<Mp3PcmStream *> m_pieces;
    QAudioFormat m_format;
    bool m_inputEnded = false;
    bool m_anyRead = false;
    bool m_headStarted = false;
    bool m_starved = false;
    int m_underruns = 0;
};
