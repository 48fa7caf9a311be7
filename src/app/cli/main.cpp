#include "CliCommands.h"
#include "CliSession.h"
#include "ShellCompletion.h"
#include "Terminal.h"
#include "settings/LegacyLocalModelCleaner.h"
#include "settings/SettingsFile.h"
#include "system/ManPage.h"

#include <QCoreApplication>
#include <QTimer>

namespace {

const QString tagline = QStringLiteral("companionul tău vocal, din linia de comandă");

// Everything after the first line of `kelo --help`.
QString generalHelpBody(const std::vector<std::unique_ptr<CliCommand>> &commands)
{
    QString text = QStringLiteral("Utilizare: kelo COMANDĂ [ARGUMENTE…]\n\nComenzi:\n");
    for (const auto &command : commands)
        text += QStringLiteral("  %1  %2\n").arg(command->name(), -10).arg(command->summary());
    text += QStringLiteral("\n  kelo COMANDĂ --help   ajutor pentru o comandă\n  kelo --version        versiunea");
    return text;
}

QString generalHelp(const std::vector<std::unique_ptr<CliCommand>> &commands)
{
    return QStringLiteral("Kelo — %1.\n\n").arg(tagline) + generalHelpBody(commands);
}

// The manual page: the same texts as `kelo --help` and `kelo COMMAND --help`.
QString manPage(const std::vector<std::unique_ptr<CliCommand>> &commands)
{
    ManPage page(QStringLiteral("kelo"), tagline);
    page.addSection(QStringLiteral("Descriere"), generalHelpBody(commands));
    for (const auto &command : commands)
        page.addSubsection(QStringLiteral("kelo ") + command->name(), command->usage());
    page.addSection(QStringLiteral("Vezi și"), QStringLiteral("kelo-companion(1)"));
    return page.roff();
}

// Answers that need neither the store nor the start-up clean-up: help for the manual and the shell.
std::optional<int> answerWithoutSession(
    const std::vector<std::unique_ptr<CliCommand>> &commands, const QStringList &words)
{
    if (words.value(0) == QLatin1String("--help-man")) {
        Terminal::out(manPage(commands));
        return ExitCode::success;
    }
    if (words.value(0) == QLatin1String(ShellCompletion::hiddenCommand)) {
        const QStringList candidates = ShellCompletion::candidates(commands, words.mid(1));
        if (!candidates.isEmpty())
            Terminal::out(candidates.join(QLatin1Char('\n')));
        return ExitCode::success;
    }
    return std::nullopt;
}

QCoro::Task<int> dispatch(const std::vector<std::unique_ptr<CliCommand>> &commands, QStringList words)
{
    if (words.isEmpty() || words.first() == QLatin1String("--help") || words.first() == QLatin1String("-h")
        || words.first() == QLatin1String("help")) {
        (words.isEmpty() ? Terminal::err : Terminal::out)(generalHelp(commands));
        co_return words.isEmpty() ? ExitCode::usage : ExitCode::success;
    }
    if (words.first() == QLatin1String("--version")) {
        Terminal::out(QStringLiteral("kelo %1").arg(QStringLiteral(KELO_VERSION)));
        co_return ExitCode::success;
    }
    const QString name = words.takeFirst();
    for (const auto &command : commands) {
        if (command->name() != name)
            continue;
        if (CliArguments::asksForHelp(words, command->syntax())) {
            Terminal::out(command->usage());
            co_return ExitCode::success;
        }
        CliSession session;
        co_return co_await command->run(session, words);
    }
    Terminal::err(QStringLiteral("Comandă necunoscută: %1\n\n").arg(name) + generalHelp(commands));
    co_return ExitCode::usage;
}

QCoro::Task<> runAndQuit(const std::vector<std::unique_ptr<CliCommand>> &commands, QStringList words)
{
    int code = ExitCode::failure;
    try {
        code = co_await dispatch(commands, std::move(words));
    } catch (const std::exception &e) {
        Terminal::err(QStringLiteral("Eroare neașteptată: %1").arg(QString::fromUtf8(e.what())));
    }
    QCoreApplication::exit(code);
}

} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    QCoreApplication::setOrganizationName(QStringLiteral("Kelo"));
    QCoreApplication::setApplicationName(QStringLiteral("KeloCompanion"));
    QCoreApplication::setApplicationVersion(QStringLiteral(KELO_VERSION));
    const auto commands = allCliCommands();
    QStringList words = QCoreApplication::arguments().mid(1);
    if (const auto code = answerWithoutSession(commands, words))
        return *code;

    // Before anything could rewrite it.
    if (const QString kept = SettingsFile::setAsideIfDamaged(); !kept.isEmpty())
        Terminal::err(QStringLiteral("Atenție: fișierul de setări nu a putut fi citit în întregime. O copie a fost "
                                     "păstrată în %1.")
                          .arg(kept));
    LegacyLocalModelCleaner::runOnce();
    QTimer::singleShot(0, &app, [&] { runAndQuit(commands, words); });
    return QCoreApplication::exec();
}
