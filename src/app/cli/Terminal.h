#pragma once

#include <QString>

#include <optional>

// Writing to the terminal: answers and results on stdout, status lines and warnings on stderr, so
// `kelo` composes in scripts. Text is always UTF-8.
namespace Terminal {

void out(const QString &line);
void err(const QString &line);
// Text without a line end, flushed at once (prompts, progress).
void errInline(const QString &text);
bool stdinIsTerminal();
bool stderrIsTerminal();
// One line from stdin when it is not a terminal; nothing at its end.
std::optional<QString> readPlainLine();

} // namespace Terminal
