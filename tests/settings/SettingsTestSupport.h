#pragma once

#include "TemporaryHome.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTest>

#include <sys/stat.h>

// Helpers shared by the settings tests: the files as the app leaves them on disk.
namespace SettingsTestSupport {

inline QString settingsPath(const TemporaryHome &home)
{
    return home.configHome() + "/Kelo/KeloCompanion.conf";
}
inline QString secretsPath(const TemporaryHome &home)
{
    return home.configHome() + "/Kelo/secrets.json";
}

inline QByteArray contents(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

inline void writeFile(const QString &path, const QByteArray &text)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    QVERIFY(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
    file.write(text);
}

// Readable and writable by the owner, nothing for anyone else.
inline bool isOwnerOnly(const QString &path)
{
    struct stat info = {};
    return ::stat(QFile::encodeName(path).constData(), &info) == 0 && (info.st_mode & 0777) == 0600;
}

// A process-wide umask for one test, put back however the test ends.
struct ScopedUmask
{
    explicit ScopedUmask(mode_t mask)
        : previous(umask(mask))
    { }
    ~ScopedUmask() { umask(previous); }
    const mode_t previous;
};

// A run's config in another home, so the next AppSettings parses the disk, past QSettings' cache.
inline void copyConfig(const TemporaryHome &from, const TemporaryHome &to)
{
    const QDir source(from.configHome() + QStringLiteral("/Kelo"));
    QDir().mkpath(to.configHome() + QStringLiteral("/Kelo"));
    for (const QString &name : source.entryList(QDir::Files))
        QVERIFY(QFile::copy(source.filePath(name), to.configHome() + QStringLiteral("/Kelo/") + name));
}

} // namespace SettingsTestSupport
