#pragma once

#include "TemporaryHome.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSettings>
#include <QTest>

#include <sys/stat.h>

// Helpers shared by the settings tests: the files as the app leaves them on disk.
namespace SettingsTestSupport {

inline QString settingsPath(const TemporaryHome &home)
{
    return home.configHome() + QStringLiteral("/Kelo/KeloCompanion.conf");
}

inline QString secretsPath(const TemporaryHome &home)
{
    return home.configHome() + QStringLiteral("/Kelo/secrets.json");
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

// A value as the next start will read it: parsed from a copy of the file, past QSettings' cache.
inline QString storedText(const QString &path, const QString &key)
{
    const QString copy = path + QStringLiteral(".copy");
    QFile::remove(copy);
    QFile::copy(path, copy);
    const QString value = QSettings(copy, QSettings::IniFormat).value(key).toString();
    QFile::remove(copy);
    return value;
}

// Readable and writable by the owner, nothing for anyone else.
inline bool isOwnerOnly(const QString &path)
{
    const QFileDevice::Permissions others = QFileDevice::ReadGroup | QFileDevice::WriteGroup | QFileDevice::ExeGroup
        | QFileDevice::ReadOther | QFileDevice::WriteOther | QFileDevice::ExeOther;
    const QFileDevice::Permissions permissions = QFile::permissions(path);
    return QFile::exists(path) && !(permissions & others) && (permissions & QFileDevice::ReadOwner)
        && (permissions & QFileDevice::WriteOwner);
}

// A process-wide umask for one test, put back however the test ends.
class ScopedUmask
{
public:
    explicit ScopedUmask(mode_t mask)
        : m_previous(umask(mask))
    { }
    ~ScopedUmask() { umask(m_previous); }

private:
    mode_t m_previous;
};

// Copies what one run left in the config folder into another home. The next AppSettings then parses
// the files from disk, as a new process would, instead of QSettings' in-process cache.
inline void copyConfig(const TemporaryHome &from, const TemporaryHome &to)
{
    const QDir source(from.configHome() + QStringLiteral("/Kelo"));
    const QString target = to.configHome() + QStringLiteral("/Kelo");
    QDir().mkpath(target);
    for (const QString &name : source.entryList(QDir::Files))
        QVERIFY(QFile::copy(source.filePath(name), target + QLatin1Char('/') + name));
}

} // namespace SettingsTestSupport
