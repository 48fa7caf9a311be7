#pragma once

#include "settings/Presets.h"
#include "skills/MCPGalleryItem.h"
#include "skills/MCPOAuthManager.h"
#include "system/SystemDoctor.h"

#include <QCoroQmlTask>
#include <QCoroTask>
#include <QObject>
#include <QPointer>
#include <QtQml/qqmlregistration.h>

class ChatStore;

// What the views ask of the core beyond reading its properties: the store's and the speech
// service's asynchronous operations, and the edits of the MCP server list. An answer the view shows
// comes back through the returned task's then(), so a view never blocks on the network.
class CompanionActions : public QObject
{
    Q_OBJECT
    QML_ELEMENT
    QML_UNCREATABLE("CompanionActions belongs to the app")
    Q_PROPERTY(QList<MCPGalleryItem> gallery READ gallery CONSTANT)
    // The checks of `kelo doctor`, for the settings screen.
    Q_PROPERTY(SystemDoctor *doctor READ doctor CONSTANT)

public:
    explicit CompanionActions(ChatStore *store, QObject *parent = nullptr);

    static QList<MCPGalleryItem> gallery();
    SystemDoctor *doctor() const { return m_doctor; }

    Q_INVOKABLE void clearConversation();
    Q_INVOKABLE void clearMemory();
    // Resolves to the Romanian outcome: the connection's summary or why it failed.
    Q_INVOKABLE QCoro::QmlTask testZenConnection();
    QCoro::Task<QString> zenTestText();

    // `engine` is a VoiceEnginePreset raw value.
    Q_INVOKABLE void loadVoices(const QString &engine);
    Q_INVOKABLE void previewVoice(const QString &engine);
    // Opens the desktop's speech settings; false when there is none to open.
    Q_INVOKABLE bool openSpeechSettings();

    // Resolves to the server's tools, one per line, or why they could not be listed.
    Q_INVOKABLE QCoro::QmlTask checkServer(const QString &serverID);
    QCoro::Task<QString> serverCheckText(QString serverID);
    // Why the text cannot be a server's endpoint, or an empty string.
    Q_INVOKABLE static QString endpointError(const QString &endpoint);
    Q_INVOKABLE void setServerEnabled(const QString &serverID, bool enabled);
    Q_INVOKABLE void removeServer(const QString &serverID);
    Q_INVOKABLE void saveGalleryConnection(const QString &itemID, const QString &token, const QString &authLabel);
    // Returns why the endpoint was refused (nothing is saved then), or an empty string.
    Q_INVOKABLE QString addManualServer(const QString &name, const QString &endpoint, const QString &token);

    Q_INVOKABLE void connectOAuth(const QString &itemID, const QString &clientID, const QString &clientSecret);
    Q_INVOKABLE void cancelOAuth();

Q_SIGNALS:
    void oauthStatusChanged(const QString &text);
    // Exactly one of token and error is empty.
    void oauthFinished(const QString &itemID, const QString &token, const QString &error);

private:
    QCoro::Task<> runVoiceLoad(QString engine);
    QCoro::Task<> runCloudPreview(VoiceEnginePreset engine);
    void serversChanged();

    ChatStore *m_store;
    QPointer<MCPOAuthManager> m_oauth;
    SystemDoctor *m_doctor;
    // The last OAuth connection: its token comes back through the view to be saved, its grant
    // (what renewing the token needs) is added here.
    QString m_connectedItemID;
    MCPOAuthManager::Connection m_connection;
};
