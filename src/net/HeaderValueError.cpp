#include "HeaderValueError.h"

HeaderValueError::HeaderValueError(QString headerName)
    : m_headerName(std::move(headerName))
{ }

QString HeaderValueError::description() const
{
    return QStringLiteral("Valoarea antetului „%1” conține caractere de control (de exemplu un rând nou), așa că "
                          "cererea nu a fost trimisă. Verifică cheia sau tokenul din setări.")
        .arg(m_headerName);
}
