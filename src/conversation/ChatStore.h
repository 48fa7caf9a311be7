#pragma once

#include "AgentTurn.h"
#include "ChatMessage.h"
#include "ChatMessageModel.h"
#include "ConversationMemoryStore.h"
#include "KeloServices.h"
#include "ZenModel.h"
#include "settings/AppSettings.h"
#include "voice/SpeechRecognizer.h"
#include "voice/SpeechSynthesizer.h"

#include <QCoroTask>
#include <QObject>
#include <QPointer>
#include <QtQml/qqmlregistration.h>

#include <optional>

class HandsFreeListener;
class MCPClient;
class MCPToolCache;
class WebSkillService;

// The one observable object that runs the conversation: the visible messages, the transient state
// the views show, and the turns (typed, spoken, interrupted). The desktop app and the command line
// both drive it; the turn itself is an AgentTurn, the services belong to KeloServices.
class ChatStore : public QObject
{
    Q_OBJECT
    QML_ELEMENT
    QML_UNCREATABLE("The ChatStore is created by the application")

    Q_PROPERTY(ChatMessageModel *conversation READ conversation CONSTANT)
    Q_PROPERTY(QString draft READ draft WRITE setDraft NOTIFY draftChanged)
    Q_PROPERTY(bool isThinking READ isThinking NOTIFY isThinkingChanged)
    Q_PROPERTY(bool isPushToTalkActive READ isPushToTalkActive NOTIFY isPushToTalkActiveChanged)
    Q_PROPERTY(bool forceInternetNext READ forceInternetNext WRITE setForceInternetNext NOTIFY forceInternetNextChanged)
    // Empty when no tool runs.
    Q_PROPERTY(QString toolStatus READ toolStatus NOTIFY toolStatusChanged)
    Q_PROPERTY(QList<ZenModel> zenModels READ zenModels NOTIFY zenModelsChanged)
    // Empty when there was no error.
    Q_PROPERTY(QString zenError READ zenError NOTIFY zenErrorChanged)
    Q_PROPERTY(bool hasZenKey READ hasZenKey NOTIFY hasZenKeyChanged)
    Q_PROPERTY(ZenModel selectedZenModel READ selectedZenModel NOTIFY selectedZenModelChanged)
    Q_PROPERTY(QString activityText READ activityText NOTIFY activityTextChanged)
    Q_PROPERTY(Activity activity READ activity NOTIFY activityChanged)

    Q_PROPERTY(AppSettings *settings READ settings CONSTANT)
    Q_PROPERTY(SpeechRecognizer *recognizer READ recognizer CONSTANT)
    Q_PROPERTY(SpeechSynthesizer *synthesizer READ synthesizer CONSTANT)
    Q_PROPERTY(ConversationMemoryStore *memory READ memory CONSTANT)

public:
    // What the companion is doing, for the orb and the status line.
    enum class Activity { Idle, Listening, Thinking, Searching, UsingTool, Speaking };
    Q_ENUM(Activity)

    explicit ChatStore(QObject *parent = nullptr);
    ~ChatStore() override;

    static QString welcomeText();

    QList<ChatMessage> messages() const { return m_messages; }
    QList<ChatMessage> visibleMessages() const { return m_conversation->messages(); }
    ChatMessageModel *conversation() const { return m_conversation; }
    QString draft() const { return m_draft; }
    // Typing while an answer streams or is spoken interrupts it.
    void setDraft(const QString &draft);
    bool isThinking() const { return m_turn != nullptr; }
    bool isPushToTalkActive() const { return m_isPushToTalkActive; }
    bool forceInternetNext() const { return m_forceInternetNext; }
    void setForceInternetNext(bool value);
    QString toolStatus() const { return m_toolStatus; }
    QList<ZenModel> zenModels() const { return m_zenModels; }
    QString zenError() const { return m_zenError; }

    bool hasZenKey() const;
    ZenModel selectedZenModel() const;
    QString activityText() const;
    Activity activity() const;

    AppSettings *settings() const { return m_services->settings; }
    SpeechRecognizer *recognizer() const { return m_services->recognizer; }
    SpeechSynthesizer *synthesizer() const { return m_services->synthesizer; }
    ConversationMemoryStore *memory() const { return m_services->memory; }
    ZenAPIService *zen() const { return m_services->zen; }
    MCPClient *mcp() const { return m_services->mcp; }

    // One turn for `text`, or for the draft when absent. A turn still running is interrupted first.
    QCoro::Task<> send(std::optional<QString> text = std::nullopt);
    QCoro::Task<> beginPushToTalk();
    QCoro::Task<> endPushToTalk();
    QCoro::Task<> refreshZenModels();
    QCoro::Task<QString> testZenConnection();
    void clearConversation();
    void clearMemory();
    QCoro::Task<QString> listMCPTools(MCPServerConfig server);
    Q_INVOKABLE void invalidateMCPBindings();

    // Barge-in: silence now, the rest of the answer cancelled, what was shown stays.
    Q_INVOKABLE void interrupt();

    // Fire-and-forget entry points for QML.
    Q_INVOKABLE void sendDraft();
    Q_INVOKABLE void startPushToTalk();
    Q_INVOKABLE void stopPushToTalk();
    Q_INVOKABLE void reloadZenModels();
    Q_INVOKABLE void reloadMCPBindings();

    // Whether a finished turn speaks its answer (with autoSpeak on). The command line turns this off
    // unless asked to speak.
    bool speaksAnswers() const { return m_speaksAnswers; }
    void setSpeaksAnswers(bool value) { m_speaksAnswers = value; }

Q_SIGNALS:
    // A message joined the conversation, complete (the command line prints assistant messages from here).
    void messageAppended(const ChatMessage &message);
    // The answer being written grew; `visible` is all of it so far, reasoning left out.
    void answerGrew(const QString &visible);
    // A sentence of the answer is complete and may be spoken while the rest is written.
    void sentenceReady(const QString &sentence);
    // A turn ended: with an answer, or with the failure message in the conversation.
    void turnFinished(bool answered);
    void draftChanged();
    void isThinkingChanged();
    void isPushToTalkActiveChanged();
    void forceInternetNextChanged();
    void toolStatusChanged();
    void zenModelsChanged();
    void zenErrorChanged();
    void hasZenKeyChanged();
    void selectedZenModelChanged();
    void activityTextChanged();
    void activityChanged();
    // The settings or the speech service changed something the views show.
    void changed();

private:
    QCoro::Task<std::optional<QString>> runTurn();
    void finishTurn(std::optional<QString> answer, bool fromVoice);
    void showTemporaryStatus(const QString &text);
    void onAutomaticTranscript(const QString &text);
    void onToolStarted(AgentTurn::ToolKind kind, const QString &status);
    void showGrowingAnswer(const QString &visible);
    bool speaksNow() const;
    void speakSentence(const QString &sentence);
    void publishDerivedState();

    void appendMessage(ChatMessage message);
    void replaceConversation(ChatMessage notice);
    void setTurn(AgentTurn *turn);
    void setPushToTalkActive(bool value);
    void setToolStatus(const QString &status, std::optional<AgentTurn::ToolKind> kind = std::nullopt);
    void setZenError(const QString &error);
    void setZenModels(QList<ZenModel> models);

    KeloServices *m_services;
    MCPToolCache *m_mcpTools;
    HandsFreeListener *m_handsFree;
    ChatMessageModel *m_conversation;
    QPointer<AgentTurn> m_turn;
    // The model client of the turns, apart from the one of model lists and memory so that a barge-in
    // closes only the turn's requests; replaced after each barge-in, kept (and its connection
    // reused) otherwise.
    ZenAPIService *m_turnClient = nullptr;

    QList<ChatMessage> m_messages;
    // The answer shown while it is written; joins m_messages when the turn ends.
    std::optional<ChatMessage> m_growing;
    QString m_draft;
    // Set by the destructor, whose aborted requests resume the turn one last time.
    bool m_closing = false;
    bool m_isPushToTalkActive = false;
    bool m_forceInternetNext = false;
    QString m_toolStatus;
    std::optional<AgentTurn::ToolKind> m_toolKind;
    QList<ZenModel> m_zenModels;
    QString m_zenError;

    quint64 m_statusGeneration = 0;
    bool m_speaksAnswers = true;
    // Sentences of the running answer already handed to the voice.
    bool m_answerQueued = false;
    // The turn about to start came from the microphone.
    bool m_nextTurnIsVoice = false;
    // Derived values last published, so their signals fire only on real changes.
    bool m_publishedHasZenKey = false;
    QString m_publishedActivityText;
    Activity m_publishedActivity = Activity::Idle;
    ZenModel m_publishedModel;
};
