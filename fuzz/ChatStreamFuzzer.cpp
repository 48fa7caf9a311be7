// A streamed model answer (an event stream of chat-completion chunks or responses-protocol
// events), read as it arrives. The same bytes are fed whole and one byte at a time: where the
// network cuts them must not change the text, the tool calls or the failure, and the text handed
// on piece by piece must be the text of the answer.
#include "FuzzEnvironment.h"
#include "conversation/ChatCompletionStream.h"

namespace {

struct Outcome
{
    QString text;
    QList<ZenToolCall> toolCalls;
    QString failure;

    bool operator==(const Outcome &) const = default;
};

Outcome read(const QByteArray &bytes, qsizetype step)
{
    QString delivered;
    ChatCompletionStream stream([&delivered](const QString &delta) { delivered += delta; });
    Outcome outcome;
    try {
        for (qsizetype at = 0; at < bytes.size(); at += step)
            stream.feed(QByteArrayView(bytes).sliced(at, std::min(step, bytes.size() - at)));
        stream.finish();
        outcome.toolCalls = stream.toolCalls();
    } catch (const KeloError &error) {
        outcome.failure = error.description();
        if (outcome.failure.trimmed().isEmpty())
            FuzzEnvironment::fail("a KeloError without a description");
    }
    if (delivered != stream.text())
        FuzzEnvironment::fail("the pieces handed on differ from the answer's text");
    for (const ZenToolCall &call : outcome.toolCalls) {
        if (call.name.isEmpty())
            FuzzEnvironment::fail("a tool call without a name");
    }
    outcome.text = stream.text();
    return outcome;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const QByteArray bytes = FuzzEnvironment::bytes(data, size);
    if (read(bytes, std::max<qsizetype>(1, bytes.size())) != read(bytes, 1))
        FuzzEnvironment::fail("the answer depends on where the stream was cut");
    return 0;
}
