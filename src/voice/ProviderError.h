#pragma once

#include "net/KeloError.h"

#include <QString>

// A failure reported by a voice provider or by our own audio playback: the error domain
// ("Kelo.Google Cloud", "Kelo.Voice"…), a code (the HTTP status, -1 when the answer was not HTTP)
// and the text the user sees.
class ProviderError : public KeloError
{
public:
    ProviderError(QString domain, int code, QString text);

    // The error of a provider's non-2xx answer: the start of its body when that is readable text,
    // otherwise "<provider> nu a putut fi redat.".
    static ProviderError fromResponse(const QString &provider, int status, const QByteArray &body);
    // The cloud audio could not be decoded or the audio device refused to play it.
    static ProviderError audioNotPlayable();

    QString domain() const { return m_domain; }
    int code() const { return m_code; }
    QString description() const override { return m_text; }

private:
    QString m_domain;
    int m_code;
    QString m_text;
};
