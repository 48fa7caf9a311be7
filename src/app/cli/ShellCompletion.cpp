#include "ShellCompletion.h"

namespace ShellCompletion {

namespace {

QStringList wordsAfterCommand(
    const std::vector<std::unique_ptr<CliCommand>> &commands, const QString &name, const QStringList &previous)
{
    for (const auto &command : commands) {
        if (command->name() != name)
            continue;
        QStringList words = command->completions(previous);
        if (previous.isEmpty())
            words.append(QStringLiteral("--help"));
        return words;
    }
    return {};
}

} // namespace

QStringList candidates(const std::vector<std::unique_ptr<CliCommand>> &commands, const QStringList &words)
{
    const QString typed = words.isEmpty() ? QString() : words.last();
    QStringList offered;
    if (words.size() <= 1) {
        for (const auto &command : commands)
            offered.append(command->name());
        offered << QStringLiteral("--help") << QStringLiteral("--version");
    } else {
        offered = wordsAfterCommand(commands, words.first(), words.mid(1, words.size() - 2));
    }
    QStringList matching;
    for (const QString &word : std::as_const(offered)) {
        if (word == CliCommand::fileWord() || (word.startsWith(typed) && !matching.contains(word)))
            matching.append(word);
    }
    return matching;
}

} // namespace ShellCompletion
