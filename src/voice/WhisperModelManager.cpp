#include "WhisperModelManager.h"

#include "SpeechRecognitionError.h"
#include "TranscriptionWorker.h"
#include "WhisperModel.h"
#include "WhisperModelDownload.h"
#include "WhisperModelFile.h"
#include "settings/FileSaveError.h"
#include "settings/SettingsFile.h"

#include <QCoroFuture>
#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSettings>
#include <QStandardPaths>
#include <QtConcurrent/QtConcurrentRun>

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

} // namespace

WhisperModelManager::WhisperModelManager(QObject *parent)
    : WhisperModelManager(defaultCatalogue(), parent)
{ }

WhisperModelManager::WhisperModelManager(QList<CatalogueEntry> catalogue, QObject *parent)
    : QObject(parent)
    , m_catalogue(std::move(catalogue))
    , m_download(new WhisperModelDownload(this))
{
    connect(m_download, &WhisperModelDownload::changed, this, &WhisperModelManager::downloadChanged);
}

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
            .arg(downloadingModel())
            .arg(qRound(downloadProgress() * 100));
    const QString path = modelPath();
    if (path.isEmpty() || !QFileInfo(path).isFile())
        return SpeechRecognitionError::unavailableText();
    if (!modelAvailable())
        return m_checkProblem;
    return QStringLiteral("Model instalat: %1").arg(QFileInfo(path).fileName());
}

bool WhisperModelManager::isDownloading() const
{
    return m_download->isRunning();
}

double WhisperModelManager::downloadProgress() const
{
    return m_download->progress();
}

QString WhisperModelManager::downloadingModel() const
{
    return m_download->modelName();
}

qint64 WhisperModelManager::bytesReceived() const
{
    return m_download->bytesReceived();
}

qint64 WhisperModelManager::bytesTotal() const
{
    return m_download->bytesTotal();
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
    m_download->cancel();
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
    try {
        co_await m_download->run(*entry, finalPath);
    } catch (...) {
        Q_EMIT statusChanged();
        throw;
    }
    storeModelPath(finalPath);
    m_checkedStamp.reset();
    Q_EMIT statusChanged();
    co_return finalPath;
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
