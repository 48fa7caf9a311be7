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
    QStringList positional;

    static std::optional<CliArguments> parse(const QStringList &words, const QSet<QString> &flags,
                                             const QSet<QString> &options, QString *error);

    bool has(const QString &flag) const { return m_flags.contains(flag); }
    std::optional<QString> value(const QString &option) const;

private:
    QSet<QString> m_flags;
    QHash<QString, QString> m_values;
};
