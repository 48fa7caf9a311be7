#pragma once

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QList>
#include <QStringList>

// Replies of a chat-completions service, for the fakes that play the model.
namespace ChatCompletionReplies {

inline QJsonObject completion(const QString &content, const QJsonArray &toolCalls = {})
{
    QJsonObject message { { "role", "assistant" }, { "content", content } };
    if (!toolCalls.isEmpty())
        message.insert("tool_calls", toolCalls);
    return { { "choices", QJsonArray { QJsonObject { { "message", message } } } } };
}

// Models send the arguments as JSON text; some send the object itself.
enum class Arguments { asText, asObject };

inline QJsonObject toolCall(
    const QString &id, const QString &name, const QJsonObject &arguments, Arguments form = Arguments::asText)
{
    const QJsonValue encoded = form == Arguments::asText
        ? QJsonValue(QString::fromUtf8(QJsonDocument(arguments).toJson(QJsonDocument::Compact)))
        : QJsonValue(arguments);
    return { { "id", id }, { "type", "function" },
        { "function", QJsonObject { { "name", name }, { "arguments", encoded } } } };
}

// The events of a streamed answer: one chunk per piece of content, then the end marker.
inline QList<QByteArray> streamedCompletion(const QStringList &pieces)
{
    QList<QByteArray> events;
    for (const QString &piece : pieces) {
        const QJsonObject chunk { { "choices",
            QJsonArray { QJsonObject { { "delta", QJsonObject { { "content", piece } } } } } } };
        events.append("data: " + QJsonDocument(chunk).toJson(QJsonDocument::Compact) + "\n\n");
    }
    events.append("data: [DONE]\n\n");
    return events;
}

// The text as a model streams it: word by word, each with its following space.
inline QList<QByteArray> streamedWords(const QString &text)
{
    QStringList words = text.split(' ');
    for (qsizetype i = 0; i + 1 < words.size(); ++i)
        words[i] += ' ';
    return streamedCompletion(words);
}

} // namespace ChatCompletionReplies
