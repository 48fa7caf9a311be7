#pragma once

#include <QByteArray>
#include <QByteArrayList>
#include <QJsonObject>

#include <optional>

// Reads an MCP server's event stream as it arrives and finds the first JSON-RPC reply in it. The
// data lines of one event are joined with line feeds before parsing, as the event-stream format
// says; messages the server starts itself (they carry a "method") are passed over.
class MCPEventStream
{
public:
    // Feeds what arrived since the last call; the reply once an event holding one has ended.
    std::optional<QJsonObject> feed(QByteArrayView bytes);
    // The stream has ended: a last event without its closing blank line still counts.
    std::optional<QJsonObject> finish();

    static std::optional<QJsonObject> firstReply(const QByteArray &body);

private:
    std::optional<QJsonObject> readLine(QByteArrayView line);
    std::optional<QJsonObject> endEvent();

    QByteArray m_partialLine;
    QByteArrayList m_dataLines;
};
