#pragma once

#include <QString>
#include <QStringList>

#include <optional>

// Cuts visible answer text, as it arrives, into pieces that can be spoken while the rest is still
// being written: whole sentences, and at first a clause of at least four words, so the voice starts
// sooner. Common Romanian abbreviations (dl., dr., nr., ex., etc.), initials and numbers (3.5) do
// not end a sentence. Reusable: finish() starts it afresh.
class SentenceSplitter
{
public:
    static constexpr int minimumClauseWords = 4;

    // The pieces this text completed, trimmed, in order.
    QStringList feed(const QString &visibleDelta);
    // The answer is complete: the rest, trimmed (empty when nothing is left).
    QString finish();

private:
    std::optional<qsizetype> nextPieceLength();
    bool endsAbbreviation(qsizetype dot) const;

    QString m_pending;
    // Everything before this in m_pending was looked at and ends nothing.
    qsizetype m_scanned = 0;
    bool m_gavePiece = false;
};
