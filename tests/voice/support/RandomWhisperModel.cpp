#include "RandomWhisperModel.h"

#include <QFile>
#include <QList>
#include <QStringList>
#include <QtEndian>
#include <qfloat16.h>

#include <numeric>
#include <random>
#include <stdexcept>
#include <vector>

using namespace Qt::Literals::StringLiterals;

namespace RandomWhisperModel {

Shape tiny()
{
    return Shape {};
}

Shape base()
{
    Shape shape;
    shape.nAudioState = 512;
    shape.nAudioHead = shape.nTextHead = 8;
    shape.nAudioLayer = shape.nTextLayer = 6;
    return shape;
}

namespace {

class Writer
{
public:
    Writer(const QString &path, unsigned seed)
        : m_file(path)
        , m_random(seed)
    {
        if (!m_file.open(QIODevice::WriteOnly | QIODevice::Truncate))
            throw std::runtime_error("cannot write the model file");
    }

    void int32(qint32 value)
    {
        const qint32 le = qToLittleEndian(value);
        raw(&le, sizeof le);
    }

    void bytes(const QByteArray &data) { raw(data.constData(), data.size()); }

    // Normal noise of the given scale around offset (scale 0: the offset alone), in chunks.
    void floats(qint64 count, float scale, float offset, bool half)
    {
        std::normal_distribution<float> normal(0.0f, 1.0f);
        constexpr qint64 kChunk = 1 << 16;
        std::vector<float> singles;
        std::vector<qfloat16> halves;
        for (qint64 done = 0; done < count; done += kChunk) {
            singles.resize(size_t(std::min(kChunk, count - done)));
            for (float &value : singles)
                value = offset + (scale > 0 ? scale * normal(m_random) : 0.0f);
            if (half) {
                halves.assign(singles.begin(), singles.end());
                raw(halves.data(), qint64(halves.size() * sizeof(qfloat16)));
            } else {
                raw(singles.data(), qint64(singles.size() * sizeof(float)));
            }
        }
    }

    // One tensor record: n_dims, name length, type, dimensions (fastest-varying first), name, data.
    void tensor(const QString &name, const QList<int> &dims, bool half, float scale = 0.0f, float offset = 0.0f)
    {
        const QByteArray utf8 = name.toUtf8();
        for (qint32 value : { qint32(dims.size()), qint32(utf8.size()), qint32(half ? 1 : 0) })
            int32(value);
        for (int dim : dims)
            int32(dim);
        bytes(utf8);
        floats(std::accumulate(dims.cbegin(), dims.cend(), qint64(1), std::multiplies<>()), scale, offset, half);
    }

    std::mt19937 &random() { return m_random; }

private:
    void raw(const void *data, qint64 size)
    {
        if (m_file.write(static_cast<const char *>(data), size) != size)
            throw std::runtime_error("short write of the model file");
    }

    QFile m_file;
    std::mt19937 m_random;
};

void writeBlock(Writer &out, const QString &prefix, int state, bool half, bool cross)
{
    auto weight = [&](const QString &name, const QList<int> &dims) {
        out.tensor(prefix + name + u".weight"_s, dims, half, 0.05f);
    };
    auto bias = [&](const QString &name, int size) { out.tensor(prefix + name + u".bias"_s, { size }, false); };
    auto norm = [&](const QString &name) {
        out.tensor(prefix + name + u".weight"_s, { state }, false, 0.0f, 1.0f);
        bias(name, state);
    };
    auto attention = [&](const QString &name) {
        for (const QString &part : { u"query"_s, u"key"_s, u"value"_s, u"out"_s }) {
            weight(name + u'.' + part, { state, state });
            if (part != u"key")
                bias(name + u'.' + part, state);
        }
    };
    norm(u"mlp_ln"_s);
    weight(u"mlp.0"_s, { state, 4 * state });
    bias(u"mlp.0"_s, 4 * state);
    weight(u"mlp.2"_s, { 4 * state, state });
    bias(u"mlp.2"_s, state);
    norm(u"attn_ln"_s);
    attention(u"attn"_s);
    if (cross) {
        norm(u"cross_attn_ln"_s);
        attention(u"cross_attn"_s);
    }
}

// Romanian-looking pieces, some with the cedilla letters older text uses, so that transcripts of
// the random model exercise the spelling clean-up.
QByteArray tokenText(int id, std::mt19937 &random)
{
    static const QStringList pieces = { u"a"_s, u"bu"_s, u"nă"_s, u"zi"_s, u"ua"_s, u"şi"_s, u"ţa"_s, u"Ş"_s, u"Ţi"_s,
        u"ce"_s, u"mai"_s, u"faci"_s, u"ro"_s, u"mâ"_s, u"în"_s, u"ște"_s };
    if (id == 220)
        return QByteArrayLiteral(" ");
    const QString piece = pieces.at(int(random() % pieces.size()));
    return (id % 2 == 0 ? u' ' + piece : piece).toUtf8();
}

} // namespace

void write(const QString &path, const Shape &shape, unsigned seed)
{
    Writer out(path, seed);
    out.int32(0x67676d6c);
    for (int value : { shape.nVocab, shape.nAudioCtx, shape.nAudioState, shape.nAudioHead, shape.nAudioLayer,
             shape.nTextCtx, shape.nAudioState, shape.nTextHead, shape.nTextLayer, shape.nMels, shape.ftype })
        out.int32(value);

    constexpr int kFftBins = 201;
    out.int32(shape.nMels);
    out.int32(kFftBins);
    out.floats(qint64(shape.nMels) * kFftBins, 0.0f, 0.01f, false);

    out.int32(shape.nVocab);
    for (int id = 0; id < shape.nVocab; ++id) {
        const QByteArray text = tokenText(id, out.random());
        out.int32(qint32(text.size()));
        out.bytes(text);
    }

    const int state = shape.nAudioState;
    const bool half = shape.ftype == 1;
    out.tensor(u"encoder.positional_embedding"_s, { state, shape.nAudioCtx }, false, 0.05f);
    out.tensor(u"encoder.conv1.weight"_s, { 3, shape.nMels, state }, half, 0.05f);
    out.tensor(u"encoder.conv1.bias"_s, { 1, state }, false);
    out.tensor(u"encoder.conv2.weight"_s, { 3, state, state }, half, 0.05f);
    out.tensor(u"encoder.conv2.bias"_s, { 1, state }, false);
    out.tensor(u"encoder.ln_post.weight"_s, { state }, false, 0.0f, 1.0f);
    out.tensor(u"encoder.ln_post.bias"_s, { state }, false);
    for (int i = 0; i < shape.nAudioLayer; ++i)
        writeBlock(out, u"encoder.blocks.%1."_s.arg(i), state, half, false);
    out.tensor(u"decoder.positional_embedding"_s, { state, shape.nTextCtx }, false, 0.05f);
    out.tensor(u"decoder.token_embedding.weight"_s, { state, shape.nVocab }, half, 0.05f);
    out.tensor(u"decoder.ln.weight"_s, { state }, false, 0.0f, 1.0f);
    out.tensor(u"decoder.ln.bias"_s, { state }, false);
    for (int i = 0; i < shape.nTextLayer; ++i)
        writeBlock(out, u"decoder.blocks.%1."_s.arg(i), state, half, true);
}

} // namespace RandomWhisperModel
