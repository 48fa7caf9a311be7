#include "ManPage.h"

ManPage::ManPage(QString program, QString summary)
    : m_program(std::move(program))
    , m_summary(std::move(summary))
{ }

void ManPage::addSection(const QString &heading, const QString &text)
{
    m_body.append(QStringLiteral(".SH ") + escaped(heading.toUpper()));
    m_body.append(block(text));
}

void ManPage::addSubsection(const QString &heading, const QString &text)
{
    m_body.append(QStringLiteral(".SS ") + escaped(heading));
    m_body.append(block(text));
}

QString ManPage::roff() const
{
    QStringList lines {
        QStringLiteral(".\\\" -*- coding: UTF-8 -*-"),
        QStringLiteral(".\\\" Made by `%1 --help-man` from the program's own help texts.").arg(m_program),
        QStringLiteral(".TH %1 1 \"\" \"%2 %3\" \"Kelo\"")
            .arg(m_program.toUpper(), m_program, QStringLiteral(KELO_VERSION)),
        QStringLiteral(".SH NUME"),
        escaped(m_program) + QStringLiteral(" \\- ") + escaped(m_summary),
    };
    lines += m_body;
    return lines.join(QLatin1Char('\n'));
}

QString ManPage::block(const QString &text)
{
    QStringList lines { QStringLiteral(".nf") };
    for (const QString &line : text.split(QLatin1Char('\n')))
        lines.append(escaped(line));
    lines.append(QStringLiteral(".fi"));
    return lines.join(QLatin1Char('\n'));
}

QString ManPage::escaped(const QString &line)
{
    QString text = line;
    text.replace(QLatin1Char('\\'), QStringLiteral("\\e"));
    text.replace(QLatin1Char('-'), QStringLiteral("\\-"));
    // A leading dot or quote would make the line a request.
    if (text.startsWith(QLatin1Char('.')) || text.startsWith(QLatin1Char('\'')))
        text.prepend(QStringLiteral("\\&"));
    return text;
}
