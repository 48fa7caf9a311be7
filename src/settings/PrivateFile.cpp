#include "PrivateFile.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

namespace PrivateFile {

namespace {
constexpr QFileDevice::Permissions ownerOnly = QFileDevice::ReadOwner | QFileDevice::WriteOwner;
} // namespace

bool ensureFolder(const QString &folder)
{
    if (QFileInfo::exists(folder))
        return true;
    if (!QDir().mkpath(folder))
        return false;
    // Only a folder we made ourselves is narrowed; the user's own folders keep their modes.
    QFile::setPermissions(folder, ownerOnly | QFileDevice::ExeOwner);
    return true;
}

bool ensure(const QString &path)
{
    if (!ensureFolder(QFileInfo(path).absolutePath()))
        return false;
    if (QFileInfo::exists(path)) {
        restrictToOwner(path);
        return true;
    }
    QFile file(path);
    // Created with its final mode, so there is no moment when others could open it.
    if (!file.open(QIODevice::WriteOnly | QIODevice::NewOnly, ownerOnly))
        return QFileInfo::exists(path);
    return true;
}

void restrictToOwner(const QString &path)
{
    if (QFileInfo::exists(path))
        QFile::setPermissions(path, ownerOnly);
}

} // namespace PrivateFile
