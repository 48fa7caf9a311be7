#include "RandomWhisperModel.h"

#include <QFile>
#include <QList>
#include <QStringList>
#include <QtEndian>
#include <qfloat16.h>

#include <random>
#include <stdexcept>
#include <vector>

namespace RandomWhisperModel {

Shape tiny()
{
    return Shape {};
}

Shape base()
{
    Shape shape;
    shape.nAudioState = 512;
    shape.nAudioHead = 8;
    shape.nAudioLayer = 6;
    shape.nTextHead = 8;
    shape.nTextLayer = 6;
    return shape;
}

namespace {

enum class Kind { weight, bias, normWeight, normBias };

struct Tensor
{
    QString name;
    QList<int> dims; // ggml order: fastest-varying first
    bool halfPrecision;
    Kind kind;
};

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

    void floats(qint64 count, float scale, float offset, bool half)
    {
        std::normal_distribution<float> normal(0.0f, 1.0f);
        constexpr qint64 kChunk = 1 << 16;
        std::vector<float> singles;
        std::vector<qfloat16> halves;
        for (qint64 done = 0; done < count; done += kChunk) {
            const qint64 n = std::min(kChunk, count - done);
            singles.resize(size_t(n));
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

void addBlock(QList<Tensor> &tensors, const QString &prefix, int state, bool half, bool cross)
{
    const int wide = 4 * state;
    auto norm = [&](const QString &name) {
        tensors.append({ prefix + name + QStringLiteral(".weight"), { state }, false, Kind::normWeight });
        tensors.append({ prefix + name + QStringLiteral(".bias"), { state }, false, Kind::normBias });
    };
    auto attention = [&](const QString &name) {
        const QString base = prefix + name;
        tensors.append({ base + QStringLiteral(".query.weight"), { state, state }, half, Kind::weight });
        tensors.append({ base + QStringLiteral(".query.bias"), { state }, false, Kind::bias });
        tensors.append({ base + QStringLiteral(".key.weight"), { state, state }, half, Kind::weight });
        tensors.append({ base + QStringLiteral(".value.weight"), { state, state }, half, Kind::weight });
        tensors.append({ base + QStringLiteral(".value.bias"), { state }, false, Kind::bias });
        tensors.append({ base + QStringLiteral(".out.weight"), { state, state }, half, Kind::weight });
        tensors.append({ base + QStringLiteral(".out.bias"), { state }, false, Kind::bias });
    };
    norm(QStringLiteral("mlp_ln"));
    tensors.append({ prefix + QStringLiteral("mlp.0.weight"), { state, wide }, half, Kind::weight });
    tensors.append({ prefix + QStringLiteral("mlp.0.bias"), { wide }, false, Kind::bias });
    tensors.append({ prefix + QStringLiteral("mlp.2.weight"), { wide, state }, half, Kind::weight });
    tensors.append({ prefix + QStringLiteral("mlp.2.bias"), { state }, false, Kind::bias });
    norm(QStringLiteral("attn_ln"));
    attention(QStringLiteral("attn"));
    if (cross) {
        norm(QStringLiteral("cross_attn_ln"));
        attention(QStringLiteral("cross_attn"));
    }
}

QList<Tensor> tensorsOf(const Shape &shape)
{
    const int state = shape.nAudioState;
    const bool half = shape.ftype == 1;
    QList<Tensor> tensors {
        { QStringLiteral("encoder.positional_embedding"), { state, shape.nAudioCtx }, false, Kind::weight },
        { QStringLiteral("encoder.conv1.weight"), { 3, shape.nMels, state }, half, Kind::weight },
        { QStringLiteral("encoder.conv1.bias"), { 1, state }, false, Kind::bias },
        { QStringLiteral("encoder.conv2.weight"), { 3, state, state }, half, Kind::weight },
        { QStringLiteral("encoder.conv2.bias"), { 1, state }, false, Kind::bias },
        { QStringLiteral("encoder.ln_post.weight"), { state }, false, Kind::normWeight },
        { QStringLiteral("encoder.ln_post.bias"), { state }, false, Kind::normBias },
    };
    for (int i = 0; i < shape.nAudioLayer; ++i)
        addBlock(tensors, QStringLiteral("encoder.blocks.%1.").arg(i), state, half, false);
    tensors.append({ QStringLiteral("decoder.positional_embedding"), { state, shape.nTextCtx }, false, Kind::weight });
    tensors.append({ QStringLiteral("decoder.token_embedding.weight"), { state, shape.nVocab }, half, Kind::weight });
    tensors.append({ QStringLiteral("decoder.ln.weight"), { state }, false, Kind::normWeight });
    tensors.append({ QStringLiteral("decoder.ln.bias"), { state }, false, Kind::normBias });
    for (int i = 0; i < shape.nTextLayer; ++i)
        addBlock(tensors, QStringLiteral("decoder.blocks.%1.").arg(i), state, half, true);
    return tensors;
}

// Romanian-looking pieces, some with the cedilla letters older text uses, so that transcripts of
// the random model exercise the spelling clean-up.
QByteArray tokenText(int id, std::mt19937 &random)
{
    static const QStringList pieces = { QStringLiteral("a"), QStringLiteral("bu"), QStringLiteral("nă"),
        QStringLiteral("zi"), QStringLiteral("ua"), QStringLiteral("şi"), QStringLiteral("ţa"), QStringLiteral("Ş"),
        QStringLiteral("Ţi"), QStringLiteral("ce"), QStringLiteral("mai"), QStringLiteral("faci"), QStringLiteral("ro"),
        QStringLiteral("mâ"), QStringLiteral("în"), QStringLiteral("ște") };
    if (id == 220)
        return QByteArrayLiteral(" ");
    const QString piece = pieces.at(int(random() % pieces.size()));
    return (id % 2 == 0 ? QStringLiteral(" ") + piece : piece).toUtf8();
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

    for (const Tensor &tensor : tensorsOf(shape)) {
        const QByteArray name = tensor.name.toUtf8();
        out.int32(qint32(tensor.dims.size()));
        out.int32(qint32(name.size()));
        out.int32(tensor.halfPrecision ? 1 : 0);
        qint64 count = 1;
        for (int dim : tensor.dims) {
            out.int32(dim);
            count *= dim;
        }
        out.bytes(name);
        switch (tensor.kind) {
        case Kind::weight:
            out.floats(count, 0.05f, 0.0f, tensor.halfPrecision);
            break;
        case Kind::bias:
        case Kind::normBias:
            out.floats(count, 0.0f, 0.0f, tensor.halfPrecision);
            break;
        case Kind::normWeight:
            out.floats(count, 0.0f, 1.0f, tensor.halfPrecision);
            break;
        }
    }
}

} // namespace RandomWhisperModel
