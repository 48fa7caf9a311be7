#pragma once

#include <QString>
#include <QStringList>

// A manual page in roff, built from the help texts a program prints, so that `man` and `--help`
// never say different things. Texts keep their line breaks (they are laid out for a terminal).
class ManPage
{
public:
    // `summary` is the NAME line's description: "kelo - <summary>".
    ManPage(QString program, QString summary);

    void addSection(const QString &heading, const QString &text);
    void addSubsection(const QString &heading, const QString &text);
    // The whole page, without the final line end.
    QString roff() const;

private:
    // One line of text as roff sees it: no requests, no escapes, real minus signs for options.
    static QString escaped(const QString &line);
    static QString block(const QString &text);

    QString m_program;
    QString m_summary;
    QStringList m_body;
};
