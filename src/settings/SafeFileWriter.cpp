#include "SafeFileWriter.h"

#include <QFileInfo>
#include <QSaveFile>
#include <QStorageInfo>

#include <cerrno>

namespace SafeFileWriter {

namespace {
// Room a file system keeps for its own bookkeeping; below this a write of `bytes` cannot succeed.
constexpr qint64 slackBytes = 4096;

[[noreturn]] void fail(QSaveFile &file, const QString &path, qint64 bytes)
{
    const int errorNumber = errno;
    const QString detail = file.errorString();
    file.cancelWriting();
    throw failureFor(path, bytes, errorNumber, detail);
}
} // namespace

void save(const QString &path, const QByteArray &contents, QFileDevice::Permissions permissions)
{
    // QSaveFile would follow the link and replace its target.
    if (QFileInfo(path).isSymLink())
        throw FileSaveError(FileSaveError::Kind::symbolicLink, path);
    errno = 0;
    QSaveFile file(path);
    // Unbuffered, so a short write shows here instead of in a flush hidden inside commit().
    if (!file.open(QIODevice::WriteOnly | QIODevice::Unbuffered))
        fail(file, path, contents.size());
    file.setPermissions(permissions);
    if (file.write(contents) != contents.size() || !file.flush())
        fail(file, path, contents.size());
    if (!file.commit())
        fail(file, path, contents.size());
}

FileSaveError failureFor(const QString &path, qint64 bytes, int errorNumber, const QString &detail)
{
    using Kind = FileSaveError::Kind;
    if (errorNumber == ENOSPC || errorNumber == EDQUOT)
        return { Kind::diskFull, path };
    if (errorNumber == EACCES || errorNumber == EPERM || errorNumber == EROFS)
        return { Kind::permissionDenied, path };
    const QString folder = QFileInfo(path).absolutePath();
    const QStorageInfo storage(folder);
    if (storage.isValid() && storage.isReadOnly())
        return { Kind::permissionDenied, path };
    if (storage.isValid() && storage.bytesAvailable() < bytes + slackBytes)
        return { Kind::diskFull, path };
    if (!QFileInfo(folder).isWritable())
        return { Kind::permissionDenied, path };
    return { Kind::other, path, detail };
}

} // namespace SafeFileWriter
