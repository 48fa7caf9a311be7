#pragma once

#include "Presets.h"
#include "SecureStore.h"
#include "skills/MCPServerConfig.h"

#include <QObject>
#include <QSettings>
#include <QVariantList>
#include <QtQml/qqmlregistration.h>

// Every user preference, loaded once at start and written back the moment it changes. Credentials
// live in the keychain through SecureStore; everything else in QSettings under the keys below.
// Enumerations reach QML and the command line as their raw values (the titles the user sees).
class AppSettings : public QObject
{
    Q_OBJECT
    QML_ELEMENT
    QML_UNCREATABLE("AppSettings belongs to the ChatStore")

    Q_PROPERTY(QString zenModelID READ zenModelID WRITE setZenModelID NOTIFY zenModelIDChanged)
    Q_PROPERTY(QString zenAPIKey READ zenAPIKey WRITE setZenAPIKey NOTIFY zenAPIKeyChanged)
    Q_PROPERTY(QString personality READ personalityRawValue WRITE setPersonalityRawValue NOTIFY personalityChanged)
    Q_PROPERTY(
        QString responseLength READ responseLengthRawValue WRITE setResponseLengthRawValue NOTIFY responseLengthChanged)
    Q_PROPERTY(QString customPrompt READ customPrompt WRITE setCustomPrompt NOTIFY customPromptChanged)
    Q_PROPERTY(bool autoSpeak READ autoSpeak WRITE setAutoSpeak NOTIFY autoSpeakChanged)
    Q_PROPERTY(bool internetEnabled READ internetEnabled WRITE setInternetEnabled NOTIFY internetEnabledChanged)
    Q_PROPERTY(bool preferOnDeviceSpeech READ preferOnDeviceSpeech WRITE setPreferOnDeviceSpeech NOTIFY
            preferOnDeviceSpeechChanged)
    Q_PROPERTY(double voiceRate READ voiceRate WRITE setVoiceRate NOTIFY voiceRateChanged)
    Q_PROPERTY(QString voiceIdentifier READ voiceIdentifier WRITE setVoiceIdentifier NOTIFY voiceIdentifierChanged)
    Q_PROPERTY(QString voiceEngine READ voiceEngineRawValue WRITE setVoiceEngineRawValue NOTIFY voiceEngineChanged)
    Q_PROPERTY(QString googleTTSAPIKey READ googleTTSAPIKey WRITE setGoogleTTSAPIKey NOTIFY googleTTSAPIKeyChanged)
    Q_PROPERTY(QString googleVoiceName READ googleVoiceName WRITE setGoogleVoiceName NOTIFY googleVoiceNameChanged)
    Q_PROPERTY(QString azureSpeechKey READ azureSpeechKey WRITE setAzureSpeechKey NOTIFY azureSpeechKeyChanged)
    Q_PROPERTY(QString azureRegion READ azureRegion WRITE setAzureRegion NOTIFY azureRegionChanged)
    Q_PROPERTY(QString azureVoiceName READ azureVoiceName WRITE setAzureVoiceName NOTIFY azureVoiceNameChanged)
    Q_PROPERTY(QString elevenVoiceID READ elevenVoiceID WRITE setElevenVoiceID NOTIFY elevenVoiceIDChanged)
    Q_PROPERTY(QString elevenAPIKey READ elevenAPIKey WRITE setElevenAPIKey NOTIFY elevenAPIKeyChanged)
    Q_PROPERTY(bool backgroundConversationEnabled READ backgroundConversationEnabled WRITE
            setBackgroundConversationEnabled NOTIFY backgroundConversationEnabledChanged)
    Q_PROPERTY(bool memoryEnabled READ memoryEnabled WRITE setMemoryEnabled NOTIFY memoryEnabledChanged)
    Q_PROPERTY(bool autoSkillsEnabled READ autoSkillsEnabled WRITE setAutoSkillsEnabled NOTIFY autoSkillsEnabledChanged)
    Q_PROPERTY(QList<MCPServerConfig> mcpServers READ mcpServers NOTIFY mcpServersChanged)

    Q_PROPERTY(bool secretsInFile READ secretsInFile CONSTANT)
    Q_PROPERTY(QString saveError READ saveError NOTIFY saveErrorChanged)

public:
    // The local voice's rate, stored on a 0…1 scale (0.5 = normal); the synthesiser clamps to it anyway.
    static constexpr double minimumVoiceRate = 0.4;
    static constexpr double maximumVoiceRate = 0.52;

    // Why a value cannot be stored in the named setting (Romanian, for the user), or nothing when it
    // can: keys with control characters, rates that are not finite or out of range. The setters
    // ignore keys and rates that are not finite and clamp the others; the command line refuses them.
    static std::optional<QString> invalidValueReason(const QString &property, const QVariant &value);

    // Loads every value from QSettings ("Kelo"/"KeloCompanion", INI, mode 0600) and the keychain.
    explicit AppSettings(QObject *parent = nullptr);
    ~AppSettings() override;

    QString zenModelID() const { return m_zenModelID; }
    void setZenModelID(const QString &value);
    QString zenAPIKey() const { return m_zenAPIKey; }
    void setZenAPIKey(const QString &value);
    PersonalityPreset personality() const { return m_personality; }
    void setPersonality(PersonalityPreset value);
    ResponseLengthPreset responseLength() const { return m_responseLength; }
    void setResponseLength(ResponseLengthPreset value);
    QString customPrompt() const { return m_customPrompt; }
    void setCustomPrompt(const QString &value);
    bool autoSpeak() const { return m_autoSpeak; }
    void setAutoSpeak(bool value);
    bool internetEnabled() const { return m_internetEnabled; }
    void setInternetEnabled(bool value);
    bool preferOnDeviceSpeech() const { return m_preferOnDeviceSpeech; }
    void setPreferOnDeviceSpeech(bool value);
    double voiceRate() const { return m_voiceRate; }
    void setVoiceRate(double value);
    QString voiceIdentifier() const { return m_voiceIdentifier; }
    void setVoiceIdentifier(const QString &value);
    VoiceEnginePreset voiceEngine() const { return m_voiceEngine; }
    void setVoiceEngine(VoiceEnginePreset value);
    QString googleTTSAPIKey() const { return m_googleTTSAPIKey; }
    void setGoogleTTSAPIKey(const QString &value);
    QString googleVoiceName() const { return m_googleVoiceName; }
    void setGoogleVoiceName(const QString &value);
    QString azureSpeechKey() const { return m_azureSpeechKey; }
    void setAzureSpeechKey(const QString &value);
    QString azureRegion() const { return m_azureRegion; }
    void setAzureRegion(const QString &value);
    QString azureVoiceName() const { return m_azureVoiceName; }
    void setAzureVoiceName(const QString &value);
    QString elevenVoiceID() const { return m_elevenVoiceID; }
    void setElevenVoiceID(const QString &value);
    QString elevenAPIKey() const { return m_elevenAPIKey; }
    void setElevenAPIKey(const QString &value);
    bool backgroundConversationEnabled() const { return m_backgroundConversationEnabled; }
    void setBackgroundConversationEnabled(bool value);
    bool memoryEnabled() const { return m_memoryEnabled; }
    void setMemoryEnabled(bool value);
    bool autoSkillsEnabled() const { return m_autoSkillsEnabled; }
    void setAutoSkillsEnabled(bool value);
    QList<MCPServerConfig> mcpServers() const { return m_mcpServers; }
    // The stored server list read straight from the settings file, without the keychain and without
    // creating anything: for the shell's completion, which must answer in milliseconds.
    static QList<MCPServerConfig> storedMCPServers();
    // The servers' secrets go to the secure store (a removed server's are deleted there), the rest
    // to the settings file.
    void setMcpServers(const QList<MCPServerConfig> &servers);
    // Takes a server's renewed credentials (or its reconnect mark); nothing else of it changes, and
    // a server no longer in the list stays out.
    void updateMcpServerCredentials(const MCPServerConfig &server);
    // Reads the server list again from the settings file: another Kelo process (the command line
    // beside the app) may have changed it.
    void reloadMcpServers();

    // Raw-value views of the enumerations, for QML and the command line. An unknown raw value is
    // ignored (the setting keeps its value) and the call returns false.
    QString personalityRawValue() const { return Presets::rawValue(m_personality); }
    bool setPersonalityRawValue(const QString &raw);
    QString responseLengthRawValue() const { return Presets::rawValue(m_responseLength); }
    bool setResponseLengthRawValue(const QString &raw);
    QString voiceEngineRawValue() const { return Presets::rawValue(m_voiceEngine); }
    bool setVoiceEngineRawValue(const QString &raw);
    QVariantList mcpServerList() const;

    // The system message of every request, composed from persona, length, memory and the user's
    // own instructions.
    Q_INVOKABLE QString systemPrompt(const QString &memorySummary) const;

    // True when no Secret Service answered and credentials are kept in a 0600 file instead.
    bool secretsInFile() const { return m_secureStore.usesFileFallback(); }
    QString settingsFilePath() const { return m_defaults.fileName(); }
    // Why the last change could not be saved (Romanian), empty once a save succeeds. The value in
    // memory keeps the change for this session.
    QString saveError() const { return m_saveError; }

Q_SIGNALS:
    void zenModelIDChanged();
    void zenAPIKeyChanged();
    void personalityChanged();
    void responseLengthChanged();
    void customPromptChanged();
    void autoSpeakChanged();
    void internetEnabledChanged();
    void preferOnDeviceSpeechChanged();
    void voiceRateChanged();
    void voiceIdentifierChanged();
    void voiceEngineChanged();
    void googleTTSAPIKeyChanged();
    void googleVoiceNameChanged();
    void azureSpeechKeyChanged();
    void azureRegionChanged();
    void azureVoiceNameChanged();
    void elevenVoiceIDChanged();
    void elevenAPIKeyChanged();
    void backgroundConversationEnabledChanged();
    void memoryEnabledChanged();
    void autoSkillsEnabledChanged();
    void mcpServersChanged();
    // Any property changed (after its own signal); the store forwards this to its observers.
    void changed();
    void saveErrorChanged();

private:
    // Takes, writes and announces one preference kept in the settings file.
    template<typename T> void setValue(T &member, const T &value, const QString &key, void (AppSettings::*signal)());
    // The raw-value setters: false for a raw value no preset has.
    template<typename Enum> bool setPreset(std::optional<Enum> preset, void (AppSettings::*setter)(Enum));
    // Stores a keychain credential unless it holds control characters (it would break the header it
    // is sent in).
    void assignSecret(QString &member, const QString &value, const QString &account, void (AppSettings::*signal)());
    QList<MCPServerConfig> loadServers();
    void persistServers(const QList<MCPServerConfig> &previous);
    void writeServerList(const QList<MCPServerConfig> &servers);
    // Writes the server's secrets to the secure store; true when they read back the same.
    bool storeSecrets(const MCPServerConfig &server);
    void loadSecrets(MCPServerConfig &server) const;
    // Writes one value to the settings file at once and keeps the file private.
    void persist(const QString &key, const QVariant &value);
    void storeSecret(const QString &value, const QString &account);
    // Runs one save and records its outcome in saveError.
    template<typename Save> void save(Save &&write);
    // Emits the property's own signal, then changed().
    void announce(void (AppSettings::*signal)());

    QSettings m_defaults;
    SecureStore m_secureStore;
    QString m_saveError;

    QString m_zenModelID;
    QString m_zenAPIKey;
    PersonalityPreset m_personality = PersonalityPreset::companion;
    ResponseLengthPreset m_responseLength = ResponseLengthPreset::short_;
    QString m_customPrompt;
    bool m_autoSpeak = true;
    bool m_internetEnabled = true;
    bool m_preferOnDeviceSpeech = true;
    double m_voiceRate = 0.45;
    QString m_voiceIdentifier;
    VoiceEnginePreset m_voiceEngine = VoiceEnginePreset::appleLocal;
    QString m_googleTTSAPIKey;
    QString m_googleVoiceName;
    QString m_azureSpeechKey;
    QString m_azureRegion;
    QString m_azureVoiceName;
    QString m_elevenVoiceID;
    QString m_elevenAPIKey;
    bool m_backgroundConversationEnabled = false;
    bool m_memoryEnabled = true;
    bool m_autoSkillsEnabled = true;
    QList<MCPServerConfig> m_mcpServers;
};
