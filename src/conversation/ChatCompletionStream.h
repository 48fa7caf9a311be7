#pragma once

#include "ZenToolCall.h"

#include <QByteArray>
#include <QByteArrayList>
#include <QJsonObject>
#include <QList>
#include <QString>

#include <functional>
#include <map>
#include <optional>

// Reads a model service's streamed answer (an event stream) as it arrives: chat-completion chunks
// and the responses protocol's events. Text deltas go to the sink at once, in order; tool calls are
// put together from their pieces by index. Lines and events it does not understand are passed
// over; an error event throws ZenAPIError, after the deltas already handed on.
class ChatCompletionStream
{
public:
    using TextSink = std::function<void(const QString &delta)>;

    // One event (or one unfinished line) beyond this is refused: no real delta comes near it, and
    // the data would otherwise pile up in memory until the body limit.
    static constexpr qsizetype maxEventBytes = 1024 * 1024;

    explicit ChatCompletionStream(TextSink onText = {});

    // Feeds what arrived since the last call; true once the stream said it is done, after which
    // whatever follows is ignored.
    bool feed(QByteArrayView bytes);
    // The body has ended: a last event without its blank line still counts. A body in which no
    // event was an answer is an invalid response; one that stops before the service's end of
    // answer ([DONE], a finish reason, a completed response) was cut off.
    void finish();

    bool isDone() const { return m_done; }
    QString text() const { return m_text; }
    QList<ZenToolCall> toolCalls() const;
    QString finishReason() const { return m_finishReason; }
    // The whole response a responses-protocol stream ends with, when it sent one.
    std::optional<QJsonObject> completedResponse() const { return m_completedResponse; }

private:
    struct PartialToolCall
    {
        QString id;
        QString name;
        QString arguments;
    };

    void readLine(QByteArrayView line);
    void endEvent();
    void readEvent(const QJsonObject &event);
    void readChatChunk(const QJsonObject &chunk);
    void readToolCallPieces(const QJsonArray &pieces);
    void readResponsesEvent(const QString &type, const QJsonObject &event);
    void appendText(const QString &delta);

    TextSink m_onText;
    QByteArray m_partialLine;
    QByteArrayList m_dataLines;
    qsizetype m_eventBytes = 0;
    QString m_text;
    std::map<qint64, PartialToolCall> m_toolCalls;
    QString m_finishReason;
    std::optional<QJsonObject> m_completedResponse;
    bool m_sawAnswer = false;
    bool m_done = false;
};
