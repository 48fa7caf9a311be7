#pragma once

#include "net/KeloError.h"

// Failures of an MCP server exchange.
class MCPError : public KeloError
{
public:
    // sessionExpired: the server no longer knows the session it gave us, even after a new handshake.
    enum Kind { remote, invalidEndpoint, invalidResponse, unauthorized, sessionExpired };

    explicit MCPError(Kind kind, QString message = {})
        : m_kind(kind)
        , m_message(std::move(message))
    { }

    Kind kind() const { return m_kind; }
    QString message() const { return m_message; }

    QString description() const override
    {
        switch (m_kind) {
        case remote:
            return QStringLiteral("MCP: ") + m_message;
        case invalidEndpoint:
            return QStringLiteral("Endpoint MCP invalid.");
        case invalidResponse:
            return QStringLiteral("Răspuns MCP invalid.");
        case sessionExpired:
            return QStringLiteral("Serverul MCP nu mai recunoaște sesiunea.");
        case unauthorized:
            break;
        }
        return QStringLiteral("MCP necesită autentificare sau tokenul a expirat.");
    }

private:
    Kind m_kind;
    QString m_message;
};
