#pragma once

#include <QFuture>
#include <QString>
#include <QStringList>

// Removes, once per installation, the on-device language models that older versions left in Kelo's
// own cache and data folders; what other programs keep in the shared caches is never touched.
// Reports nothing; every failure is skipped.
class LegacyLocalModelCleaner
{
public:
    LegacyLocalModelCleaner() = delete;

    static constexpr const char *flagKey = "kelo.didRemoveLegacyLocalModels.v2";

    // Returns at once. The first call per installation sets the flag and starts the removal on a
    // pool thread; the future finishes when it is done (at once when there is nothing to do).
    static QFuture<void> runOnce();

    // The folders the cleanup looks into: Kelo's own under the XDG cache and data homes.
    static QStringList ownDirectories();

    // The removal itself, synchronously: what was found under `directory`, in removal order.
    static QStringList removeLegacyModels(const QString &directory);

private:
    static void collectMatches(const QString &directory, QStringList &matches);
    static bool isLegacyModelPath(const QString &path);
};
