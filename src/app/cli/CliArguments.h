#pragma once

#include <QHash>
#include <QSet>
#include <QString>
#include <QStringList>

#include <optional>

// The words of one command split into positional arguments, flags (--new) and options with a value
// (--engine local or --engine=local). Unknown dashes are a usage error; "--" ends the options.
class CliArguments
{
public:
    // What a command accepts.
    struct Syntax
    {
        QSet<QString> flags;
        // Options that take a value.
        QSet<QString> options;
        // The positional words are free text: options end at its first word, so a "-h" or "--new"
        // inside a question is part of it.
        bool takesText = false;
    };

    QStringList positional;

    static std::optional<CliArguments> parse(const QStringList &words, const Syntax &syntax, QString *error);

    static constexpr qsizetype anyCount = -1;
    // parse() for a command's run(): prints the Romanian reason to stderr and returns nothing when
    // the words do not fit, also when more than `maxPositional` positional words are given.
    static std::optional<CliArguments> parseOrReport(
        const QStringList &words, const Syntax &syntax, qsizetype maxPositional = anyCount);

    // True when --help or -h stands where an option may: before "--" and, for a command that takes
    // text, before the text.
    static bool asksForHelp(const QStringList &words, const Syntax &syntax);

    bool has(const QString &flag) const { return m_flags.contains(flag); }
    std::optional<QString> value(const QString &option) const;

private:
    QSet<QString> m_flags;
    QHash<QString, QString> m_values;
};
