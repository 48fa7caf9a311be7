#include "RandomWhisperModel.h"

#include <QDataStream>
#include <QFile>
#include <QList>
#include <QStringList>
#include <qfloat16.h>

#include <random>
#include <stdexcept>

using namespace Qt::Literals::StringLiterals;

namespace RandomWhisperModel {

Shape tiny()
{
    return Shape {};
}

Shape base()
{
    return Shape { .nAudioState = 512, .nAudioHead = 8, .nAudioLayer = 6, .nTextHead = 8, .nTextLayer = 6 };
}

namespace {

// The model format: little-endian 32-bit integers and floats, big matrices optionally in 16-bit floats.
struct Writer
{
    QDataStream out;
    std::mt19937 random;

    // Normal noise of the given scale around offset (scale 0: the offset alone).
    void floats(qint64 count, float scale, float offset, bool half)
    {
        std::normal_distribution<float> normal(0.0f, 1.0f);
        for (qint64 i = 0; i < count; ++i) {
            const float value = offset + (scale > 0 ? scale * normal(random) : 0.0f);
            half ? out << qfloat16(value) : out << value;
        }
    }

    // One tensor record: n_dims, name length, type, dimensions (fastest-varying first), name, data.
    void tensor(const QString &name, const QList<int> &dims, bool half, float scale = 0.0f, float offset = 0.0f)
    {
        const QByteArray utf8 = name.toUtf8();
        out << qint32(dims.size()) << qint32(utf8.size()) << qint32(half ? 1 : 0);
        qint64 count = 1;
        for (int dim : dims) {
            out << qint32(dim);
            count *= dim;
        }
        out.writeRawData(utf8.constData(), int(utf8.size()));
        floats(count, scale, offset, half);
    }

    void block(const QString &prefix, int state, bool half, bool cross)
    {
        auto weight = [&](const QString &name, const QList<int> &dims) {
            tensor(prefix + name + u".weight"_s, dims, half, 0.05f);
        };
        auto bias = [&](const QString &name, int size) { tensor(prefix + name + u".bias"_s, { size }, false); };
        auto norm = [&](const QString &name) {
            tensor(prefix + name + u".weight"_s, { state }, false, 0.0f, 1.0f);
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
};

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
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate))
        throw std::runtime_error("cannot write the model file");
    Writer w { QDataStream(&file), std::mt19937(seed) };
    w.out.setByteOrder(QDataStream::LittleEndian);
    w.out.setFloatingPointPrecision(QDataStream::SinglePrecision);
    w.out << qint32(0x67676d6c);
    for (int value : { shape.nVocab, shape.nAudioCtx, shape.nAudioState, shape.nAudioHead, shape.nAudioLayer,
             shape.nTextCtx, shape.nAudioState, shape.nTextHead, shape.nTextLayer, shape.nMels, shape.ftype })
        w.out << qint32(value);

    constexpr int kFftBins = 201;
    w.out << qint32(shape.nMels) << qint32(kFftBins);
    w.floats(qint64(shape.nMels) * kFftBins, 0.0f, 0.01f, false);

    w.out << qint32(shape.nVocab);
    for (int id = 0; id < shape.nVocab; ++id) {
        const QByteArray text = tokenText(id, w.random);
        w.out.writeBytes(text.constData(), uint(text.size())); // its length, then its bytes
    }

    const int state = shape.nAudioState;
    const bool half = shape.ftype == 1;
    w.tensor(u"encoder.positional_embedding"_s, { state, shape.nAudioCtx }, false, 0.05f);
    w.tensor(u"encoder.conv1.weight"_s, { 3, shape.nMels, state }, half, 0.05f);
    w.tensor(u"encoder.conv1.bias"_s, { 1, state }, false);
    w.tensor(u"encoder.conv2.weight"_s, { 3, state, state }, half, 0.05f);
    w.tensor(u"encoder.conv2.bias"_s, { 1, state }, false);
    w.tensor(u"encoder.ln_post.weight"_s, { state }, false, 0.0f, 1.0f);
    w.tensor(u"encoder.ln_post.bias"_s, { state }, false);
    for (int i = 0; i < shape.nAudioLayer; ++i)
        w.block(u"encoder.blocks.%1."_s.arg(i), state, half, false);
    w.tensor(u"decoder.positional_embedding"_s, { state, shape.nTextCtx }, false, 0.05f);
    w.tensor(u"decoder.token_embedding.weight"_s, { state, shape.nVocab }, half, 0.05f);
    w.tensor(u"decoder.ln.weight"_s, { state }, false, 0.0f, 1.0f);
    w.tensor(u"decoder.ln.bias"_s, { state }, false);
    for (int i = 0; i < shape.nTextLayer; ++i)
        w.block(u"decoder.blocks.%1."_s.arg(i), state, half, true);
    if (w.out.status() != QDataStream::Ok || !file.flush())
        throw std::runtime_error("short write of the model file");
}

} // namespace RandomWhisperModel
