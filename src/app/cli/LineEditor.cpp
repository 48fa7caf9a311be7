#include "LineEditor.h"

#include "Terminal.h"

#include <cstdlib>
#include <editline/readline.h>

LineEditor::LineEditor()
    : m_interactive(Terminal::stdinIsTerminal())
{
    if (m_interactive)
        using_history();
}

LineEditor::~LineEditor() = default;

std::optional<QString> LineEditor::readLine(const QString &prompt)
{
    if (!m_interactive)
        return Terminal::readPlainLine();

    char *raw = readline(prompt.toUtf8().constData());
    if (!raw)
        return std::nullopt;
    const QString line = QString::fromUtf8(raw);
    if (!line.trimmed().isEmpty())
        add_history(raw);
    std::free(raw);
    return line;
}
