#pragma once

#include "FileSaveError.h"

#include <QByteArray>
#include <QFileDevice>
#include <QString>

// Every file Kelo keeps is replaced whole or not at all: the new contents go to a temporary file
// beside it, every byte is checked as written, and only a complete file takes the old one's place.
// A symbolic link is never written through (nor replaced): whatever it points at stays untouched.
namespace SafeFileWriter {

constexpr QFileDevice::Permissions ownerOnly = QFileDevice::ReadOwner | QFileDevice::WriteOwner;

// Throws FileSaveError; the file on disk is then exactly as it was.
void save(const QString &path, const QByteArray &contents, QFileDevice::Permissions permissions = ownerOnly);

// Why writing `bytes` to `path` failed, from the system's error number (0 when unknown) and the state
// of the file system: full, read-only or not ours to write.
FileSaveError failureFor(const QString &path, qint64 bytes, int errorNumber, const QString &detail = {});

} // namespace SafeFileWriter
