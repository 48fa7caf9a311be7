#pragma once

#include <QString>

// Files that hold credentials (the settings with MCP bearer tokens, the fallback secrets file) are
// readable and writable by their owner only, from the moment they exist.
namespace PrivateFile {

// Creates the file (and its missing folders, owner-only) empty with mode 0600 unless it exists, and
// narrows an existing file to 0600. False when the file cannot be created.
bool ensure(const QString &path);

// Creates a missing folder (and its parents) readable by its owner only; an existing one keeps its
// mode. False when it cannot be created.
bool ensureFolder(const QString &folder);

// Narrows an existing file to 0600; a rewrite through a temporary file may have widened it.
void restrictToOwner(const QString &path);

} // namespace PrivateFile
