#include "Terminal.h"

#include <QCoroSignal>
#include <QSocketNotifier>

#include <cstdio>
#include <optional>
#include <string>
#include <unistd.h>

namespace Terminal {

namespace {
void write(FILE *stream, const QString &text)
{
    const QByteArray bytes = text.toUtf8();
    std::fwrite(bytes.constData(), 1, size_t(bytes.size()), stream);
    std::fflush(stream);
}
} // namespace

void out(const QString &line)
{
    write(stdout, line + QLatin1Char('\n'));
}

void outInline(const QString &text)
{
    write(stdout, text);
}

void err(const QString &line)
{
    write(stderr, line + QLatin1Char('\n'));
}

void errInline(const QString &text)
{
    write(stderr, text);
}

bool stdinIsTerminal()
{
    return isatty(STDIN_FILENO) == 1;
}

bool stderrIsTerminal()
{
    return isatty(STDERR_FILENO) == 1;
}

std::optional<QString> readPlainLine()
{
    std::string line;
    int c;
    bool any = false;
    while ((c = std::fgetc(stdin)) != EOF) {
        any = true;
        if (c == '\n')
            break;
        line.push_back(char(c));
    }
    if (!any)
        return std::nullopt;
    return QString::fromUtf8(line.data(), qsizetype(line.size()));
}

QCoro::Task<> waitForEnter()
{
    // A terminal in its usual line mode hands over the whole line at once when Enter is pressed.
    QSocketNotifier notifier(STDIN_FILENO, QSocketNotifier::Read);
    co_await qCoro(&notifier, &QSocketNotifier::activated);
    char line[4096];
    [[maybe_unused]] const ssize_t got = ::read(STDIN_FILENO, line, sizeof line);
}

} // namespace Terminal
