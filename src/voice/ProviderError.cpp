#include "ProviderError.h"

#include <QStringDecoder>

#include <optional>

namespace {

// How much of an error body the user gets to read.
constexpr qsizetype errorBodyCharacters = 600;

// The body as UTF-8 text, or nothing when it is empty or not valid UTF-8.
std::optional<QString> utf8Text(const QByteArray &body)
{
    if (body.isEmpty())
        return std::nullopt;
    QStringDecoder decoder(QStringDecoder::Utf8, QStringDecoder::Flag::Stateless);
    QString text = decoder.decode(body);
    if (decoder.hasError())
        return std::nullopt;
    return text;
}

} // namespace

ProviderError::ProviderError(QString domain, int code, QString text)
    : m_domain(std::move(domain))
    , m_code(code)
    , m_text(std::move(text))
{ }

ProviderError ProviderError::fromResponse(const QString &provider, int status, const QByteArray &body)
{
    const int code = status > 0 ? status : -1;
    const std::optional<QString> text = utf8Text(body);
    // Count characters, not UTF-16 units: never cut a surrogate pair in half.
    QString shown;
    if (text) {
        qsizetype characters = 0;
        for (qsizetype i = 0; i < text->size() && characters < errorBodyCharacters; ++i, ++characters) {
            shown += text->at(i);
            if (text->at(i).isHighSurrogate() && i + 1 < text->size())
                shown += text->at(++i);
        }
    }
    if (shown.isEmpty())
        shown = provider + QStringLiteral(" nu a putut fi redat.");
    return ProviderError(QStringLiteral("Kelo.") + provider, code, shown);
}

ProviderError ProviderError::audioNotPlayable()
{
    return ProviderError(QStringLiteral("Kelo.Voice"), 3, QStringLiteral("Fișierul audio nu a putut fi redat."));
}
