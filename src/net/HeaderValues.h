#pragma once

#include <QByteArray>
#include <QStringView>

class QNetworkRequest;

// Every header value Kelo sends passes through here: values with control characters (a CR LF in a
// pasted key, above all) are refused instead of reaching the wire.
namespace HeaderValues {

// Anything below U+0020 (tab, CR and LF included) or U+007F.
bool hasControlCharacters(QStringView text);
bool hasControlCharacters(QByteArrayView bytes);

// Sets the header, or throws HeaderValueError when the value holds control characters.
void set(QNetworkRequest &request, const QByteArray &name, const QByteArray &value);

// Throws HeaderValueError for the first header of the request whose value holds control characters.
void checkAll(const QNetworkRequest &request);

} // namespace HeaderValues
