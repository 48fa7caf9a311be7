#include "SettingsFile.h"

#include "FileSaveError.h"
#include "PrivateFile.h"
#include "SafeFileWriter.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QLockFile>
#include <QSettings>
#include <QUuid>

#include <cerrno>
#include <cmath>
#include <cstdio>

namespace SettingsFile {

namespace {

// Long enough for another Kelo process to finish its own write.
constexpr int lockWaitMs = 5'000;

using Values = QList<std::pair<QString, QVariant>>;

QSettings openLive()
{
    return QSettings(QStringLiteral("Kelo"), QStringLiteral("KeloCompanion"));
}

bool isDamaged(const QString &file)
{
    if (!QFileInfo::exists(file))
        return false;
    QFile raw(file);
    if (!raw.open(QIODevice::ReadOnly))
        return true;
    raw.close();
    QSettings probe(file, QSettings::IniFormat);
    // Sections are parsed on first use; only then does a bad line show.
    probe.allKeys();
    return probe.status() != QSettings::NoError;
}

QByteArray contentsOf(const QString &file)
{
    QFile raw(file);
    return raw.open(QIODevice::ReadOnly) ? raw.readAll() : QByteArray();
}

// A copy of exactly these bytes that is already kept, so repeated starts do not pile up copies.
QString existingCopy(const QString &file, const QByteArray &contents)
{
    const QFileInfo info(file);
    const QString pattern = info.completeBaseName() + QStringLiteral(".damaged-*.") + info.suffix();
    for (const QFileInfo &copy : info.dir().entryInfoList({ pattern }, QDir::Files)) {
        if (copy.size() == contents.size() && contentsOf(copy.absoluteFilePath()) == contents)
            return copy.absoluteFilePath();
    }
    return {};
}

QString freeCopyName(const QString &file)
{
    const QFileInfo info(file);
    const QString stamp = QDateTime::currentDateTime().toString(QStringLiteral("yyyyMMdd-HHmmss"));
    const QString stem = info.dir().filePath(info.completeBaseName() + QStringLiteral(".damaged-") + stamp);
    QString candidate = stem + QLatin1Char('.') + info.suffix();
    for (int attempt = 2; QFileInfo::exists(candidate); ++attempt)
        candidate = stem + QStringLiteral("-%1.").arg(attempt) + info.suffix();
    return candidate;
}

Values currentValues(QSettings &live, const QString &key, const QVariant &value)
{
    Values values;
    for (const QString &existing : live.allKeys()) {
        if (existing != key)
            values.append({ existing, live.value(existing) });
    }
    if (value.isValid())
        values.append({ key, value });
    return values;
}

void removeLeftovers(const QString &file)
{
    const QFileInfo info(file);
    const QStringList patterns { info.fileName() + QStringLiteral(".saving-*"),
        info.fileName() + QStringLiteral(".verify-*") };
    for (const QString &name : info.dir().entryList(patterns, QDir::Files | QDir::Hidden))
        QFile::remove(info.dir().filePath(name));
}

// The staged file as a fresh reader sees it (under a name no QSettings of this process has cached).
bool readsBackAs(const QString &staged, const Values &values)
{
    QSettings check(staged, QSettings::IniFormat);
    const QStringList keys = check.allKeys();
    if (check.status() != QSettings::NoError || keys.size() != values.size())
        return false;
    return std::all_of(values.cbegin(), values.cend(), [&check](const std::pair<QString, QVariant> &entry) {
        const QVariant stored = check.value(entry.first);
        return stored.isValid() && stored.toString() == entry.second.toString();
    });
}

void writeStaged(const QString &file, const Values &values)
{
    const QString suffix = QUuid::createUuid().toString(QUuid::WithoutBraces);
    const QString staging = file + QStringLiteral(".saving-") + suffix;
    const QString verified = file + QStringLiteral(".verify-") + suffix;
    const qint64 expectedBytes = QFileInfo(file).size() + 1024;
    // Created private first: QSaveFile gives its replacement the mode of the file it replaces, so the
    // tokens in it are never readable by others, not even for a moment.
    PrivateFile::ensure(staging);
    {
        QSettings staged(staging, QSettings::IniFormat);
        for (const auto &[key, value] : values)
            staged.setValue(key, value);
        staged.sync();
        if (staged.status() != QSettings::NoError) {
            QFile::remove(staging);
            throw SafeFileWriter::failureFor(file, expectedBytes, 0);
        }
    }
    if (!QFile::rename(staging, verified) || !readsBackAs(verified, values)) {
        const int errorNumber = errno;
        QFile::remove(staging);
        QFile::remove(verified);
        throw SafeFileWriter::failureFor(file, expectedBytes, errorNumber);
    }
    PrivateFile::restrictToOwner(verified);
    // rename(2) replaces the old file in one step; QFile::rename refuses an existing target.
    if (std::rename(QFile::encodeName(verified).constData(), QFile::encodeName(file).constData()) != 0) {
        const int errorNumber = errno;
        QFile::remove(verified);
        throw SafeFileWriter::failureFor(file, expectedBytes, errorNumber);
    }
}

} // namespace

QString path()
{
    return openLive().fileName();
}

QString setAsideIfDamaged()
{
    const QString file = path();
    if (!isDamaged(file))
        return {};
    // Empty contents here mean a file that cannot be read (an empty file parses).
    if (const QByteArray contents = contentsOf(file); !contents.isEmpty()) {
        if (const QString kept = existingCopy(file, contents); !kept.isEmpty())
            return kept;
    }
    const QString target = freeCopyName(file);
    if (QFile::copy(file, target) || QFile::rename(file, target)) {
        PrivateFile::restrictToOwner(target);
        return target;
    }
    return {};
}

void store(const QString &key, const QVariant &value)
{
    const QString file = path();
    if (QFileInfo(file).isSymLink())
        throw FileSaveError(FileSaveError::Kind::symbolicLink, file);
    PrivateFile::ensureFolder(QFileInfo(file).absolutePath());
    // The same lock QSettings takes for its own writes, so no other Kelo process writes meanwhile.
    QLockFile lock(file + QStringLiteral(".lock"));
    errno = 0;
    if (!lock.tryLock(lockWaitMs))
        throw SafeFileWriter::failureFor(file, 4096, errno);
    removeLeftovers(file);
    setAsideIfDamaged();
    QSettings live = openLive();
    writeStaged(file, currentValues(live, key, value));
}

QString readString(const QSettings &settings, const QString &key, const QString &fallback)
{
    const QVariant value = settings.value(key);
    return value.typeId() == QMetaType::QString ? value.toString() : fallback;
}

bool readBool(const QSettings &settings, const QString &key, bool fallback)
{
    const QVariant value = settings.value(key);
    if (value.typeId() == QMetaType::Bool)
        return value.toBool();
    if (value.typeId() != QMetaType::QString)
        return fallback;
    const QString text = value.toString();
    if (text.compare(QLatin1String("true"), Qt::CaseInsensitive) == 0)
        return true;
    if (text.compare(QLatin1String("false"), Qt::CaseInsensitive) == 0)
        return false;
    return fallback;
}

double readDouble(const QSettings &settings, const QString &key, double fallback)
{
    const QVariant value = settings.value(key);
    const int type = value.typeId();
    if (type != QMetaType::QString && type != QMetaType::Double && type != QMetaType::Float && type != QMetaType::Int
        && type != QMetaType::LongLong)
        return fallback;
    bool ok = false;
    const double number = type == QMetaType::QString ? value.toString().toDouble(&ok) : value.toDouble(&ok);
    return ok && std::isfinite(number) ? number : fallback;
}

} // namespace SettingsFile
