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

// A server for one model file that honours "Range: bytes=N-" the way a CDN does.
FakeHttpServer::Reply rangedReply(const QByteArray &file, const FakeHttpServer::Request &request)
{
    const QByteArray range = request.header("Range");
    if (!range.startsWith("bytes="))
        return FakeHttpServer::Reply::text(file, 200, "application/octet-stream");
    const qsizetype from = range.mid(6, range.indexOf('-') - 6).toLongLong();
    if (from >= file.size())
        return FakeHttpServer::Reply::text({}, 416);
    FakeHttpServer::Reply reply = FakeHttpServer::Reply::text(file.mid(from), 206, "application/octet-stream");
    reply.headers.append({ "Content-Range",
        "bytes " + QByteArray::number(from) + '-' + QByteArray::number(file.size() - 1) + '/'
            + QByteArray::number(file.size()) });
    return reply;
}

// Parameters, not lambda captures: a coroutine lambda's captures die with the temporary closure.
QCoro::Task<> downloadCatchingURLError(WhisperModelManager &models, std::optional<URLError> &error, bool &finished)
{
    try {
        co_await models.download(QStringLiteral("test"));
    } catch (const URLError &caught) {
        error = caught;
    }
    finished = true;
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

    WhisperModelManager::CatalogueEntry entry() const
    {
        return { QStringLiteral("test"), QStringLiteral("Test"), QStringLiteral("ggml-test.bin"),
            QCryptographicHash::hash(m_model, QCryptographicHash::Sha1).toHex(), m_model.size() };
    }

    std::unique_ptr<WhisperModelManager> manager() const
    {
        return std::make_unique<WhisperModelManager>(QList<WhisperModelManager::CatalogueEntry> { entry() });
    }

    void serveWithRanges()
    {
        m_server->on("GET", "/ggml-test.bin",
            [file = m_model](const FakeHttpServer::Request &r) { return rangedReply(file, r); });
    }

    QString partPath(const WhisperModelManager &models) const
    {
        return models.pathFor(entry()) + QStringLiteral(".part");
    }

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
    }

    void cleanup()
    {
        m_base.reset();
        m_server.reset();
        m_home.reset();
    }

    void aDownloadStreamsToDiskReportsProgressAndBecomesTheChosenModel()
    {
        FakeHttpServer::Reply reply = FakeHttpServer::Reply::text({}, 200, "application/octet-stream");
        for (qsizetype i = 0; i < m_model.size(); i += m_model.size() / 8 + 1)
            reply.chunks.append(m_model.mid(i, m_model.size() / 8 + 1));
        reply.chunkIntervalMs = 10;
        m_server->on("GET", "/ggml-test.bin", reply);
        auto models = manager();
        QVERIFY(!models->modelAvailable());
        QList<double> progress;
        connect(models.get(), &WhisperModelManager::downloadChanged, this, [&] {
            if (models->isDownloading())
                progress.append(models->downloadProgress());
        });

        const QString path = AsyncTest::await(models->download(QStringLiteral("test")));

        QCOMPARE(path, m_home->dataHome() + QStringLiteral("/Kelo/models/ggml-test.bin"));
        QCOMPARE(readAll(path), m_model);
        QVERIFY(!QFile::exists(partPath(*models)));
        QCOMPARE(models->modelPath(), path);
        QVERIFY(models->modelAvailable());
        QVERIFY(!models->isDownloading());
        QVERIFY(progress.size() >= 3);
        QVERIFY(std::is_sorted(progress.cbegin(), progress.cend()));
        QCOMPARE(progress.last(), 1.0);
        QCOMPARE(
            QSettings(QStringLiteral("Kelo"), QStringLiteral("KeloCompanion")).value("whisperModelPath").toString(),
            path);
        QCOMPARE(m_server->requests().first().path, QStringLiteral("/ggml-test.bin"));
    }

    void anInterruptedDownloadResumesOrStartsOverWhenTheServerWillNot()
    {
        serveWithRanges();
        auto models = manager();
        const qsizetype kept = m_model.size() * 2 / 5;
        writeAll(partPath(*models), m_model.left(kept));
        QCOMPARE(readAll(AsyncTest::await(models->download(QStringLiteral("test")))), m_model);
        QCOMPARE(m_server->requestCount("/ggml-test.bin"), 1);
        QCOMPARE(m_server->requests().first().header("Range"), "bytes=" + QByteArray::number(kept) + '-');

        // Refused (416, the partial file is longer than the real one): one clean retry.
        QFile::remove(models->pathFor(entry()));
        writeAll(partPath(*models), m_model + QByteArray(100, 'x'));
        m_server->clearRequests();
        QCOMPARE(readAll(AsyncTest::await(models->download(QStringLiteral("test")))), m_model);
        QCOMPARE(m_server->requestCount("/ggml-test.bin"), 2);
        QVERIFY(m_server->requests().last().header("Range").isEmpty());

        // Ignored: the whole file comes with 200 and replaces the partial one.
        QFile::remove(models->pathFor(entry()));
        m_server->on("GET", "/ggml-test.bin", FakeHttpServer::Reply::text(m_model, 200, "application/octet-stream"));
        writeAll(partPath(*models), m_model.left(1000));
        QCOMPARE(readAll(AsyncTest::await(models->download(QStringLiteral("test")))), m_model);
    }

    void aCorruptDownloadIsThrownAwayAndTheNextAttemptStartsClean()
    {
        QByteArray corrupt = m_model;
        corrupt[corrupt.size() / 2] = char(corrupt[corrupt.size() / 2] ^ 0x55);
        m_server->enqueue(
            "GET", "/ggml-test.bin", FakeHttpServer::Reply::text(corrupt, 200, "application/octet-stream"));
        serveWithRanges();
        auto models = manager();

        const auto error = AsyncTest::awaitError<SpeechRecognitionError>(models->download(QStringLiteral("test")));
        QVERIFY(error);
        QCOMPARE(error->kind(), Kind::checksumMismatch);
        QVERIFY(error->description().contains(QStringLiteral("suma de control")));
        QVERIFY(!QFile::exists(partPath(*models)));
        QVERIFY(!QFile::exists(models->pathFor(entry())));
        QVERIFY(models->modelPath().isEmpty());

        AsyncTest::await(models->download(QStringLiteral("test")));
        QVERIFY(m_server->requests().last().header("Range").isEmpty());
        QVERIFY(models->modelAvailable());
    }

    void failuresAreReportedAndLeaveNoChosenModel()
    {
        auto models = manager();
        m_server->on("GET", "/ggml-test.bin", FakeHttpServer::Reply::text("Not Found", 404));
        auto notFound = AsyncTest::awaitError<SpeechRecognitionError>(models->download(QStringLiteral("test")));
        QVERIFY(notFound);
        QVERIFY(notFound->description().contains(QStringLiteral("HTTP 404")));
        QVERIFY(models->modelPath().isEmpty());

        auto unknown = AsyncTest::awaitError<SpeechRecognitionError>(models->download(QStringLiteral("large")));
        QVERIFY(unknown);
        QVERIFY(unknown->description().contains(QStringLiteral("large")));

        // A server that sends more than a model can weigh is cut off.
        m_server->on("GET", "/ggml-test.bin", FakeHttpServer::Reply::text(m_model + m_model + m_model, 200));
        QVERIFY(AsyncTest::awaitError<SpeechRecognitionError>(models->download(QStringLiteral("test"))));
        QVERIFY(!QFile::exists(models->pathFor(entry())));
    }

    void aDownloadCanBeCancelledAndOnlyOneRunsAtATime()
    {
        FakeHttpServer::Reply hanging;
        hanging.neverAnswer = true;
        m_server->on("GET", "/ggml-test.bin", hanging);
        auto models = manager();
        std::optional<URLError> cancelled;
        bool finished = false;
        auto first = downloadCatchingURLError(*models, cancelled, finished);
        QVERIFY(AsyncTest::waitUntil([&] { return m_server->requestCount("/ggml-test.bin") == 1; }));
        QVERIFY(models->isDownloading());
        auto second = AsyncTest::awaitError<SpeechRecognitionError>(models->download(QStringLiteral("test")));
        QVERIFY(second && second->description().contains(QStringLiteral("deja în curs")));

        models->cancelDownload();
        QVERIFY(AsyncTest::waitUntil([&] { return finished; }));
        QVERIFY(cancelled);
        QCOMPARE(cancelled->code(), URLError::cancelled);
        QVERIFY(!models->isDownloading());
    }

    void theModelsFolderListsUsableAndBrokenFiles()
    {
        auto models = manager();
        writeAll(models->modelsDirectory() + QStringLiteral("/ggml-good.bin"), m_model);
        writeAll(models->modelsDirectory() + QStringLiteral("/ggml-cut.bin"), m_model.left(5000));
        const auto listed = models->installedModels();
        QCOMPARE(listed.size(), 2);
        QCOMPARE(QFileInfo(listed[0].path).fileName(), QStringLiteral("ggml-cut.bin"));
        QVERIFY(!listed[0].usable);
        QVERIFY(listed[0].problem.contains(QStringLiteral("trunchiat")));
        QVERIFY(listed[1].usable);

        // With nothing chosen, a catalogue model found in the folder is used.
        QVERIFY(models->modelPath().isEmpty());
        writeAll(models->pathFor(entry()), m_model);
        QCOMPARE(models->modelPath(), models->pathFor(entry()));
        QVERIFY(models->modelAvailable());

        // useModel checks first and keeps the previous choice when the file is no model.
        const QString before = models->modelPath();
        QVERIFY_THROWS_EXCEPTION(
            SpeechRecognitionError, models->useModel(models->modelsDirectory() + QStringLiteral("/ggml-cut.bin")));
        QCOMPARE(models->modelPath(), before);
    }
};

QTEST_GUILESS_MAIN(WhisperModelManagerTest)
#include "WhisperModelManagerTest.moc"
