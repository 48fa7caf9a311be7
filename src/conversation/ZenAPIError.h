#pragma once

#include "net/KeloError.h"

// Failures of the chat-completions service, with the texts the user sees.
class ZenAPIError : public KeloError
{
public:
    enum Kind { unsupportedModel, server, missingAPIKey, invalidResponse };

    static ZenAPIError makeUnsupportedModel(QString modelID) { return { unsupportedModel, std::move(modelID) }; }
    static ZenAPIError makeServer(QString message) { return { server, std::move(message) }; }
    static ZenAPIError makeMissingAPIKey() { return { missingAPIKey, {} }; }
    static ZenAPIError makeInvalidResponse() { return { invalidResponse, {} }; }

    Kind kind() const { return m_kind; }
    // The model id for unsupportedModel, the server's message for server.
    QString payload() const { return m_payload; }

    QString description() const override
    {
        switch (m_kind) {
        case unsupportedModel:
            return QStringLiteral("Modelul %1 nu este compatibil cu acest mod de conversație.").arg(m_payload);
        case server:
            return m_payload;
        case missingAPIKey:
            return QStringLiteral("Adaugă cheia OpenCode Zen în Setări.");
        case invalidResponse:
            break;
        }
        return QStringLiteral("OpenCode Zen a returnat un răspuns neașteptat.");
    }

private:
    ZenAPIError(Kind kind, QString payload)
        : m_kind(kind)
        , m_payload(std::move(payload))
    { }

    Kind m_kind;
    QString m_payload;
};
