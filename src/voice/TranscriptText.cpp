#include "TranscriptText.h"

namespace TranscriptText {

QString normalised(const QString &text)
{
    QString result = text;
    result.replace(QChar(0x015F), QChar(0x0219)); // ş → ș
    result.replace(QChar(0x015E), QChar(0x0218)); // Ş → Ș
    result.replace(QChar(0x0163), QChar(0x021B)); // ţ → ț
    result.replace(QChar(0x0162), QChar(0x021A)); // Ţ → Ț
    // Byte-level tokens can split a letter; the halves decode to replacement characters.
    result.remove(QChar::ReplacementCharacter);
    return result.simplified();
}

} // namespace TranscriptText
