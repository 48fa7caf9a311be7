#include "SpeechText.h"

#include <QRegularExpression>
#include <QTextBoundaryFinder>

#include <algorithm>
#include <cmath>

namespace SpeechText {

QString cleanForSpeech(const QString &text)
{
    static const QRegularExpression reasoning(QStringLiteral("(?is)<think>.*?</think>|<analysis>.*?</analysis>"));
    static const QRegularExpression markdownLink(QStringLiteral("\\[([^\\]]+)\\]\\([^\\)]+\\)"));
    static const QRegularExpression markup(QStringLiteral("[#*_>|]"));
    // Unicode white space: a no-break space after an address ends it like any other space.
    static const QRegularExpression webAddress(
        QStringLiteral("https?://\\S+"), QRegularExpression::UseUnicodePropertiesOption);
    static const QRegularExpression whiteSpace(QStringLiteral("\\s+"), QRegularExpression::UseUnicodePropertiesOption);

    QString cleaned = text;
    cleaned.replace(reasoning, QString());
    cleaned.replace(markdownLink, QStringLiteral("\\1"));
    cleaned.replace(markup, QStringLiteral(" "));
    cleaned.replace(webAddress, QStringLiteral(" link "));
    cleaned.replace(whiteSpace, QStringLiteral(" "));
    return cleaned.trimmed();
}

QStringList sentences(const QString &text)
{
    QStringList result;
    QTextBoundaryFinder finder(QTextBoundaryFinder::Sentence, text);
    qsizetype start = 0;
    while (finder.toNextBoundary() != -1) {
        const qsizetype end = finder.position();
        const QString sentence = text.mid(start, end - start).trimmed();
        if (!sentence.isEmpty())
            result.append(sentence);
        start = end;
    }
    if (result.isEmpty())
        result.append(text);
    return result;
}

double utteranceRate(double voiceRate, qsizetype index)
{
    // A stored rate that is not a number at all would make the clamp meaningless.
    const double base = std::isfinite(voiceRate) ? voiceRate : 0.5;
    const double rate = index == 0 ? base + 0.005 : base;
    return std::clamp(rate, 0.4, 0.52);
}

double qtRate(double phoneRate)
{
    if (!std::isfinite(phoneRate))
        return 0.0;
    return std::clamp(2.0 * phoneRate - 1.0, -1.0, 1.0);
}

QString escapeForSSML(const QString &text)
{
    QString escaped = text;
    escaped.replace(QLatin1Char('&'), QStringLiteral("&amp;"));
    escaped.replace(QLatin1Char('<'), QStringLiteral("&lt;"));
    escaped.replace(QLatin1Char('>'), QStringLiteral("&gt;"));
    escaped.replace(QLatin1Char('"'), QStringLiteral("&quot;"));
    escaped.replace(QLatin1Char('\''), QStringLiteral("&apos;"));
    return escaped;
}

} // namespace SpeechText
