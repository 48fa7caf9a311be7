#include "AgentTurn.h"

#include "ConversationMemoryStore.h"
#include "KeloServices.h"
#include "MCPToolCache.h"
#include "net/HttpClient.h"
#include "net/KeloError.h"
#include "settings/AppSettings.h"
#include "skills/MCPClient.h"
#include "skills/WebSkillService.h"

#include <QElapsedTimer>
#include <QJsonDocument>
#include <QRegularExpression>

#include <functional>

namespace {

constexpr int historyLimit = 16;
constexpr int lastToolRound = 3;
constexpr qsizetype maxToolCallsPerRound = 8;
// Tools of one turn together; each request also has its own deadline. Past this the model is asked
// for its final answer.
constexpr qint64 toolBudgetMs = 120'000;

const QString forceInternetInstruction = QStringLiteral("Pentru această cerere folosește instrumentul kelo_web_search "
                                                        "înainte de răspuns, dacă întrebarea cere informație externă.");
const QString toolBudgetSpentText
    = QStringLiteral("Instrumentul nu a mai fost apelat: timpul acestei cereri s-a epuizat.");
const QString finalAnswerInstruction
    = QStringLiteral("Returnează acum răspunsul final pentru utilizator, fără a mai apela instrumente.");

QJsonObject chatMessage(const QString &role, const QString &content)
{
    return { { QStringLiteral("role"), role }, { QStringLiteral("content"), content } };
}

QJsonObject stringSchema(const QString &property, const QString &description)
{
    return {
        { QStringLiteral("type"), QStringLiteral("object") },
        { QStringLiteral("properties"),
            QJsonObject { { property,
                QJsonObject { { QStringLiteral("type"), QStringLiteral("string") },
                    { QStringLiteral("description"), description } } } } },
        { QStringLiteral("required"), QJsonArray { property } },
    };
}

// The assistant's tool-call message, echoed back before the tool results as the protocol expects.
QJsonObject toolCallEcho(const ZenAPIService::AssistantResult &result)
{
    QJsonArray calls;
    for (const ZenToolCall &call : result.toolCalls) {
        const QString arguments = QString::fromUtf8(QJsonDocument(call.arguments).toJson(QJsonDocument::Compact));
        calls.append(QJsonObject {
            { QStringLiteral("id"), call.id },
            { QStringLiteral("type"), QStringLiteral("function") },
            { QStringLiteral("function"),
                QJsonObject { { QStringLiteral("name"), call.name }, { QStringLiteral("arguments"), arguments } } },
        });
    }
    return {
        { QStringLiteral("role"), QStringLiteral("assistant") },
        { QStringLiteral("content"), result.text.isEmpty() ? QJsonValue(QJsonValue::Null) : QJsonValue(result.text) },
        { QStringLiteral("tool_calls"), calls },
    };
}

QJsonObject toolResultMessage(const QString &callID, const QString &content)
{
    return {
        { QStringLiteral("role"), QStringLiteral("tool") },
        { QStringLiteral("tool_call_id"), callID },
        { QStringLiteral("content"), content },
    };
}

} // namespace

AgentTurn::AgentTurn(KeloServices *services, MCPToolCache *mcpTools, ZenAPIService *client, QObject *parent)
    : QObject(parent)
    , m_services(services)
    , m_mcpTools(mcpTools)
    , m_zen(client)
{ }

void AgentTurn::cancel()
{
    m_cancelled = true;
    HttpClient::closeAllUnder(m_zen);
}

QList<ZenToolDefinition> AgentTurn::builtInToolDefinitions()
{
    return {
        { QStringLiteral("kelo_web_search"),
            QStringLiteral("Caută informație enciclopedică actuală pe web în limba română. Folosește doar când este "
                           "necesară informație externă."),
            stringSchema(QStringLiteral("query"), QStringLiteral("Interogarea de căutare")) },
        { QStringLiteral("kelo_fetch_url"),
            QStringLiteral(
                "Citește textul unei pagini web HTTP/HTTPS când utilizatorul oferă sau cere explicit un URL."),
            stringSchema(QStringLiteral("url"), QStringLiteral("URL complet HTTP/HTTPS")) },
    };
}

QString AgentTurn::visibleAnswer(const QString &text)
{
    ReasoningFilter filter;
    const QString visible = filter.feed(text) + filter.finish();
    return visible.trimmed();
}

QCoro::Task<QList<ZenToolDefinition>> AgentTurn::toolDefinitions(QList<MCPToolBinding> &bindings)
{
    QList<ZenToolDefinition> tools;
    if (m_services->settings->internetEnabled())
        tools = builtInToolDefinitions();
    if (m_services->settings->autoSkillsEnabled()) {
        bindings = co_await m_mcpTools->currentBindings();
        for (const MCPToolBinding &binding : std::as_const(bindings))
            tools.append(binding.definition);
    }
    co_return tools;
}

QJsonArray AgentTurn::requestMessages(const QList<ChatMessage> &history, bool forceInternet) const
{
    const AppSettings *settings = m_services->settings;
    const QString summary = settings->memoryEnabled() ? m_services->memory->summary() : QString();
    QJsonArray messages { chatMessage(QStringLiteral("system"), settings->systemPrompt(summary)) };
    for (qsizetype i = std::max<qsizetype>(0, history.size() - historyLimit); i < history.size(); ++i) {
        const ChatMessage &message = history.at(i);
        const bool fromAssistant = message.role == ChatMessage::Role::assistant;
        messages.append(
            chatMessage(fromAssistant ? QStringLiteral("assistant") : QStringLiteral("user"), message.text));
    }
    if (forceInternet)
        messages.append(chatMessage(QStringLiteral("system"), forceInternetInstruction));
    return messages;
}

QCoro::Task<QString> AgentTurn::run(QList<ChatMessage> history, bool forceInternet)
{
    QJsonArray messages = requestMessages(history, forceInternet);
    QList<MCPToolBinding> bindings;
    const QList<ZenToolDefinition> tools = co_await toolDefinitions(bindings);

    QElapsedTimer turnClock;
    turnClock.start();
    ZenAPIService::AssistantResult result = co_await requestRound(messages, tools);
    for (int round = 0; !result.toolCalls.isEmpty(); ++round) {
        // A reply may ask for thousands of calls; only the first few of a round are run (and echoed).
        if (result.toolCalls.size() > maxToolCallsPerRound)
            result.toolCalls.resize(maxToolCallsPerRound);
        messages.append(toolCallEcho(result));
        for (const ZenToolCall &call : std::as_const(result.toolCalls)) {
            QString output = toolBudgetSpentText;
            if (turnClock.elapsed() < toolBudgetMs)
                output = co_await executeToolCall(call, bindings);
            messages.append(toolResultMessage(call.id, output));
        }
        const bool last = round == lastToolRound || turnClock.elapsed() >= toolBudgetMs;
        if (last) {
            messages.append(chatMessage(QStringLiteral("system"), finalAnswerInstruction));
        }
        result = co_await requestRound(messages, tools);
        if (last)
            break;
    }
    finishAnswer();
    co_return visibleAnswer(result.text);
}

QCoro::Task<ZenAPIService::AssistantResult> AgentTurn::requestRound(QJsonArray messages, QList<ZenToolDefinition> tools)
{
    startRound();
    const QString key = m_services->settings->zenAPIKey();
    const QString model = m_services->settings->zenModelID();
    auto result = co_await m_zen->completeChat(
        key, model, messages, tools, [this](const QString &delta) { receiveContent(delta); });
    co_return result;
}

void AgentTurn::startRound()
{
    m_filter = {};
    m_splitter = {};
    if (m_visible.isEmpty())
        return;
    m_visible.clear();
    Q_EMIT visibleTextChanged(m_visible);
}

void AgentTurn::receiveContent(const QString &delta)
{
    showVisible(m_filter.feed(delta));
}

void AgentTurn::showVisible(const QString &visibleDelta)
{
    // Leading white space would show as an empty bubble and counts as no words yet.
    const QString fresh = m_visible.isEmpty()
        ? QString(visibleDelta).remove(QRegularExpression(QStringLiteral("^\\s+")))
        : visibleDelta;
    if (fresh.isEmpty())
        return;
    m_visible += fresh;
    Q_EMIT visibleTextChanged(m_visible);
    for (const QString &sentence : m_splitter.feed(fresh))
        Q_EMIT sentenceReady(sentence);
}

void AgentTurn::finishAnswer()
{
    showVisible(m_filter.finish());
    if (const QString rest = m_splitter.finish(); !rest.isEmpty())
        Q_EMIT sentenceReady(rest);
}

QCoro::Task<QString> AgentTurn::executeToolCall(ZenToolCall call, QList<MCPToolBinding> bindings)
{
    struct WebTool
    {
        const char *name;
        const char *argument;
        ToolKind kind;
        QString status;
        QString failure;
        QCoro::Task<QString> (WebSkillService::*run)(QString);
    };
    static const WebTool webTools[] = {
        { "kelo_web_search", "query", ToolKind::webSearch, QStringLiteral("Caut pe internet…"),
            QStringLiteral("Căutarea web a eșuat: "), &WebSkillService::searchRomanianWeb },
        { "kelo_fetch_url", "url", ToolKind::pageReader, QStringLiteral("Citesc pagina…"),
            QStringLiteral("Citirea URL-ului a eșuat: "), &WebSkillService::fetchURL },
    };
    for (const WebTool &tool : webTools) {
        if (call.name != QLatin1String(tool.name))
            continue;
        const QJsonValue value = call.arguments.value(QLatin1String(tool.argument));
        if (!value.isString())
            co_return QStringLiteral("Lipsește parametrul %1.").arg(QLatin1String(tool.argument));
        Q_EMIT toolStarted(tool.kind, tool.status);
        try {
            QCoro::Task<QString> running = std::invoke(tool.run, m_services->web, value.toString());
            QString output = co_await std::move(running);
            co_return output;
        } catch (...) {
            co_return tool.failure + describeException(std::current_exception());
        }
    }
    for (const MCPToolBinding &binding : std::as_const(bindings)) {
        if (binding.definition.name != call.name)
            continue;
        Q_EMIT toolStarted(ToolKind::mcp, QStringLiteral("Folosesc %1…").arg(binding.server.name));
        try {
            co_return co_await m_services->mcp->callTool(binding.server, binding.remoteName, call.arguments);
        } catch (...) {
            co_return QStringLiteral("Instrumentul %1 a eșuat: %2")
                .arg(binding.remoteName, describeException(std::current_exception()));
        }
    }
    co_return QStringLiteral("Instrument necunoscut: ") + call.name;
}
