#include "ReasoningFilter.h"

#include <QRegularExpression>

QString ReasoningFilter::feed(const QString &delta)
{
    m_raw += delta;
    const QString visible = visibleSoFar(false);
    const QString fresh = visible.mid(m_emitted);
    m_emitted = std::max(m_emitted, visible.size());
    return fresh;
}

QString ReasoningFilter::finish()
{
    const QString visible = visibleSoFar(true);
    return visible.mid(std::min(m_emitted, visible.size()));
}

QString ReasoningFilter::visibleSoFar(bool atEnd) const
{
    static const QRegularExpression closed(QStringLiteral("<(think|analysis)>.*?</\\1>"),
        QRegularExpression::CaseInsensitiveOption | QRegularExpression::DotMatchesEverythingOption);
    static const QRegularExpression open(
        QStringLiteral("<(think|analysis)>"), QRegularExpression::CaseInsensitiveOption);
    QString text = m_raw;
    text.remove(closed);
    if (const auto match = open.match(text); match.hasMatch())
        text.truncate(match.capturedStart());
    if (!atEnd) {
        const qsizetype lastOpen = text.lastIndexOf(QLatin1Char('<'));
        if (lastOpen >= 0 && !text.mid(lastOpen).contains(QLatin1Char('>')))
            text.truncate(lastOpen);
    }
    return text;
}
