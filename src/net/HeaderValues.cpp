#include "HeaderValues.h"

#include "HeaderValueError.h"

#include <QNetworkRequest>

#include <algorithm>

namespace {

bool isControl(char32_t code)
{
    return code < 0x20 || code == 0x7f;
}

} // namespace

namespace HeaderValues {

bool hasControlCharacters(QStringView text)
{
    return std::any_of(text.begin(), text.end(), [](QChar c) { return isControl(c.unicode()); });
}

bool hasControlCharacters(QByteArrayView bytes)
{
    return std::any_of(bytes.begin(), bytes.end(), [](char c) { return isControl(static_cast<unsigned char>(c)); });
}

void set(QNetworkRequest &request, const QByteArray &name, const QByteArray &value)
{
    if (hasControlCharacters(value))
        throw HeaderValueError(QString::fromLatin1(name));
    request.setRawHeader(name, value);
}

void checkAll(const QNetworkRequest &request)
{
    for (const QByteArray &name : request.rawHeaderList()) {
        if (hasControlCharacters(request.rawHeader(name)))
            throw HeaderValueError(QString::fromLatin1(name));
    }
}

} // namespace HeaderValues
