#pragma once

#include <QCoroTask>
#include <QDateTime>
#include <QFuture>
#include <QList>
#include <QObject>
#include <QString>
#include <QVariantList>
#include <QtQml/qqmlregistration.h>

#include <memory>
#include <optional>

class TranscriptionWorker;
class WhisperModel;
class WhisperModelDownload;

// Where the recognition model lives, which one is chosen, its download (only when the user asks)
// and loading it once for every run. The chosen path is stored under "whisperModelPath".
class WhisperModelManager : public QObject
{
    Q_OBJECT
    QML_ELEMENT
    QML_UNCREATABLE("WhisperModelManager belongs to the SpeechRecognizer")

    Q_PROPERTY(QString modelPath READ modelPath WRITE setModelPath NOTIFY modelPathChanged)
    Q_PROPERTY(bool modelAvailable READ modelAvailable NOTIFY statusChanged)
    Q_PROPERTY(QString statusText READ statusText NOTIFY statusChanged)
    Q_PROPERTY(bool isDownloading READ isDownloading NOTIFY downloadChanged)
    Q_PROPERTY(double downloadProgress READ downloadProgress NOTIFY downloadChanged)
    Q_PROPERTY(QString downloadingModel READ downloadingModel NOTIFY downloadChanged)
    Q_PROPERTY(QString downloadError READ downloadError NOTIFY downloadChanged)
    Q_PROPERTY(QVariantList catalogue READ catalogueList CONSTANT)

public:
    struct CatalogueEntry
    {
        QString name;
        QString title;
        QString fileName;
        // SHA-1 as published with the models (the table in models/README.md of the whisper.cpp sources
        // we build); checked over every byte after each download.
        QByteArray sha1;
        qint64 approximateBytes = 0;
    };

    struct InstalledModel
    {
        QString path;
        qint64 size = 0;
        bool usable = false;
        QString problem;
    };

    static constexpr const char *kSettingsKey = "whisperModelPath";

    explicit WhisperModelManager(QObject *parent = nullptr);
    // Another list of downloadable models (a mirror with its own files, tests).
    WhisperModelManager(QList<CatalogueEntry> catalogue, QObject *parent = nullptr);
    ~WhisperModelManager() override;

    // The published multilingual models Kelo offers, with their SHA-1 sums.
    static QList<CatalogueEntry> defaultCatalogue();
    QList<CatalogueEntry> catalogue() const { return m_catalogue; }
    std::optional<CatalogueEntry> catalogueEntry(const QString &name) const;
    static QString defaultModelName() { return QStringLiteral("base"); }

    QString modelsDirectory() const;
    QString pathFor(const CatalogueEntry &entry) const;
    QList<InstalledModel> installedModels() const;

    // The stored path, or else the first catalogue model found in the models folder.
    QString modelPath() const;
    void setModelPath(const QString &path);
    // Checks the file first; throws SpeechRecognitionError when it is not a usable model, and
    // FileSaveError when the choice cannot be saved.
    void useModel(const QString &path);
    // A model for this process only (the command line's --model); the stored choice stays.
    void setSessionModelPath(const QString &path);

    // The catalogue entry whose file is the chosen model, if it is one.
    std::optional<CatalogueEntry> chosenCatalogueEntry() const;
    // Whether the chosen model still has its published SHA-1 (read on a worker thread: 150 MB and
    // more); nothing for a model that does not come from the catalogue.
    QCoro::Task<std::optional<bool>> chosenModelMatchesChecksum() const;

    // A usable multilingual model file is where modelPath points (checked, then cached per file state).
    bool modelAvailable() const;
    QString statusText() const;

    bool isDownloading() const;
    double downloadProgress() const;
    QString downloadingModel() const;
    qint64 bytesReceived() const;
    qint64 bytesTotal() const;

    // Fetches a catalogue model into the models folder, resuming a partial file; checks its SHA-1 and
    // makes it the chosen model. Returns its path. Throws URLError, SpeechRecognitionError or
    // FileSaveError (the model is in place, but could not be made the saved choice).
    QCoro::Task<QString> download(QString name);
    Q_INVOKABLE void cancelDownload();
    // For the settings screen: starts download(name) and reports its failure in downloadError.
    Q_INVOKABLE void startDownload(const QString &name);
    QString downloadError() const { return m_downloadError; }
    // name, title and approximate size of each catalogue model, for a picker.
    QVariantList catalogueList() const;

    // Loads the chosen model on the worker thread and warms it up; kept while the file is unchanged.
    // The model is then loadedModel(); the task carries no value because QCoro's co_return moves
    // from an lvalue, which would empty the cached member.
    QCoro::Task<> loadModel(TranscriptionWorker *worker);
    std::shared_ptr<WhisperModel> loadedModel() const { return m_loaded; }
    void releaseModel();

Q_SIGNALS:
    void modelPathChanged();
    void statusChanged();
    void downloadChanged();

private:
    struct FileStamp
    {
        QString path;
        qint64 size = -1;
        QDateTime modified;
        bool operator==(const FileStamp &) const = default;
    };
    static FileStamp stampOf(const QString &path);
    // Throws FileSaveError.
    void storeModelPath(const QString &path);

    QList<CatalogueEntry> m_catalogue;
    QString m_sessionModelPath;
    WhisperModelDownload *m_download;
    QString m_downloadError;

    mutable std::optional<FileStamp> m_checkedStamp;
    mutable QString m_checkProblem;

    std::shared_ptr<WhisperModel> m_loaded;
    FileStamp m_loadedStamp;
};
