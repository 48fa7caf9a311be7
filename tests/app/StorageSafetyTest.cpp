#include "../settings/SettingsTestSupport.h"
#include "AsyncTest.h"
#include "ChatCompletionReplies.h"
#include "FakeHttpServer.h"
#include "KeloProcess.h"
#include "TemporaryHome.h"
#include "conversation/ConversationMemoryStore.h"

#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QProcess>
#include <QRandomGenerator>
#include <QSettings>
#include <QTest>

using Reply = FakeHttpServer::Reply;
using Run = KeloProcess::Result;

using SettingsTestSupport::contents;
using SettingsTestSupport::writeFile;

namespace {

// Runs a command with the config and data homes on a small tmpfs of their own (a user and mount
// namespace, so no privileges are needed): the files the test prepared are copied in, the rest of
// the file system is filled (all of it, or that many KiB), the command runs, and what it left is copied
// back for the test to read. "readonly" instead mounts the config home read-only over itself.
const char *const diskScript = R"(
set -e
mode="$1"; home="$2"; fill="$3"; shift 3
mkdir -p "$home/config" "$home/data"
if [ "$mode" = readonly ]; then
    mount --bind "$home/config" "$home/config"
    mount -o remount,bind,ro "$home/config"
    exec "$@"
fi
disk="$home/disk"
mkdir -p "$disk"
mount -t tmpfs -o size=1m kelo-full "$disk"
cp -a "$home/config" "$home/data" "$disk/"
if [ "$fill" = all ]; then
    dd if=/dev/zero of="$disk/fill" bs=1k 2>/dev/null || true
else
    dd if=/dev/zero of="$disk/fill" bs=1k count="$fill" 2>/dev/null
fi
set +e
XDG_CONFIG_HOME="$disk/config" XDG_DATA_HOME="$disk/data" "$@"
code=$?
rm -f "$disk/fill"
rm -rf "$home/config" "$home/data"
cp -a "$disk/config" "$disk/data" "$home/"
exit $code
)";

} // namespace

// What `kelo` leaves on disk when it is killed, when the disk is full or read-only, and what it
// must never touch: the user's data survives, and every failed save is told.
class StorageSafetyTest : public QObject
{
    Q_OBJECT

    std::unique_ptr<TemporaryHome> m_home;
    std::unique_ptr<FakeHttpServer> m_service;

    QList<QPair<QString, QString>> environment() const
    {
        return { { QStringLiteral("KELO_ZEN_BASE_URL"), m_service->baseUrl() },
            { QStringLiteral("KELO_WHISPER_MODEL_BASE_URL"), m_service->baseUrl() },
            { QStringLiteral("KELO_ZEN_API_KEY"), QStringLiteral("cheie") } };
    }

    Run kelo(const QStringList &arguments)
    {
        return KeloProcess::run(QStringLiteral(KELO_CLI_PATH), arguments, { environment() });
    }

    Run keloOnDisk(const QString &mode, const QString &fill, const QStringList &arguments, const QByteArray &input = {})
    {
        return KeloProcess::run(QStringLiteral("unshare"),
            QStringList { "-rm", "sh", "-c", diskScript, "sh", mode, m_home->path(), fill, KELO_CLI_PATH } + arguments,
            { environment(), input });
    }

    QString memoryFile() const { return m_home->dataHome() + QStringLiteral("/Kelo/conversation-memory.json"); }
    QString settingsFile() const { return SettingsTestSupport::settingsPath(*m_home); }
    QString secretsFile() const { return SettingsTestSupport::secretsPath(*m_home); }

    static bool namespacesAvailable() { return QProcess::execute(QStringLiteral("unshare"), { "-rm", "true" }) == 0; }

    // A conversation, a changed setting, a secret in the fallback file and an MCP server.
    void seedEveryFile()
    {
        QCOMPARE(kelo({ "ask", "primul" }).exitCode, 0);
        QCOMPARE(kelo({ "config", "set", "customPrompt", "vechi" }).exitCode, 0);
        QCOMPARE(kelo({ "config", "set", "elevenAPIKey", "sk-vechi-1234" }).exitCode, 0);
        QCOMPARE(kelo({ "mcp", "add", "Vechi", "http://127.0.0.1:9/mcp" }).exitCode, 0);
    }

    // Messages the app reads back, or -1 when the file could not be read whole.
    int readableMessages() const
    {
        const ConversationMemoryStore memory(m_home->dataHome() + QStringLiteral("/Kelo"), nullptr);
        return memory.recoveredCopyPath().isEmpty() ? int(memory.messages().size()) : -1;
    }

private Q_SLOTS:
    void init()
    {
        m_home = std::make_unique<TemporaryHome>();
        m_service = std::make_unique<FakeHttpServer>();
        m_service->on("POST", "/chat/completions", Reply::json(ChatCompletionReplies::completion("da")));
    }

    void cleanup()
    {
        m_service.reset();
        m_home.reset();
    }

    // Killed mid-write, every file is the old or the new whole content and the next run works.
    void killedAtRandomMomentsEveryFileStaysWhole()
    {
        seedEveryFile();
        // The quickest of three runs: a busy machine must not stretch every delay.
        qint64 typicalMs = std::numeric_limits<qint64>::max();
        for (int i = 0; i < 3; ++i) {
            const Run timed = kelo({ "ask", "cronometrat" });
            QCOMPARE(timed.exitCode, 0);
            typicalMs = std::min(typicalMs, std::max<qint64>(timed.elapsedMs, 40));
        }

        QProcessEnvironment processEnvironment = QProcessEnvironment::systemEnvironment();
        for (const auto &[name, value] : environment())
            processEnvironment.insert(name, value);
        int messagesBefore = readableMessages();
        int kills = 0;
        int round = 0;
        for (; kills < 60 && round < 300; ++round) {
            const bool ask = round % 3 != 2;
            if (ask) {
                // Without the flag the next start rewrites the settings file as well.
                QSettings settings(settingsFile(), QSettings::IniFormat);
                settings.remove(QStringLiteral("kelo.didRemoveLegacyLocalModels.v2"));
            }
            QProcess process;
            process.setProcessEnvironment(processEnvironment);
            const QString value = QStringLiteral("valoare-%1").arg(round);
            process.start(QStringLiteral(KELO_CLI_PATH),
                ask ? QStringList { "ask", "tura", value }
                    : QStringList { "config", "set", round % 2 ? "customPrompt" : "elevenAPIKey", value });
            QVERIFY(process.waitForStarted());
            // Mostly in the later part of a run, where its writes are.
            const int delayMs = int(typicalMs / 4 + QRandomGenerator::global()->bounded(typicalMs));
            AsyncTest::waitUntil([&] { return process.state() == QProcess::NotRunning; }, delayMs);
            const bool killed = process.state() != QProcess::NotRunning;
            if (killed) {
                process.kill();
                QVERIFY(process.waitForFinished(5'000));
                ++kills;
            }
            // Follow the machine's pace: earlier after a run that finished, later after a cut one.
            typicalMs = killed ? typicalMs * 21 / 20 : std::max<qint64>(typicalMs * 4 / 5, 20);

            const int messages = readableMessages();
            QVERIFY2(messages >= messagesBefore,
                qPrintable(
                    QStringLiteral("round %1: %2 messages, %3 before").arg(round).arg(messages).arg(messagesBefore)));
            messagesBefore = messages;
            QSettings settings(settingsFile(), QSettings::IniFormat);
            QVERIFY2(settings.allKeys().contains(QStringLiteral("mcpServers")), qPrintable(contents(settingsFile())));
            QCOMPARE(settings.status(), QSettings::NoError);
            QVERIFY(settings.value(QStringLiteral("customPrompt")).toString().startsWith(QLatin1String("v")));
            const QJsonObject secrets = QJsonDocument::fromJson(contents(secretsFile())).object();
            QVERIFY2(secrets.value("ro.kelo.KeloCompanion")["elevenAPIKey"].toString().size() > 3,
                qPrintable(contents(secretsFile())));
            if (round % 10 == 9)
                QCOMPARE(kelo({ "ask", "după" }).exitCode, 0);
        }
        const Run after = kelo({ "ask", "la final" });
        QCOMPARE(after.exitCode, 0);
        QCOMPARE(after.out, QStringLiteral("da\n"));
        QVERIFY2(kills >= 50, qPrintable(QStringLiteral("%1 of %2 runs killed mid-way").arg(kills).arg(round)));
    }

    // On a full or read-only disk every save fails with the reason and leaves the old file whole; an
    // answer is still printed and a chat goes on.
    void aFullOrReadOnlyDiskKeepsEveryFile()
    {
        if (!namespacesAvailable())
            QSKIP("unshare -rm is not available: no private tmpfs or read-only mount can be made here");
        seedEveryFile();
        const QByteArray memory = contents(memoryFile());
        const QByteArray settings = contents(settingsFile());
        const QByteArray secrets = contents(secretsFile());
        QVERIFY(settings.contains("customPrompt=vechi") && settings.contains("Vechi"));
        QVERIFY(secrets.contains("sk-vechi-1234"));
        const QString noSpace = QStringLiteral("spațiu insuficient pe disc");

        const Run ask = keloOnDisk("full", "all", { "ask", "al doilea" });
        QCOMPARE(ask.out, QStringLiteral("da\n"));
        QCOMPARE(ask.exitCode, 1);
        QVERIFY2(ask.err.contains(noSpace), qPrintable(ask.err));
        QCOMPARE(QDir(m_home->dataHome() + "/Kelo").entryList(QDir::Files | QDir::Hidden).size(), 1);
        // The chat answers every line and says once that the memory is not being saved.
        const Run chat = keloOnDisk("full", "all", { "chat" }, "unu\ndoi\n");
        QCOMPARE(chat.out.count(QStringLiteral("Kelo: da")), 3); // the last message shown at start, two answers
        QCOMPARE(chat.err.count(noSpace), 1);
        QCOMPARE(chat.exitCode, 1);
        QCOMPARE(contents(memoryFile()), memory);

        for (const QStringList &command : { QStringList { "config", "set", "customPrompt", "nou" },
                 QStringList { "config", "set", "elevenAPIKey", "sk-nou-5678" },
                 QStringList { "mcp", "add", "Nou", "http://127.0.0.1:9/nou" },
                 QStringList { "mcp", "disable", "Vechi" }, QStringList { "mcp", "remove", "Vechi" } }) {
            const Run full = keloOnDisk("full", "all", command);
            QVERIFY2(full.exitCode == 1, qPrintable(command.join(' ')));
            QVERIFY2(full.lastErrorLine().contains(noSpace), qPrintable(full.err));
            QCOMPARE(contents(settingsFile()), settings);
            QCOMPARE(contents(secretsFile()), secrets);
        }
        const Run readOnly = keloOnDisk("readonly", "0", { "config", "set", "customPrompt", "nou" });
        QCOMPARE(readOnly.exitCode, 1);
        QVERIFY2(readOnly.lastErrorLine().contains("nu am permisiunea de a scrie"), qPrintable(readOnly.err));
        QCOMPARE(contents(settingsFile()), settings);

        // A model download that fills the disk leaves the installed model and no partial file.
        const QString installed = m_home->dataHome() + "/Kelo/models/ggml-tiny.bin";
        writeFile(installed, "model instalat înainte");
        m_service->on("GET", "/ggml-tiny.bin", Reply::text(QByteArray(2 << 20, 'w'), 200, "application/octet-stream"));
        const Run download = keloOnDisk("full", "600", { "model", "download", "tiny" });
        QCOMPARE(download.exitCode, 1);
        QVERIFY2(download.err.contains(noSpace), qPrintable(download.err));
        QCOMPARE(contents(installed), QByteArray("model instalat înainte"));
        QVERIFY(!QFile::exists(installed + ".part"));
        QCOMPARE(kelo({ "ask", "după" }).exitCode, 0);
        QCOMPARE(kelo({ "config", "get", "elevenAPIKey", "--show-secrets" }).out, QStringLiteral("sk-vechi-1234\n"));
    }

    void startUpLeavesOtherProgramsAndSoundSettingsAlone()
    {
        const QString foreign
            = m_home->cacheHome() + QStringLiteral("/huggingface/hub/models--mlx-community--qwen-x/file");
        const QString ours = m_home->cacheHome() + QStringLiteral("/Kelo/models--mlx-community--qwen-x/file");
        writeFile(foreign, "altcineva");
        writeFile(ours, "rămășiță");
        QCOMPARE(kelo({ "--version" }).exitCode, 0);
        QCOMPARE(kelo({ "ask", "salut" }).exitCode, 0);
        QCOMPARE(contents(foreign), QByteArray("altcineva"));
        QVERIFY(!QFile::exists(ours));

        const QByteArray settings = contents(settingsFile());
        const QDateTime modified = QFileInfo(settingsFile()).lastModified();
        QTest::qWait(20);
        QCOMPARE(kelo({ "--version" }).exitCode, 0);
        QCOMPARE(kelo({ "config", "get", "customPrompt" }).exitCode, 0);
        QCOMPARE(contents(settingsFile()), settings);
        QCOMPARE(QFileInfo(settingsFile()).lastModified(), modified);
    }

    // Copied aside once, before the first rewrite.
    void damagedSettingsAreKeptAsideBeforeAnyRewrite()
    {
        const QByteArray damaged = "[General\ncustomPrompt=păstrat\nlinie fără egal\n\x01\x02";
        writeFile(settingsFile(), damaged);
        const Run first = kelo({ "--version" });
        QCOMPARE(first.exitCode, 0);
        QVERIFY2(first.err.contains(QStringLiteral("O copie a fost păstrată")), qPrintable(first.err));
        QCOMPARE(kelo({ "config", "set", "autoSpeak", "false" }).exitCode, 0);

        const QStringList copies = QDir(m_home->configHome() + "/Kelo").entryList({ "KeloCompanion.damaged-*.conf" });
        QCOMPARE(copies.size(), 1);
        QCOMPARE(contents(m_home->configHome() + "/Kelo/" + copies.first()), damaged);
        QVERIFY(contents(settingsFile()).contains("autoSpeak=false"));
        QCOMPARE(QSettings(settingsFile(), QSettings::IniFormat).status(), QSettings::NoError);
    }
};

QTEST_GUILESS_MAIN(StorageSafetyTest)
#include "StorageSafetyTest.moc"
