#pragma once

#include "net/KeloError.h"

// Why the browser step of an OAuth flow ended without a callback.
class WebAuthenticationError : public KeloError
{
public:
    enum Kind { canceled, timedOut, browserUnavailable, callbackChannelUnavailable };

    explicit WebAuthenticationError(Kind kind, QString detail = {})
        : m_kind(kind)
        , m_detail(std::move(detail))
    { }

    Kind kind() const { return m_kind; }

    QString description() const override
    {
        switch (m_kind) {
        case canceled:
            return QStringLiteral("Autentificarea a fost anulată.");
        case timedOut:
            return QStringLiteral("Autentificarea nu s-a încheiat la timp. Încearcă din nou.");
        case browserUnavailable:
            return QStringLiteral("Nu am putut deschide browserul pentru autentificare.");
        case callbackChannelUnavailable:
            break;
        }
        return QStringLiteral("Kelo nu poate primi răspunsul de autentificare: ") + m_detail;
    }

private:
    Kind m_kind;
    QString m_detail;
};
