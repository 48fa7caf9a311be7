#pragma once

#include <optional>

// What `kelo-companion --help` prints, and the manual page made from the same text
// (`kelo-companion --help-man`, run by the build).
namespace CompanionHelp {

// Answers --help, --help-man and --version before any window or D-Bus connection exists, so the build
// can run it without a display. Nothing for any other command line.
std::optional<int> answer(int argc, char *argv[]);

} // namespace CompanionHelp
