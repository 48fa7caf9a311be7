#include "LegacyLocalModelCleaner.h"

#include "FileSaveError.h"
#include "SettingsFile.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QPromise>
#include <QSettings>
#include <QStandardPaths>
#include <QThreadPool>

namespace {

const QLatin1StringView legacyPatterns[] = {
    QLatin1StringView("models--mlx-community--qwen"),
    QLatin1StringView("models--mlx-community--gemma"),
    QLatin1StringView("/mlx-community/qwen"),
    QLatin1StringView("/mlx-community/gemma"),
};

// QSettings hands back every scalar as text after a restart; only "true" counts as set.
bool flagIsSet(const QSettings &settings)
{
    const QVariant value = settings.value(QLatin1StringView(LegacyLocalModelCleaner::flagKey));
    if (value.typeId() == QMetaType::Bool)
        return value.toBool();
    return value.toString().compare(QLatin1String("true"), Qt::CaseInsensitive) == 0;
}

QFuture<void> finishedFuture()
{
    QPromise<void> promise;
    promise.start();
    promise.finish();
    return promise.future();
}

} // namespace

QFuture<void> LegacyLocalModelCleaner::runOnce()
{
    if (flagIsSet(QSettings(QStringLiteral("Kelo"), QStringLiteral("KeloCompanion"))))
        return finishedFuture();
    // Set before any work, so a crash during the cleanup never leads to a second attempt. When the
    // flag cannot be saved the cleanup waits for a start that can.
    try {
        SettingsFile::store(QLatin1StringView(flagKey), true);
    } catch (const FileSaveError &) {
        return finishedFuture();
    }

    auto promise = std::make_shared<QPromise<void>>();
    QFuture<void> future = promise->future();
    promise->start();
    QThreadPool::globalInstance()->start([promise, roots = ownDirectories()] {
        for (const QString &root : roots)
            removeLegacyModels(root);
        promise->finish();
    });
    return future;
}

// The caches are shared with every other program: only folders named after Kelo are ours to clean.
QStringList LegacyLocalModelCleaner::ownDirectories()
{
    QStringList roots;
    for (const auto location : { QStandardPaths::GenericCacheLocation, QStandardPaths::GenericDataLocation }) {
        const QString base = QStandardPaths::writableLocation(location);
        if (!base.isEmpty())
            roots.append(base + QStringLiteral("/Kelo"));
    }
    return roots;
}

QStringList LegacyLocalModelCleaner::removeLegacyModels(const QString &directory)
{
    QStringList matches;
    collectMatches(directory, matches);
    for (const QString &path : std::as_const(matches)) {
        const QFileInfo info(path);
        if (info.isDir() && !info.isSymLink())
            QDir(path).removeRecursively();
        else
            QFile::remove(path);
    }
    return matches;
}

// Hidden entries are not listed at all, and a matching folder is taken whole without visiting its
// contents. Symbolic links are never followed, so nothing outside the caches can be reached.
void LegacyLocalModelCleaner::collectMatches(const QString &directory, QStringList &matches)
{
    const QFileInfoList entries
        = QDir(directory).entryInfoList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::System, QDir::Name);
    for (const QFileInfo &entry : entries) {
        const QString path = entry.absoluteFilePath();
        if (isLegacyModelPath(path))
            matches.append(path);
        else if (entry.isDir() && !entry.isSymLink())
            collectMatches(path, matches);
    }
}

bool LegacyLocalModelCleaner::isLegacyModelPath(const QString &path)
{
    const QString lowered = path.toLower();
    return std::any_of(std::begin(legacyPatterns), std::end(legacyPatterns),
        [&lowered](QLatin1StringView pattern) { return lowered.contains(pattern); });
}
