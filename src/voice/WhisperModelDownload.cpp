#include "WhisperModelDownload.h"

#include "SpeechRecognitionError.h"
#include "net/Endpoints.h"
#include "net/URLError.h"
#include "settings/SafeFileWriter.h"

#include <QCoroNetworkReply>
#include <QCryptographicHash>
#include <QFile>
#include <QFileInfo>
#include <QNetworkAccessManager>
#include <QNetworkReply>

#include <cerrno>
#include <cstdio>

namespace {

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
        // An aborted reply is closed; what it still announces is not read.
        if (!reply->isOpen())
            return;
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

WhisperModelDownload::WhisperModelDownload(QObject *parent)
    : QObject(parent)
    , m_network(new QNetworkAccessManager(this))
{ }

WhisperModelDownload::~WhisperModelDownload()
{
    cancel();
}

double WhisperModelDownload::progress() const
{
    return m_bytesTotal > 0 ? std::clamp(double(m_bytesReceived) / double(m_bytesTotal), 0.0, 1.0) : 0.0;
}

void WhisperModelDownload::setProgress(qint64 received, qint64 total)
{
    m_bytesReceived = received;
    m_bytesTotal = total;
    Q_EMIT changed();
}

void WhisperModelDownload::cancel()
{
    if (m_reply)
        m_reply->abort();
}

QCoro::Task<> WhisperModelDownload::run(WhisperModelManager::CatalogueEntry entry, QString finalPath)
{
    const QString partPath = finalPath + QStringLiteral(".part");
    m_name = entry.name;
    setProgress(0, entry.approximateBytes);

    bool complete = false;
    try {
        complete = co_await fetchInto(entry, partPath, true);
        // The server refused to continue the partial file: start over once, cleanly.
        if (!complete)
            complete = co_await fetchInto(entry, partPath, false);
    } catch (...) {
        // An attempt that wrote nothing leaves nothing to resume.
        if (QFileInfo(partPath).size() == 0)
            QFile::remove(partPath);
        m_name.clear();
        Q_EMIT changed();
        throw;
    }
    m_name.clear();
    Q_EMIT changed();
    if (!complete)
        throw SpeechRecognitionError(
            SpeechRecognitionError::Kind::downloadFailed, QStringLiteral("serverul nu a trimis fișierul"));

    // rename(2) puts the checked file in place in one step; a model already there stays until then.
    if (std::rename(QFile::encodeName(partPath).constData(), QFile::encodeName(finalPath).constData()) != 0)
        throw SpeechRecognitionError(SpeechRecognitionError::Kind::downloadFailed,
            QStringLiteral("fișierul nu a putut fi mutat în %1").arg(finalPath));
}

// Streams the model into partPath, continuing what is there when `resume` is set. Returns false when
// the server cannot continue the partial file (HTTP 416), so the caller may start clean.
QCoro::Task<bool> WhisperModelDownload::fetchInto(
    const WhisperModelManager::CatalogueEntry &entry, const QString &partPath, bool resume)
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
