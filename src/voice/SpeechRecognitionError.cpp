#include "SpeechRecognitionError.h"

QString SpeechRecognitionError::permissionText()
{
    return QStringLiteral("Permite accesul la Microfon și Recunoaștere vocală din Settings.");
}

QString SpeechRecognitionError::unavailableText()
{
    return QStringLiteral("Recunoașterea vocală în română nu este disponibilă momentan.");
}

QString SpeechRecognitionError::description() const
{
    switch (m_kind) {
    case Kind::permissionDenied:
        return permissionText();
    case Kind::unavailable:
        return unavailableText();
    case Kind::audioFailure:
        // The platform's own description, as the user would see it anywhere else.
        return m_detail.isEmpty() ? QStringLiteral("Microfonul nu a putut fi pornit.") : m_detail;
    case Kind::modelMissing:
        return QStringLiteral("Modelul de recunoaștere vocală nu există: %1").arg(m_detail);
    case Kind::modelInvalid:
        return QStringLiteral("Fișierul nu este un model de recunoaștere vocală valid (%1).").arg(m_detail);
    case Kind::modelEnglishOnly:
        return QStringLiteral("Modelul „%1” recunoaște doar engleza; alege un model multilingv.").arg(m_detail);
    case Kind::downloadFailed:
        return m_detail.isEmpty() ? QStringLiteral("Descărcarea modelului a eșuat.")
                                  : QStringLiteral("Descărcarea modelului a eșuat: %1").arg(m_detail);
    case Kind::checksumMismatch:
        return QStringLiteral(
            "Modelul descărcat este deteriorat (suma de control nu se potrivește). Încearcă din nou.");
    case Kind::transcriptionFailed:
        return QStringLiteral("Recunoașterea vocală a eșuat.");
    }
    return unavailableText();
}
