#pragma once

#include <QStringList>

// Placeholder until the streaming splitter lands: cuts visible text at sentence ends.
class SentenceSplitter
{
public:
    QStringList feed(const QString &visibleDelta);
    QString finish();

private:
    QString m_pending;
};
