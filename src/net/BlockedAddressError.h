#pragma once

#include "KeloError.h"

#include <QString>

// A web address that leads to this computer or to a local or private network: a page the model
// reads must not steer it at the user's own services.
class BlockedAddressError : public KeloError
{
public:
    BlockedAddressError(QString host, QString address)
        : m_host(std::move(host))
        , m_address(std::move(address))
    { }

    QString host() const { return m_host; }
    QString address() const { return m_address; }

    QString description() const override
    {
        return QStringLiteral("Nu citesc pagini de la „%1”: adresa %2 este a acestui calculator sau a unei rețele "
                              "locale ori private.")
            .arg(m_host, m_address);
    }

private:
    QString m_host;
    QString m_address;
};
