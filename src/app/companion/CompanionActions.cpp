#include "CompanionActions.h"

#include "conversation/ChatStore.h"
#include "net/Detached.h"
#include "net/KeloError.h"
#include "settings/AppSettings.h"
#include "skills/MCPEndpoint.h"
#include "skills/MCPGalleryItem.h"
#include "skills/MCPOAuthManager.h"
#include "skills/MCPServerListEditor.h"
#include "system/SystemDoctor.h"
#include "voice/SpeechSynthesizer.h"

#include <QProcess>
#include <QStandardPaths>

CompanionActions::CompanionActions(ChatStore *store, QObject *parent)
    : QObject(parent)
    , m_store(store)
    , m_doctor(new SystemDoctor(store, this))
{ }

QList<MCPGalleryItem> CompanionActions::gallery()
{
    return MCPGalleryItem::gallery();
}

void CompanionActions::clearConversation()
{
    m_store->clearConversation();
}

void CompanionActions::clearMemory()
{
    m_store->clearMemory();
}

QCoro::QmlTask CompanionActions::testZenConnection()
{
    return zenTestText();
}

QCoro::Task<QString> CompanionActions::zenTestText()
{
    // The failure is the answer the view shows, so it ends here as text.
    try {
        QString text = co_await m_store->testZenConnection();
        co_return text;
    } catch (...) {
        co_return describeException(std::current_exception());
    }
}

void CompanionActions::loadVoices(const QString &engine)
{
    startDetached(runVoiceLoad(engine));
}

QCoro::Task<> CompanionActions::runVoiceLoad(QString engine)
{
    AppSettings *settings = m_store->settings();
    // The synthesizer reports its own failures through lastError.
    if (const auto preset = Presets::voiceEngineFromRawValue(engine))
        co_await m_store->synthesizer()->refreshVoices(*preset, settings);
}

void CompanionActions::previewVoice(const QString &engine)
{
    const auto preset = Presets::voiceEngineFromRawValue(engine);
    if (!preset)
        return;
    if (*preset == VoiceEnginePreset::appleLocal) {
        // speak() uses the selected engine, which is the local one whenever its card shows.
        m_store->synthesizer()->speak(SpeechSynthesizer::localVoiceSample(), m_store->settings());
        return;
    }
    startDetached(runCloudPreview(*preset));
}

QCoro::Task<> CompanionActions::runCloudPreview(VoiceEnginePreset engine)
{
    co_await m_store->synthesizer()->previewCloudVoice(engine, m_store->settings());
}

bool CompanionActions::openSpeechSettings()
{
    // Desktops have no common speech settings page; GNOME's accessibility panel is the closest.
    const QString gnomeControlCenter = QStandardPaths::findExecutable(QStringLiteral("gnome-control-center"));
    if (gnomeControlCenter.isEmpty())
        return false;
    return QProcess::startDetached(gnomeControlCenter, { QStringLiteral("universal-access") });
}

QCoro::QmlTask CompanionActions::checkServer(const QString &serverID)
{
    return serverCheckText(serverID);
}

QCoro::Task<QString> CompanionActions::serverCheckText(QString serverID)
{
    const MCPServerConfig *found = MCPServerListEditor::find(m_store->settings()->mcpServers(), serverID);
    if (!found)
        co_return QStringLiteral("Serverul nu mai există în listă.");
    const MCPServerConfig server = *found;
    // The failure is the answer the view shows, so it ends here as text.
    try {
        QString text = co_await m_store->listMCPTools(server);
        co_return text;
    } catch (...) {
        co_return describeException(std::current_exception());
    }
}

QString CompanionActions::endpointError(const QString &endpoint)
{
    return MCPEndpoint::validationError(endpoint);
}

void CompanionActions::setServerEnabled(const QString &serverID, bool enabled)
{
    AppSettings *settings = m_store->settings();
    settings->setMcpServers(MCPServerListEditor::withEnabled(settings->mcpServers(), serverID, enabled));
    serversChanged();
}

void CompanionActions::removeServer(const QString &serverID)
{
    AppSettings *settings = m_store->settings();
    settings->setMcpServers(MCPServerListEditor::without(settings->mcpServers(), serverID));
    serversChanged();
}

void CompanionActions::saveGalleryConnection(const QString &itemID, const QString &token, const QString &authLabel)
{
    const MCPGalleryItem *item = MCPGalleryItem::find(itemID);
    if (!item)
        return;
    const bool fromOAuth = itemID == m_connectedItemID && !token.isEmpty() && token == m_connection.accessToken;
    const MCPOAuthGrant grant = fromOAuth ? m_connection.grant : MCPOAuthGrant();
    m_connectedItemID.clear();
    m_connection = {};
    AppSettings *settings = m_store->settings();
    settings->setMcpServers(
        MCPServerListEditor::withGalleryConnection(settings->mcpServers(), *item, token, authLabel, grant));
    serversChanged();
}

QString CompanionActions::addManualServer(const QString &name, const QString &endpoint, const QString &token)
{
    const QString refusal = MCPEndpoint::validationError(endpoint);
    if (!refusal.isEmpty())
        return refusal;
    AppSettings *settings = m_store->settings();
    QList<MCPServerConfig> servers = settings->mcpServers();
    servers.append(MCPServerListEditor::manualServer(name, endpoint, token));
    settings->setMcpServers(servers);
    serversChanged();
    return {};
}

void CompanionActions::serversChanged()
{
    // The next turn must see the new list, not the cached tools.
    m_store->invalidateMCPBindings();
}

void CompanionActions::connectOAuth(const QString &itemID, const QString &clientID, const QString &clientSecret)
{
    cancelOAuth();
    auto *oauth = new MCPOAuthManager(this);
    m_oauth = oauth;
    connect(oauth, &MCPOAuthManager::statusTextChanged, this, [this, oauth] {
        if (m_oauth == oauth)
            Q_EMIT oauthStatusChanged(oauth->statusText());
    });
    // A cancelled flow still reports its failure; only the current flow speaks to the sheet.
    connect(
        oauth, &MCPOAuthManager::connected, this, [this, oauth, itemID](const MCPOAuthManager::Connection &connection) {
            if (m_oauth == oauth) {
                m_connectedItemID = itemID;
                m_connection = connection;
                Q_EMIT oauthFinished(itemID, connection.accessToken, QString());
            }
            oauth->deleteLater();
        });
    connect(oauth, &MCPOAuthManager::failed, this, [this, oauth, itemID](const QString &message) {
        if (m_oauth == oauth)
            Q_EMIT oauthFinished(itemID, QString(), message);
        oauth->deleteLater();
    });
    oauth->start(itemID, clientID, clientSecret);
}

void CompanionActions::cancelOAuth()
{
    if (!m_oauth)
        return;
    MCPOAuthManager *previous = m_oauth;
    m_oauth = nullptr;
    previous->cancel();
}
