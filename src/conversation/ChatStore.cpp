#include "ChatStore.h"

#include "ConversationMemoryStore.h"
#include "net/HttpClient.h"
#include "net/KeloError.h"
#include "settings/AppSettings.h"
#include "skills/MCPClient.h"
#include "skills/WebSkillService.h"
#include "system/BackgroundExecutionManager.h"
#include "system/VariantLists.h"

#include <QCoroTimer>
#include <QJsonDocument>
#include <QRegularExpression>
#include <QSet>
#include <QTimer>

namespace {

constexpr int historyLimit = 16;
constexpr int lastToolRound = 3;
constexpr qint64 mcpCacheSeconds = 600;
constexpr qsizetype maxToolCallsPerRound = 8;
// Tools of one turn together; each request also has its own deadline. Past this the model is asked
// for its final answer.
constexpr qint64 toolBudgetMs = 120'000;
constexpr int temporaryStatusMs = 2500;
constexpr int handsFreeDelayMs = 600;
// Hands-free listening has no finger to lift: a pause after speech ends it, and a run in which
// nobody speaks gives up.
constexpr qint64 handsFreePauseMs = 1200;
constexpr qint64 handsFreeNoSpeechMs = 8000;
constexpr double speechLevel = 0.08;

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

// Runs a coroutine without awaiting it; its failures are already handled inside, so anything that
// still escapes is only logged.
void detach(QCoro::Task<> task)
{
    [](QCoro::Task<> running) -> QCoro::Task<> {
        try {
            co_await std::move(running);
        } catch (...) {
            qWarning("kelo: %s", qPrintable(describeException(std::current_exception())));
        }
    }(std::move(task));
}

} // namespace

ChatStore::ChatStore(QObject *parent)
    : QObject(parent)
    , m_settings(new AppSettings(this))
    , m_zen(new ZenAPIService(this))
    , m_recognizer(new SpeechRecognizer(this))
    , m_synthesizer(new SpeechSynthesizer(this))
    , m_web(new WebSkillService(this))
    , m_mcp(new MCPClient(this))
    , m_memory(new ConversationMemoryStore(this))
    , m_backgroundExecution(new BackgroundExecutionManager(this))
    , m_handsFreeTimer(new QTimer(this))
{
    connect(m_settings, &AppSettings::changed, this, [this] {
        publishDerivedState();
        Q_EMIT changed();
    });
    const auto speechChanged = [this] {
        publishDerivedState();
        Q_EMIT changed();
    };
    connect(m_recognizer, &SpeechRecognizer::changed, this, speechChanged);
    connect(m_synthesizer, &SpeechSynthesizer::changed, this, speechChanged);
    // The next turn must offer the servers as they are now, not the cached tools.
    connect(m_settings, &AppSettings::mcpServersChanged, this, &ChatStore::invalidateMCPBindings);
    // Renewed MCP tokens outlive this run.
    connect(m_mcp, &MCPClient::serverCredentialsChanged, m_settings, &AppSettings::updateMcpServerCredentials);
    connect(m_recognizer, &SpeechRecognizer::finalTranscript, this, &ChatStore::onAutomaticTranscript);
    connect(m_synthesizer, &SpeechSynthesizer::playbackFinished, this, &ChatStore::scheduleHandsFreeListening);

    m_handsFreeTimer->setInterval(100);
    connect(m_handsFreeTimer, &QTimer::timeout, this, &ChatStore::watchHandsFreeSilence);

    m_messages = m_memory->messages();
    if (m_messages.isEmpty())
        m_messages.append(ChatMessage::make(ChatMessage::Role::assistant, welcomeText()));
    m_publishedHasZenKey = hasZenKey();
    m_publishedActivityText = activityText();
    m_publishedModel = selectedZenModel();
}

ChatStore::~ChatStore()
{
    // Speech signals must not reach a dying store.
    m_recognizer->disconnect(this);
    m_synthesizer->disconnect(this);
    // A turn waiting on the network and an orb run waiting for its model end now, while every member
    // is alive; neither leaves a trace.
    m_closing = true;
    HttpClient::closeAllUnder(this);
    m_recognizer->close();
    m_synthesizer->close();
}

QString ChatStore::welcomeText()
{
    return QStringLiteral("Salut. Sunt Kelo. Ține apăsat companionul și vorbește.");
}

QList<ChatMessage> ChatStore::visibleMessages() const
{
    QList<ChatMessage> visible;
    for (const ChatMessage &message : m_messages) {
        if (message.role != ChatMessage::Role::system)
            visible.append(message);
    }
    return visible;
}

void ChatStore::setDraft(const QString &draft)
{
    if (m_draft == draft)
        return;
    m_draft = draft;
    Q_EMIT draftChanged();
}

void ChatStore::setForceInternetNext(bool value)
{
    if (m_forceInternetNext == value)
        return;
    m_forceInternetNext = value;
    Q_EMIT forceInternetNextChanged();
}

bool ChatStore::hasZenKey() const
{
    return !m_settings->zenAPIKey().trimmed().isEmpty();
}

ZenModel ChatStore::selectedZenModel() const
{
    for (const ZenModel &model : m_zenModels) {
        if (model.id == m_settings->zenModelID())
            return model;
    }
    return ZenModel::bigPickle();
}

QString ChatStore::activityText() const
{
    if (m_synthesizer->isPreparingVoice())
        return QStringLiteral("Pregătesc vocea…");
    if (!hasZenKey())
        return QStringLiteral("Adaugă cheia OpenCode Zen în Setări");
    if (m_isThinking || m_isPushToTalkActive || m_recognizer->isListening() || m_synthesizer->isSpeaking())
        return QStringLiteral("Companion activ · poți continua și din fundal");
    return QStringLiteral("Ține apăsat pentru a vorbi");
}

void ChatStore::publishDerivedState()
{
    if (const bool has = hasZenKey(); has != m_publishedHasZenKey) {
        m_publishedHasZenKey = has;
        Q_EMIT hasZenKeyChanged();
    }
    if (const QString text = activityText(); text != m_publishedActivityText) {
        m_publishedActivityText = text;
        Q_EMIT activityTextChanged();
    }
    if (const ZenModel model = selectedZenModel(); !(model == m_publishedModel)) {
        m_publishedModel = model;
        Q_EMIT selectedZenModelChanged();
    }
}

QList<ZenToolDefinition> ChatStore::builtInToolDefinitions()
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

QString ChatStore::visibleAnswer(const QString &text)
{
    static const QRegularExpression think(QStringLiteral("<think>.*?</think>"),
        QRegularExpression::CaseInsensitiveOption | QRegularExpression::DotMatchesEverythingOption);
    static const QRegularExpression analysis(QStringLiteral("<analysis>.*?</analysis>"),
        QRegularExpression::CaseInsensitiveOption | QRegularExpression::DotMatchesEverythingOption);
    QString cleaned = text;
    cleaned.remove(think);
    cleaned.remove(analysis);
    return cleaned.trimmed();
}

// --- the turn ---

QCoro::Task<> ChatStore::send(std::optional<QString> text)
{
    // One turn at a time: the views disable sending while thinking, the command line waits.
    if (m_isThinking)
        co_return;
    const bool fromVoice = std::exchange(m_lastTurnWasVoice, false);
    const QString input = text.value_or(m_draft).trimmed();
    if (input.isEmpty())
        co_return;
    setDraft({});

    if (!hasZenKey()) {
        appendMessage(
            ChatMessage::make(ChatMessage::Role::assistant, QStringLiteral("Adaugă cheia OpenCode Zen în Setări")));
        Q_EMIT turnFinished(false);
        co_return;
    }

    appendMessage(ChatMessage::make(ChatMessage::Role::user, input));
    m_memory->persist(m_messages);
    setThinking(true);
    // A server switched on or off by another Kelo process counts from this turn on.
    m_settings->reloadMcpServers();
    m_backgroundExecution->begin(QStringLiteral("Kelo response"));

    std::optional<QString> answer;
    try {
        answer = co_await runAgentTurn(input);
        if (answer->isEmpty())
            answer = QStringLiteral("Modelul nu a trimis niciun răspuns. Încearcă din nou.");
        appendMessage(ChatMessage::make(ChatMessage::Role::assistant, *answer));
        setZenError(std::nullopt);
    } catch (...) {
        // Cut short by the store's own end: nothing to tell, nothing to save.
        if (m_closing)
            co_return;
        const QString description = friendlyError(std::current_exception());
        appendMessage(ChatMessage::make(
            ChatMessage::Role::assistant, QStringLiteral("Nu am putut termina răspunsul: ") + description));
        setZenError(QStringLiteral("Eroare de conexiune"));
    }

    setThinking(false);
    setToolStatus(std::nullopt);
    m_memory->persist(m_messages);
    m_backgroundExecution->end();
    m_lastTurnWasVoice = fromVoice && answer.has_value();
    if (answer && m_speaksAnswers && m_settings->autoSpeak())
        m_synthesizer->speak(*answer, m_settings);
    Q_EMIT turnFinished(answer.has_value());
    co_await refreshMemoryIfNeeded();
}

QJsonArray ChatStore::buildConversationForAPI() const
{
    const QString summary = m_settings->memoryEnabled() ? m_memory->summary() : QString();
    QJsonArray messages { chatMessage(QStringLiteral("system"), m_settings->systemPrompt(summary)) };

    QList<const ChatMessage *> history;
    for (const ChatMessage &message : m_messages) {
        if (message.role != ChatMessage::Role::system)
            history.append(&message);
    }
    for (qsizetype i = std::max<qsizetype>(0, history.size() - historyLimit); i < history.size(); ++i) {
        const ChatMessage &message = *history.at(i);
        const bool fromAssistant = message.role == ChatMessage::Role::assistant;
        messages.append(
            chatMessage(fromAssistant ? QStringLiteral("assistant") : QStringLiteral("user"), message.text));
    }
    return messages;
}

QCoro::Task<QList<ZenToolDefinition>> ChatStore::toolDefinitionsForTurn(QList<MCPToolBinding> &bindings)
{
    QList<ZenToolDefinition> tools;
    if (m_settings->internetEnabled())
        tools = builtInToolDefinitions();
    if (m_settings->autoSkillsEnabled()) {
        bindings = co_await currentMCPBindings();
        for (const MCPToolBinding &binding : std::as_const(bindings))
            tools.append(binding.definition);
    }
    co_return tools;
}

QCoro::Task<QString> ChatStore::runAgentTurn(QString)
{
    QJsonArray messages = buildConversationForAPI();
    if (m_forceInternetNext) {
        messages.append(chatMessage(QStringLiteral("system"), forceInternetInstruction));
        setForceInternetNext(false);
    }

    QList<MCPToolBinding> bindings;
    const QList<ZenToolDefinition> tools = co_await toolDefinitionsForTurn(bindings);
    const QString key = m_settings->zenAPIKey();
    const QString model = m_settings->zenModelID();

    QElapsedTimer turnClock;
    turnClock.start();
    ZenAPIService::AssistantResult result = co_await m_zen->completeChat(key, model, messages, tools);
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
        if (round == lastToolRound || turnClock.elapsed() >= toolBudgetMs) {
            messages.append(chatMessage(QStringLiteral("system"), finalAnswerInstruction));
            result = co_await m_zen->completeChat(key, model, messages, tools);
            break;
        }
        result = co_await m_zen->completeChat(key, model, messages, tools);
    }
    co_return visibleAnswer(result.text);
}

QCoro::Task<QString> ChatStore::executeToolCall(ZenToolCall call, QList<MCPToolBinding> bindings)
{
    const auto argument = [&call](const char *name) -> std::optional<QString> {
        const QJsonValue value = call.arguments.value(QLatin1String(name));
        return value.isString() ? std::optional<QString>(value.toString()) : std::nullopt;
    };

    if (call.name == QLatin1String("kelo_web_search")) {
        const auto query = argument("query");
        if (!query)
            co_return QStringLiteral("Lipsește parametrul query.");
        setToolStatus(QStringLiteral("Caut pe internet…"));
        try {
            co_return co_await m_web->searchRomanianWeb(*query);
        } catch (...) {
            co_return QStringLiteral("Căutarea web a eșuat: ") + describeException(std::current_exception());
        }
    }
    if (call.name == QLatin1String("kelo_fetch_url")) {
        const auto url = argument("url");
        if (!url)
            co_return QStringLiteral("Lipsește parametrul url.");
        setToolStatus(QStringLiteral("Citesc pagina…"));
        try {
            co_return co_await m_web->fetchURL(*url);
        } catch (...) {
            co_return QStringLiteral("Citirea URL-ului a eșuat: ") + describeException(std::current_exception());
        }
    }
    for (const MCPToolBinding &binding : std::as_const(bindings)) {
        if (binding.definition.name != call.name)
            continue;
        setToolStatus(QStringLiteral("Folosesc %1…").arg(binding.server.name));
        try {
            co_return co_await m_mcp->callTool(binding.server, binding.remoteName, call.arguments);
        } catch (...) {
            co_return QStringLiteral("Instrumentul %1 a eșuat: %2")
                .arg(binding.remoteName, describeException(std::current_exception()));
        }
    }
    co_return QStringLiteral("Instrument necunoscut: ") + call.name;
}

QString ChatStore::friendlyError(std::exception_ptr error) const
{
    return describeException(error);
}

QCoro::Task<QList<MCPToolBinding>> ChatStore::currentMCPBindings()
{
    const QDateTime now = QDateTime::currentDateTimeUtc();
    if (m_toolsRefreshedAt && m_toolsRefreshedAt->secsTo(now) < mcpCacheSeconds)
        co_return QList<MCPToolBinding>(m_cachedMCPBindings);

    const QList<MCPServerConfig> enabled = enabledMCPServers();
    if (enabled.isEmpty())
        co_return QList<MCPToolBinding>();

    // With nothing to ask there is nothing to sync, and no status to flash.
    const QString syncing = QStringLiteral("Sincronizez skillurile…");
    setToolStatus(syncing);
    const quint64 generation = m_bindingsGeneration;
    QList<MCPToolBinding> discovered = co_await m_mcp->discoverBindings(enabled);
    if (m_toolStatus == syncing)
        setToolStatus(std::nullopt);
    if (generation != m_bindingsGeneration) {
        // The server list changed while we asked: keep only what is still enabled, and cache nothing.
        co_return bindingsOfEnabledServers(discovered);
    }
    m_cachedMCPBindings = discovered;
    m_toolsRefreshedAt = QDateTime::currentDateTimeUtc();
    co_return discovered;
}

QList<MCPServerConfig> ChatStore::enabledMCPServers() const
{
    QList<MCPServerConfig> enabled;
    for (const MCPServerConfig &server : m_settings->mcpServers()) {
        if (server.enabled)
            enabled.append(server);
    }
    return enabled;
}

QList<MCPToolBinding> ChatStore::bindingsOfEnabledServers(const QList<MCPToolBinding> &bindings) const
{
    // By id: a server whose token was renewed meanwhile is still the same server.
    QSet<QUuid> enabled;
    for (const MCPServerConfig &server : enabledMCPServers())
        enabled.insert(server.id);
    QList<MCPToolBinding> kept;
    for (const MCPToolBinding &binding : bindings) {
        if (enabled.contains(binding.server.id))
            kept.append(binding);
    }
    return kept;
}

void ChatStore::invalidateMCPBindings()
{
    ++m_bindingsGeneration;
    m_toolsRefreshedAt.reset();
    m_cachedMCPBindings.clear();
}

QCoro::Task<QString> ChatStore::listMCPTools(MCPServerConfig server)
{
    try {
        const QList<QJsonObject> tools = co_await m_mcp->listTools(server);
        if (tools.isEmpty())
            co_return QStringLiteral("Serverul %1 nu oferă instrumente.").arg(server.name);
        QStringList lines;
        for (const QJsonObject &tool : tools) {
            const QString name = tool.value(QLatin1String("name")).toString();
            if (name.isEmpty())
                continue;
            const QString description = tool.value(QLatin1String("description")).toString().trimmed();
            lines.append(description.isEmpty() ? QStringLiteral("• ") + name
                                               : QStringLiteral("• %1: %2").arg(name, description));
        }
        co_return lines.join(QLatin1Char('\n'));
    } catch (...) {
        co_return describeException(std::current_exception());
    }
}

// --- memory ---

QCoro::Task<> ChatStore::refreshMemoryIfNeeded()
{
    if (!m_settings->memoryEnabled() || !m_memory->shouldRefreshSummary(m_messages))
        co_return;
    const QList<ChatMessage> covered = m_messages;
    try {
        const QString summary = co_await m_zen->summarizeMemory(m_settings->zenAPIKey(), m_settings->zenModelID(),
            m_memory->summary(), m_memory->transcriptForSummary(covered));
        if (!summary.trimmed().isEmpty())
            m_memory->updateSummary(summary, covered);
    } catch (...) {
        // A failed compaction is tried again after the next turn.
    }
}

void ChatStore::clearConversation()
{
    m_messages = { ChatMessage::make(
        ChatMessage::Role::assistant, QStringLiteral("Conversație nouă. Memoria utilă rămâne disponibilă.")) };
    Q_EMIT messagesChanged();
    Q_EMIT messageAppended(m_messages.constLast());
    // The summary stays; its count starts again with the new conversation so compaction resumes.
    m_memory->updateSummary(m_memory->summary(), m_messages);
}

void ChatStore::clearMemory()
{
    m_memory->clearAll();
    m_messages = { ChatMessage::make(
        ChatMessage::Role::assistant, QStringLiteral("Memoria a fost resetată. Putem începe de la zero.")) };
    Q_EMIT messagesChanged();
    Q_EMIT messageAppended(m_messages.constLast());
}

// --- models ---

QCoro::Task<> ChatStore::refreshZenModels()
{
    try {
        QList<ZenModel> models = co_await m_zen->fetchModels(m_settings->zenAPIKey());
        setZenModels(std::move(models));
        setZenError(std::nullopt);
    } catch (...) {
        setZenError(friendlyError(std::current_exception()));
    }
}

QCoro::Task<QString> ChatStore::testZenConnection()
{
    try {
        const QList<ZenModel> models = co_await m_zen->fetchModels(m_settings->zenAPIKey());
        setZenModels(models);
        setZenError(std::nullopt);
        co_return QStringLiteral("Conectat · %1 modele disponibile · %2")
            .arg(models.size())
            .arg(selectedZenModel().name);
    } catch (...) {
        const QString description = friendlyError(std::current_exception());
        setZenError(description);
        co_return QStringLiteral("Conexiune eșuată: ") + description;
    }
}

// --- voice ---

QCoro::Task<> ChatStore::beginPushToTalk()
{
    if (m_isPushToTalkActive)
        co_return;
    m_synthesizer->stopSpeaking();
    m_handsFreeRun = false;
    m_handsFreeTimer->stop();
    setPushToTalkActive(true);
    co_await m_recognizer->startListening(m_settings->preferOnDeviceSpeech(), true);
    if (!m_isPushToTalkActive)
        m_recognizer->finishListening(); // released while the microphone was starting
    else if (!m_recognizer->isListening())
        setPushToTalkActive(false); // the run could not start; lastError says why
    else
        showTemporaryStatus(QStringLiteral("Kelo este gata"));
}

QCoro::Task<> ChatStore::endPushToTalk()
{
    if (!m_isPushToTalkActive)
        co_return;
    setPushToTalkActive(false);
    m_recognizer->finishListening();
}

void ChatStore::onAutomaticTranscript(const QString &text)
{
    m_handsFreeRun = false;
    m_handsFreeTimer->stop();
    if (m_isThinking)
        return;
    m_lastTurnWasVoice = true;
    detach(send(text));
}

void ChatStore::scheduleHandsFreeListening()
{
    if (!m_lastTurnWasVoice)
        return;
    QTimer::singleShot(handsFreeDelayMs, this, [this] {
        if (!m_lastTurnWasVoice || m_isThinking || m_isPushToTalkActive || m_recognizer->isListening()
            || m_synthesizer->isSpeaking() || !hasZenKey())
            return;
        m_lastTurnWasVoice = false;
        detach([](ChatStore *self) -> QCoro::Task<> {
            co_await self->m_recognizer->startListening(self->m_settings->preferOnDeviceSpeech(), true);
            if (!self->m_recognizer->isListening())
                co_return;
            self->m_handsFreeRun = true;
            self->m_handsFreeClock.start();
            self->m_lastVoiceAtMs = -1;
            self->m_handsFreeTimer->start();
        }(this));
    });
}

void ChatStore::watchHandsFreeSilence()
{
    if (!m_handsFreeRun || !m_recognizer->isListening()) {
        m_handsFreeRun = false;
        m_handsFreeTimer->stop();
        return;
    }
    const qint64 now = m_handsFreeClock.elapsed();
    if (m_recognizer->inputLevel() >= speechLevel)
        m_lastVoiceAtMs = now;
    if (m_lastVoiceAtMs >= 0 && now - m_lastVoiceAtMs >= handsFreePauseMs) {
        m_handsFreeRun = false;
        m_handsFreeTimer->stop();
        m_recognizer->finishListening();
    } else if (m_lastVoiceAtMs < 0 && now >= handsFreeNoSpeechMs) {
        m_handsFreeRun = false;
        m_handsFreeTimer->stop();
        m_recognizer->cancelListening();
    }
}

// --- QML entry points ---

void ChatStore::sendDraft()
{
    detach(send());
}

void ChatStore::startPushToTalk()
{
    detach(beginPushToTalk());
}

void ChatStore::stopPushToTalk()
{
    detach(endPushToTalk());
}

void ChatStore::reloadZenModels()
{
    detach(refreshZenModels());
}

void ChatStore::reloadMCPBindings()
{
    invalidateMCPBindings();
    detach([](ChatStore *self) -> QCoro::Task<> {
        const QList<MCPToolBinding> bindings = co_await self->currentMCPBindings();
        self->showTemporaryStatus(QStringLiteral("Skilluri MCP reîncărcate: %1 instrumente").arg(bindings.size()));
    }(this));
}

// --- state ---

void ChatStore::appendMessage(ChatMessage message)
{
    m_messages.append(std::move(message));
    Q_EMIT messagesChanged();
    Q_EMIT messageAppended(m_messages.constLast());
}

void ChatStore::setThinking(bool value)
{
    if (m_isThinking == value)
        return;
    m_isThinking = value;
    Q_EMIT isThinkingChanged();
    publishDerivedState();
}

void ChatStore::setPushToTalkActive(bool value)
{
    if (m_isPushToTalkActive == value)
        return;
    m_isPushToTalkActive = value;
    Q_EMIT isPushToTalkActiveChanged();
    publishDerivedState();
}

void ChatStore::setToolStatus(std::optional<QString> status)
{
    ++m_statusGeneration;
    if (m_toolStatus == status)
        return;
    m_toolStatus = std::move(status);
    Q_EMIT toolStatusChanged();
}

void ChatStore::showTemporaryStatus(const QString &text)
{
    setToolStatus(text);
    const quint64 generation = m_statusGeneration;
    QTimer::singleShot(temporaryStatusMs, this, [this, generation] {
        if (generation == m_statusGeneration)
            setToolStatus(std::nullopt);
    });
}

void ChatStore::setZenError(std::optional<QString> error)
{
    if (m_zenError == error)
        return;
    m_zenError = std::move(error);
    Q_EMIT zenErrorChanged();
}

void ChatStore::setZenModels(QList<ZenModel> models)
{
    m_zenModels = std::move(models);
    Q_EMIT zenModelsChanged();
    publishDerivedState();
}

QVariantList ChatStore::messageList() const
{
    return VariantLists::from(m_messages);
}

QVariantList ChatStore::visibleMessageList() const
{
    return VariantLists::from(visibleMessages());
}

QVariantList ChatStore::zenModelList() const
{
    return VariantLists::from(m_zenModels);
}
