#include "ChatStore.h"

#include "HandsFreeListener.h"
#include "MCPToolCache.h"
#include "net/Detached.h"
#include "net/HttpClient.h"
#include "net/KeloError.h"
#include "skills/MCPClient.h"
#include "system/BackgroundExecutionManager.h"

#include <QCoroSignal>
#include <QTimer>

namespace {

constexpr int temporaryStatusMs = 2500;

const QString missingKeyText = QStringLiteral("Adaugă cheia OpenCode Zen în Setări");

} // namespace

ChatStore::ChatStore(QObject *parent)
    : QObject(parent)
    , m_services(new KeloServices(this))
    , m_mcpTools(new MCPToolCache(m_services->settings, m_services->mcp, this))
    , m_handsFree(new HandsFreeListener(
          m_services->recognizer, m_services->settings,
          [this] { return !isThinking() && !m_isPushToTalkActive && !synthesizer()->isSpeaking() && hasZenKey(); },
          this))
    , m_conversation(new ChatMessageModel(this))
{
    // Derived state first, so that whoever listens to changed() reads it current.
    connect(this, &ChatStore::changed, this, &ChatStore::publishDerivedState);
    connect(settings(), &AppSettings::changed, this, &ChatStore::changed);
    connect(recognizer(), &SpeechRecognizer::changed, this, &ChatStore::changed);
    connect(synthesizer(), &SpeechSynthesizer::changed, this, &ChatStore::changed);
    connect(recognizer(), &SpeechRecognizer::finalTranscript, this, &ChatStore::onAutomaticTranscript);
    connect(synthesizer(), &SpeechSynthesizer::playbackFinished, m_handsFree, &HandsFreeListener::playbackFinished);
    connect(this, &ChatStore::sentenceReady, this, &ChatStore::speakSentence);
    connect(m_mcpTools, &MCPToolCache::syncing, this, [this](bool running) {
        const QString syncing = QStringLiteral("Sincronizez skillurile…");
        if (running)
            setToolStatus(syncing);
        else if (m_toolStatus == syncing)
            setToolStatus({});
    });

    m_messages = memory()->messages();
    if (m_messages.isEmpty())
        m_messages.append(ChatMessage::notice(welcomeText()));
    m_conversation->reset(m_messages);
    m_publishedHasZenKey = hasZenKey();
    m_publishedActivityText = activityText();
    m_publishedActivity = activity();
    m_publishedModel = selectedZenModel();
}

ChatStore::~ChatStore()
{
    // A turn waiting on the network and an orb run waiting for its model end now, while every member
    // is alive; neither leaves a trace.
    m_closing = true;
    HttpClient::closeAllUnder(this);
    recognizer()->close();
    synthesizer()->close();
}

QString ChatStore::welcomeText()
{
    return QStringLiteral("Salut. Sunt Kelo. Ține apăsat companionul și vorbește.");
}

void ChatStore::setDraft(const QString &draft)
{
    if (m_draft == draft)
        return;
    if (!draft.isEmpty() && (isThinking() || synthesizer()->isSpeaking()))
        interrupt();
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
    return !settings()->zenAPIKey().trimmed().isEmpty();
}

ZenModel ChatStore::selectedZenModel() const
{
    for (const ZenModel &model : m_zenModels) {
        if (model.id == settings()->zenModelID())
            return model;
    }
    return ZenModel::bigPickle();
}

QString ChatStore::activityText() const
{
    if (synthesizer()->isPreparingVoice())
        return QStringLiteral("Pregătesc vocea…");
    if (!hasZenKey())
        return missingKeyText;
    if (activity() != Activity::Idle)
        return QStringLiteral("Companion activ · poți continua și din fundal");
    return QStringLiteral("Ține apăsat pentru a vorbi");
}

ChatStore::Activity ChatStore::activity() const
{
    if (m_isPushToTalkActive || recognizer()->isListening())
        return Activity::Listening;
    if (m_toolKind)
        return *m_toolKind == AgentTurn::ToolKind::webSearch ? Activity::Searching : Activity::UsingTool;
    // Thinking until the first visible words of the answer arrive.
    if (isThinking())
        return m_growing ? Activity::Speaking : Activity::Thinking;
    if (synthesizer()->isSpeaking() || synthesizer()->isPreparingVoice())
        return Activity::Speaking;
    return Activity::Idle;
}

void ChatStore::publishDerivedState()
{
    if (const bool has = hasZenKey(); has != m_publishedHasZenKey) {
        m_publishedHasZenKey = has;
        Q_EMIT hasZenKeyChanged();
    }
    if (const Activity now = activity(); now != m_publishedActivity) {
        m_publishedActivity = now;
        Q_EMIT activityChanged();
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

// --- the turn ---

QCoro::Task<> ChatStore::send(std::optional<QString> text)
{
    const QString input = text.value_or(m_draft).trimmed();
    if (input.isEmpty())
        co_return;
    if (isThinking()) {
        // A new message cuts the answer still being written.
        interrupt();
        if (isThinking())
            co_await qCoro(this, &ChatStore::turnFinished);
        if (isThinking())
            co_return;
    }
    const bool fromVoice = std::exchange(m_nextTurnIsVoice, false);
    m_handsFree->setArmed(false);
    setDraft({});

    if (!hasZenKey()) {
        appendMessage(ChatMessage::notice(missingKeyText));
        Q_EMIT turnFinished(false);
        co_return;
    }

    appendMessage(ChatMessage::make(ChatMessage::Role::user, input));
    memory()->persist(m_messages);
    // A server switched on or off by another Kelo process counts from this turn on.
    settings()->reloadMcpServers();
    m_services->backgroundExecution->begin(QStringLiteral("Kelo response"));

    const std::optional<QString> answer = co_await runTurn();
    // Cut short by the store's own end: nothing to tell, nothing to save.
    if (m_closing)
        co_return;
    finishTurn(answer, fromVoice);
    if (settings()->memoryEnabled())
        co_await memory()->compactIfDue(zen(), settings()->zenAPIKey(), settings()->zenModelID(), m_messages);
}

QCoro::Task<std::optional<QString>> ChatStore::runTurn()
{
    const bool forceInternet = m_forceInternetNext;
    setForceInternetNext(false);
    if (!m_turnClient)
        m_turnClient = new ZenAPIService(zen()->baseURL(), this);
    auto *turn = new AgentTurn(m_services, m_mcpTools, m_turnClient, this);
    connect(turn, &AgentTurn::toolStarted, this, &ChatStore::onToolStarted);
    connect(turn, &AgentTurn::visibleTextChanged, this, &ChatStore::showGrowingAnswer);
    connect(turn, &AgentTurn::sentenceReady, this, &ChatStore::sentenceReady);
    setTurn(turn);

    std::optional<QString> answer;
    try {
        answer = co_await turn->run(visibleMessages(), forceInternet);
    } catch (...) {
        if (m_closing)
            co_return std::nullopt;
        // What was shown stays; a failure (not a barge-in) is told after it.
        if (m_growing)
            appendMessage(*m_growing);
        if (!turn->isCancelled()) {
            appendMessage(ChatMessage::notice(
                QStringLiteral("Nu am putut termina răspunsul: ") + describeException(std::current_exception())));
            setZenError(QStringLiteral("Eroare de conexiune"));
        }
    }
    co_return answer;
}

void ChatStore::finishTurn(std::optional<QString> answer, bool fromVoice)
{
    if (answer) {
        ChatMessage message = m_growing.value_or(ChatMessage::make(ChatMessage::Role::assistant, {}));
        message.text = *answer;
        if (answer->isEmpty()) {
            message.text = QStringLiteral("Modelul nu a trimis niciun răspuns. Încearcă din nou.");
            message.fromApp = true;
        }
        answer = message.text;
        appendMessage(message);
        setZenError({});
    }
    // A cancelled turn closed its client for good.
    if (m_turn->isCancelled())
        std::exchange(m_turnClient, nullptr)->deleteLater();
    m_turn->deleteLater();
    setTurn(nullptr);
    setToolStatus({});
    memory()->persist(m_messages);
    m_services->backgroundExecution->end();
    m_handsFree->setArmed(fromVoice && answer.has_value());
    // Sentences already went to the voice as they were written; a turn that produced none (a failure
    // before any text, an empty answer) is spoken whole, as is the message standing in for it.
    if (std::exchange(m_answerQueued, false))
        synthesizer()->finishQueue();
    else if (answer && speaksNow())
        synthesizer()->speak(*answer, settings());
    Q_EMIT turnFinished(answer.has_value());
}

void ChatStore::onToolStarted(AgentTurn::ToolKind kind, const QString &status)
{
    setToolStatus(status, kind);
}

void ChatStore::showGrowingAnswer(const QString &visible)
{
    if (visible.isEmpty()) {
        // The round ended in tool calls: what it wrote is not the answer.
        if (m_growing)
            m_conversation->remove(m_growing->id);
        m_growing.reset();
    } else {
        if (!m_growing)
            m_growing = ChatMessage::make(ChatMessage::Role::assistant, {});
        m_growing->text = visible;
        m_conversation->upsert(*m_growing);
        if (m_toolKind)
            setToolStatus({});
    }
    Q_EMIT answerGrew(visible);
    publishDerivedState();
}

bool ChatStore::speaksNow() const
{
    return m_speaksAnswers && settings()->autoSpeak();
}

void ChatStore::speakSentence(const QString &sentence)
{
    if (!speaksNow())
        return;
    m_answerQueued = true;
    synthesizer()->enqueue(sentence, settings());
}

void ChatStore::interrupt()
{
    m_answerQueued = false;
    synthesizer()->stopSpeaking();
    m_handsFree->setArmed(false);
    if (m_turn)
        m_turn->cancel();
}

QCoro::Task<QString> ChatStore::listMCPTools(MCPServerConfig server)
{
    return m_mcpTools->describeTools(std::move(server));
}

void ChatStore::invalidateMCPBindings()
{
    m_mcpTools->invalidate();
}

void ChatStore::clearConversation()
{
    replaceConversation(ChatMessage::notice(QStringLiteral("Conversație nouă. Memoria utilă rămâne disponibilă.")));
    // The summary stays; its count starts again with the new conversation so compaction resumes.
    memory()->updateSummary(memory()->summary(), m_messages);
}

void ChatStore::clearMemory()
{
    memory()->clearAll();
    replaceConversation(ChatMessage::notice(QStringLiteral("Memoria a fost resetată. Putem începe de la zero.")));
}

void ChatStore::replaceConversation(ChatMessage notice)
{
    m_messages = { std::move(notice) };
    m_conversation->reset(m_messages);
    Q_EMIT messageAppended(m_messages.constLast());
}

// --- models ---

QCoro::Task<> ChatStore::refreshZenModels()
{
    try {
        QList<ZenModel> models = co_await zen()->fetchModels(settings()->zenAPIKey());
        setZenModels(std::move(models));
        setZenError({});
    } catch (...) {
        setZenError(describeException(std::current_exception()));
    }
}

QCoro::Task<QString> ChatStore::testZenConnection()
{
    try {
        const QList<ZenModel> models = co_await zen()->fetchModels(settings()->zenAPIKey());
        setZenModels(models);
        setZenError({});
        co_return QStringLiteral("Conectat · %1 modele disponibile · %2")
            .arg(models.size())
            .arg(selectedZenModel().name);
    } catch (...) {
        const QString description = describeException(std::current_exception());
        setZenError(description);
        co_return QStringLiteral("Conexiune eșuată: ") + description;
    }
}

// --- voice ---

QCoro::Task<> ChatStore::beginPushToTalk()
{
    if (m_isPushToTalkActive)
        co_return;
    interrupt();
    m_handsFree->stop();
    setPushToTalkActive(true);
    co_await recognizer()->startListening(settings()->preferOnDeviceSpeech(), true);
    if (!m_isPushToTalkActive)
        recognizer()->finishListening(); // released while the microphone was starting
    else if (!recognizer()->isListening())
        setPushToTalkActive(false); // the run could not start; lastError says why
    else
        showTemporaryStatus(QStringLiteral("Kelo este gata"));
}

QCoro::Task<> ChatStore::endPushToTalk()
{
    if (!m_isPushToTalkActive)
        co_return;
    setPushToTalkActive(false);
    recognizer()->finishListening();
}

void ChatStore::onAutomaticTranscript(const QString &text)
{
    m_handsFree->stop();
    if (isThinking())
        return;
    m_nextTurnIsVoice = true;
    startDetached(send(text));
}

// --- QML entry points ---

void ChatStore::sendDraft()
{
    startDetached(send());
}

void ChatStore::startPushToTalk()
{
    startDetached(beginPushToTalk());
}

void ChatStore::stopPushToTalk()
{
    startDetached(endPushToTalk());
}

void ChatStore::reloadZenModels()
{
    startDetached(refreshZenModels());
}

void ChatStore::reloadMCPBindings()
{
    invalidateMCPBindings();
    startDetached([](ChatStore *self) -> QCoro::Task<> {
        const QList<MCPToolBinding> bindings = co_await self->m_mcpTools->currentBindings();
        self->showTemporaryStatus(QStringLiteral("Skilluri MCP reîncărcate: %1 instrumente").arg(bindings.size()));
    }(this));
}

// --- state ---

void ChatStore::appendMessage(ChatMessage message)
{
    if (m_growing && m_growing->id == message.id)
        m_growing.reset();
    m_messages.append(message);
    m_conversation->upsert(message);
    Q_EMIT messageAppended(message);
}

void ChatStore::setTurn(AgentTurn *turn)
{
    if (m_turn == turn)
        return;
    m_turn = turn;
    m_growing.reset();
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

void ChatStore::setToolStatus(const QString &status, std::optional<AgentTurn::ToolKind> kind)
{
    ++m_statusGeneration;
    m_toolKind = kind;
    if (m_toolStatus != status) {
        m_toolStatus = status;
        Q_EMIT toolStatusChanged();
    }
    publishDerivedState();
}

void ChatStore::showTemporaryStatus(const QString &text)
{
    setToolStatus(text);
    const quint64 generation = m_statusGeneration;
    QTimer::singleShot(temporaryStatusMs, this, [this, generation] {
        if (generation == m_statusGeneration)
            setToolStatus({});
    });
}

void ChatStore::setZenError(const QString &error)
{
    if (m_zenError == error)
        return;
    m_zenError = error;
    Q_EMIT zenErrorChanged();
}

void ChatStore::setZenModels(QList<ZenModel> models)
{
    m_zenModels = std::move(models);
    Q_EMIT zenModelsChanged();
    publishDerivedState();
}
