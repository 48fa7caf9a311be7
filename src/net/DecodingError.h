#pragma once

#include "KeloError.h"

#include <QString>

// A reply arrived whole but does not have the shape the caller expects (not JSON, a required member
// missing, a member of the wrong type). `detail` names what was wrong, in Romanian.
class DecodingError : public KeloError
{
public:
    explicit DecodingError(QString detail)
        : m_detail(std::move(detail))
    { }

    QString detail() const { return m_detail; }

    QString description() const override
    {
        return QStringLiteral("Răspunsul serverului nu are forma așteptată: %1.").arg(m_detail);
    }

private:
    QString m_detail;
};
