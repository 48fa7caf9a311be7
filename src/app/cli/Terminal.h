#pragma once

#include <QCoroTask>
#include <QString>

#include <optional>

// Writing to the terminal: answers and results on stdout, status lines and warnings on stderr, so
// `kelo` composes in scripts. Text is always UTF-8.
namespace Terminal {

void out(const QString &line);
// Part of a line on stdout, flushed at once (an answer as it is written).
void outInline(const QString &text);
void err(const QString &line);
// Text without a line end, flushed at once (prompts, progress).
void errInline(const QString &text);
bool stdinIsTerminal();
bool stderrIsTerminal();
// One line from stdin when it is not a terminal; nothing at its end.
std::optional<QString> readPlainLine();
// Completes when a line has been typed on the terminal, while the event loop keeps running (audio
// capture goes on meanwhile). Reads the descriptor directly, so nothing is left in stdio's buffer.
QCoro::Task<> waitForEnter();

} // namespace Terminal
