#include "FileSaveError.h"

QString FileSaveError::reason() const
{
    switch (m_kind) {
    case Kind::diskFull:
        return QStringLiteral("spațiu insuficient pe disc");
    case Kind::permissionDenied:
        return QStringLiteral("nu am permisiunea de a scrie acolo (dosar sau disc doar pentru citire)");
    case Kind::symbolicLink:
        return QStringLiteral("este o legătură simbolică spre alt fișier, iar Kelo nu scrie prin legături");
    case Kind::unreadableOriginal:
        return QStringLiteral("fișierul existent nu a putut fi citit și nici copiat deoparte, iar o scriere l-ar "
                              "pierde");
    case Kind::other:
        break;
    }
    return m_detail.isEmpty() ? QStringLiteral("eroare de scriere")
                              : QStringLiteral("eroare de scriere (%1)").arg(m_detail);
}

QString FileSaveError::description() const
{
    switch (m_kind) {
    case Kind::diskFull:
        return QStringLiteral("Nu am putut salva %1: %2. Datele de dinainte au rămas neschimbate; eliberează "
                              "spațiu și încearcă din nou.")
            .arg(m_path, reason());
    case Kind::symbolicLink:
        return QStringLiteral("Nu am salvat %1: %2. Înlocuiește legătura cu un fișier obișnuit.").arg(m_path, reason());
    case Kind::unreadableOriginal:
        return QStringLiteral("Nu salvez %1: %2. Verifică fișierul și repornește Kelo.").arg(m_path, reason());
    case Kind::permissionDenied:
    case Kind::other:
        break;
    }
    return QStringLiteral("Nu am putut salva %1: %2. Datele de dinainte au rămas neschimbate.").arg(m_path, reason());
}
