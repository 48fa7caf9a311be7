#include "ChainedPcmStream.h"

#include "Mp3PcmStream.h"

ChainedPcmStream::ChainedPcmStream(QObject *parent)
    : QIODevice(parent)
{
    open(QIODevice::ReadOnly);
}

void ChainedPcmStream::append(Mp3PcmStream *piece)
{
    piece->setParent(this);
    connect(piece, &Mp3PcmStream::decodeErrorOccurred, this, &ChainedPcmStream::pieceDamaged);
    if (!m_format.isValid())
        m_format = piece->format();
    m_pieces.append(piece);
}

void ChainedPcmStream::endInput()
{
    m_inputEnded = true;
}

QAudioFormat ChainedPcmStream::headFormat() const
{
    return m_pieces.isEmpty() ? m_format : m_pieces.first()->format();
}

bool ChainedPcmStream::atEnd() const
{
    return m_inputEnded && m_pieces.isEmpty();
}

qint64 ChainedPcmStream::bytesAvailable() const
{
    qint64 available = QIODevice::bytesAvailable();
    for (const Mp3PcmStream *piece : m_pieces) {
        if (piece->format() != m_format)
            break;
        available += piece->bytesAvailable();
    }
    return available;
}

qint64 ChainedPcmStream::readData(char *data, qint64 maxSize)
{
    const qint64 written = readPieces(data, maxSize);
    if (written > 0) {
        m_starved = false;
        if (!m_anyRead) {
            m_anyRead = true;
            Q_EMIT firstSamplesRead();
        }
    } else if (maxSize > 0 && m_anyRead && !m_inputEnded && !m_starved) {
        // A pull of nothing (the sink asks for zero bytes now and then) found nothing missing.
        m_starved = true;
        ++m_underruns;
    }
    return written;
}

qint64 ChainedPcmStream::readPieces(char *data, qint64 maxSize)
{
    qint64 written = 0;
    while (written < maxSize && !m_pieces.isEmpty() && m_pieces.first()->format() == m_format) {
        const qint64 count = m_pieces.first()->read(data + written, maxSize - written);
        if (count <= 0) {
            dropHead();
            continue;
        }
        written += count;
        if (!std::exchange(m_headStarted, true))
            Q_EMIT pieceStarted();
    }
    return written;
}

void ChainedPcmStream::dropHead()
{
    m_headStarted = false;
    Mp3PcmStream *piece = m_pieces.takeFirst();
    piece->disconnect(this);
    piece->deleteLater();
}

qint64 ChainedPcmStream::writeData(const char *, qint64)
{
    return -1;
}
