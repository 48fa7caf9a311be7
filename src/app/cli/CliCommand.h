#pragma once

#include "CliArguments.h"

#include <QCoroTask>
#include <QString>
#include <QStringList>

class CliSession;

// Exit codes of every command: scripts rely on them.
namespace ExitCode {
constexpr int success = 0;
constexpr int failure = 1;
constexpr int usage = 2;
} // namespace ExitCode

// One subcommand of `kelo`. Each lives in its own file and is listed in CliCommands.cpp.
class CliCommand
{
public:
    virtual ~CliCommand() = default;

    virtual QString name() const = 0;
    // One line for `kelo --help`.
    virtual QString summary() const = 0;
    // The whole text of `kelo NAME --help`.
    virtual QString usage() const = 0;
    // Where --help may stand. A command that takes free text says so, and its options end there.
    virtual CliArguments::Syntax syntax() const { return {}; }
    // `arguments` are the words after the command's name; --help is handled before this is called.
    virtual QCoro::Task<int> run(CliSession &session, QStringList arguments) = 0;
    // For the shell's completion: what may follow the words already typed after the name (`previous`):
    // actions, options, or the values of the option or position being typed. It must answer fast and
    // never reveal a secret. `fileWord` stands for "a file name".
    virtual QStringList completions(const QStringList &previous) const
    {
        Q_UNUSED(previous)
        return {};
    }
    static QString fileWord() { return QStringLiteral("@file"); }
};
