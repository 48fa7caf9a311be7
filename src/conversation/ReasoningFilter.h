#pragma once

#include <QString>

// Placeholder until the streaming filter lands: strips reasoning blocks from streamed text.
class ReasoningFilter
{
public:
    QString feed(const QString &delta);
    QString finish();

private:
    QString visibleSoFar(bool atEnd) const;

    QString m_raw;
    qsizetype m_emitted = 0;
};
