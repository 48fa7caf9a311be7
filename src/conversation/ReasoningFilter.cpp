#include "ReasoningFilter.h"

#include <QStringList>

namespace {

const QStringList reasoningTags { QStringLiteral("think"), QStringLiteral("analysis") };

enum class TagMatch { none, partial, whole };

// `text` starts with '<': is it an opening tag, the beginning of one still arriving, or neither?
TagMatch matchOpening(const QString &text, QString &tagName)
{
    for (const QString &name : reasoningTags) {
        const QString tag = QLatin1Char('<') + name + QLatin1Char('>');
        if (text.startsWith(tag, Qt::CaseInsensitive)) {
            tagName = name;
            return TagMatch::whole;
        }
        if (tag.startsWith(text, Qt::CaseInsensitive))
            return TagMatch::partial;
    }
    return TagMatch::none;
}

} // namespace

QString ReasoningFilter::feed(const QString &delta)
{
    m_pending += delta;
    QString visible;
    while (!m_pending.isEmpty()) {
        if (!m_closingTag.isEmpty()) {
            const qsizetype close = m_pending.indexOf(m_closingTag, 0, Qt::CaseInsensitive);
            if (close < 0) {
                // Only a closing tag split between pieces needs keeping.
                m_pending = m_pending.right(m_closingTag.size() - 1);
                break;
            }
            m_pending.remove(0, close + m_closingTag.size());
            m_closingTag.clear();
            continue;
        }
        const qsizetype open = m_pending.indexOf(QLatin1Char('<'));
        if (open < 0) {
            visible += std::exchange(m_pending, QString());
            break;
        }
        visible += m_pending.left(open);
        m_pending.remove(0, open);
        QString tagName;
        const TagMatch match = matchOpening(m_pending, tagName);
        if (match == TagMatch::partial)
            break;
        if (match == TagMatch::none) {
            visible += QLatin1Char('<');
            m_pending.remove(0, 1);
            continue;
        }
        m_pending.remove(0, tagName.size() + 2);
        m_closingTag = QStringLiteral("</") + tagName + QLatin1Char('>');
    }
    return visible;
}

QString ReasoningFilter::finish()
{
    const bool insideBlock = !m_closingTag.isEmpty();
    m_closingTag.clear();
    const QString rest = std::exchange(m_pending, QString());
    return insideBlock ? QString() : rest;
}
