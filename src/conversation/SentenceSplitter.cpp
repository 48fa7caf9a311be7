#include "SentenceSplitter.h"

#include <QRegularExpression>

namespace {

bool isSentenceEnd(QChar c)
{
    return c == QLatin1Char('.') || c == QLatin1Char('!') || c == QLatin1Char('?') || c == QChar(0x2026);
}

bool isClauseEnd(QChar c)
{
    return c == QLatin1Char(',') || c == QLatin1Char(';') || c == QLatin1Char(':');
}

// Closing marks that belong to the sentence they follow.
bool isClosing(QChar c)
{
    static const QString closing = QStringLiteral("\"')]»”’*");
    return closing.contains(c);
}

int wordCount(const QString &text)
{
    static const QRegularExpression blank(QStringLiteral("\\s+"), QRegularExpression::UseUnicodePropertiesOption);
    return int(text.split(blank, Qt::SkipEmptyParts).size());
}

} // namespace

QStringList SentenceSplitter::feed(const QString &visibleDelta)
{
    m_pending += visibleDelta;
    QStringList pieces;
    while (const auto length = nextPieceLength()) {
        const QString piece = m_pending.left(*length).trimmed();
        m_pending.remove(0, *length);
        m_scanned = 0;
        if (!piece.isEmpty()) {
            pieces.append(piece);
            m_gavePiece = true;
        }
    }
    return pieces;
}

QString SentenceSplitter::finish()
{
    const QString rest = m_pending.trimmed();
    m_pending.clear();
    m_scanned = 0;
    m_gavePiece = false;
    return rest;
}

std::optional<qsizetype> SentenceSplitter::nextPieceLength()
{
    const qsizetype size = m_pending.size();
    for (qsizetype i = m_scanned; i < size; ++i) {
        const QChar c = m_pending.at(i);
        if (c == QLatin1Char('\n'))
            return i + 1;
        const bool clause = !m_gavePiece && isClauseEnd(c);
        if (!isSentenceEnd(c) && !clause)
            continue;
        qsizetype after = i + 1;
        while (after < size && (isSentenceEnd(m_pending.at(after)) || isClosing(m_pending.at(after))))
            ++after;
        // Whether this ends anything depends on the character after it.
        if (after == size) {
            m_scanned = i;
            return std::nullopt;
        }
        if (!m_pending.at(after).isSpace()) {
            i = after - 1;
            continue;
        }
        if (clause ? wordCount(m_pending.left(i)) >= minimumClauseWords : !endsAbbreviation(i))
            return after;
        i = after - 1;
    }
    m_scanned = size;
    return std::nullopt;
}

// A lone dot right after a known abbreviation or an initial ("I. L. Caragiale").
bool SentenceSplitter::endsAbbreviation(qsizetype dot) const
{
    static const QStringList abbreviations { QStringLiteral("dl"), QStringLiteral("dna"), QStringLiteral("dra"),
        QStringLiteral("dr"), QStringLiteral("nr"), QStringLiteral("ex"), QStringLiteral("etc"), QStringLiteral("prof"),
        QStringLiteral("ing"), QStringLiteral("str"), QStringLiteral("pag"), QStringLiteral("sf"),
        QStringLiteral("art"), QStringLiteral("alin"), QStringLiteral("vol") };
    if (dot + 1 < m_pending.size() && isSentenceEnd(m_pending.at(dot + 1)))
        return false;
    qsizetype start = dot;
    while (start > 0 && m_pending.at(start - 1).isLetter())
        --start;
    const QString word = m_pending.mid(start, dot - start);
    if (word.size() == 1 && word.at(0).isUpper())
        return true;
    return abbreviations.contains(word.toLower());
}
