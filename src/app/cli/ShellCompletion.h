#pragma once

#include "CliCommand.h"

#include <memory>
#include <vector>

// `kelo __complete WORD…`, called by the bash completion script: the words after `kelo`, the last
// one being typed. Answers the candidates that start with it, one per line. Commands, their actions
// and options come from the command table, so the completion knows every command `kelo --help` lists.
namespace ShellCompletion {

constexpr const char *hiddenCommand = "__complete";

QStringList candidates(const std::vector<std::unique_ptr<CliCommand>> &commands, const QStringList &words);

} // namespace ShellCompletion
