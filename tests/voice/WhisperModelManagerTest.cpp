#include "voice/WhisperModelManager.h"

#include "AsyncTest.h"
#include "FakeHttpServer.h"
#include "RandomWhisperModel.h"
#include "TemporaryHome.h"
#include "net/URLError.h"
#include "voice/SpeechRecognitionError.h"

#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QSettings>
#include <QTemporaryDir>
#include <QTest>

namespace {

using Kind = SpeechRecognitionError::Kind;
using Reply = FakeHttpServer::Reply;

QByteArray readAll(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

void writeAll(const QString &path, const QByteArray &bytes)
{
    QDir().mkpath(QFileInfo(path).path());
    QFile file(path);
    QVERIFY(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
    file.write(bytes);
}

// A server for one model file that honours "Range: bytes=N-" the way a CDN does, or ignores it.
Reply rangedReply(const QByteArray &file, const FakeHttpServer::Request &request, bool honoursRanges = true)
{
    const QByteArray range = request.header("Range");
    if (!honoursRanges || !range.startsWith("bytes="))
        return Reply::text(file, 200, "application/octet-stream");
    const qsizetype from = range.mid(6, range.indexOf('-') - 6).toLongLong();
    if (from >= file.size())
        return Reply::text({}, 416);
    return Reply::text(file.mid(from), 206, "application/octet-stream");
}

} // namespace

class WhisperModelManagerTest : public QObject
{
    Q_OBJECT

    QTemporaryDir m_dir;
    QByteArray m_model;
    std::unique_ptr<TemporaryHome> m_home;
    std::unique_ptr<FakeHttpServer> m_server;
    std::unique_ptr<ScopedEnvironment> m_base;
    std::unique_ptr<WhisperModelManager> m_models;

    WhisperModelManager::CatalogueEntry entry() const
    {
        return { QStringLiteral("test"), QStringLiteral("Test"), QStringLiteral("ggml-test.bin"),
            QCryptographicHash::hash(m_model, QCryptographicHash::Sha1).toHex(), m_model.size() };
    }

    QString finalPath() const { return m_models->pathFor(entry()); }
    QString partPath() const { return finalPath() + QStringLiteral(".part"); }

private Q_SLOTS:
    void initTestCase()
    {
        const QString path = m_dir.filePath(QStringLiteral("model.bin"));
        RandomWhisperModel::write(path, RandomWhisperModel::tiny());
        m_model = readAll(path);
        QVERIFY(m_model.size() > 1'000'000);
    }

    void init()
    {
        m_home = std::make_unique<TemporaryHome>();
        m_server = std::make_unique<FakeHttpServer>();
        m_base = std::make_unique<ScopedEnvironment>("KELO_WHISPER_MODEL_BASE_URL", m_server->baseUrl() + "/");
        m_models = std::make_unique<WhisperModelManager>(QList<WhisperModelManager::CatalogueEntry> { entry() });
    }

    void cleanup() { m_models.reset(), m_base.reset(), m_server.reset(), m_home.reset(); }

    void aDownloadStreamsToDiskReportsProgressAndBecomesTheChosenModel()
    {
        Reply reply = Reply::text({}, 200, "application/octet-stream");
        for (qsizetype i = 0; i < m_model.size(); i += m_model.size() / 8 + 1)
            reply.chunks.append(m_model.mid(i, m_model.size() / 8 + 1));
        reply.chunkIntervalMs = 10;
        m_server->on("GET", "/ggml-test.bin", reply);
        QList<double> progress;
        connect(m_models.get(), &WhisperModelManager::downloadChanged, this, [&] {
            if (m_models->isDownloading())
                progress.append(m_models->downloadProgress());
        });

        const QString path = AsyncTest::await(m_models->download(QStringLiteral("test")));

        QCOMPARE(path, m_home->dataHome() + QStringLiteral("/Kelo/models/ggml-test.bin"));
        QCOMPARE(readAll(path), m_model);
        QVERIFY(!QFile::exists(partPath()));
        QCOMPARE(m_models->modelPath(), path);
        QVERIFY(m_models->modelAvailable());
        QVERIFY(progress.size() >= 3);
        QVERIFY(std::is_sorted(progress.cbegin(), progress.cend()));
        QCOMPARE(progress.last(), 1.0);
        QCOMPARE(
            QSettings(QStringLiteral("Kelo"), QStringLiteral("KeloCompanion")).value("whisperModelPath").toString(),
            path);
    }

    // A partial file is continued; a refusal (416: longer than the real file) or a server that
    // ignores ranges (200) still ends in the whole model.
    void anInterruptedDownloadResumesOrStartsOver()
    {
        using Case = std::tuple<qsizetype, bool, int>; // partial file, server honours ranges, requests
        for (const auto &[partial, ranged, requests] : { Case { m_model.size() * 2 / 5, true, 1 },
                 Case { m_model.size() + 100, true, 2 }, Case { 1000, false, 1 } }) {
            m_server->on("GET", "/ggml-test.bin",
                [file = m_model, honours = ranged](const auto &r) { return rangedReply(file, r, honours); });
            QFile::remove(finalPath());
            writeAll(partPath(), (m_model + QByteArray(100, 'x')).left(partial));
            m_server->clearRequests();
            QCOMPARE(readAll(AsyncTest::await(m_models->download(QStringLiteral("test")))), m_model);
            QCOMPARE(m_server->requestCount("/ggml-test.bin"), requests);
            QCOMPARE(m_server->requests().first().header("Range"), "bytes=" + QByteArray::number(partial) + '-');
            QVERIFY(requests == 1 || m_server->requests().last().header("Range").isEmpty());
        }
    }

    // What failed is said; a corrupt file cannot be resumed into a good one, so nothing of it stays.
    void failuresAreReportedAndLeaveNoModel()
    {
        // model name, reply body and status, kind of error, words in its text, partial file kept
        using Case = std::tuple<QString, QByteArray, int, Kind, QString, bool>;
        QByteArray corrupt = m_model;
        corrupt[corrupt.size() / 2] = char(corrupt[corrupt.size() / 2] ^ 0x55);
        const QList<Case> cases {
            Case { "test", "Not Found", 404, Kind::downloadFailed, "HTTP 404", false },
            Case { "large", {}, 200, Kind::downloadFailed, "large", false },
            Case { "test", corrupt, 200, Kind::checksumMismatch, "suma de control", false },
            // More than a model can weigh is cut off.
            Case { "test", m_model + m_model + m_model, 200, Kind::downloadFailed, "mărimea", true },
        };
        for (const auto &[name, body, status, kind, says, keepsPart] : cases) {
            m_server->on("GET", "/ggml-test.bin", Reply::text(body, status, "application/octet-stream"));
            const auto error = AsyncTest::awaitError<SpeechRecognitionError>(m_models->download(name));
            QVERIFY2(error, qPrintable(says));
            QCOMPARE(error->kind(), kind);
            QVERIFY2(error->description().contains(says), qPrintable(error->description()));
            QCOMPARE(QFile::exists(partPath()), keepsPart);
            QVERIFY(!QFile::exists(finalPath()));
            QVERIFY(m_models->modelPath().isEmpty());
            QVERIFY(!m_models->isDownloading());
        }
    }

    void aDownloadCanBeCancelledAndOnlyOneRunsAtATime()
    {
        Reply hanging;
        hanging.neverAnswer = true;
        m_server->on("GET", "/ggml-test.bin", hanging);
        auto first = m_models->download(QStringLiteral("test"));
        QVERIFY(AsyncTest::waitUntil([&] { return m_server->requestCount("/ggml-test.bin") == 1; }));
        QVERIFY(m_models->isDownloading());
        auto second = AsyncTest::awaitError<SpeechRecognitionError>(m_models->download(QStringLiteral("test")));
        QVERIFY(second && second->description().contains(QStringLiteral("deja în curs")));

        m_models->cancelDownload();
        const auto cancelled = AsyncTest::awaitError<URLError>(std::move(first));
        QVERIFY(cancelled);
        QCOMPARE(cancelled->code(), URLError::cancelled);
        QVERIFY(!m_models->isDownloading());
    }

    void theModelsFolderListsUsableAndBrokenFiles()
    {
        const QString cut = m_models->modelsDirectory() + QStringLiteral("/ggml-cut.bin");
        writeAll(m_models->modelsDirectory() + QStringLiteral("/ggml-good.bin"), m_model);
        writeAll(cut, m_model.left(5000));
        const auto listed = m_models->installedModels();
        QCOMPARE(listed.size(), 2);
        QCOMPARE(listed[0].path, cut);
        QVERIFY(!listed[0].usable);
        QVERIFY(listed[0].problem.contains(QStringLiteral("trunchiat")));
        QVERIFY(listed[1].usable);

        // With nothing chosen, a catalogue model found in the folder is used.
        QVERIFY(m_models->modelPath().isEmpty());
        writeAll(finalPath(), m_model);
        QCOMPARE(m_models->modelPath(), finalPath());
        QVERIFY(m_models->modelAvailable());

        // useModel checks first and keeps the previous choice when the file is no model.
        QVERIFY_THROWS_EXCEPTION(SpeechRecognitionError, m_models->useModel(cut));
        QCOMPARE(m_models->modelPath(), finalPath());
    }
};

QTEST_GUILESS_MAIN(WhisperModelManagerTest)
#include "WhisperModelManagerTest.moc"
