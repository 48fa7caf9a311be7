#include "settings/AppSettings.h"

#include "SettingsTestSupport.h"
#include "TemporaryHome.h"

#include <QJsonDocument>
#include <QSignalSpy>
#include <QTest>

using namespace SettingsTestSupport;

class AppSettingsTest : public QObject
{
    Q_OBJECT

    static MCPServerConfig server(const QString &name, const QString &token)
    {
        return { QUuid::createUuid(), name, "https://mcp.example.ro/" + name, token, true, {}, {} };
    }

private Q_SLOTS:
    // Every stored setting written and read back by a new run (defaults are the hand-edited rows below).
    void everyValueSurvivesARestart()
    {
        const QList<std::pair<const char *, QVariant>> all { { "zenModelID", "gpt-5-nano" },
            { "zenAPIKey", "  sk-zen  " }, { "personality", "Direct" }, { "responseLength", "Detaliat" },
            { "customPrompt", "  Spune-mi Ana, te rog.\nFără „glume”; mulțumesc = ok  " }, { "autoSpeak", false },
            { "internetEnabled", false }, { "preferOnDeviceSpeech", false }, { "voiceRate", 0.5 },
            { "voiceIdentifier", "Romanian+Adam" }, { "voiceEngine", "Google Cloud TTS" },
            { "googleTTSAPIKey", "g-key" }, { "googleVoiceName", "ro-RO-Standard-A" }, { "azureSpeechKey", "a-key" },
            { "azureRegion", "northeurope" }, { "azureVoiceName", "ro-RO-EmilNeural" }, { "elevenVoiceID", "v1" },
            { "elevenAPIKey", "e-key" }, { "backgroundConversationEnabled", true }, { "memoryEnabled", false },
            { "autoSkillsEnabled", false } };
        ScopedUmask permissive(0);
        TemporaryHome firstRun;
        ScopedEnvironment noOverride("KELO_ZEN_API_KEY", QString());
        const QList<MCPServerConfig> servers { server("notite", "tok=,\"1\""), server("calendar", {}) };
        {
            AppSettings settings;
            // Reading alone writes nothing but the empty, private file; it stays private.
            QVERIFY(contents(settingsPath(firstRun)).trimmed().isEmpty() && isOwnerOnly(settingsPath(firstRun)));
            for (const auto &[name, changed] : all)
                QVERIFY2(settings.setProperty(name, changed) && settings.property(name) == changed, name);
            settings.setMcpServers(servers);
            QVERIFY(isOwnerOnly(settingsPath(firstRun)));
        }
        TemporaryHome secondRun;
        copyConfig(firstRun, secondRun);
        AppSettings settings;
        for (const auto &[name, changed] : all)
            QVERIFY2(settings.property(name) == changed, name);
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

    // Keys that would inject headers, wild rates and unknown titles are neither stored nor announced.
    void hostileValuesAreNotStoredAndOnlyRealChangesAnnounced()
    {
        TemporaryHome home;
        ScopedEnvironment noOverride("KELO_ZEN_API_KEY", QString());
        AppSettings settings;
        QSignalSpy changed(&settings, &AppSettings::changed);
        QSignalSpy rateChanged(&settings, &AppSettings::voiceRateChanged);
        settings.setVoiceRate(0.45);
        settings.setMcpServers({});
        QVERIFY(!settings.setPersonalityRawValue("calm"));
        QVERIFY(!settings.setResponseLengthRawValue("Lung"));
        QVERIFY(!settings.setVoiceEngineRawValue("apple local"));
        for (const char *name : { "zenAPIKey", "googleTTSAPIKey", "azureSpeechKey", "elevenAPIKey" }) {
            for (const QString &key : { QString("sk\r\nX-Injected: 1"), QString("sk\u007f") }) {
                QVERIFY(settings.setProperty(name, key));
                QCOMPARE(settings.property(name).toString(), QString());
            }
        }
        QVERIFY(!contents(secretsPath(home)).contains("sk"));
        for (double rate : { qQNaN(), qInf(), -qInf() })
            settings.setVoiceRate(rate);
        QCOMPARE(settings.voiceRate(), 0.45);
        QCOMPARE(changed.size(), 0);
        settings.setVoiceRate(-5);
        QCOMPARE(settings.voiceRate(), AppSettings::minimumVoiceRate);
        settings.setVoiceRate(3);
        QCOMPARE(settings.voiceRate(), AppSettings::maximumVoiceRate);
        QVERIFY(contents(settingsPath(home)).contains("\nvoiceRate=0.52\n"));
        settings.setMcpServers({ server("a", {}) });
        QCOMPARE(rateChanged.size(), 2);
        QCOMPARE(changed.size(), 3);
    }

    // Hand-edited or foreign values: the right kind is honoured, anything else is the default.
    void storedValuesAreReadOnlyWhenTheyAreOfTheRightKind()
    {
        const QList<std::tuple<QByteArray, const char *, QVariant>> cases { { "autoSpeak=abc", "autoSpeak", true },
            { "internet=FALSE", "internetEnabled", false }, { "onDeviceSpeech=0", "preferOnDeviceSpeech", true },
            { "backgroundConversation=yes", "backgroundConversationEnabled", false },
            { "backgroundConversation=TRUE", "backgroundConversationEnabled", true },
            { "voiceRate=x", "voiceRate", 0.45 }, { "voiceRate=nan", "voiceRate", 0.45 },
            { "voiceRate=0.52", "voiceRate", 0.52 }, { "voiceRate=-5", "voiceRate", AppSettings::minimumVoiceRate },
            { "personality=calm", "personality", "Companion" }, { "voiceEngine=Piper", "voiceEngine", "Apple Local" },
            { "zenModelID=a, b", "zenModelID", "big-pickle" } };
        for (const auto &[line, property, expected] : cases) {
            TemporaryHome home;
            writeFile(settingsPath(home), "[General]\n" + line + "\n");
            QVERIFY2(AppSettings().property(property) == expected, line.constData());
        }

        // An unknown title and an undecodable server list stay in the file until the user changes them; a
        // file an older run left readable by others is narrowed at once.
        TemporaryHome home;
        writeFile(settingsPath(home), "[General]\npersonality=calm\nmcpServers=\"[{\\\"name\\\":\\\"fara id\\\"}]\"\n");
        QFile::setPermissions(
            settingsPath(home), QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ReadOther);
        AppSettings settings;
        QVERIFY(isOwnerOnly(settingsPath(home)) && settings.mcpServers().isEmpty());
        settings.setAutoSpeak(false);
        QVERIFY(contents(settingsPath(home)).contains("\npersonality=calm"));
        QVERIFY(contents(settingsPath(home)).contains("\nmcpServers=[{\\\"name\\\":\\\"fara id\\\"}]\n"));
        settings.setPersonality(PersonalityPreset::calm);
        settings.setMcpServers({ server("nou", "secret") });
        const QByteArray changed = contents(settingsPath(home));
        QVERIFY(changed.contains("\npersonality=Calm") && !changed.contains("fara id"));
    }

    void mcpSecretsLiveInTheSecureStoreAndLeaveWithTheirServer()
    {
        TemporaryHome home;
        MCPServerConfig connected = server("notite", "tok-A");
        connected.oauth = { QString("https://auth.example.ro/token"), QString("kelo"),
            QString("https://mcp.example.ro/notite"), QString("ref-B"), QString("sec-C"),
            QDateTime::fromSecsSinceEpoch(QDateTime::currentSecsSinceEpoch() + 3600, Qt::UTC) };
        const MCPServerConfig plain = server("calendar", {});
        AppSettings(nullptr).setMcpServers({ connected, plain });
        const QByteArray file = contents(settingsPath(home));
        for (const char *secret : { "tok-A", "ref-B", "sec-C" }) {
            QVERIFY2(!file.contains(secret), secret);
            QVERIFY2(contents(secretsPath(home)).contains(secret), secret);
        }
        QVERIFY(file.contains("auth.example.ro/token"));

        TemporaryHome next;
        copyConfig(home, next);
        AppSettings settings;
        QCOMPARE(settings.mcpServers(), QList<MCPServerConfig>({ connected, plain }));

        // Secrets leave with their server, and a renewal for it does not bring them back (renewals of a
        // listed server are driven by the journeys).
        settings.setMcpServers({ plain });
        for (const char *secret : { "tok-A", "ref-B", "sec-C" })
            QVERIFY2(!contents(secretsPath(next)).contains(secret), secret);
        settings.updateMcpServerCredentials(connected);
        QCOMPARE(settings.mcpServers(), QList<MCPServerConfig>({ plain }));
    }

    void tokensOfAnOlderListMoveToTheSecureStore()
    {
        const QByteArray legacy = "[General]\nmcpServers=\"[{\\\"id\\\":\\\"6F9619FF-8B86-D011-B42D-00C04FC964FF\\\","
                                  "\\\"name\\\":\\\"vechi\\\",\\\"endpoint\\\":\\\"https://m.example.ro/mcp\\\","
                                  "\\\"bearerToken\\\":\\\"legacy-tok\\\",\\\"enabled\\\":true}]\"\n";
        // When the secure store cannot keep it (a folder in its way), the file stays as it was, token and all.
        for (const bool storable : { true, false }) {
            TemporaryHome home;
            writeFile(settingsPath(home), legacy);
            if (!storable)
                QDir().mkpath(secretsPath(home));
            AppSettings settings;
            QCOMPARE(settings.mcpServers().value(0).bearerToken, QString("legacy-tok"));
            const QByteArray file = contents(settingsPath(home));
            QCOMPARE(file == legacy, !storable);
            QVERIFY(file.contains("vechi") && file.contains("legacy-tok") != storable);
            QCOMPARE(contents(secretsPath(home)).contains("legacy-tok"), storable);
        }
    }

    // Memory before personal instructions, each trimmed; blank ones add nothing.
    void systemPromptComposesPersonaMemoryAndInstructions()
    {
        TemporaryHome home;
        AppSettings settings;
        const QString bare = settings.systemPrompt(QString());
        settings.setCustomPrompt(QString(" \t\n"));
        QCOMPARE(settings.systemPrompt(QString("  \n")), bare);

        settings.setPersonality(PersonalityPreset::direct);
        settings.setResponseLength(ResponseLengthPreset::balanced);
        settings.setCustomPrompt(QString("\n  Spune-mi Ana.\nFără emoji.  \n"));
        const QString both = settings.systemPrompt(QString("  Ana are o pisică.\n"));
        QVERIFY(both.contains(Presets::promptSentence(PersonalityPreset::direct) + QLatin1Char('\n')
            + Presets::promptSentence(ResponseLengthPreset::balanced)));
        QVERIFY(both.endsWith("în locul presupunerilor.\nMemorie de conversație:\nAna are o pisică.\n"
                              "Instrucțiuni personale:\nSpune-mi Ana.\nFără emoji."));
    }
};

QTEST_GUILESS_MAIN(AppSettingsTest)
#include "AppSettingsTest.moc"
