#pragma once

#include "net/KeloError.h"

#include <QString>

// A file Kelo keeps could not be saved; the file on disk is as it was before. `path` names it in the
// message so the user knows which data is at stake.
class FileSaveError : public KeloError
{
public:
    enum class Kind {
        diskFull,
        permissionDenied,
        symbolicLink,
        unreadableOriginal,
        other,
    };

    FileSaveError(Kind kind, QString path, QString detail = {})
        : m_kind(kind)
        , m_path(std::move(path))
        , m_detail(std::move(detail))
    { }

    Kind kind() const { return m_kind; }
    QString path() const { return m_path; }
    QString description() const override;
    // The cause alone, for a message that names the file itself ("spațiu insuficient pe disc").
    QString reason() const;

private:
    Kind m_kind;
    QString m_path;
    QString m_detail;
};
