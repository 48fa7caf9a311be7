#include "FakeHttpServer.h"
#include "KeloProcess.h"
#include "RandomWhisperModel.h"
#include "TemporaryHome.h"
#include "VoiceSamples.h"

#include <QDir>
#include <QTemporaryDir>
#include <QTest>

using Run = KeloProcess::Result;

// `kelo listen` and `kelo model` as a user runs them.
class CliListenTest : public QObject
{
    Q_OBJECT

    QTemporaryDir m_dir;
    QString m_model;
    QString m_spoken;
    std::unique_ptr<TemporaryHome> m_home;
    FakeHttpServer m_server;

    Run kelo(const QStringList &arguments)
    {
        return KeloProcess::run(QStringLiteral(KELO_CLI_PATH), arguments,
            { { { QStringLiteral("KELO_WHISPER_MODEL_BASE_URL"), m_server.baseUrl() } } });
    }

private Q_SLOTS:
    void initTestCase()
    {
        m_model = m_dir.filePath(QStringLiteral("ggml-random.bin"));
        RandomWhisperModel::write(m_model, RandomWhisperModel::tiny());
        m_spoken = VoiceSamples::speakRomanian(m_dir.path(), QStringLiteral("Bună seara, Kelo."));
    }

    void init() { m_home = std::make_unique<TemporaryHome>(); }
    void cleanup() { m_home.reset(); }

    void listenTranscribesAFileWithTheGivenModel()
    {
        if (m_spoken.isEmpty())
            QSKIP("espeak-ng is not installed");
        const Run run = kelo({ "listen", "--file", m_spoken, "--fast", "--model", m_model });
        QCOMPARE(run.exitCode, 0);
        const QStringList lines = run.out.split(QLatin1Char('\n'), Qt::SkipEmptyParts);
        QCOMPARE(lines.size(), 1);
        QVERIFY(!lines.first().contains(QChar(0x015F)) && !lines.first().contains(QChar(0x0163)));
        // --model is for this run only.
        const Run list = kelo({ "model", "list" });
        QVERIFY(!list.out.contains(m_model));
    }

    void listenExplainsWhyItCannotRun()
    {
        const Run noModel = kelo({ "listen", "--file", m_model });
        QCOMPARE(noModel.exitCode, 1);
        QVERIFY2(noModel.err.contains("Fișierul audio nu poate fi citit"), qPrintable(noModel.err));

        const QString silence = m_dir.filePath(QStringLiteral("silence.wav"));
        VoiceSamples::writeWav(silence, QVector<float>(16000, 0.0f), 16000, 1);
        const Run unavailable = kelo({ "listen", "--file", silence });
        QCOMPARE(unavailable.exitCode, 1);
        QVERIFY(unavailable.err.contains("Recunoașterea vocală în română nu este disponibilă momentan."));

        const Run nothing = kelo({ "listen", "--file", silence, "--fast", "--model", m_model });
        QCOMPARE(nothing.exitCode, 1);
        QVERIFY(nothing.out.isEmpty());
        QVERIFY(nothing.err.contains("Nu s-a auzit nimic"));

        QCOMPARE(kelo({ "listen", "--bogus" }).exitCode, 2);
    }

    void modelUseChecksTheFileAndListShowsTheChoice()
    {
        const Run refused = kelo({ "model", "use", m_spoken.isEmpty() ? m_dir.path() : m_spoken });
        QCOMPARE(refused.exitCode, 1);

        const Run used = kelo({ "model", "use", m_model });
        QCOMPARE(used.exitCode, 0);
        QVERIFY(used.err.contains("Model instalat"));
        const Run list = kelo({ "model", "list" });
        QCOMPARE(list.exitCode, 0);
        QVERIFY2(list.out.contains("* " + m_model), qPrintable(list.out));
        QVERIFY(list.out.contains("base") && list.out.contains("small"));
    }

    void aDownloadThatFailsItsChecksumLeavesNothingBehind()
    {
        m_server.on("GET", "/ggml-base.bin",
            FakeHttpServer::Reply::text(QByteArray(200'000, 'k'), 200, "application/octet-stream"));
        const Run run = kelo({ "model", "download", "base" });
        QCOMPARE(run.exitCode, 1);
        QVERIFY2(run.err.contains("suma de control"), qPrintable(run.err));
        QVERIFY(QDir(m_home->dataHome() + QStringLiteral("/Kelo/models")).isEmpty());
        QCOMPARE(m_server.requestCount("/ggml-base.bin"), 1);

        const Run unknown = kelo({ "model", "download", "large-v9" });
        QCOMPARE(unknown.exitCode, 1);
        QCOMPARE(kelo({ "model" }).exitCode, 2);
    }
};

QTEST_GUILESS_MAIN(CliListenTest)
#include "CliListenTest.moc"
