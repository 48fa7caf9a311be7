#pragma once

#include <QString>

#include <optional>

// Reads the lines of an interactive session: with line editing and history on a terminal, plainly
// from a pipe.
class LineEditor
{
public:
    LineEditor();
    ~LineEditor();

    // Nothing at end of input (Ctrl-D or the end of a pipe).
    std::optional<QString> readLine(const QString &prompt);

private:
    bool m_interactive;
};
