#pragma once

#include "net/KeloError.h"

// Failures of connecting an MCP service by OAuth.
class MCPOAuthError : public KeloError
{
public:
    enum Kind {
        registrationFailed,
        tokenExchangeFailed,
        invalidEndpoint,
        metadataUnavailable,
        clientIDRequired,
        invalidCallback,
        stateMismatch,
        tokenMissing,
        // The provider sent the user back with an error; the detail is its description or code.
        authorizationRefused,
    };

    explicit MCPOAuthError(Kind kind, QString detail = {})
        : m_kind(kind)
        , m_detail(std::move(detail))
    { }

    Kind kind() const { return m_kind; }
    QString detail() const { return m_detail; }

    QString description() const override
    {
        switch (m_kind) {
        case registrationFailed:
            return QStringLiteral("Înregistrarea OAuth a eșuat: ") + m_detail;
        case tokenExchangeFailed:
            return QStringLiteral("Schimbul codului OAuth a eșuat: ") + m_detail;
        case invalidEndpoint:
            return QStringLiteral("Endpoint-ul MCP nu este valid.");
        case metadataUnavailable:
            return QStringLiteral("Serverul nu publică suficiente informații OAuth pentru conectare automată.");
        case clientIDRequired:
            return QStringLiteral(
                "Acest provider necesită un Client ID. Creează o aplicație OAuth la provider și introdu datele aici.");
        case invalidCallback:
            return QStringLiteral("Autentificarea nu a returnat un cod OAuth valid.");
        case stateMismatch:
            return QStringLiteral("Răspuns OAuth invalid: parametrul state nu corespunde.");
        case authorizationRefused:
            return QStringLiteral("Providerul a refuzat autentificarea: ") + m_detail;
        case tokenMissing:
            break;
        }
        return QStringLiteral("Providerul nu a returnat access_token.");
    }

private:
    Kind m_kind;
    QString m_detail;
};
