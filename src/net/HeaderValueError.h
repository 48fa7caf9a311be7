#pragma once

#include "KeloError.h"

#include <QString>

// A header value (often an API key or a token) holds control characters: sent as is, a line break
// would smuggle extra header lines to the server, so the request is never made.
class HeaderValueError : public KeloError
{
public:
    explicit HeaderValueError(QString headerName);

    QString headerName() const { return m_headerName; }
    QString description() const override;

private:
    QString m_headerName;
};
