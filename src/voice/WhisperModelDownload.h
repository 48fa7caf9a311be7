#pragma once

#include "WhisperModelManager.h"

#include <QCoroTask>
#include <QNetworkReply>
#include <QObject>
#include <QPointer>
#include <QString>

class QNetworkAccessManager;

// One catalogue model fetched into its final path: resumes a partial file, counts the progress,
// checks the SHA-1 over every byte and only then renames the file into place. One at a time.
class WhisperModelDownload : public QObject
{
    Q_OBJECT

public:
    explicit WhisperModelDownload(QObject *parent = nullptr);
    ~WhisperModelDownload() override;

    bool isRunning() const { return m_reply != nullptr; }
    double progress() const;
    QString modelName() const { return m_name; }
    qint64 bytesReceived() const { return m_bytesReceived; }
    qint64 bytesTotal() const { return m_bytesTotal; }

    // Throws URLError or SpeechRecognitionError; on success the checked file is at finalPath.
    QCoro::Task<> run(WhisperModelManager::CatalogueEntry entry, QString finalPath);
    void cancel();

Q_SIGNALS:
    void changed();

private:
    QCoro::Task<bool> fetchInto(const WhisperModelManager::CatalogueEntry &entry, const QString &partPath, bool resume);
    void setProgress(qint64 received, qint64 total);

    QNetworkAccessManager *m_network;
    QPointer<QNetworkReply> m_reply;
    QString m_name;
    qint64 m_bytesReceived = 0;
    qint64 m_bytesTotal = 0;
};
