#include "WhisperModelFile.h"

#include "SpeechRecognitionError.h"

#include <QFile>
#include <QFileInfo>
#include <QtEndian>

#ifdef KELO_WITH_WHISPER
#include <ggml.h>
#endif

#include <cstring>

namespace {

constexpr quint32 kMagic = 0x67676d6c; // "ggml"
constexpr int kQuantVersionFactor = 1000;

[[noreturn]] void invalid(const QString &reason)
{
    throw SpeechRecognitionError(SpeechRecognitionError::Kind::modelInvalid, reason);
}

// Reads little-endian records from a mapped file, failing as "truncated" past its end.
class Reader
{
public:
    Reader(const uchar *data, qint64 size)
        : m_data(data)
        , m_size(size)
    { }

    bool atEnd() const { return m_offset >= m_size; }

    qint32 int32()
    {
        need(4);
        const auto value = qFromLittleEndian<qint32>(m_data + m_offset);
        m_offset += 4;
        return value;
    }

    void skip(qint64 bytes)
    {
        if (bytes < 0)
            invalid(QStringLiteral("dimensiune negativă"));
        need(bytes);
        m_offset += bytes;
    }

    const uchar *peek(qint64 bytes)
    {
        need(bytes);
        return m_data + m_offset;
    }

private:
    void need(qint64 bytes) const
    {
        if (bytes > m_size - m_offset)
            invalid(QStringLiteral("fișier trunchiat"));
    }

    const uchar *m_data;
    qint64 m_size;
    qint64 m_offset = 0;
};

int within(Reader &reader, int low, int high, const char *what)
{
    const qint32 value = reader.int32();
    if (value < low || value > high)
        invalid(QStringLiteral("valoare neplauzibilă pentru %1: %2").arg(QLatin1String(what)).arg(value));
    return value;
}

// Bytes per block and elements per block of a stored tensor type; zero for types not known.
std::pair<qint64, qint64> typeLayout(int type)
{
#ifdef KELO_WITH_WHISPER
    if (type >= GGML_TYPE_COUNT)
        return { 0, 0 };
    return { qint64(ggml_type_size(ggml_type(type))), qint64(ggml_blck_size(ggml_type(type))) };
#else
    // Only the plain float types without the library that knows the quantised layouts.
    if (type == 0)
        return { 4, 1 };
    if (type == 1)
        return { 2, 1 };
    return { 0, 0 };
#endif
}

void checkTensors(Reader &reader, WhisperModelFile &info)
{
    while (!reader.atEnd()) {
        const int nDims = within(reader, 1, 4, "n_dims");
        const int nameLength = within(reader, 1, 256, "lungimea numelui");
        const int type = within(reader, 0, 1024, "tipul tensorului");
        const auto [typeSize, blockSize] = typeLayout(type);
        if (typeSize <= 0 || blockSize <= 0)
            invalid(QStringLiteral("tip de tensor necunoscut %1").arg(type));
        qint64 elements = 1;
        for (int i = 0; i < nDims; ++i) {
            elements *= within(reader, 1, 1 << 24, "dimensiunea tensorului");
            if (elements > (qint64(1) << 32))
                invalid(QStringLiteral("tensor prea mare"));
        }
        reader.skip(nameLength);
        if (elements % blockSize != 0)
            invalid(QStringLiteral("tensor cu dimensiuni nealiniate"));
        reader.skip(elements / blockSize * typeSize);
        ++info.tensorCount;
    }
    if (info.tensorCount == 0)
        invalid(QStringLiteral("fișierul nu conține ponderi"));
}

} // namespace

WhisperModelFile WhisperModelFile::inspect(const QString &path)
{
    QFile file(path);
    if (path.isEmpty() || !QFileInfo(path).isFile())
        throw SpeechRecognitionError(SpeechRecognitionError::Kind::modelMissing, path);
    if (!file.open(QIODevice::ReadOnly))
        throw SpeechRecognitionError(
            SpeechRecognitionError::Kind::modelMissing, QStringLiteral("%1 (%2)").arg(path, file.errorString()));
    WhisperModelFile info;
    info.path = path;
    info.size = file.size();
    if (info.size < 4)
        invalid(QStringLiteral("fișier trunchiat"));
    const uchar *data = file.map(0, info.size);
    if (!data)
        invalid(file.errorString());
    Reader reader(data, info.size);

    if (quint32(reader.int32()) != kMagic)
        invalid(QStringLiteral("antet necunoscut"));
    info.nVocab = within(reader, 1, 1'000'000, "n_vocab");
    info.nAudioCtx = within(reader, 1, 100'000, "n_audio_ctx");
    info.nAudioState = within(reader, 1, 100'000, "n_audio_state");
    info.nAudioHead = within(reader, 1, 1024, "n_audio_head");
    info.nAudioLayer = within(reader, 1, 256, "n_audio_layer");
    info.nTextCtx = within(reader, 1, 100'000, "n_text_ctx");
    const int textState = within(reader, 1, 100'000, "n_text_state");
    const int textHead = within(reader, 1, 1024, "n_text_head");
    info.nTextLayer = within(reader, 1, 256, "n_text_layer");
    info.nMels = within(reader, 1, 1024, "n_mels");
    const int ftype = within(reader, 0, 1'000'000, "ftype") % kQuantVersionFactor;
    if (textState != info.nAudioState || info.nAudioState % info.nAudioHead != 0 || textState % textHead != 0)
        invalid(QStringLiteral("dimensiuni incompatibile"));
    if (ftype > 30)
        invalid(QStringLiteral("ftype necunoscut %1").arg(ftype));

    const int filterMels = within(reader, 1, 1024, "n_mel");
    const int filterFft = within(reader, 1, 4096, "n_fft");
    reader.skip(qint64(filterMels) * filterFft * 4);

    const int vocabCount = within(reader, 0, 1'000'000, "numărul de simboluri");
    for (int i = 0; i < vocabCount; ++i)
        reader.skip(within(reader, 0, 4096, "lungimea simbolului"));

    checkTensors(reader, info);

    // "ggml-base.en.bin" and friends: the name says English-only even when the header was altered.
    const QString fileName = QFileInfo(path).fileName();
    const bool namedEnglish = fileName.contains(QLatin1String(".en.")) || fileName.endsWith(QLatin1String(".en"));
    if (!info.isMultilingual() || namedEnglish)
        throw SpeechRecognitionError(SpeechRecognitionError::Kind::modelEnglishOnly, fileName);
    return info;
}
