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
#include <QTest>

namespace {

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

} // namespace

class WhisperModelManagerTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    // One manager through failures, the folder listing, and downloads that finish or resume.
    void downloadsAndTheModelsFolder()
    {
        TemporaryHome home;
        FakeHttpServer server;
        ScopedEnvironment base("KELO_WHISPER_MODEL_BASE_URL", server.baseUrl() + "/");
        RandomWhisperModel::write(home.path() + "/model.bin", RandomWhisperModel::tiny());
        const QByteArray model = readAll(home.path() + "/model.bin");
        const WhisperModelManager::CatalogueEntry entry { QStringLiteral("test"), QStringLiteral("Test"),
            QStringLiteral("ggml-test.bin"), QCryptographicHash::hash(model, QCryptographicHash::Sha1).toHex(),
            model.size() };
        WhisperModelManager models(QList<WhisperModelManager::CatalogueEntry> { entry });
        const QString finalPath = models.pathFor(entry);
        const QString partPath = finalPath + QStringLiteral(".part");

        // model name, reply body and status, words of the error, partial file kept; more than a model
        // can weigh is cut off
        using Failure = std::tuple<QString, QByteArray, int, QString, bool>;
        for (const auto &[name, body, status, says, keepsPart] :
            { Failure { "test", "Not Found", 404, "HTTP 404", false }, Failure { "large", {}, 200, "large", false },
                Failure { "test", model + model + model, 200, "mărimea", true } }) {
            server.on("GET", "/ggml-test.bin", Reply::text(body, status, "application/octet-stream"));
            const auto error = AsyncTest::awaitError<SpeechRecognitionError>(models.download(name));
            QVERIFY2(error && error->kind() == SpeechRecognitionError::Kind::downloadFailed
                    && error->description().contains(says),
                qPrintable(error ? error->description() : says));
            QCOMPARE(QFile::exists(partPath), keepsPart);
            QVERIFY(!QFile::exists(finalPath) && models.modelPath().isEmpty() && !models.isDownloading());
        }
        QVERIFY(QFile::remove(partPath));

        // One download at a time; a cancel ends it.
        Reply hanging;
        hanging.neverAnswer = true;
        server.on("GET", "/ggml-test.bin", hanging);
        server.clearRequests();
        auto first = models.download(QStringLiteral("test"));
        QVERIFY(AsyncTest::waitUntil([&] { return server.requestCount("/ggml-test.bin") == 1; }));
        auto second = AsyncTest::awaitError<SpeechRecognitionError>(models.download(QStringLiteral("test")));
        QVERIFY(second && second->description().contains(QStringLiteral("deja în curs")));
        models.cancelDownload();
        const auto cancelled = AsyncTest::awaitError<URLError>(std::move(first));
        QVERIFY(cancelled && cancelled->code() == URLError::cancelled);
        QVERIFY(!models.isDownloading());

        // The folder lists usable and broken files; with nothing chosen, a catalogue model found there
        // is used, and useModel keeps that when the file it is given is no model.
        const QString cut = models.modelsDirectory() + QStringLiteral("/ggml-cut.bin");
        writeAll(models.modelsDirectory() + QStringLiteral("/ggml-good.bin"), model);
        writeAll(cut, model.left(5000));
        const auto listed = models.installedModels();
        QCOMPARE(listed.size(), 2);
        QVERIFY(listed[0].path == cut && !listed[0].usable && listed[0].problem.contains(QStringLiteral("trunchiat")));
        QVERIFY(listed[1].usable);
        QVERIFY(models.modelPath().isEmpty());
        writeAll(finalPath, model);
        QCOMPARE(models.modelPath(), finalPath);
        QVERIFY_THROWS_EXCEPTION(SpeechRecognitionError, models.useModel(cut));
        QCOMPARE(models.modelPath(), finalPath);

        // A download streams to disk with rising progress and becomes the stored choice.
        Reply reply = Reply::text({}, 200, "application/octet-stream");
        for (qsizetype i = 0; i < model.size(); i += model.size() / 8 + 1)
            reply.chunks.append(model.mid(i, model.size() / 8 + 1));
        reply.chunkIntervalMs = 10;
        server.on("GET", "/ggml-test.bin", reply);
        QList<double> progress;
        connect(&models, &WhisperModelManager::downloadChanged, this, [&] {
            if (models.isDownloading())
                progress.append(models.downloadProgress());
        });
        const QString path = AsyncTest::await(models.download(QStringLiteral("test")));
        QCOMPARE(path, home.dataHome() + QStringLiteral("/Kelo/models/ggml-test.bin"));
        QCOMPARE(readAll(path), model);
        QVERIFY(!QFile::exists(partPath));
        // Stored, not found again in the folder: a manager without a catalogue sees it.
        QCOMPARE(WhisperModelManager(QList<WhisperModelManager::CatalogueEntry> {}).modelPath(), path);
        QVERIFY(progress.size() >= 3 && std::is_sorted(progress.cbegin(), progress.cend()));
        QCOMPARE(progress.last(), 1.0);

        // A partial file is continued; a refusal (416: longer than the real file) or a server that
        // ignores ranges (200) still ends in the whole model.
        using Resume = std::tuple<qsizetype, bool, int>; // partial file, server honours ranges, requests
        for (const auto &[partial, ranged, requests] : { Resume { model.size() * 2 / 5, true, 1 },
                 Resume { model.size() + 100, true, 2 }, Resume { 1000, false, 1 } }) {
            server.on("GET", "/ggml-test.bin", [file = model, honours = ranged](const auto &request) {
                const QByteArray range = request.header("Range");
                const qsizetype from = range.mid(6, range.indexOf('-') - 6).toLongLong();
                if (!honours || range.isEmpty())
                    return Reply::text(file, 200, "application/octet-stream");
                return from >= file.size() ? Reply::text({}, 416) : Reply::text(file.mid(from), 206);
            });
            QFile::remove(finalPath);
            writeAll(partPath, (model + QByteArray(100, 'x')).left(partial));
            server.clearRequests();
            QCOMPARE(readAll(AsyncTest::await(models.download(QStringLiteral("test")))), model);
            QCOMPARE(server.requestCount("/ggml-test.bin"), requests);
            QCOMPARE(server.requests().first().header("Range"), "bytes=" + QByteArray::number(partial) + '-');
            QVERIFY(requests == 1 || server.requests().last().header("Range").isEmpty());
        }
    }
};

QTEST_GUILESS_MAIN(WhisperModelManagerTest)
#include "WhisperModelManagerTest.moc"
