#include "SecureStore.h"

#include "PrivateFile.h"
#include "SafeFileWriter.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusObjectPath>
#include <QDateTime>
#include <QEventLoop>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QStandardPaths>
#include <QTimer>
#include <qt6keychain/keychain.h>

namespace {
// Long enough for a busy keyring daemon, short enough that a hung bus does not freeze the app.
constexpr int keychainTimeoutMs = 10'000;
// Our file holds four short keys; anything this large is not ours to parse.
constexpr qint64 maximumFileSize = 1024 * 1024;
// An account no one writes: reading it tells whether a keychain answers at all.
const QString probeAccount = QStringLiteral("kelo.keychain-probe");

bool fileForcedByEnvironment()
{
    return qEnvironmentVariable("KELO_SECRET_STORE") == QLatin1String("file");
}

// What a keychain's answer to the probe says about where secrets belong.
bool fileFallbackFor(QKeychain::Error error)
{
    switch (error) {
    case QKeychain::NoError:
    case QKeychain::EntryNotFound:
    case QKeychain::CouldNotDeleteEntry:
        return false;
    // A locked keyring is still the user's keyring: keys stay there (reads come back empty until it
    // is unlocked) rather than being written in the clear behind the user's back.
    case QKeychain::AccessDeniedByUser:
    case QKeychain::AccessDenied:
        return false;
    // No session bus, no Secret Service on it, or no backend for this platform.
    case QKeychain::NoBackendAvailable:
    case QKeychain::NotImplemented:
    case QKeychain::OtherError:
        return true;
    }
    return true;
}

// A Secret Service that was merely started on demand (no login keyring, as on a bare window manager
// or over SSH) answers reads but has no collection to store into, and would drop every key the user
// types. Only a definite "no default collection" counts; other keychains (KWallet) are trusted.
bool secretServiceCannotStore()
{
    QDBusMessage readAlias = QDBusMessage::createMethodCall(QStringLiteral("org.freedesktop.secrets"),
        QStringLiteral("/org/freedesktop/secrets"), QStringLiteral("org.freedesktop.Secret.Service"),
        QStringLiteral("ReadAlias"));
    readAlias << QStringLiteral("default");
    // Asking must not start a keyring daemon behind another keychain's back.
    readAlias.setAutoStartService(false);
    const QDBusMessage reply = QDBusConnection::sessionBus().call(readAlias, QDBus::Block, keychainTimeoutMs);
    if (reply.type() != QDBusMessage::ReplyMessage || reply.arguments().isEmpty())
        return false;
    return reply.arguments().constFirst().value<QDBusObjectPath>().path() == QLatin1String("/");
}
} // namespace

QString SecureStore::appID()
{
    return QStringLiteral("ro.kelo.KeloCompanion");
}

SecureStore::SecureStore(QString service)
    : m_service(std::move(service))
{
    if (fileForcedByEnvironment())
        m_fileFallback = true;
}

std::optional<QString> SecureStore::read(const QString &key) const
{
    return usesFileFallback() ? readFile(key) : readKeychain(key);
}

void SecureStore::write(const QString &value, const QString &key)
{
    if (usesFileFallback())
        writeFile(value, key);
    else
        writeKeychain(value, key);
}

bool SecureStore::usesFileFallback() const
{
    if (!m_fileFallback) {
        m_fileFallback = probeKeychain();
        if (m_fileFallback == false)
            moveFileItemsToKeychain();
    }
    // Undecided (the keychain did not answer in time): keep to the keychain and ask again next time.
    return m_fileFallback.value_or(false);
}

QString SecureStore::fallbackFilePath() const
{
    return QStandardPaths::writableLocation(QStandardPaths::GenericConfigLocation)
        + QStringLiteral("/Kelo/secrets.json");
}

// ---- keychain ----

std::optional<bool> SecureStore::probeKeychain() const
{
    auto *job = new QKeychain::ReadPasswordJob(m_service);
    job->setKey(probeAccount);
    if (run(job) != JobOutcome::finished)
        return std::nullopt;
    const QKeychain::Error error = job->error();
    job->deleteLater();
    const bool fileFallback = fileFallbackFor(error);
    return fileFallback || secretServiceCannotStore();
}

SecureStore::JobOutcome SecureStore::run(QKeychain::Job *job) const
{
    if (m_stuckJob) {
        delete job;
        return JobOutcome::keychainBusy;
    }
    job->setAutoDelete(false);
    QEventLoop loop;
    bool finished = false;
    QObject::connect(job, &QKeychain::Job::finished, &loop, [&] {
        finished = true;
        loop.quit();
    });
    QTimer::singleShot(keychainTimeoutMs, &loop, &QEventLoop::quit);
    job->start();
    loop.exec(QEventLoop::ExcludeUserInputEvents);
    if (!finished) {
        // Still queued or running inside QtKeychain: it cleans itself up when it ends.
        QObject::connect(job, &QKeychain::Job::finished, job, &QObject::deleteLater);
        m_stuckJob = job;
        return JobOutcome::timedOut;
    }
    return JobOutcome::finished;
}

std::optional<QString> SecureStore::readKeychain(const QString &key) const
{
    auto *job = new QKeychain::ReadPasswordJob(m_service);
    job->setKey(key);
    if (run(job) != JobOutcome::finished)
        return std::nullopt;
    std::optional<QString> value;
    if (job->error() == QKeychain::NoError)
        value = job->textData();
    job->deleteLater();
    return value;
}

void SecureStore::writeKeychain(const QString &value, const QString &key) const
{
    QKeychain::Job *job = nullptr;
    if (value.isEmpty()) {
        job = new QKeychain::DeletePasswordJob(m_service);
    } else {
        auto *writeJob = new QKeychain::WritePasswordJob(m_service);
        // The Secret Service replaces an item with the same service and account, so this is both
        // the update and the add.
        writeJob->setTextData(value);
        job = writeJob;
    }
    job->setKey(key);
    if (run(job) == JobOutcome::finished)
        job->deleteLater();
}

// Keys saved while no keychain answered move into it once one does, and leave the plain file.
void SecureStore::moveFileItemsToKeychain() const
{
    if (!QFile::exists(fallbackFilePath()))
        return;
    const QJsonObject items = loadFile().value(m_service).toObject();
    for (auto item = items.begin(); item != items.end(); ++item) {
        const QString value = item.value().toString();
        if (value.isEmpty())
            continue;
        writeKeychain(value, item.key());
        if (readKeychain(item.key()) != value)
            continue;
        try {
            writeFile(QString(), item.key());
        } catch (const FileSaveError &) {
            // The key is safe in the keychain; the copy in the file goes on a later move.
        }
    }
}

// ---- file fallback ----

// The file maps service → account → secret.
QJsonObject SecureStore::loadFile() const
{
    QFile file(fallbackFilePath());
    if (!file.open(QIODevice::ReadOnly) || file.size() > maximumFileSize)
        return {};
    return QJsonDocument::fromJson(file.readAll()).object();
}

void SecureStore::saveFile(const QJsonObject &services) const
{
    const QString path = fallbackFilePath();
    QFile existing(path);
    if (existing.exists() && existing.open(QIODevice::ReadOnly)) {
        const bool damaged
            = existing.size() > maximumFileSize || !QJsonDocument::fromJson(existing.readAll()).isObject();
        existing.close();
        // Keys the user once typed are never overwritten unseen: a damaged file is set aside.
        if (damaged)
            existing.rename(path + QStringLiteral(".damaged-")
                + QDateTime::currentDateTimeUtc().toString(QStringLiteral("yyyyMMddHHmmss")));
    }
    PrivateFile::ensureFolder(QFileInfo(path).absolutePath());
    SafeFileWriter::save(path, QJsonDocument(services).toJson(QJsonDocument::Indented));
}

std::optional<QString> SecureStore::readFile(const QString &key) const
{
    const QJsonValue value = loadFile().value(m_service).toObject().value(key);
    if (!value.isString())
        return std::nullopt;
    return value.toString();
}

void SecureStore::writeFile(const QString &value, const QString &key) const
{
    QJsonObject services = loadFile();
    QJsonObject items = services.value(m_service).toObject();
    if (value.isEmpty()) {
        if (!items.contains(key))
            return;
        items.remove(key);
    } else {
        items.insert(key, value);
    }
    if (items.isEmpty())
        services.remove(m_service);
    else
        services.insert(m_service, items);
    saveFile(services);
}
