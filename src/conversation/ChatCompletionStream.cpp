#include "ChatCompletionStream.h"

#include "ZenAPIError.h"
#include "net/JsonSupport.h"
#include "net/URLError.h"

#include <QJsonArray>
#include <QJsonDocument>

namespace {

QString stringOrEmpty(const QJsonValue &value)
{
    return value.isString() ? value.toString() : QString();
}

// The service's message for an error object (or plain error text) inside the stream.
[[noreturn]] void throwStreamError(const QJsonValue &error)
{
    QString message = stringOrEmpty(error.toObject().value(QLatin1String("message")));
    if (message.isEmpty())
        message = stringOrEmpty(error);
    if (message.trimmed().isEmpty())
        throw ZenAPIError::makeInvalidResponse();
    throw ZenAPIError::makeServer(message);
}

} // namespace

ChatCompletionStream::ChatCompletionStream(TextSink onText)
    : m_onText(std::move(onText))
{ }

bool ChatCompletionStream::feed(QByteArrayView bytes)
{
    while (!bytes.isEmpty() && !m_done) {
        const qsizetype end = bytes.indexOf('\n');
        if (end < 0) {
            if (m_partialLine.size() + bytes.size() > maxEventBytes)
                throw URLError(URLError::dataLengthExceedsMaximum);
            m_partialLine += bytes;
            break;
        }
        if (m_partialLine.size() + end > maxEventBytes)
            throw URLError(URLError::dataLengthExceedsMaximum);
        m_partialLine += bytes.first(end);
        bytes = bytes.sliced(end + 1);
        const QByteArray line = std::exchange(m_partialLine, QByteArray());
        readLine(line);
    }
    return m_done;
}

void ChatCompletionStream::finish()
{
    if (!m_done && !m_partialLine.isEmpty()) {
        const QByteArray line = std::exchange(m_partialLine, QByteArray());
        readLine(line);
    }
    if (!m_done)
        endEvent();
    if (!m_sawAnswer)
        throw ZenAPIError::makeInvalidResponse();
    // Qt reports a chunked body cut off by a closed connection as complete; only the service's
    // own end of answer tells the two apart.
    if (!m_done && m_finishReason.isEmpty())
        throw URLError(URLError::networkConnectionLost);
}

QList<ZenToolCall> ChatCompletionStream::toolCalls() const
{
    QList<ZenToolCall> calls;
    for (const auto &[index, call] : m_toolCalls) {
        if (call.name.isEmpty())
            continue;
        // Arguments that never became a JSON object reach the tool empty, as in a whole reply.
        calls.append(ZenToolCall {
            call.id, call.name, JsonSupport::parseObject(call.arguments.toUtf8()).value_or(QJsonObject()) });
    }
    return calls;
}

void ChatCompletionStream::readLine(QByteArrayView line)
{
    if (line.endsWith('\r'))
        line.chop(1);
    if (line.isEmpty()) {
        endEvent();
        return;
    }
    if (!line.startsWith("data:"))
        return; // comments, event names, ids and retry hints carry nothing we use
    QByteArrayView data = line.sliced(5);
    if (data.startsWith(' '))
        data = data.sliced(1);
    m_eventBytes += data.size() + 1;
    if (m_eventBytes > maxEventBytes)
        throw URLError(URLError::dataLengthExceedsMaximum);
    m_dataLines.append(data.toByteArray());
}

void ChatCompletionStream::endEvent()
{
    const QByteArray data = m_dataLines.join('\n').trimmed();
    m_dataLines.clear();
    m_eventBytes = 0;
    if (data.isEmpty())
        return;
    if (data == "[DONE]") {
        m_done = true;
        m_sawAnswer = true;
        return;
    }
    if (const auto event = JsonSupport::parseObject(data))
        readEvent(*event);
}

void ChatCompletionStream::readEvent(const QJsonObject &event)
{
    const QJsonValue error = event.value(QLatin1String("error"));
    if (!error.isUndefined() && !error.isNull())
        throwStreamError(error);
    const QString type = stringOrEmpty(event.value(QLatin1String("type")));
    if (type == QLatin1String("error"))
        throwStreamError(event);
    if (event.value(QLatin1String("choices")).isArray())
        readChatChunk(event);
    else if (type.startsWith(QLatin1String("response.")))
        readResponsesEvent(type, event);
}

void ChatCompletionStream::readChatChunk(const QJsonObject &chunk)
{
    m_sawAnswer = true;
    const QJsonObject choice = chunk.value(QLatin1String("choices")).toArray().at(0).toObject();
    const QJsonObject delta = choice.value(QLatin1String("delta")).toObject();
    const QJsonValue content = delta.value(QLatin1String("content"));
    if (content.isString())
        appendText(content.toString());
    readToolCallPieces(delta.value(QLatin1String("tool_calls")).toArray());
    const QString reason = stringOrEmpty(choice.value(QLatin1String("finish_reason")));
    if (!reason.isEmpty())
        m_finishReason = reason;
}

void ChatCompletionStream::readToolCallPieces(const QJsonArray &pieces)
{
    for (qsizetype position = 0; position < pieces.size(); ++position) {
        const QJsonObject piece = pieces.at(position).toObject();
        // A service that sends a single call may leave the index out.
        PartialToolCall &call = m_toolCalls[piece.value(QLatin1String("index")).toInteger(position)];
        if (call.id.isEmpty())
            call.id = stringOrEmpty(piece.value(QLatin1String("id")));
        const QJsonObject function = piece.value(QLatin1String("function")).toObject();
        if (call.name.isEmpty())
            call.name = stringOrEmpty(function.value(QLatin1String("name")));
        const QJsonValue arguments = function.value(QLatin1String("arguments"));
        if (arguments.isString())
            call.arguments += arguments.toString();
        else if (arguments.isObject())
            call.arguments = QString::fromUtf8(JsonSupport::compact(arguments.toObject()));
    }
}

void ChatCompletionStream::readResponsesEvent(const QString &type, const QJsonObject &event)
{
    m_sawAnswer = true;
    if (type == QLatin1String("response.output_text.delta")) {
        appendText(stringOrEmpty(event.value(QLatin1String("delta"))));
    } else if (type == QLatin1String("response.failed")) {
        throwStreamError(event.value(QLatin1String("response")).toObject().value(QLatin1String("error")));
    } else if (type == QLatin1String("response.completed") || type == QLatin1String("response.incomplete")) {
        const QJsonValue response = event.value(QLatin1String("response"));
        if (response.isObject())
            m_completedResponse = response.toObject();
        m_done = true;
    }
}

void ChatCompletionStream::appendText(const QString &delta)
{
    if (delta.isEmpty())
        return;
    m_text += delta;
    if (m_onText)
        m_onText(delta);
}
