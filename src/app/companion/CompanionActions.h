#pragma once

#include "system/SystemDoctor.h"
#include "skills/MCPOAuthManager.h"

#include <QCoroTask>
#include <QObject>
#include <QPointer>
#include <QVariantList>

class ChatStore;

// What the views ask of the core beyond reading its properties: the store's and the speech
// service's asynchronous operations started without waiting, and the edits of the MCP server list.
// Results come back as signals so that a view never blocks on the network.
class CompanionActions : public QObject
{
    Q_OBJECT
    Q_PROPERTY(QVariantList gallery READ gallery CONSTANT)
    // The checks of `kelo doctor`, for the settings screen.
    Q_PROPERTY(SystemDoctor *doctor READ doctor CONSTANT)

public:
    explicit CompanionActions(ChatStore *store, QObject *parent = nullptr);

    QVariantList gallery() const;
    SystemDoctor *doctor() const { return m_doctor; }

    Q_INVOKABLE void clearConversation();
    Q_INVOKABLE void clearMemory();
    Q_INVOKABLE void testZenConnection();

    // `engine` is a VoiceEnginePreset raw value.
    Q_INVOKABLE void loadVoices(const QString &engine);
    Q_INVOKABLE void previewVoice(const QString &engine);
    // Opens the desktop's speech settings; false when there is none to open.
    Q_INVOKABLE bool openSpeechSettings();

    Q_INVOKABLE void checkServer(const QString &serverID);
    Q_INVOKABLE void setServerEnabled(const QString &serverID, bool enabled);
    Q_INVOKABLE void removeServer(const QString &serverID);
    Q_INVOKABLE void saveGalleryConnection(const QString &itemID, const QString &token, const QString &authLabel);
    Q_INVOKABLE void addManualServer(const QString &name, const QString &endpoint, const QString &token);

    Q_INVOKABLE void connectOAuth(const QString &itemID, const QString &clientID, const QString &clientSecret);
    Q_INVOKABLE void cancelOAuth();

Q_SIGNALS:
    void zenConnectionTested(const QString &text);
    void serverChecked(const QString &serverID, const QString &text);
    void oauthStatusChanged(const QString &text);
    // Exactly one of token and error is empty.
    void oauthFinished(const QString &itemID, const QString &token, const QString &error);

private:
    QCoro::Task<> runZenTest();
    QCoro::Task<> runServerCheck(QString serverID);
    QCoro::Task<> runVoiceLoad(QString engine);
    QCoro::Task<> runCloudPreview(QString engine);
    void serversChanged();

    ChatStore *m_store;
    QPointer<MCPOAuthManager> m_oauth;
    SystemDoctor *m_doctor;
    // The last OAuth connection: its token comes back through the view to be saved, its grant
    // (what renewing the token needs) is added here.
    QString m_connectedItemID;
    MCPOAuthManager::Connection m_connection;
};
