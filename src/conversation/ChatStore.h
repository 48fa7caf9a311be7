#pragma once

#include "ChatMessage.h"
#include "ConversationMemoryStore.h"
#include "ZenAPIService.h"
#include "ZenModel.h"
#include "settings/AppSettings.h"
#include "skills/MCPToolBinding.h"
#include "voice/SpeechRecognizer.h"
#include "voice/SpeechSynthesizer.h"

#include <QCoroTask>
#include <QDateTime>
#include <QElapsedTimer>
#include <QObject>
#include <QPointer>
#include <QVariantList>
#include <QtQml/qqmlregistration.h>

#include <optional>

class QTimer;
class BackgroundExecutionManager;
class MCPClient;
class WebSkillService;

// The one observable object that runs the conversation. It owns every service, holds the visible
// conversation and the transient state the views show, and runs the agent turn with its tool loop.
// The desktop app and the command line both drive it.
class ChatStore : public QObject
{
    Q_OBJECT
    QML_ELEMENT
    QML_UNCREATABLE("The ChatStore is created by the application")

    Q_PROPERTY(QVariantList messages READ messageList NOTIFY messagesChanged)
    Q_PROPERTY(QString draft READ draft WRITE setDraft NOTIFY draftChanged)
    Q_PROPERTY(bool isThinking READ isThinking NOTIFY isThinkingChanged)
    Q_PROPERTY(bool isPushToTalkActive READ isPushToTalkActive NOTIFY isPushToTalkActiveChanged)
    Q_PROPERTY(bool forceInternetNext READ forceInternetNext WRITE setForceInternetNext NOTIFY forceInternetNextChanged)
    // Empty when no tool runs.
    Q_PROPERTY(QString toolStatus READ toolStatus NOTIFY toolStatusChanged)
    Q_PROPERTY(QVariantList zenModels READ zenModelList NOTIFY zenModelsChanged)
    // Empty when there was no error.
    Q_PROPERTY(QString zenError READ zenError NOTIFY zenErrorChanged)

    Q_PROPERTY(QVariantList visibleMessages READ visibleMessageList NOTIFY messagesChanged)
    Q_PROPERTY(bool hasZenKey READ hasZenKey NOTIFY hasZenKeyChanged)
    Q_PROPERTY(ZenModel selectedZenModel READ selectedZenModel NOTIFY selectedZenModelChanged)
    Q_PROPERTY(QString activityText READ activityText NOTIFY activityTextChanged)

    Q_PROPERTY(AppSettings *settings READ settings CONSTANT)
    Q_PROPERTY(SpeechRecognizer *recognizer READ recognizer CONSTANT)
    Q_PROPERTY(SpeechSynthesizer *synthesizer READ synthesizer CONSTANT)
    Q_PROPERTY(ConversationMemoryStore *memory READ memory CONSTANT)

public:
    explicit ChatStore(QObject *parent = nullptr);
    ~ChatStore() override;

    static QString welcomeText();

    QList<ChatMessage> messages() const { return m_messages; }
    QList<ChatMessage> visibleMessages() const;
    QString draft() const { return m_draft; }
    void setDraft(const QString &draft);
    bool isThinking() const { return m_isThinking; }
    bool isPushToTalkActive() const { return m_isPushToTalkActive; }
    bool forceInternetNext() const { return m_forceInternetNext; }
    void setForceInternetNext(bool value);
    std::optional<QString> toolStatusText() const { return m_toolStatus; }
    QString toolStatus() const { return m_toolStatus.value_or(QString()); }
    QList<ZenModel> zenModels() const { return m_zenModels; }
    QString zenError() const { return m_zenError.value_or(QString()); }

    bool hasZenKey() const;
    ZenModel selectedZenModel() const;
    QString activityText() const;

    AppSettings *settings() const { return m_settings; }
    SpeechRecognizer *recognizer() const { return m_recognizer; }
    SpeechSynthesizer *synthesizer() const { return m_synthesizer; }
    ConversationMemoryStore *memory() const { return m_memory; }
    ZenAPIService *zen() const { return m_zen; }
    MCPClient *mcp() const { return m_mcp; }
    WebSkillService *web() const { return m_web; }

    // One turn for `text`, or for the draft when absent.
    QCoro::Task<> send(std::optional<QString> text = std::nullopt);
    QCoro::Task<> beginPushToTalk();
    QCoro::Task<> endPushToTalk();
    QCoro::Task<> refreshZenModels();
    QCoro::Task<QString> testZenConnection();
    void clearConversation();
    void clearMemory();
    QCoro::Task<QString> listMCPTools(MCPServerConfig server);
    // The tool bindings of the enabled MCP servers, reused for 600 seconds.
    QCoro::Task<QList<MCPToolBinding>> currentMCPBindings();
    // Forgets the cached bindings so the next turn discovers them again.
    Q_INVOKABLE void invalidateMCPBindings();

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

    // The built-in tools' definitions, in the order they are offered.
    static QList<ZenToolDefinition> builtInToolDefinitions();
    // Reasoning blocks removed, white space trimmed.
    static QString visibleAnswer(const QString &text);

Q_SIGNALS:
    void messagesChanged();
    // A message joined the conversation (the command line prints assistant messages from here).
    void messageAppended(const ChatMessage &message);
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
    // The settings or the speech service changed something the views show.
    void changed();

private:
    QCoro::Task<QString> runAgentTurn(QString text);
    QJsonArray buildConversationForAPI() const;
    QCoro::Task<QList<ZenToolDefinition>> toolDefinitionsForTurn(QList<MCPToolBinding> &bindings);
    QCoro::Task<QString> executeToolCall(ZenToolCall call, QList<MCPToolBinding> bindings);
    QList<MCPServerConfig> enabledMCPServers() const;
    QList<MCPToolBinding> bindingsOfEnabledServers(const QList<MCPToolBinding> &bindings) const;
    QString friendlyError(std::exception_ptr error) const;
    QCoro::Task<> refreshMemoryIfNeeded();
    void scheduleHandsFreeListening();
    void showTemporaryStatus(const QString &text);
    void onAutomaticTranscript(const QString &text);
    void watchHandsFreeSilence();
    void publishDerivedState();

    QVariantList messageList() const;
    QVariantList visibleMessageList() const;
    QVariantList zenModelList() const;

    void appendMessage(ChatMessage message);
    void setThinking(bool value);
    void setPushToTalkActive(bool value);
    void setToolStatus(std::optional<QString> status);
    void setZenError(std::optional<QString> error);
    void setZenModels(QList<ZenModel> models);

    AppSettings *m_settings;
    ZenAPIService *m_zen;
    SpeechRecognizer *m_recognizer;
    SpeechSynthesizer *m_synthesizer;
    WebSkillService *m_web;
    MCPClient *m_mcp;
    ConversationMemoryStore *m_memory;
    BackgroundExecutionManager *m_backgroundExecution;

    QList<ChatMessage> m_messages;
    QString m_draft;
    bool m_isThinking = false;
    // Set by the destructor, whose aborted requests resume the turn one last time.
    bool m_closing = false;
    bool m_isPushToTalkActive = false;
    bool m_forceInternetNext = false;
    std::optional<QString> m_toolStatus;
    QList<ZenModel> m_zenModels;
    std::optional<QString> m_zenError;

    QList<MCPToolBinding> m_cachedMCPBindings;
    std::optional<QDateTime> m_toolsRefreshedAt;
    // Bumped whenever the cached bindings stop being valid, so a discovery that was running then
    // does not store what it found.
    quint64 m_bindingsGeneration = 0;
    quint64 m_statusGeneration = 0;
    bool m_speaksAnswers = true;
    // The last turn came from the microphone, so the conversation may go on hands-free.
    bool m_lastTurnWasVoice = false;
    bool m_handsFreeRun = false;
    QTimer *m_handsFreeTimer;
    QElapsedTimer m_handsFreeClock;
    qint64 m_lastVoiceAtMs = -1;
    // Derived values last published, so their signals fire only on real changes.
    bool m_publishedHasZenKey = false;
    QString m_publishedActivityText;
    ZenModel m_publishedModel;
};
