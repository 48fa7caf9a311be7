#include "settings/AppSettings.h"

#include "SettingsTestSupport.h"
#include "TemporaryHome.h"

#include <QJsonDocument>
#include <QSignalSpy>
#include <QTest>

using namespace SettingsTestSupport;

namespace {
MCPServerConfig server(const QString &name, const QString &token)
{
    MCPServerConfig config;
    config.id = QUuid::createUuid();
    config.name = name;
    config.endpoint = QStringLiteral("https://mcp.example.ro/") + name;
    config.bearerToken = token;
    return config;
}

const QString promptRulesEnd = QStringLiteral("preferă rezultatul real al instrumentului în locul presupunerilor.\n");
} // namespace

class AppSettingsTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    // Every stored setting: its value on a fresh install, then one written and read back by a new run.
    void everyValueHasItsDefaultAndSurvivesARestart()
    {
        struct Setting
        {
            const char *name;
            QVariant fresh;
            QVariant changed;
        };
        const QList<Setting> all { { "zenModelID", "big-pickle", "gpt-5-nano" }, { "zenAPIKey", "", "  sk-zen  " },
            { "personality", "Companion", "Direct" }, { "responseLength", "Scurt", "Detaliat" },
            { "customPrompt", "", "  Spune-mi Ana, te rog.\nFără „glume”; mulțumesc = ok  " },
            { "autoSpeak", true, false }, { "internetEnabled", true, false }, { "preferOnDeviceSpeech", true, false },
            { "voiceRate", 0.45, 0.5 }, { "voiceIdentifier", "", "Romanian+Adam" },
            { "voiceEngine", "Apple Local", "Google Cloud TTS" }, { "googleTTSAPIKey", "", "g-key" },
            { "googleVoiceName", "ro-RO-Wavenet-B", "ro-RO-Standard-A" }, { "azureSpeechKey", "", "a-key" },
            { "azureRegion", "westeurope", "northeurope" },
            { "azureVoiceName", "ro-RO-AlinaNeural", "ro-RO-EmilNeural" }, { "elevenVoiceID", "", "v1" },
            { "elevenAPIKey", "", "e-key" }, { "backgroundConversationEnabled", false, true },
            { "memoryEnabled", true, false }, { "autoSkillsEnabled", true, false } };
        TemporaryHome firstRun;
        ScopedEnvironment noOverride("KELO_ZEN_API_KEY", QString());
        const QList<MCPServerConfig> servers { server(QStringLiteral("notite"), QStringLiteral("tok=,\"1\"")),
            server(QStringLiteral("calendar"), QString()) };
        {
            AppSettings settings;
            for (const Setting &setting : all)
                QVERIFY2(settings.property(setting.name) == setting.fresh, setting.name);
            QVERIFY(settings.mcpServers().isEmpty());
            // Reading alone writes nothing but the empty, private file.
            QVERIFY(contents(settingsPath(firstRun)).trimmed().isEmpty());
            for (const Setting &setting : all)
                QVERIFY2(settings.setProperty(setting.name, setting.changed), setting.name);
            settings.setMcpServers(servers);
        }
        TemporaryHome secondRun;
        copyConfig(firstRun, secondRun);
        AppSettings settings;
        for (const Setting &setting : all)
            QVERIFY2(settings.property(setting.name) == setting.changed, setting.name);
        QCOMPARE(settings.personality(), PersonalityPreset::direct);
        QCOMPARE(settings.responseLength(), ResponseLengthPreset::detailed);
        QCOMPARE(settings.voiceEngine(), VoiceEnginePreset::googleCloud);
        QCOMPARE(settings.mcpServers(), servers);

        // Three file keys differ from the property names; no credential is in the file.
        const QByteArray file = contents(settingsPath(secondRun));
        for (const char *line :
            { "\ninternet=false", "\nonDeviceSpeech=false", "\nbackgroundConversation=true", "\npersonality=Direct" })
            QVERIFY2(file.contains(line), line);
        for (const char *absent : { "internetEnabled", "sk-zen", "g-key", "a-key", "e-key", "tok=", "bearerToken" })
            QVERIFY2(!file.contains(absent), absent);
        // Without a keychain they are in the private secrets file, and the app says so.
        QVERIFY(settings.secretsInFile());
        QVERIFY(contents(secretsPath(secondRun)).contains("\"azureSpeechKey\": \"a-key\""));
    }

    void settersAnnounceRealChangesOnlyAndRefuseUnknownTitles()
    {
        TemporaryHome home;
        AppSettings settings;
        QSignalSpy changed(&settings, &AppSettings::changed);
        QSignalSpy rateChanged(&settings, &AppSettings::voiceRateChanged);
        QSignalSpy serversChanged(&settings, &AppSettings::mcpServersChanged);

        settings.setVoiceRate(0.45);
        settings.setMcpServers({});
        QCOMPARE(changed.size(), 0);

        settings.setVoiceRate(0.4);
        QCOMPARE(rateChanged.size(), 1);
        QCOMPARE(changed.size(), 1);
        settings.setMcpServers({ server(QStringLiteral("a"), QString()) });
        QCOMPARE(serversChanged.size(), 1);
        QCOMPARE(changed.size(), 2);

        // Unknown titles are refused and change nothing.
        QVERIFY(!settings.setPersonalityRawValue(QStringLiteral("calm")));
        QVERIFY(!settings.setResponseLengthRawValue(QStringLiteral("Lung")));
        QVERIFY(!settings.setVoiceEngineRawValue(QStringLiteral("apple local")));
        QCOMPARE(settings.personality(), PersonalityPreset::companion);
        QCOMPARE(settings.responseLength(), ResponseLengthPreset::short_);
        QCOMPARE(settings.voiceEngine(), VoiceEnginePreset::appleLocal);
        QCOMPARE(changed.size(), 2);

        QVERIFY(settings.setProperty("personality", QStringLiteral("Creativ")));
        QCOMPARE(settings.personality(), PersonalityPreset::creative);
        QVERIFY(contents(settingsPath(home)).contains("\npersonality=Creativ"));
    }

    // A line break in a key would inject request headers; a wild rate would reach the synthesiser.
    void keysWithControlCharactersAndImpossibleRatesAreNotStored()
    {
        TemporaryHome home;
        ScopedEnvironment noOverride("KELO_ZEN_API_KEY", QString());
        AppSettings settings;
        QSignalSpy changed(&settings, &AppSettings::changed);
        for (const char *name : { "zenAPIKey", "googleTTSAPIKey", "azureSpeechKey", "elevenAPIKey" }) {
            for (const QString &key :
                { QStringLiteral("sk\r\nX-Injected: 1"), QStringLiteral("sk\t1"), QStringLiteral("sk\u007f") }) {
                QVERIFY(settings.setProperty(name, key));
                QCOMPARE(settings.property(name).toString(), QString());
                const auto reason = AppSettings::invalidValueReason(QLatin1String(name), key);
                QVERIFY2(reason && reason->contains(QStringLiteral("caractere de control")), name);
            }
            QVERIFY(!AppSettings::invalidValueReason(QLatin1String(name), QStringLiteral("  sk-ăâ-1  ")));
        }
        QVERIFY(!contents(secretsPath(home)).contains("sk"));

        for (double rate : { qQNaN(), qInf(), -qInf() }) {
            settings.setVoiceRate(rate);
            QCOMPARE(settings.voiceRate(), 0.45);
            QVERIFY(AppSettings::invalidValueReason(QStringLiteral("voiceRate"), rate));
        }
        QCOMPARE(changed.size(), 0);
        settings.setVoiceRate(-5);
        QCOMPARE(settings.voiceRate(), AppSettings::minimumVoiceRate);
        settings.setVoiceRate(3);
        QCOMPARE(settings.voiceRate(), AppSettings::maximumVoiceRate);
        QCOMPARE(storedText(settingsPath(home), QStringLiteral("voiceRate")), QStringLiteral("0.52"));
        QVERIFY(AppSettings::invalidValueReason(QStringLiteral("voiceRate"), -5.0));
        QVERIFY(!AppSettings::invalidValueReason(QStringLiteral("voiceRate"), 0.4));
    }

    // Hand-edited or foreign values: the right kind is honoured, anything else is the default.
    void storedValuesAreReadOnlyWhenTheyAreOfTheRightKind()
    {
        const QList<std::tuple<QByteArray, const char *, QVariant>> cases { { "autoSpeak=abc", "autoSpeak", true },
            { "autoSpeak=False", "autoSpeak", false }, { "internet=FALSE", "internetEnabled", false },
            { "onDeviceSpeech=0", "preferOnDeviceSpeech", true },
            { "backgroundConversation=yes", "backgroundConversationEnabled", false },
            { "backgroundConversation=TRUE", "backgroundConversationEnabled", true },
            { "voiceRate=x", "voiceRate", 0.45 }, { "voiceRate=nan", "voiceRate", 0.45 },
            { "voiceRate=-inf", "voiceRate", 0.45 }, { "voiceRate=0.52", "voiceRate", 0.52 },
            { "voiceRate=-5", "voiceRate", AppSettings::minimumVoiceRate },
            { "personality=calm", "personality", "Companion" },
            { "responseLength=Echilibrat", "responseLength", "Echilibrat" },
            { "voiceEngine=Piper", "voiceEngine", "Apple Local" }, { "zenModelID=a, b", "zenModelID", "big-pickle" },
            { "azureRegion=@ByteArray(northeurope)", "azureRegion", "westeurope" } };
        for (const auto &[line, property, expected] : cases) {
            TemporaryHome home;
            writeFile(settingsPath(home), "[General]\n" + line + "\n");
            QVERIFY2(AppSettings().property(property) == expected, line.constData());
        }

        // An unknown title stays in the file until the user picks a personality.
        TemporaryHome home;
        writeFile(settingsPath(home), "[General]\npersonality=calm\n");
        AppSettings settings;
        settings.setAutoSpeak(false);
        QVERIFY(contents(settingsPath(home)).contains("\npersonality=calm"));
        settings.setPersonality(PersonalityPreset::calm);
        QVERIFY(contents(settingsPath(home)).contains("\npersonality=Calm"));
    }

    void undecodableServerListIsKeptUntilTheListChanges()
    {
        TemporaryHome home;
        const QString blob = QStringLiteral("[{\"name\":\"fara id\"}]");
        writeFile(settingsPath(home), "[General]\nmcpServers=\"[{\\\"name\\\":\\\"fara id\\\"}]\"\n");
        AppSettings settings;
        QVERIFY(settings.mcpServers().isEmpty());

        settings.setMemoryEnabled(false);
        QCOMPARE(storedText(settingsPath(home), QStringLiteral("mcpServers")), blob);

        const QList<MCPServerConfig> servers { server(QStringLiteral("nou"), QStringLiteral("secret")) };
        settings.setMcpServers(servers);
        QVERIFY(!contents(settingsPath(home)).contains("fara id"));
        TemporaryHome next;
        copyConfig(home, next);
        QCOMPARE(AppSettings().mcpServers(), servers);
    }

    void mcpSecretsLiveInTheSecureStoreAndLeaveWithTheirServer()
    {
        TemporaryHome home;
        MCPServerConfig connected = server(QStringLiteral("notite"), QStringLiteral("tok-A"));
        connected.oauth = { QStringLiteral("https://auth.example.ro/token"), QStringLiteral("kelo"),
            QStringLiteral("https://mcp.example.ro/notite"), QStringLiteral("ref-B"), QStringLiteral("sec-C"),
            QDateTime::fromSecsSinceEpoch(QDateTime::currentSecsSinceEpoch() + 3600, Qt::UTC) };
        const MCPServerConfig plain = server(QStringLiteral("calendar"), QString());
        AppSettings(nullptr).setMcpServers({ connected, plain });
        QByteArray file = contents(settingsPath(home));
        for (const char *secret : { "tok-A", "ref-B", "sec-C" }) {
            QVERIFY2(!file.contains(secret), secret);
            QVERIFY2(contents(secretsPath(home)).contains(secret), secret);
        }
        QVERIFY(file.contains("auth.example.ro/token"));

        TemporaryHome next;
        copyConfig(home, next);
        AppSettings settings;
        QCOMPARE(settings.mcpServers(), QList<MCPServerConfig>({ connected, plain }));

        // Renewed credentials change the credentials and nothing else.
        MCPServerConfig renewed = connected;
        renewed.name = QStringLiteral("altul");
        renewed.bearerToken = QStringLiteral("tok-D");
        renewed.needsReconnect = true;
        settings.updateMcpServerCredentials(renewed);
        QCOMPARE(settings.mcpServers().first().name, QStringLiteral("notite"));
        QCOMPARE(settings.mcpServers().first().bearerToken, QStringLiteral("tok-D"));
        QVERIFY(settings.mcpServers().first().needsReconnect);
        QVERIFY(settings.mcpServerList().first().value<MCPServerConfig>().needsReconnect);
        QVERIFY(contents(settingsPath(next)).contains("needsReconnect"));
        QVERIFY(!contents(settingsPath(next)).contains("tok-D"));

        settings.setMcpServers({ plain });
        for (const char *secret : { "tok-D", "ref-B", "sec-C" })
            QVERIFY2(!contents(secretsPath(next)).contains(secret), secret);
        // Credentials of a server no longer listed are not brought back.
        settings.updateMcpServerCredentials(renewed);
        QCOMPARE(settings.mcpServers(), QList<MCPServerConfig>({ plain }));
    }

    void tokensOfAnOlderListMoveToTheSecureStore()
    {
        const QByteArray legacy = "[General]\nmcpServers=\"[{\\\"id\\\":\\\"6F9619FF-8B86-D011-B42D-00C04FC964FF\\\","
                                  "\\\"name\\\":\\\"vechi\\\",\\\"endpoint\\\":\\\"https://m.example.ro/mcp\\\","
                                  "\\\"bearerToken\\\":\\\"legacy-tok\\\",\\\"enabled\\\":true}]\"\n";
        {
            TemporaryHome home;
            writeFile(settingsPath(home), legacy);
            AppSettings settings;
            QCOMPARE(settings.mcpServers().size(), 1);
            QCOMPARE(settings.mcpServers().first().bearerToken, QStringLiteral("legacy-tok"));
            QVERIFY(!contents(settingsPath(home)).contains("legacy-tok"));
            QVERIFY(contents(settingsPath(home)).contains("vechi"));
            QVERIFY(contents(secretsPath(home)).contains("legacy-tok"));
        }
        {
            // The secure store cannot keep it: the file stays as it was, token and all.
            TemporaryHome home;
            writeFile(settingsPath(home), legacy);
            QDir().mkpath(secretsPath(home));
            AppSettings settings;
            QCOMPARE(settings.mcpServers().first().bearerToken, QStringLiteral("legacy-tok"));
            QCOMPARE(contents(settingsPath(home)), legacy);
        }
    }

    void settingsFileIsPrivateFromTheStart()
    {
        ScopedUmask permissive(0);
        TemporaryHome home;
        {
            AppSettings settings;
            QVERIFY(isOwnerOnly(settingsPath(home)));
            settings.setMcpServers({ server(QStringLiteral("x"), QStringLiteral("bearer")) });
            settings.setCustomPrompt(QStringLiteral("salut"));
            QVERIFY(isOwnerOnly(settingsPath(home)));
        }
        // A file left readable by an older run is narrowed as soon as the app starts.
        TemporaryHome older;
        writeFile(settingsPath(older), "[General]\nautoSpeak=false\n");
        QFile::setPermissions(settingsPath(older),
            QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ReadGroup | QFileDevice::ReadOther);
        AppSettings settings;
        QVERIFY(isOwnerOnly(settingsPath(older)));
        QVERIFY(!settings.autoSpeak());
    }

    // Memory before personal instructions, each trimmed; blank ones add nothing.
    void systemPromptComposesPersonaMemoryAndInstructions()
    {
        TemporaryHome home;
        AppSettings settings;
        const QString bare = settings.systemPrompt(QString());
        QVERIFY(bare.contains(Presets::promptSentence(PersonalityPreset::companion) + QLatin1Char('\n')
            + Presets::promptSentence(ResponseLengthPreset::short_) + QStringLiteral("\nNu expune")));
        QVERIFY(bare.endsWith(promptRulesEnd + QLatin1Char('\n')));
        settings.setCustomPrompt(QStringLiteral(" \t\n"));
        QCOMPARE(settings.systemPrompt(QStringLiteral("  \n")), bare);

        settings.setPersonality(PersonalityPreset::direct);
        settings.setResponseLength(ResponseLengthPreset::balanced);
        settings.setCustomPrompt(QStringLiteral("\n  Spune-mi Ana.\nFără emoji.  \n"));
        const QString both = settings.systemPrompt(QStringLiteral("  Ana are o pisică.\n"));
        QVERIFY(both.contains(Presets::promptSentence(PersonalityPreset::direct) + QLatin1Char('\n')
            + Presets::promptSentence(ResponseLengthPreset::balanced)));
        QVERIFY(both.endsWith(promptRulesEnd
            + QStringLiteral(
                "Memorie de conversație:\nAna are o pisică.\nInstrucțiuni personale:\nSpune-mi Ana.\nFără emoji.")));
        QVERIFY(settings.systemPrompt(QString()).endsWith(
            promptRulesEnd + QStringLiteral("\nInstrucțiuni personale:\nSpune-mi Ana.\nFără emoji.")));
        settings.setCustomPrompt(QString());
        QVERIFY(settings.systemPrompt(QStringLiteral("rezumat"))
                    .endsWith(promptRulesEnd + QStringLiteral("Memorie de conversație:\nrezumat\n")));
    }
};

QTEST_GUILESS_MAIN(AppSettingsTest)
#include "AppSettingsTest.moc"
