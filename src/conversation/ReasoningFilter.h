#pragma once

#include <QString>

// Keeps a model's reasoning out of what is shown and spoken: text inside <think>…</think> or
// <analysis>…</analysis> (any case) is dropped as the answer arrives in pieces, also when a tag is
// split between pieces and when a block never closes. Reusable: finish() starts it afresh.
class ReasoningFilter
{
public:
    // The visible text of this piece that is certain by now; a possible tag start is held back.
    QString feed(const QString &delta);
    // The answer is complete: what was held back as a possible tag is text after all, while an
    // unclosed block is dropped.
    QString finish();

private:
    QString m_pending;
    // Empty outside a block.
    QString m_closingTag;
};
