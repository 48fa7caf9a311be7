#include "Mp3PcmStream.h"

#include "ProviderError.h"

#include <QMetaObject>

#include <mpg123.h>

namespace {

constexpr size_t decodeChunkBytes = 16 * 1024;

struct HandleDeleter
{
    void operator()(mpg123_handle *handle) const { mpg123_delete(handle); }
};
using Handle = std::unique_ptr<mpg123_handle, HandleDeleter>;

// A decoder that only ever produces signed 16-bit samples, at the file's own rate and channels.
Handle newDecoder()
{
    int error = MPG123_OK;
    Handle handle(mpg123_new(nullptr, &error));
    if (!handle)
        throw ProviderError::audioNotPlayable();
    mpg123_param(handle.get(), MPG123_ADD_FLAGS, MPG123_QUIET, 0.0);
    mpg123_format_none(handle.get());
    const long *rates = nullptr;
    size_t rateCount = 0;
    mpg123_rates(&rates, &rateCount);
    for (size_t i = 0; i < rateCount; ++i)
        mpg123_format(handle.get(), rates[i], MPG123_MONO | MPG123_STEREO, MPG123_ENC_SIGNED_16);
    if (mpg123_open_feed(handle.get()) != MPG123_OK)
        throw ProviderError::audioNotPlayable();
    return handle;
}

} // namespace

Mp3PcmStream::Mp3PcmStream(QByteArray mp3, QObject *parent)
    : QIODevice(parent)
{
    // The decoder keeps its own copy of what it is fed.
    Handle handle = newDecoder();
    if (mpg123_feed(handle.get(), reinterpret_cast<const unsigned char *>(mp3.constData()), size_t(mp3.size()))
        != MPG123_OK)
        throw ProviderError::audioNotPlayable();
    m_handle = handle.release();

    // The first decoded samples prove the data is audio; without them there is nothing to play.
    while (m_pending.isEmpty() && decodeMore()) { }
    if (m_pending.isEmpty() || !m_format.isValid()) {
        mpg123_delete(m_handle);
        m_handle = nullptr;
        throw ProviderError::audioNotPlayable();
    }
    open(QIODevice::ReadOnly);
}

Mp3PcmStream::~Mp3PcmStream()
{
    if (m_handle)
        mpg123_delete(m_handle);
}

bool Mp3PcmStream::atEnd() const
{
    return m_inputEnded && m_pendingOffset >= m_pending.size() && QIODevice::bytesAvailable() == 0;
}

qint64 Mp3PcmStream::bytesAvailable() const
{
    return (m_pending.size() - m_pendingOffset) + QIODevice::bytesAvailable();
}

qint64 Mp3PcmStream::readData(char *data, qint64 maxSize)
{
    qint64 written = 0;
    while (written < maxSize) {
        if (m_pendingOffset >= m_pending.size()) {
            m_pending.clear();
            m_pendingOffset = 0;
            if (!decodeMore() && m_pending.isEmpty())
                break;
            continue;
        }
        const qint64 count = qMin(maxSize - written, qint64(m_pending.size() - m_pendingOffset));
        memcpy(data + written, m_pending.constData() + m_pendingOffset, size_t(count));
        m_pendingOffset += count;
        written += count;
    }
    if (written > 0 && !m_anyRead) {
        m_anyRead = true;
        Q_EMIT firstSamplesRead();
    }
    return written;
}

qint64 Mp3PcmStream::writeData(const char *, qint64)
{
    return -1;
}

bool Mp3PcmStream::decodeMore()
{
    if (m_inputEnded)
        return false;
    QByteArray chunk(qsizetype(decodeChunkBytes), Qt::Uninitialized);
    size_t produced = 0;
    const int result = mpg123_decode(
        m_handle, nullptr, 0, reinterpret_cast<unsigned char *>(chunk.data()), decodeChunkBytes, &produced);
    if (result == MPG123_NEW_FORMAT) {
        long rate = 0;
        int channels = 0;
        int encoding = 0;
        mpg123_getformat(m_handle, &rate, &channels, &encoding);
        // Format changes mid-file are not followed: the device was opened for the first one.
        if (!m_format.isValid()) {
            m_format.setSampleRate(int(rate));
            m_format.setChannelCount(channels);
            m_format.setSampleFormat(QAudioFormat::Int16);
        }
    } else if (result == MPG123_NEED_MORE || result == MPG123_DONE) {
        m_inputEnded = true;
    } else if (result != MPG123_OK) {
        m_inputEnded = true;
        const QString detail = QString::fromUtf8(mpg123_strerror(m_handle));
        QMetaObject::invokeMethod(
            this, [this, detail] { Q_EMIT decodeErrorOccurred(detail); }, Qt::QueuedConnection);
    }
    m_pending.append(chunk.constData(), qsizetype(produced));
    return !m_inputEnded || produced > 0;
}
