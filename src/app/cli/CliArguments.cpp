#include "CliArguments.h"

#include "Terminal.h"

namespace {

bool isOptionWord(const QString &word)
{
    return word.startsWith(QLatin1String("--")) && word != QLatin1String("--");
}

bool isHelpWord(const QString &word)
{
    return word == QLatin1String("--help") || word == QLatin1String("-h");
}

} // namespace

std::optional<CliArguments> CliArguments::parse(const QStringList &words, const Syntax &syntax, QString *error)
{
    CliArguments parsed;
    bool optionsEnded = false;
    for (qsizetype i = 0; i < words.size(); ++i) {
        const QString &word = words.at(i);
        if (!optionsEnded && word == QLatin1String("--")) {
            optionsEnded = true;
            continue;
        }
        if (optionsEnded || !isOptionWord(word)) {
            parsed.positional.append(word);
            optionsEnded = optionsEnded || syntax.takesText;
            continue;
        }
        const qsizetype equals = word.indexOf(QLatin1Char('='));
        const QString name = equals < 0 ? word : word.left(equals);
        if (syntax.flags.contains(name) && equals < 0) {
            parsed.m_flags.insert(name);
        } else if (syntax.options.contains(name)) {
            if (equals >= 0) {
                parsed.m_values.insert(name, word.mid(equals + 1));
            } else if (i + 1 < words.size()) {
                parsed.m_values.insert(name, words.at(++i));
            } else {
                *error = QStringLiteral("Opțiunea %1 are nevoie de o valoare.").arg(name);
                return std::nullopt;
            }
        } else {
            *error = QStringLiteral("Opțiune necunoscută: %1").arg(word);
            return std::nullopt;
        }
    }
    return parsed;
}

std::optional<CliArguments> CliArguments::parseOrReport(
    const QStringList &words, const Syntax &syntax, qsizetype maxPositional)
{
    QString error;
    auto parsed = parse(words, syntax, &error);
    if (!parsed) {
        Terminal::err(error);
        return std::nullopt;
    }
    if (maxPositional != anyCount && parsed->positional.size() > maxPositional) {
        Terminal::err(QStringLiteral("Argument neașteptat: %1").arg(parsed->positional.at(maxPositional)));
        return std::nullopt;
    }
    return parsed;
}

bool CliArguments::asksForHelp(const QStringList &words, const Syntax &syntax)
{
    for (qsizetype i = 0; i < words.size(); ++i) {
        const QString &word = words.at(i);
        if (word == QLatin1String("--"))
            return false;
        if (isHelpWord(word))
            return true;
        if (!isOptionWord(word) && syntax.takesText)
            return false;
        if (syntax.options.contains(word))
            ++i; // its value
    }
    return false;
}

std::optional<QString> CliArguments::value(const QString &option) const
{
    const auto it = m_values.constFind(option);
    if (it == m_values.cend())
        return std::nullopt;
    return *it;
}
