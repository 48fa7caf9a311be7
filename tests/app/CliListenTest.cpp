#include "AsyncTest.h"
#include "FakeHttpServer.h"
#include "RandomWhisperModel.h"
#include "TemporaryHome.h"
#include "VoiceSamples.h"

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QTemporaryDir>
#include <QTest>

// `kelo listen` and `kelo model` as a user runs them.
class CliListenTest : public QObject
{
    Q_OBJECT

    struct Run
    {
        int exitCode = -1;
        QString out;
        QString err;
    };

    QTemporaryDir m_dir;
    QString m_model;
    QString m_spoken;
    std::unique_ptr<TemporaryHome> m_home;
    FakeHttpServer m_server;

    Run kelo(const QStringList &arguments)
    {
        QProcess process;
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(QStringLiteral("KELO_WHISPER_MODEL_BASE_URL"), m_server.baseUrl());
        process.setProcessEnvironment(environment);
        process.start(QStringLiteral(KELO_CLI_PATH), arguments);
        process.closeWriteChannel();
        const bool finished = AsyncTest::waitUntil([&] { return process.state() == QProcess::NotRunning; }, 60'000);
        if (!finished)
            process.kill();
        return { finished ? process.exitCode() : -1, QString::fromUtf8(process.readAllStandardOutput()),
            QString::fromUtf8(process.readAllStandardError()) };
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
        const Run run = kelo({ QStringLiteral("listen"), QStringLiteral("--file"), m_spoken, QStringLiteral("--fast"),
            QStringLiteral("--model"), m_model });
        QCOMPARE(run.exitCode, 0);
        const QStringList lines = run.out.split(QLatin1Char('\n'), Qt::SkipEmptyParts);
        QCOMPARE(lines.size(), 1);
        QVERIFY(!lines.first().contains(QChar(0x015F)) && !lines.first().contains(QChar(0x0163)));
        // --model is for this run only.
        const Run list = kelo({ QStringLiteral("model"), QStringLiteral("list") });
        QVERIFY(!list.out.contains(m_model));
    }

    void listenExplainsWhyItCannotRun()
    {
        const Run noModel = kelo({ QStringLiteral("listen"), QStringLiteral("--file"), m_model });
        QCOMPARE(noModel.exitCode, 1);
        QVERIFY2(noModel.err.contains(QStringLiteral("Fișierul audio nu poate fi citit")), qPrintable(noModel.err));

        const QString silence = m_dir.filePath(QStringLiteral("silence.wav"));
        VoiceSamples::writeWav(silence, QVector<float>(16000, 0.0f), 16000, 1);
        const Run unavailable = kelo({ QStringLiteral("listen"), QStringLiteral("--file"), silence });
        QCOMPARE(unavailable.exitCode, 1);
        QVERIFY(
            unavailable.err.contains(QStringLiteral("Recunoașterea vocală în română nu este disponibilă momentan.")));

        const Run nothing = kelo({ QStringLiteral("listen"), QStringLiteral("--file"), silence,
            QStringLiteral("--fast"), QStringLiteral("--model"), m_model });
        QCOMPARE(nothing.exitCode, 1);
        QVERIFY(nothing.out.isEmpty());
        QVERIFY(nothing.err.contains(QStringLiteral("Nu s-a auzit nimic")));

        QCOMPARE(kelo({ QStringLiteral("listen"), QStringLiteral("--bogus") }).exitCode, 2);
    }

    void modelUseChecksTheFileAndListShowsTheChoice()
    {
        const Run refused
            = kelo({ QStringLiteral("model"), QStringLiteral("use"), m_spoken.isEmpty() ? m_dir.path() : m_spoken });
        QCOMPARE(refused.exitCode, 1);

        const Run used = kelo({ QStringLiteral("model"), QStringLiteral("use"), m_model });
        QCOMPARE(used.exitCode, 0);
        QVERIFY(used.err.contains(QStringLiteral("Model instalat")));
        const Run list = kelo({ QStringLiteral("model"), QStringLiteral("list") });
        QCOMPARE(list.exitCode, 0);
        QVERIFY2(list.out.contains(QStringLiteral("* ") + m_model), qPrintable(list.out));
        QVERIFY(list.out.contains(QStringLiteral("base")) && list.out.contains(QStringLiteral("small")));
    }

    void aDownloadThatFailsItsChecksumLeavesNothingBehind()
    {
        m_server.on("GET", QStringLiteral("/ggml-base.bin"),
            FakeHttpServer::Reply::text(QByteArray(200'000, 'k'), 200, "application/octet-stream"));
        const Run run = kelo({ QStringLiteral("model"), QStringLiteral("download"), QStringLiteral("base") });
        QCOMPARE(run.exitCode, 1);
        QVERIFY2(run.err.contains(QStringLiteral("suma de control")), qPrintable(run.err));
        QVERIFY(QDir(m_home->dataHome() + QStringLiteral("/Kelo/models")).isEmpty());
        QCOMPARE(m_server.requestCount(QStringLiteral("/ggml-base.bin")), 1);

        const Run unknown = kelo({ QStringLiteral("model"), QStringLiteral("download"), QStringLiteral("large-v9") });
        QCOMPARE(unknown.exitCode, 1);
        QCOMPARE(kelo({ QStringLiteral("model") }).exitCode, 2);
    }
};

QTEST_GUILESS_MAIN(CliListenTest)
#include "CliListenTest.moc"
