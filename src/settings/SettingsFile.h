#pragma once

#include <QSettings>
#include <QString>
#include <QVariant>

#include <optional>

// The one settings file ("Kelo"/"KeloCompanion", INI). QSettings is used to read it and to format
// it, but a change reaches the file only through store(): QSaveFile, as QSettings drives it, commits
// a file whose last bytes failed to reach a full disk, so every write is staged beside the file,
// read back in full, and only then renamed over it.
namespace SettingsFile {

QString path();

// Sets `key` (an invalid value removes it) and writes the whole file, keeping it private (0600).
// Throws FileSaveError; the file is then as it was. A damaged file is set aside first.
void store(const QString &key, const QVariant &value);

// When the file cannot be read, or QSettings cannot parse it, a copy is kept beside it as
// "KeloCompanion.damaged-<time>.conf" (once per distinct content; moved there when it cannot even be
// copied), so no rewrite loses what it held. Returns that copy's path, empty for a sound file.
QString setAsideIfDamaged();

// Typed reads that fall back when the stored value has the wrong type: an edited or older file
// must not turn into surprising settings.
QString readString(const QSettings &settings, const QString &key, const QString &fallback);
// The INI file hands every value back as text after a restart, and QVariant would turn any text
// but "false" into true; only a real boolean or its spelling counts.
bool readBool(const QSettings &settings, const QString &key, bool fallback);
// Infinity and NaN parse as numbers but are no usable value.
double readDouble(const QSettings &settings, const QString &key, double fallback);
template<typename Enum>
Enum readPreset(
    const QSettings &settings, const QString &key, std::optional<Enum> (*fromRawValue)(const QString &), Enum fallback)
{
    const QVariant value = settings.value(key);
    if (value.typeId() != QMetaType::QString)
        return fallback;
    return fromRawValue(value.toString()).value_or(fallback);
}

} // namespace SettingsFile
