#pragma once

#include "ChatMessage.h"
#include "ReasoningFilter.h"
#include "SentenceSplitter.h"
#include "ZenAPIService.h"
#include "skills/MCPToolBinding.h"

#include <QCoroTask>
#include <QJsonArray>
#include <QObject>

class KeloServices;
class MCPToolCache;

// One answer of the model: the request with the enabled tools, the tool loop with its round and
// time limits, and the streamed text, cleaned of reasoning, as it grows. The model client is the
// turn's alone while it runs, so cancelling ends exactly this turn's requests.
class AgentTurn : public QObject
{
    Q_OBJECT

public:
    enum class ToolKind { webSearch, pageReader, mcp };
    Q_ENUM(ToolKind)

    // `client` serves only turns: cancelling closes it for good, and its owner replaces it.
    AgentTurn(KeloServices *services, MCPToolCache *mcpTools, ZenAPIService *client, QObject *parent = nullptr);

    // Answers the last of `history` (the visible conversation); `forceInternet` asks the model to
    // search first. Returns the complete visible answer.
    QCoro::Task<QString> run(QList<ChatMessage> history, bool forceInternet);
    // Ends the turn's requests (and closes its client); run() then fails with a transport error.
    void cancel();
    bool isCancelled() const { return m_cancelled; }
    // The visible text of the answer streamed so far (of the current round).
    QString visibleText() const { return m_visible; }

    // The built-in tools' definitions, in the order they are offered.
    static QList<ZenToolDefinition> builtInToolDefinitions();
    // Reasoning blocks removed, white space trimmed.
    static QString visibleAnswer(const QString &text);

Q_SIGNALS:
    void toolStarted(AgentTurn::ToolKind kind, const QString &status);
    // The visible answer grew (or was dropped, empty, when a round ended in tool calls).
    void visibleTextChanged(const QString &text);
    // A complete sentence (or leading clause) of the answer, ready to be spoken.
    void sentenceReady(const QString &sentence);

private:
    QJsonArray requestMessages(const QList<ChatMessage> &history, bool forceInternet) const;
    QCoro::Task<QList<ZenToolDefinition>> toolDefinitions(QList<MCPToolBinding> &bindings);
    QCoro::Task<ZenAPIService::AssistantResult> requestRound(QJsonArray messages, QList<ZenToolDefinition> tools);
    QCoro::Task<QString> executeToolCall(ZenToolCall call, QList<MCPToolBinding> bindings);
    void startRound();
    void receiveContent(const QString &delta);
    void showVisible(const QString &visibleDelta);
    void finishAnswer();

    KeloServices *m_services;
    MCPToolCache *m_mcpTools;
    ZenAPIService *m_zen;
    ReasoningFilter m_filter;
    SentenceSplitter m_splitter;
    QString m_visible;
    bool m_cancelled = false;
};
