#include "WhisperModelManager.h"

#include "SpeechRecognitionError.h"
#include "TranscriptionWorker.h"
#include "WhisperModel.h"
#include "WhisperModelFile.h"
#include "net/Endpoints.h"
#include "net/URLError.h"
#include "settings/SafeFileWriter.h"
#include "settings/SettingsFile.h"

#include <QCoroFuture>
#include <QCoroNetworkReply>
#include <QCoroTimer>
#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QSettings>
#include <QStandardPaths>
#include <QtConcurrent/QtConcurrentRun>

#include <cerrno>
#include <cstdio>

namespace {

QSettings settings()
{
    return QSettings(QStringLiteral("Kelo"), QStringLiteral("KeloCompanion"));
}

struct LoadOutcome
{
    std::shared_ptr<WhisperModel> model;
    std::exception_ptr error;
};

std::function<void()> loadJob(const QString &path, const std::shared_ptr<LoadOutcome> &outcome)
{
    return [path, outcome] {
        try {
            auto model = WhisperModel::load(path);
            model->warmUp();
            outcome->model = std::move(model);
        } catch (...) {
            outcome->error = std::current_exception();
        }
    };
}

// The partial file of one download. The SHA-1 covers what was already on disk and then every byte
// as it arrives, so a finished download is checked without reading 150 MB again.
class PartialModelFile
{
public:
    PartialModelFile(const QString &path, qint64 limit)
        : m_file(path)
        , m_hash(QCryptographicHash::Sha1)
        , m_limit(limit)
    { }

    // Returns how many bytes are kept from an earlier attempt.
    qint64 open(bool resume)
    {
        if (resume && m_file.exists() && m_file.open(QIODevice::ReadOnly)) {
            m_hash.addData(&m_file);
            m_startedAt = m_file.size();
            m_file.close();
        }
        const auto mode = m_startedAt > 0 ? QIODevice::Append : (QIODevice::WriteOnly | QIODevice::Truncate);
        // Unbuffered: a write the disk refuses fails here, not unnoticed in a later flush.
        errno = 0;
        if (!m_file.open(mode | QIODevice::Unbuffered))
            throw SpeechRecognitionError(SpeechRecognitionError::Kind::downloadFailed,
                SafeFileWriter::failureFor(m_file.fileName(), m_limit, errno, m_file.errorString()).reason());
        m_written = m_startedAt;
        return m_startedAt;
    }

    void receive(QNetworkReply *reply)
    {
        if (m_status == 0 && reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).isValid())
            startReply(reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt());
        const QByteArray data = reply->readAll();
        if ((m_status != 200 && m_status != 206) || !m_failure.isEmpty())
            return;
        errno = 0;
        if (m_file.write(data) != data.size()) {
            keepOnlyWhatIsHashed(
                SafeFileWriter::failureFor(m_file.fileName(), data.size(), errno, m_file.errorString()));
            reply->abort();
            return;
        }
        m_written += data.size();
        m_hash.addData(data);
        if (m_file.size() > m_limit) {
            m_failure = QStringLiteral("serverul trimite mai mult decât mărimea modelului");
            reply->abort();
        }
    }

    void close() { m_file.close(); }
    // Every byte counted (and hashed) is in the file: nothing was lost on the way to the disk.
    bool isComplete() const { return QFileInfo(m_file.fileName()).size() == m_written; }
    int status() const { return m_status; }
    QString failure() const { return m_failure; }
    qint64 size() const { return m_file.size(); }
    qint64 startedAt() const { return m_startedAt; }
    QByteArray sha1Hex() const { return m_hash.result().toHex(); }

private:
    void startReply(int status)
    {
        m_status = status;
        if (status == 200 && m_startedAt > 0) {
            // The server ignored the range: the whole file follows.
            m_file.resize(0);
            m_hash.reset();
            m_startedAt = 0;
            m_written = 0;
        }
    }

    // A full disk takes the partial file away (it is what fills the disk, and Kelo's other files
    // need the room); otherwise a torn last write is cut off so a later attempt resumes cleanly.
    void keepOnlyWhatIsHashed(const FileSaveError &error)
    {
        m_failure = error.reason();
        if (error.kind() == FileSaveError::Kind::diskFull) {
            m_file.close();
            m_file.remove();
        } else {
            m_file.resize(m_written);
        }
    }

    QFile m_file;
    QCryptographicHash m_hash;
    qint64 m_limit;
    qint64 m_startedAt = 0;
    qint64 m_written = 0;
    int m_status = 0;
    QString m_failure;
};

// Seconds of silence from the server before a download is given up (it can be resumed).
constexpr int kStallTimeoutMs = 60'000;

} // namespace

WhisperModelManager::WhisperModelManager(QObject *parent)
    : WhisperModelManager(defaultCatalogue(), parent)
{ }

WhisperModelManager::WhisperModelManager(QList<CatalogueEntry> catalogue, QObject *parent)
    : QObject(parent)
    , m_catalogue(std::move(catalogue))
    , m_network(new QNetworkAccessManager(this))
{ }

WhisperModelManager::~WhisperModelManager()
{
    cancelDownload();
}

QList<WhisperModelManager::CatalogueEntry> WhisperModelManager::defaultCatalogue()
{
    return {
        { QStringLiteral("base"), QStringLiteral("Base (142 MB, rapid)"), QStringLiteral("ggml-base.bin"),
            "465707469ff3a37a2b9b8d8f89f2f99de7299dac", 147'951'465 },
        { QStringLiteral("small"), QStringLiteral("Small (466 MB, mai precis)"), QStringLiteral("ggml-small.bin"),
            "55356645c2b361a969dfd0ef2c5a50d530afd8d5", 487'601'967 },
        { QStringLiteral("tiny"), QStringLiteral("Tiny (75 MB, cel mai rapid, mai puțin precis)"),
            QStringLiteral("ggml-tiny.bin"), "bd577a113a864445d4c299885e0cb97d4ba92b5f", 77'691'713 },
    };
}

std::optional<WhisperModelManager::CatalogueEntry> WhisperModelManager::catalogueEntry(const QString &name) const
{
    for (const CatalogueEntry &entry : m_catalogue) {
        if (entry.name == name.trimmed().toLower())
            return entry;
    }
    return std::nullopt;
}

QString WhisperModelManager::modelsDirectory() const
{
    return QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation) + QStringLiteral("/Kelo/models");
}

QString WhisperModelManager::pathFor(const CatalogueEntry &entry) const
{
    return modelsDirectory() + QLatin1Char('/') + entry.fileName;
}

QList<WhisperModelManager::InstalledModel> WhisperModelManager::installedModels() const
{
    QList<InstalledModel> models;
    const QDir dir(modelsDirectory());
    for (const QFileInfo &info : dir.entryInfoList({ QStringLiteral("*.bin") }, QDir::Files, QDir::Name)) {
        InstalledModel model { info.absoluteFilePath(), info.size(), false, {} };
        try {
            WhisperModelFile::inspect(model.path);
            model.usable = true;
        } catch (const SpeechRecognitionError &error) {
            model.problem = error.description();
        }
        models.append(model);
    }
    return models;
}

void WhisperModelManager::setSessionModelPath(const QString &path)
{
    m_sessionModelPath = path.trimmed().isEmpty() ? QString() : QFileInfo(path.trimmed()).absoluteFilePath();
    m_checkedStamp.reset();
    Q_EMIT modelPathChanged();
    Q_EMIT statusChanged();
}

QString WhisperModelManager::modelPath() const
{
    if (!m_sessionModelPath.isEmpty())
        return m_sessionModelPath;
    const QString stored = settings().value(QLatin1String(kSettingsKey)).toString().trimmed();
    if (!stored.isEmpty())
        return stored;
    for (const CatalogueEntry &entry : m_catalogue) {
        const QString candidate = pathFor(entry);
        if (QFileInfo(candidate).isFile())
            return candidate;
    }
    return {};
}

void WhisperModelManager::setModelPath(const QString &path)
{
    try {
        storeModelPath(path);
    } catch (const FileSaveError &error) {
        // The settings screen shows this text beside the model choice.
        m_downloadError = error.description();
        Q_EMIT downloadChanged();
    }
}

void WhisperModelManager::storeModelPath(const QString &path)
{
    const QString cleaned = path.trimmed();
    if (cleaned == settings().value(QLatin1String(kSettingsKey)).toString())
        return;
    SettingsFile::store(QLatin1String(kSettingsKey), cleaned.isEmpty() ? QVariant() : QVariant(cleaned));
    m_checkedStamp.reset();
    Q_EMIT modelPathChanged();
    Q_EMIT statusChanged();
}

void WhisperModelManager::useModel(const QString &path)
{
    const QString absolute = QFileInfo(path).absoluteFilePath();
    WhisperModelFile::inspect(absolute);
    storeModelPath(absolute);
}

WhisperModelManager::FileStamp WhisperModelManager::stampOf(const QString &path)
{
    const QFileInfo info(path);
    if (!info.isFile())
        return { path, -1, {} };
    return { path, info.size(), info.lastModified() };
}

std::optional<WhisperModelManager::CatalogueEntry> WhisperModelManager::chosenCatalogueEntry() const
{
    const QString chosen = QFileInfo(modelPath()).absoluteFilePath();
    for (const CatalogueEntry &entry : m_catalogue) {
        if (QFileInfo(pathFor(entry)).absoluteFilePath() == chosen)
            return entry;
    }
    return std::nullopt;
}

QCoro::Task<std::optional<bool>> WhisperModelManager::chosenModelMatchesChecksum() const
{
    const auto entry = chosenCatalogueEntry();
    if (!entry)
        co_return std::nullopt;
    const QString path = modelPath();
    const QByteArray actual = co_await QtConcurrent::run([path] {
        QFile file(path);
        QCryptographicHash hash(QCryptographicHash::Sha1);
        if (!file.open(QIODevice::ReadOnly) || !hash.addData(&file))
            return QByteArray();
        return hash.result().toHex();
    });
    co_return std::optional<bool>(actual == entry->sha1);
}

bool WhisperModelManager::modelAvailable() const
{
    const QString path = modelPath();
    if (path.isEmpty())
        return false;
    const FileStamp stamp = stampOf(path);
    if (m_checkedStamp && *m_checkedStamp == stamp)
        return m_checkProblem.isEmpty();
    m_checkProblem.clear();
    try {
        WhisperModelFile::inspect(path);
    } catch (const SpeechRecognitionError &error) {
        m_checkProblem = error.description();
    }
    m_checkedStamp = stamp;
    return m_checkProblem.isEmpty();
}

QString WhisperModelManager::statusText() const
{
    if (isDownloading())
        return QStringLiteral("Se descarcă modelul %1… %2%")
            .arg(m_downloadingName)
            .arg(qRound(downloadProgress() * 100));
    const QString path = modelPath();
    if (path.isEmpty() || !QFileInfo(path).isFile())
        return SpeechRecognitionError::unavailableText();
    if (!modelAvailable())
        return m_checkProblem;
    return QStringLiteral("Model instalat: %1").arg(QFileInfo(path).fileName());
}

double WhisperModelManager::downloadProgress() const
{
    return m_bytesTotal > 0 ? std::clamp(double(m_bytesReceived) / double(m_bytesTotal), 0.0, 1.0) : 0.0;
}

void WhisperModelManager::setProgress(qint64 received, qint64 total)
{
    m_bytesReceived = received;
    m_bytesTotal = total;
    Q_EMIT downloadChanged();
}

QVariantList WhisperModelManager::catalogueList() const
{
    QVariantList list;
    for (const CatalogueEntry &entry : m_catalogue) {
        list.append(QVariantMap { { QStringLiteral("name"), entry.name }, { QStringLiteral("title"), entry.title },
            { QStringLiteral("bytes"), entry.approximateBytes }, { QStringLiteral("path"), pathFor(entry) } });
    }
    return list;
}

void WhisperModelManager::startDownload(const QString &name)
{
    m_downloadError.clear();
    Q_EMIT downloadChanged();
    // Fire and forget: every failure is caught here and shown as text.
    [](WhisperModelManager *self, QString model) -> QCoro::Task<> {
        QPointer<WhisperModelManager> guard(self);
        try {
            co_await self->download(model);
        } catch (const KeloError &error) {
            if (guard) {
                guard->m_downloadError = error.description();
                Q_EMIT guard->downloadChanged();
            }
        } catch (const std::exception &) {
            if (guard) {
                guard->m_downloadError
                    = SpeechRecognitionError(SpeechRecognitionError::Kind::downloadFailed).description();
                Q_EMIT guard->downloadChanged();
            }
        }
    }(this, name);
}

void WhisperModelManager::cancelDownload()
{
    if (m_reply)
        m_reply->abort();
}

QCoro::Task<QString> WhisperModelManager::download(QString name)
{
    const std::optional<CatalogueEntry> entry = catalogueEntry(name);
    if (!entry)
        throw SpeechRecognitionError(
            SpeechRecognitionError::Kind::downloadFailed, QStringLiteral("modelul „%1” nu este în listă").arg(name));
    if (isDownloading())
        throw SpeechRecognitionError(
            SpeechRecognitionError::Kind::downloadFailed, QStringLiteral("o altă descărcare este deja în curs"));
    if (!QDir().mkpath(modelsDirectory()))
        throw SpeechRecognitionError(SpeechRecognitionError::Kind::downloadFailed,
            QStringLiteral("dosarul %1 nu poate fi creat").arg(modelsDirectory()));

    const QString finalPath = pathFor(*entry);
    const QString partPath = finalPath + QStringLiteral(".part");
    m_downloadingName = entry->name;
    setProgress(0, entry->approximateBytes);

    bool complete = false;
    try {
        complete = co_await fetchInto(*entry, partPath, true);
        // The server refused to continue the partial file: start over once, cleanly.
        if (!complete)
            complete = co_await fetchInto(*entry, partPath, false);
    } catch (...) {
        // An attempt that wrote nothing leaves nothing to resume.
        if (QFileInfo(partPath).size() == 0)
            QFile::remove(partPath);
        m_downloadingName.clear();
        Q_EMIT downloadChanged();
        Q_EMIT statusChanged();
        throw;
    }
    m_downloadingName.clear();
    Q_EMIT downloadChanged();
    if (!complete)
        throw SpeechRecognitionError(
            SpeechRecognitionError::Kind::downloadFailed, QStringLiteral("serverul nu a trimis fișierul"));

    // rename(2) puts the checked file in place in one step; a model already there stays until then.
    if (std::rename(QFile::encodeName(partPath).constData(), QFile::encodeName(finalPath).constData()) != 0)
        throw SpeechRecognitionError(SpeechRecognitionError::Kind::downloadFailed,
            QStringLiteral("fișierul nu a putut fi mutat în %1").arg(finalPath));
    storeModelPath(finalPath);
    m_checkedStamp.reset();
    Q_EMIT statusChanged();
    co_return finalPath;
}

// Streams the model into partPath, continuing what is there when `resume` is set. Returns false when
// the server cannot continue the partial file (HTTP 416), so the caller may start clean.
QCoro::Task<bool> WhisperModelManager::fetchInto(const CatalogueEntry &entry, const QString &partPath, bool resume)
{
    // A hostile or confused server must not fill the disk.
    auto sink = std::make_shared<PartialModelFile>(partPath, entry.approximateBytes * 2);
    const qint64 existing = sink->open(resume);

    QNetworkRequest request(QUrl(Endpoints::whisperModelBaseURL() + QLatin1Char('/') + entry.fileName));
    request.setTransferTimeout(kStallTimeoutMs);
    request.setAttribute(QNetworkRequest::RedirectPolicyAttribute, QNetworkRequest::NoLessSafeRedirectPolicy);
    if (existing > 0)
        request.setRawHeader("Range", "bytes=" + QByteArray::number(existing) + '-');

    QNetworkReply *reply = m_network->get(request);
    m_reply = reply;
    const qint64 fallbackTotal = entry.approximateBytes;
    // Everything the handler needs is captured by value: it belongs to the connection, not to this frame.
    auto receive = [this, sink, reply, fallbackTotal] {
        sink->receive(reply);
        const qint64 expected = reply->header(QNetworkRequest::ContentLengthHeader).toLongLong();
        setProgress(sink->size(), expected > 0 ? sink->startedAt() + expected : fallbackTotal);
    };
    connect(reply, &QNetworkReply::readyRead, this, receive);

    co_await qCoro(reply).waitForFinished();
    receive();
    disconnect(reply, nullptr, this, nullptr);
    const QNetworkReply::NetworkError networkError = reply->error();
    const QString networkText = reply->errorString();
    reply->deleteLater();
    m_reply = nullptr;
    sink->close();

    const int status = sink->status();
    if (status == 416) {
        QFile::remove(partPath);
        co_return false;
    }
    if (!sink->failure().isEmpty())
        throw SpeechRecognitionError(SpeechRecognitionError::Kind::downloadFailed, sink->failure());
    if (status >= 400)
        throw SpeechRecognitionError(
            SpeechRecognitionError::Kind::downloadFailed, QStringLiteral("serverul a răspuns cu HTTP %1").arg(status));
    if (networkError != QNetworkReply::NoError)
        throw URLError::fromNetworkError(networkError, networkText);
    if (!sink->isComplete()) {
        QFile::remove(partPath);
        throw SpeechRecognitionError(SpeechRecognitionError::Kind::downloadFailed,
            SafeFileWriter::failureFor(partPath, entry.approximateBytes, 0).reason());
    }
    if (status != 200 && status != 206)
        throw SpeechRecognitionError(
            SpeechRecognitionError::Kind::downloadFailed, QStringLiteral("răspuns neașteptat (HTTP %1)").arg(status));
    if (sink->sha1Hex() != entry.sha1) {
        // A corrupt file cannot be resumed into a good one: the next attempt starts clean.
        QFile::remove(partPath);
        throw SpeechRecognitionError(SpeechRecognitionError::Kind::checksumMismatch);
    }
    co_return true;
}

QCoro::Task<> WhisperModelManager::loadModel(TranscriptionWorker *worker)
{
    const QString path = modelPath();
    if (path.isEmpty() || !QFileInfo(path).isFile())
        throw SpeechRecognitionError(SpeechRecognitionError::Kind::unavailable);
    const FileStamp stamp = stampOf(path);
    if (m_loaded && m_loadedStamp == stamp)
        co_return;

    auto outcome = std::make_shared<LoadOutcome>();
    // The job is built outside the co_await expression: g++ 12 destroyed a lambda temporary there
    // twice, which released the loaded model under the recogniser's feet.
    QFuture<void> loading = worker->submitVoid(loadJob(path, outcome));
    co_await loading;
    if (outcome->error)
        std::rethrow_exception(outcome->error);
    m_loaded = outcome->model;
    m_loadedStamp = stamp;
}

void WhisperModelManager::releaseModel()
{
    m_loaded.reset();
    m_loadedStamp = {};
}
