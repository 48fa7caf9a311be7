#include "AppSettings.h"

#include "FileSaveError.h"
#include "PrivateFile.h"
#include "SettingsFile.h"
#include "SystemPrompt.h"
#include "net/HeaderValues.h"
#include "system/VariantLists.h"

#include <QJsonDocument>

#include <algorithm>
#include <cmath>

namespace {

// Keys of the settings file; three of them differ from the property names.
namespace Key {
const QString zenModelID = QStringLiteral("zenModelID");
const QString personality = QStringLiteral("personality");
const QString responseLength = QStringLiteral("responseLength");
const QString customPrompt = QStringLiteral("customPrompt");
const QString autoSpeak = QStringLiteral("autoSpeak");
const QString internetEnabled = QStringLiteral("internet");
const QString preferOnDeviceSpeech = QStringLiteral("onDeviceSpeech");
const QString voiceRate = QStringLiteral("voiceRate");
const QString voiceIdentifier = QStringLiteral("voiceIdentifier");
const QString voiceEngine = QStringLiteral("voiceEngine");
const QString googleVoiceName = QStringLiteral("googleVoiceName");
const QString azureRegion = QStringLiteral("azureRegion");
const QString azureVoiceName = QStringLiteral("azureVoiceName");
const QString elevenVoiceID = QStringLiteral("elevenVoiceID");
const QString backgroundConversation = QStringLiteral("backgroundConversation");
const QString memoryEnabled = QStringLiteral("memoryEnabled");
const QString autoSkillsEnabled = QStringLiteral("autoSkillsEnabled");
const QString mcpServers = QStringLiteral("mcpServers");
} // namespace Key

// Keychain accounts are the property names.
namespace Account {
const QString zenAPIKey = QStringLiteral("zenAPIKey");
const QString googleTTSAPIKey = QStringLiteral("googleTTSAPIKey");
const QString azureSpeechKey = QStringLiteral("azureSpeechKey");
const QString elevenAPIKey = QStringLiteral("elevenAPIKey");
const QStringList all { zenAPIKey, googleTTSAPIKey, azureSpeechKey, elevenAPIKey };

// An MCP server's secrets, one item each, by the server's id.
QString mcpServer(const MCPServerConfig &server, const char *secret)
{
    return QStringLiteral("mcp.") + server.idString() + QLatin1Char('.') + QLatin1String(secret);
}

QList<QPair<QString, QString>> mcpSecrets(const MCPServerConfig &server)
{
    return { { mcpServer(server, "token"), server.bearerToken },
        { mcpServer(server, "refresh"), server.oauth.refreshToken },
        { mcpServer(server, "clientSecret"), server.oauth.clientSecret } };
}
} // namespace Account

// Set (non-empty) for headless runs: the Zen key to use instead of the stored one. It is never
// written to the keychain or the settings file.
constexpr const char *zenKeyVariable = "KELO_ZEN_API_KEY";

// An unchanged value is left alone (not rewritten, not announced), so a stored value that could not
// be read keeps its text until the user really changes that setting.
template<typename T> bool assign(T &member, const T &value)
{
    if (member == value)
        return false;
    member = value;
    return true;
}

// What the settings file holds for a value: enumerations as their raw values.
template<typename T> QVariant storedForm(const T &value)
{
    if constexpr (std::is_enum_v<T>)
        return Presets::rawValue(value);
    else
        return QVariant::fromValue(value);
}

// The stored form of the list: everything but the secrets.
QString serverListText(const QList<MCPServerConfig> &servers)
{
    const QJsonArray list = MCPServerConfig::listToJson(servers, MCPServerConfig::Secrets::omitted);
    return QString::fromUtf8(QJsonDocument(list).toJson(QJsonDocument::Compact));
}

QList<MCPServerConfig> readServers(const QSettings &settings)
{
    const QVariant value = settings.value(Key::mcpServers);
    QByteArray data;
    if (value.typeId() == QMetaType::QString)
        data = value.toString().toUtf8();
    else if (value.typeId() == QMetaType::QByteArray)
        data = value.toByteArray();
    else
        return {};
    return MCPServerConfig::listFromJson(data).value_or(QList<MCPServerConfig>());
}

} // namespace

AppSettings::AppSettings(QObject *parent)
    : QObject(parent)
    , m_defaults(QStringLiteral("Kelo"), QStringLiteral("KeloCompanion"))
{
    // The file is private: it exists with mode 0600 before anything is written to it (a list from an
    // older version may still carry MCP tokens until they are moved to the secure store).
    PrivateFile::ensure(m_defaults.fileName());

    m_zenModelID = SettingsFile::readString(m_defaults, Key::zenModelID, QStringLiteral("big-pickle"));
    m_zenAPIKey = m_secureStore.read(Account::zenAPIKey).value_or(QString());
    const QString zenKeyOverride = qEnvironmentVariable(zenKeyVariable);
    if (!zenKeyOverride.isEmpty())
        m_zenAPIKey = zenKeyOverride;
    m_personality = SettingsFile::readPreset(
        m_defaults, Key::personality, &Presets::personalityFromRawValue, PersonalityPreset::companion);
    m_responseLength = SettingsFile::readPreset(
        m_defaults, Key::responseLength, &Presets::responseLengthFromRawValue, ResponseLengthPreset::short_);
    m_customPrompt = SettingsFile::readString(m_defaults, Key::customPrompt, QString());
    m_autoSpeak = SettingsFile::readBool(m_defaults, Key::autoSpeak, true);
    m_internetEnabled = SettingsFile::readBool(m_defaults, Key::internetEnabled, true);
    m_preferOnDeviceSpeech = SettingsFile::readBool(m_defaults, Key::preferOnDeviceSpeech, true);
    m_voiceRate
        = std::clamp(SettingsFile::readDouble(m_defaults, Key::voiceRate, 0.45), minimumVoiceRate, maximumVoiceRate);
    m_voiceIdentifier = SettingsFile::readString(m_defaults, Key::voiceIdentifier, QString());
    m_voiceEngine = SettingsFile::readPreset(
        m_defaults, Key::voiceEngine, &Presets::voiceEngineFromRawValue, VoiceEnginePreset::appleLocal);
    m_googleTTSAPIKey = m_secureStore.read(Account::googleTTSAPIKey).value_or(QString());
    m_googleVoiceName = SettingsFile::readString(m_defaults, Key::googleVoiceName, QStringLiteral("ro-RO-Wavenet-B"));
    m_azureSpeechKey = m_secureStore.read(Account::azureSpeechKey).value_or(QString());
    m_azureRegion = SettingsFile::readString(m_defaults, Key::azureRegion, QStringLiteral("westeurope"));
    m_azureVoiceName = SettingsFile::readString(m_defaults, Key::azureVoiceName, QStringLiteral("ro-RO-AlinaNeural"));
    m_elevenVoiceID = SettingsFile::readString(m_defaults, Key::elevenVoiceID, QString());
    m_elevenAPIKey = m_secureStore.read(Account::elevenAPIKey).value_or(QString());
    m_backgroundConversationEnabled = SettingsFile::readBool(m_defaults, Key::backgroundConversation, false);
    m_memoryEnabled = SettingsFile::readBool(m_defaults, Key::memoryEnabled, true);
    m_autoSkillsEnabled = SettingsFile::readBool(m_defaults, Key::autoSkillsEnabled, true);
    // An undecodable list reads as empty; the stored text stays as it is until the list changes.
    m_mcpServers = loadServers();
}

AppSettings::~AppSettings() = default;

std::optional<QString> AppSettings::invalidValueReason(const QString &property, const QVariant &value)
{
    if (Account::all.contains(property) && HeaderValues::hasControlCharacters(value.toString()))
        return QStringLiteral("Cheia pentru %1 conține caractere de control (de exemplu un rând nou) și nu a fost "
                              "salvată. Copiază doar cheia, pe un singur rând.")
            .arg(property);
    if (property == Key::voiceRate) {
        const double rate = value.toDouble();
        if (!std::isfinite(rate) || rate < minimumVoiceRate || rate > maximumVoiceRate)
            return QStringLiteral("voiceRate acceptă un număr între 0.4 și 0.52 (0.5 este viteza normală).");
    }
    return std::nullopt;
}

template<typename T>
void AppSettings::setValue(T &member, const T &value, const QString &key, void (AppSettings::*signal)())
{
    if (!assign(member, value))
        return;
    persist(key, storedForm(value));
    announce(signal);
}

template<typename Enum> bool AppSettings::setPreset(std::optional<Enum> preset, void (AppSettings::*setter)(Enum))
{
    if (preset)
        (this->*setter)(*preset);
    return preset.has_value();
}

void AppSettings::assignSecret(
    QString &member, const QString &value, const QString &account, void (AppSettings::*signal)())
{
    if (HeaderValues::hasControlCharacters(value)) {
        qWarning("Cheia pentru %s conține caractere de control și nu a fost salvată.", qPrintable(account));
        return;
    }
    if (!assign(member, value))
        return;
    storeSecret(value, account);
    announce(signal);
}

QList<MCPServerConfig> AppSettings::storedMCPServers()
{
    return readServers(QSettings(QStringLiteral("Kelo"), QStringLiteral("KeloCompanion")));
}

void AppSettings::setZenModelID(const QString &value)
{
    setValue(m_zenModelID, value, Key::zenModelID, &AppSettings::zenModelIDChanged);
}

void AppSettings::setZenAPIKey(const QString &value)
{
    assignSecret(m_zenAPIKey, value, Account::zenAPIKey, &AppSettings::zenAPIKeyChanged);
}

void AppSettings::setPersonality(PersonalityPreset value)
{
    setValue(m_personality, value, Key::personality, &AppSettings::personalityChanged);
}

void AppSettings::setResponseLength(ResponseLengthPreset value)
{
    setValue(m_responseLength, value, Key::responseLength, &AppSettings::responseLengthChanged);
}

void AppSettings::setCustomPrompt(const QString &value)
{
    setValue(m_customPrompt, value, Key::customPrompt, &AppSettings::customPromptChanged);
}

void AppSettings::setAutoSpeak(bool value)
{
    setValue(m_autoSpeak, value, Key::autoSpeak, &AppSettings::autoSpeakChanged);
}

void AppSettings::setInternetEnabled(bool value)
{
    setValue(m_internetEnabled, value, Key::internetEnabled, &AppSettings::internetEnabledChanged);
}

void AppSettings::setPreferOnDeviceSpeech(bool value)
{
    setValue(m_preferOnDeviceSpeech, value, Key::preferOnDeviceSpeech, &AppSettings::preferOnDeviceSpeechChanged);
}

void AppSettings::setVoiceRate(double value)
{
    if (!std::isfinite(value))
        return;
    setValue(m_voiceRate, std::clamp(value, minimumVoiceRate, maximumVoiceRate), Key::voiceRate,
        &AppSettings::voiceRateChanged);
}

void AppSettings::setVoiceIdentifier(const QString &value)
{
    setValue(m_voiceIdentifier, value, Key::voiceIdentifier, &AppSettings::voiceIdentifierChanged);
}

void AppSettings::setVoiceEngine(VoiceEnginePreset value)
{
    setValue(m_voiceEngine, value, Key::voiceEngine, &AppSettings::voiceEngineChanged);
}

void AppSettings::setGoogleTTSAPIKey(const QString &value)
{
    assignSecret(m_googleTTSAPIKey, value, Account::googleTTSAPIKey, &AppSettings::googleTTSAPIKeyChanged);
}

void AppSettings::setGoogleVoiceName(const QString &value)
{
    setValue(m_googleVoiceName, value, Key::googleVoiceName, &AppSettings::googleVoiceNameChanged);
}

void AppSettings::setAzureSpeechKey(const QString &value)
{
    assignSecret(m_azureSpeechKey, value, Account::azureSpeechKey, &AppSettings::azureSpeechKeyChanged);
}

void AppSettings::setAzureRegion(const QString &value)
{
    setValue(m_azureRegion, value, Key::azureRegion, &AppSettings::azureRegionChanged);
}

void AppSettings::setAzureVoiceName(const QString &value)
{
    setValue(m_azureVoiceName, value, Key::azureVoiceName, &AppSettings::azureVoiceNameChanged);
}

void AppSettings::setElevenVoiceID(const QString &value)
{
    setValue(m_elevenVoiceID, value, Key::elevenVoiceID, &AppSettings::elevenVoiceIDChanged);
}

void AppSettings::setElevenAPIKey(const QString &value)
{
    assignSecret(m_elevenAPIKey, value, Account::elevenAPIKey, &AppSettings::elevenAPIKeyChanged);
}

void AppSettings::setBackgroundConversationEnabled(bool value)
{
    setValue(m_backgroundConversationEnabled, value, Key::backgroundConversation,
        &AppSettings::backgroundConversationEnabledChanged);
}

void AppSettings::setMemoryEnabled(bool value)
{
    setValue(m_memoryEnabled, value, Key::memoryEnabled, &AppSettings::memoryEnabledChanged);
}

void AppSettings::setAutoSkillsEnabled(bool value)
{
    setValue(m_autoSkillsEnabled, value, Key::autoSkillsEnabled, &AppSettings::autoSkillsEnabledChanged);
}

void AppSettings::setMcpServers(const QList<MCPServerConfig> &servers)
{
    const QList<MCPServerConfig> previous = m_mcpServers;
    if (!assign(m_mcpServers, servers))
        return;
    persistServers(previous);
    announce(&AppSettings::mcpServersChanged);
}

void AppSettings::reloadMcpServers()
{
    m_defaults.sync();
    if (assign(m_mcpServers, loadServers()))
        announce(&AppSettings::mcpServersChanged);
}

void AppSettings::updateMcpServerCredentials(const MCPServerConfig &server)
{
    QList<MCPServerConfig> servers = m_mcpServers;
    for (MCPServerConfig &existing : servers) {
        if (existing.id != server.id)
            continue;
        existing.bearerToken = server.bearerToken;
        existing.oauth = server.oauth;
        existing.needsReconnect = server.needsReconnect;
    }
    setMcpServers(servers);
}

bool AppSettings::setPersonalityRawValue(const QString &raw)
{
    return setPreset(Presets::personalityFromRawValue(raw), &AppSettings::setPersonality);
}

bool AppSettings::setResponseLengthRawValue(const QString &raw)
{
    return setPreset(Presets::responseLengthFromRawValue(raw), &AppSettings::setResponseLength);
}

bool AppSettings::setVoiceEngineRawValue(const QString &raw)
{
    return setPreset(Presets::voiceEngineFromRawValue(raw), &AppSettings::setVoiceEngine);
}

QVariantList AppSettings::mcpServerList() const
{
    return VariantLists::from(m_mcpServers);
}

QString AppSettings::systemPrompt(const QString &memorySummary) const
{
    return SystemPrompt::compose(m_personality, m_responseLength, memorySummary, m_customPrompt);
}

QList<MCPServerConfig> AppSettings::loadServers()
{
    QList<MCPServerConfig> servers = readServers(m_defaults);
    bool migrating = false;
    bool everySecretStored = true;
    for (MCPServerConfig &server : servers) {
        if (server.holdsSecrets()) {
            // Written before secrets moved to the secure store: they move now.
            migrating = true;
            try {
                everySecretStored = storeSecrets(server) && everySecretStored;
            } catch (const FileSaveError &) {
                everySecretStored = false; // the file keeps them until a later start can move them
            }
        } else {
            loadSecrets(server);
        }
    }
    // The file loses its secrets only once every one of them is safe elsewhere.
    if (migrating && everySecretStored)
        writeServerList(servers);
    return servers;
}

// Throws FileSaveError when the secure store's fallback file cannot be written.
bool AppSettings::storeSecrets(const MCPServerConfig &server)
{
    bool stored = true;
    for (const auto &[account, value] : Account::mcpSecrets(server)) {
        m_secureStore.write(value, account);
        stored = stored && m_secureStore.read(account).value_or(QString()) == value;
    }
    if (!stored)
        qWarning("kelo: the secure store did not keep the secrets of MCP server %s", qPrintable(server.idString()));
    return stored;
}

void AppSettings::loadSecrets(MCPServerConfig &server) const
{
    server.bearerToken = m_secureStore.read(Account::mcpServer(server, "token")).value_or(QString());
    server.oauth.refreshToken = m_secureStore.read(Account::mcpServer(server, "refresh")).value_or(QString());
    server.oauth.clientSecret = m_secureStore.read(Account::mcpServer(server, "clientSecret")).value_or(QString());
}

void AppSettings::persistServers(const QList<MCPServerConfig> &previous)
{
    QHash<QUuid, const MCPServerConfig *> before;
    for (const MCPServerConfig &server : previous)
        before.insert(server.id, &server);
    // The list on disk never names a server whose secrets are not safely stored: it would lose them.
    save([&] {
        for (const MCPServerConfig &server : std::as_const(m_mcpServers)) {
            const MCPServerConfig *old = before.take(server.id);
            if ((!old || Account::mcpSecrets(*old) != Account::mcpSecrets(server)) && !storeSecrets(server))
                throw FileSaveError(FileSaveError::Kind::other,
                    QStringLiteral("secretele serverului MCP %1").arg(server.name),
                    QStringLiteral("serviciul de chei nu le-a păstrat"));
        }
        // What is left was removed: its secrets go with it.
        for (const MCPServerConfig *removed : std::as_const(before)) {
            for (const auto &[account, value] : Account::mcpSecrets(*removed))
                m_secureStore.write(QString(), account);
        }
        SettingsFile::store(Key::mcpServers, serverListText(m_mcpServers));
    });
}

void AppSettings::writeServerList(const QList<MCPServerConfig> &servers)
{
    persist(Key::mcpServers, serverListText(servers));
}

template<typename Save> void AppSettings::save(Save &&write)
{
    QString failure;
    try {
        write();
    } catch (const FileSaveError &error) {
        failure = error.description();
    }
    if (failure == m_saveError)
        return;
    m_saveError = failure;
    Q_EMIT saveErrorChanged();
}

void AppSettings::persist(const QString &key, const QVariant &value)
{
    save([&] { SettingsFile::store(key, value); });
}

void AppSettings::storeSecret(const QString &value, const QString &account)
{
    save([&] { m_secureStore.write(value, account); });
}

void AppSettings::announce(void (AppSettings::*signal)())
{
    Q_EMIT(this->*signal)();
    Q_EMIT changed();
}
