#include "AsyncTest.h"
#include "ChatCompletionReplies.h"
#include "FakeHttpServer.h"
#include "KeloProcess.h"
#include "TemporaryHome.h"
#include "VoiceTestSupport.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QHash>
#include <QJsonArray>
#include <QJsonDocument>
#include <QProcess>
#include <QStandardPaths>
#include <QTest>

using Reply = FakeHttpServer::Reply;
using VoiceTestSupport::FakeCloudVoices;

namespace {

const QString kAnswer = QStringLiteral(
    "Bună ziua, sunt Kelo și îți răspund imediat. Prima propoziție ajunge la voce cât timp scriu restul. "
    "A doua propoziție urmează fără pauză. A treia nu mai e rostită dacă mă întrerupi. Iar a patra e ultima.");

QString runTool(const QString &program, const QStringList &arguments)
{
    QProcess process;
    process.start(program, arguments);
    if (!process.waitForFinished(10'000) || process.exitCode() != 0)
        return {};
    return QString::fromUtf8(process.readAllStandardOutput());
}

// Sound streams the given process has open on the test services' PulseAudio server.
int streamsOf(qint64 pid)
{
    const QString owner = QStringLiteral("application.process.id = \"%1\"").arg(pid);
    return int(
        runTool(QStringLiteral("pactl"), { QStringLiteral("list"), QStringLiteral("sink-inputs") }).count(owner));
}

// A virtual X display of its own, so the real window can be typed into and clicked.
class VirtualDisplay
{
public:
    VirtualDisplay()
    {
        for (int number = 70; number < 100 && m_name.isEmpty(); ++number) {
            if (QFile::exists(QStringLiteral("/tmp/.X11-unix/X%1").arg(number)))
                continue;
            m_server.start(QStringLiteral("Xvfb"),
                { QStringLiteral(":%1").arg(number), QStringLiteral("-screen"), QStringLiteral("0"),
                    QStringLiteral("1024x900x24"), QStringLiteral("-nolisten"), QStringLiteral("tcp") });
            const QString socket = QStringLiteral("/tmp/.X11-unix/X%1").arg(number);
            if (AsyncTest::waitUntil([&] { return QFile::exists(socket); }, 5'000))
                m_name = QStringLiteral(":%1").arg(number);
            else
                m_server.kill();
        }
    }
    ~VirtualDisplay()
    {
        m_server.terminate();
        m_server.waitForFinished(5'000);
    }
    QString name() const { return m_name; }

private:
    QProcess m_server;
    QString m_name;
};

struct WindowGeometry
{
    int x = 0, y = 0, width = 0, height = 0;
};

} // namespace

// The desktop app under a virtual display, driven with the keyboard and the mouse: a typed question
// is shown and spoken sentence by sentence while the model still writes, and holding Space (the orb's
// key) silences it and ends the answer where it was.
class CompanionJourneyTest : public QObject
{
    Q_OBJECT

    QString m_display;

    QString xdotool(const QStringList &arguments)
    {
        QProcess process;
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(QStringLiteral("DISPLAY"), m_display);
        process.setProcessEnvironment(environment);
        process.start(QStringLiteral("xdotool"), arguments);
        process.waitForFinished(10'000);
        return QString::fromUtf8(process.readAllStandardOutput());
    }

    std::optional<WindowGeometry> windowOf(qint64 pid)
    {
        const QString window = xdotool({ "search", "--pid", QString::number(pid) }).split('\n').value(0);
        if (window.isEmpty())
            return std::nullopt;
        QHash<QString, int> fields;
        for (const QString &line : xdotool({ "getwindowgeometry", "--shell", window }).split('\n'))
            fields.insert(line.section('=', 0, 0), line.section('=', 1).toInt());
        const WindowGeometry geometry { fields["X"], fields["Y"], fields["WIDTH"], fields["HEIGHT"] };
        return geometry.height > 0 ? std::optional(geometry) : std::nullopt;
    }

    void click(int x, int y) { xdotool({ "mousemove", QString::number(x), QString::number(y), "click", "1" }); }

private Q_SLOTS:
    void initTestCase()
    {
        for (const char *tool : { "Xvfb", "xdotool", "pactl" })
            if (QStandardPaths::findExecutable(QString::fromLatin1(tool)).isEmpty())
                QSKIP(qPrintable(QStringLiteral("%1 is needed to drive the desktop app").arg(tool)));
    }

    void typedQuestionIsSpokenWhileWrittenAndSpaceCutsItOff()
    {
        KELO_REQUIRE_AUDIO();
        const QByteArray mp3 = VoiceTestSupport::makeSpeechMp3(QStringLiteral("Aceasta este o frază rostită."));
        if (mp3.isEmpty())
            QSKIP("espeak-ng and lame are needed to make test audio");
        TemporaryHome home;
        FakeCloudVoices voices;
        const QString speech = FakeCloudVoices::synthesisPath(VoiceEnginePreset::googleCloud);
        voices.server().on("POST", speech, FakeCloudVoices::audio(VoiceEnginePreset::googleCloud, mp3));
        FakeHttpServer model;
        model.on(
            "POST", "/chat/completions", Reply::eventStreamChunks(ChatCompletionReplies::streamedWords(kAnswer), 200));
        ScopedEnvironment zen("KELO_ZEN_BASE_URL", model.baseUrl());
        ScopedEnvironment key("KELO_ZEN_API_KEY", QStringLiteral("cheie"));
        for (const auto &[name, value] : QList<QPair<QString, QString>> { { "voiceEngine", "Google Cloud TTS" },
                 { "googleTTSAPIKey", "cheie" }, { "autoSpeak", "true" }, { "memoryEnabled", "false" } }) {
            const KeloProcess::Result set
                = KeloProcess::run(QStringLiteral(KELO_CLI_PATH), { "config", "set", name, value });
            QVERIFY2(set.exitCode == 0, qPrintable(set.err));
        }

        VirtualDisplay display;
        m_display = display.name();
        QVERIFY2(!m_display.isEmpty(), "Xvfb did not start");
        QProcess companion;
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(QStringLiteral("DISPLAY"), m_display);
        environment.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("xcb"));
        companion.setProcessEnvironment(environment);
        companion.start(QStringLiteral(KELO_COMPANION_PATH), {});
        QVERIFY(companion.waitForStarted());
        std::optional<WindowGeometry> window;
        QVERIFY(AsyncTest::waitUntil([&] { return (window = windowOf(companion.processId())).has_value(); }, 20'000));
        // The window keeps content at its natural size: the composer sits 118 px above its bottom.
        QTest::qWait(1'000);

        click(window->x + window->width / 2 - 30, window->y + window->height - 118);
        xdotool({ "type", "--delay", "10", "Spune-mi ceva lung" });
        xdotool({ "key", "Return" });
        QVERIFY2(AsyncTest::waitUntil([&] { return streamsOf(companion.processId()) > 0; }, 20'000),
            qPrintable(companion.readAllStandardError()));
        // Spoken sentence by sentence: the first request carries the first sentence alone.
        QCOMPARE(voices.server().requests().first().json().value("input").toObject().value("text").toString(),
            QStringLiteral("Bună ziua, sunt Kelo și îți răspund imediat."));

        // A click on empty space hands the keyboard to push-to-talk; Space is the orb.
        click(window->x + window->width - 40, window->y + 150);
        QElapsedTimer clock;
        clock.start();
        xdotool({ "keydown", "space" });
        QVERIFY(AsyncTest::waitUntil([&] { return streamsOf(companion.processId()) == 0; }, 2'000));
        qInfo("no sound stream left %lld ms after Space went down", static_cast<long long>(clock.elapsed()));
        QTest::qWait(300);
        xdotool({ "keyup", "space" });
        const qsizetype spoken = voices.server().requests().size();
        // The rest of the answer is neither fetched nor spoken.
        QTest::qWait(4'000);
        QCOMPARE(voices.server().requests().size(), spoken);
        QVERIFY(spoken < 4);
        companion.terminate();
        QVERIFY(companion.waitForFinished(10'000));

        // The conversation keeps what was shown up to the press, and no more.
        QFile saved(home.dataHome() + QStringLiteral("/Kelo/conversation-memory.json"));
        QVERIFY(saved.open(QIODevice::ReadOnly));
        const QJsonArray messages = QJsonDocument::fromJson(saved.readAll())["messages"].toArray();
        QCOMPARE(messages.last()["role"].toString(), QStringLiteral("assistant"));
        const QString kept = messages.last()["text"].toString().trimmed();
        QVERIFY2(kept.startsWith(QStringLiteral("Bună ziua, sunt Kelo")), qPrintable(kept));
        QVERIFY2(kAnswer.startsWith(kept) && kept.size() < kAnswer.size(), qPrintable(kept));
    }
};

QTEST_GUILESS_MAIN(CompanionJourneyTest)
#include "CompanionJourneyTest.moc"
