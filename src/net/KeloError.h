#pragma once

#include <QByteArray>
#include <QString>

#include <exception>

// Base of every error Kelo throws: each carries the Romanian text the user sees.
class KeloError : public std::exception
{
public:
    virtual QString description() const = 0;

    const char *what() const noexcept override
    {
        if (m_what.isEmpty())
            m_what = description().toUtf8();
        return m_what.constData();
    }

private:
    mutable QByteArray m_what;
};

// The Romanian description of any exception, for the places that must turn an arbitrary failure
// into a line of text (tool results, status lines).
QString describeException(std::exception_ptr error);
