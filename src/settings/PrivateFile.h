#pragma once

#include <QString>

// Files that hold credentials (the settings with MCP bearer tokens, the fallback secrets file) are
// readable and writable by their owner only, from the moment they exist.
namespace PrivateFile {

// Creates the file (and its missing folders, owner-only) empty with mode 0600 unless it exists, and
// narrows an existing file to 0600. False when the file cannot be created.
bool ensure(const QString &path);

// Narrows an existing file to 0600; a rewrite through a temporary file may have widened it.
void restrictToOwner(const QString &path);

} // namespace PrivateFile
