#include "SentenceSplitter.h"

#include <QRegularExpression>

QStringList SentenceSplitter::feed(const QString &visibleDelta)
{
    static const QRegularExpression end(QStringLiteral("[.!?…]+\\s+"));
    m_pending += visibleDelta;
    QStringList sentences;
    auto match = end.match(m_pending);
    while (match.hasMatch()) {
        const QString sentence = m_pending.left(match.capturedEnd()).trimmed();
        if (!sentence.isEmpty())
            sentences.append(sentence);
        m_pending.remove(0, match.capturedEnd());
        match = end.match(m_pending);
    }
    return sentences;
}

QString SentenceSplitter::finish()
{
    return std::exchange(m_pending, QString()).trimmed();
}
