#include "MCPEventStream.h"

#include <QJsonDocument>

namespace {

QByteArrayView trimmed(QByteArrayView data)
{
    const auto isBlank = [](char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; };
    while (!data.isEmpty() && isBlank(data.front()))
        data = data.sliced(1);
    while (!data.isEmpty() && isBlank(data.back()))
        data.chop(1);
    return data;
}

std::optional<QJsonObject> replyIn(QByteArrayView data)
{
    data = trimmed(data);
    if (data.isEmpty() || data == "[DONE]")
        return std::nullopt;
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson(data.toByteArray(), &error);
    if (error.error != QJsonParseError::NoError || !document.isObject()
        || document.object().contains(QLatin1String("method")))
        return std::nullopt;
    return document.object();
}

} // namespace

std::optional<QJsonObject> MCPEventStream::feed(QByteArrayView bytes)
{
    while (!bytes.isEmpty()) {
        const qsizetype end = bytes.indexOf('\n');
        if (end < 0) {
            m_partialLine += bytes;
            break;
        }
        m_partialLine += bytes.first(end);
        bytes = bytes.sliced(end + 1);
        const QByteArray line = std::exchange(m_partialLine, QByteArray());
        if (auto reply = readLine(line))
            return reply;
    }
    return std::nullopt;
}

std::optional<QJsonObject> MCPEventStream::finish()
{
    if (!m_partialLine.isEmpty()) {
        const QByteArray line = std::exchange(m_partialLine, QByteArray());
        if (auto reply = readLine(line))
            return reply;
    }
    return endEvent();
}

std::optional<QJsonObject> MCPEventStream::firstReply(const QByteArray &body)
{
    MCPEventStream stream;
    if (auto reply = stream.feed(body))
        return reply;
    return stream.finish();
}

std::optional<QJsonObject> MCPEventStream::readLine(QByteArrayView line)
{
    if (line.endsWith('\r'))
        line.chop(1);
    if (line.isEmpty())
        return endEvent();
    if (line.startsWith("data:"))
        m_dataLines.append(line.sliced(5).toByteArray());
    else if (line == "data")
        m_dataLines.append(QByteArray());
    return std::nullopt;
}

std::optional<QJsonObject> MCPEventStream::endEvent()
{
    const QByteArrayList lines = std::exchange(m_dataLines, QByteArrayList());
    if (lines.isEmpty())
        return std::nullopt;
    if (auto reply = replyIn(lines.join('\n')))
        return reply;
    // Some servers put several messages in one event, one per data line.
    if (lines.size() > 1) {
        for (const QByteArray &line : lines) {
            if (auto reply = replyIn(line))
                return reply;
        }
    }
    return std::nullopt;
}
