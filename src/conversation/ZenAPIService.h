#pragma once

#include "ZenModel.h"
#include "ZenToolCall.h"
#include "ZenToolDefinition.h"

#include <QCoroTask>
#include <QJsonArray>
#include <QJsonObject>
#include <QObject>

#include <functional>

class ChatCompletionStream;
class HttpClient;
struct HttpReply;

// The client of the OpenAI-compatible model service: model list, one completion (chat-completions
// with tools, or the responses protocol for the models that need it) and the memory compaction.
class ZenAPIService : public QObject
{
    Q_OBJECT

public:
    struct AssistantResult
    {
        QString text;
        QList<ZenToolCall> toolCalls;
    };

    // The base URL comes from Endpoints::zenBaseURL() unless given.
    explicit ZenAPIService(QObject *parent = nullptr);
    ZenAPIService(QString baseURL, QObject *parent);
    ~ZenAPIService() override;

    QString baseURL() const { return m_baseURL; }

    // Receives raw content text (reasoning tags included) of a streamed answer as it arrives.
    using ContentSink = std::function<void(const QString &delta)>;

    QCoro::Task<QList<ZenModel>> fetchModels(QString apiKey);
    // `messages` are chat-completions message objects, already shaped by the caller. The answer is
    // streamed: onContent gets each piece of text in order (a service that answers in one piece
    // gives it once), and a failure halfway throws after the pieces already delivered.
    QCoro::Task<AssistantResult> completeChat(QString apiKey, QString modelID, QJsonArray messages,
        QList<ZenToolDefinition> tools, ContentSink onContent = {});
    QCoro::Task<QString> summarizeMemory(QString apiKey, QString modelID, QString previousSummary, QString transcript);

    // The readers of the service's replies; each throws ZenAPIError for a failed status or a body
    // that is not the expected document.
    static QList<ZenModel> parseModelList(const HttpReply &reply);
    static AssistantResult parseChatCompletion(const HttpReply &reply);
    static AssistantResult parseResponsesReply(const HttpReply &reply);

private:
    // Without streamed, the answer is asked for in one piece and onContent is not used.
    QCoro::Task<AssistantResult> requestCompletion(QString apiKey, QString modelID, QJsonArray messages,
        QList<ZenToolDefinition> tools, bool streamed, ContentSink onContent);
    QCoro::Task<AssistantResult> completeResponses(
        QString apiKey, QString modelID, QJsonArray messages, bool streamed, ContentSink onContent);
    // Posts a completion request; when streamed, an event-stream answer goes through `stream` as
    // it arrives and the reply's body stays empty.
    QCoro::Task<HttpReply> postCompletion(
        QString path, QString key, QJsonObject body, bool streamed, ChatCompletionStream *stream);

    QString m_baseURL;
    HttpClient *m_http;
};
