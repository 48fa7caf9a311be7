#include "AsyncTest.h"
#include "ChatCompletionReplies.h"
#include "FakeHttpServer.h"
#include "KeloProcess.h"
#include "TemporaryHome.h"
#include "VoiceTestSupport.h"

#include <QFile>
#include <QHash>
#include <QJsonArray>
#include <QJsonDocument>
#include <QProcess>
#include <QRect>
#include <QScopeGuard>
#include <QStandardPaths>
#include <QTest>

using VoiceTestSupport::FakeCloudVoices;

namespace {

const QString kAnswer = QStringLiteral(
    "Bună ziua, sunt Kelo și îți răspund imediat. Prima propoziție ajunge la voce cât timp scriu restul. "
    "A doua propoziție urmează fără pauză. A treia nu mai e rostită dacă mă întrerupi. Iar a patra e ultima.");

} // namespace

// The desktop app under a virtual display, driven with the keyboard and the mouse: a typed question
// is shown and spoken sentence by sentence while the model still writes, and holding Space (the orb's
// key) silences it and ends the answer where it was.
class CompanionJourneyTest : public QObject
{
    Q_OBJECT

    QProcessEnvironment m_environment;

    QString xdotool(const QStringList &arguments)
    {
        QProcess process;
        process.setProcessEnvironment(m_environment);
        process.start(QStringLiteral("xdotool"), arguments);
        process.waitForFinished(10'000);
        return QString::fromUtf8(process.readAllStandardOutput());
    }

    QRect windowOf(qint64 pid)
    {
        const QString window = xdotool({ "search", "--pid", QString::number(pid) }).section('\n', 0, 0);
        QHash<QString, int> fields;
        for (const QString &line : xdotool({ "getwindowgeometry", "--shell", window }).split('\n'))
            fields.insert(line.section('=', 0, 0), line.section('=', 1).toInt());
        return window.isEmpty() ? QRect() : QRect(fields["X"], fields["Y"], fields["WIDTH"], fields["HEIGHT"]);
    }

    void click(int x, int y) { xdotool({ "mousemove", QString::number(x), QString::number(y), "click", "1" }); }

private Q_SLOTS:
    void typedQuestionIsSpokenWhileWrittenAndSpaceCutsItOff()
    {
        for (const char *tool : { "Xvfb", "xdotool", "pactl" })
            if (QStandardPaths::findExecutable(QString::fromLatin1(tool)).isEmpty())
                QSKIP(qPrintable(QStringLiteral("%1 is needed to drive the desktop app").arg(tool)));
        KELO_REQUIRE_AUDIO();
        const QByteArray mp3 = VoiceTestSupport::makeSpeechMp3(QStringLiteral("Aceasta este o frază rostită."));
        if (mp3.isEmpty())
            QSKIP("espeak-ng and lame are needed to make test audio");
        TemporaryHome home;
        FakeCloudVoices voices;
        const QString speech = FakeCloudVoices::synthesisPath(VoiceEnginePreset::googleCloud);
        voices.server.on("POST", speech, FakeCloudVoices::audio(VoiceEnginePreset::googleCloud, mp3));
        FakeHttpServer model;
        model.on("POST", "/chat/completions",
            FakeHttpServer::Reply::eventStreamChunks(ChatCompletionReplies::streamedWords(kAnswer), 200));
        ScopedEnvironment zen("KELO_ZEN_BASE_URL", model.baseUrl());
        ScopedEnvironment key("KELO_ZEN_API_KEY", QStringLiteral("cheie"));
        for (const auto &[name, value] : QList<QPair<QString, QString>> { { "voiceEngine", "Google Cloud TTS" },
                 { "googleTTSAPIKey", "cheie" }, { "autoSpeak", "true" }, { "memoryEnabled", "false" } }) {
            const KeloProcess::Result set
                = KeloProcess::run(QStringLiteral(KELO_CLI_PATH), { "config", "set", name, value });
            QVERIFY2(set.exitCode == 0, qPrintable(set.err));
        }

        // A display of its own (Xvfb picks a free number), so the real window can be typed into and clicked.
        QProcess display;
        display.start(QStringLiteral("Xvfb"), { "-displayfd", "1", "-screen", "0", "1024x900x24", "-nolisten", "tcp" });
        const auto stopDisplay = qScopeGuard([&display] {
            display.terminate();
            display.waitForFinished(5'000);
        });
        QVERIFY2(display.waitForReadyRead(10'000), "Xvfb did not start");
        m_environment = QProcessEnvironment::systemEnvironment(); // with this test's home and services
        m_environment.insert("DISPLAY", ':' + QString::fromUtf8(display.readLine()).trimmed());
        m_environment.insert("QT_QPA_PLATFORM", "xcb");
        // libxkbcommon-x11 hands strndup atom names without a terminator, which strict string checks
        // report in the sanitizer build; our own code stays checked.
        QString sanitizer = m_environment.value("ASAN_OPTIONS");
        m_environment.insert("ASAN_OPTIONS", sanitizer.replace("strict_string_checks=1", "strict_string_checks=0"));
        QProcess companion;
        companion.setProcessEnvironment(m_environment);
        companion.start(QStringLiteral(KELO_COMPANION_PATH), {});
        QRect window;
        QVERIFY(AsyncTest::waitUntil([&] { return !(window = windowOf(companion.processId())).isEmpty(); }, 20'000));
        // The window keeps content at its natural size: the composer sits 118 px above its bottom.
        QTest::qWait(1'000);

        click(window.center().x() - 30, window.bottom() - 117);
        xdotool({ "type", "--delay", "10", "Spune-mi ceva lung" });
        xdotool({ "key", "Return" });
        QVERIFY2(
            AsyncTest::waitUntil([&] { return VoiceTestSupport::playingStreams(companion.processId()) > 0; }, 20'000),
            qPrintable(companion.readAllStandardError()));
        // Spoken sentence by sentence: the first request carries the first sentence alone.
        QCOMPARE(voices.server.requests().first().json().value("input").toObject().value("text").toString(),
            QStringLiteral("Bună ziua, sunt Kelo și îți răspund imediat."));

        // A click on empty space hands the keyboard to push-to-talk; Space is the orb.
        click(window.right() - 39, window.top() + 150);
        xdotool({ "keydown", "space" });
        QVERIFY(
            AsyncTest::waitUntil([&] { return VoiceTestSupport::playingStreams(companion.processId()) == 0; }, 2'000));
        QTest::qWait(300);
        xdotool({ "keyup", "space" });
        const qsizetype spoken = voices.server.requests().size();
        // The rest of the answer is neither fetched nor spoken.
        QTest::qWait(4'000);
        QCOMPARE(voices.server.requests().size(), spoken);
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
