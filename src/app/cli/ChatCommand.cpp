#include "ChatCommand.h"

#include "CliArguments.h"
#include "CliSession.h"
#include "LineEditor.h"
#include "Terminal.h"
#include "TurnRunner.h"
#include "conversation/ChatStore.h"
#include "conversation/ConversationMemoryStore.h"
#include "settings/AppSettings.h"
#include "voice/SpeechRecognizer.h"

namespace {

QString helpText()
{
    return QStringLiteral(
        "Comenzi: Enter pe un rând gol (sau /talk) vorbește, Enter din nou trimite · /new conversație "
        "nouă · /memory ce își amintește Kelo · /quit ieșire · /help");
}

// Push-to-talk in a terminal: there is no key release to see, so a second Enter ends listening.
QCoro::Task<> talk(ChatStore &store, TurnRunner &runner, bool interactive)
{
    const bool started = co_await runner.talk([interactive]() -> QCoro::Task<> {
        if (interactive)
            co_await Terminal::waitForEnter();
        else
            Terminal::readPlainLine();
    });
    if (!started)
        Terminal::err(store.recognizer()->lastError());
    co_await runner.waitForSpeech();
}

// Said once per new failure, not after every turn that meets the same one.
void reportUnsavedMemory(const TurnRunner &runner, QString &lastReported)
{
    const QString unsaved = runner.memorySaveError();
    if (!unsaved.isEmpty() && unsaved != lastReported)
        Terminal::err(unsaved);
    lastReported = unsaved;
}

void showMemory(ChatStore &store)
{
    const QString summary = store.memory()->summary();
    Terminal::out(summary.isEmpty()
            ? QStringLiteral("Memoria se construiește automat pe măsură ce conversația progresează.")
            : summary);
}

} // namespace

QString ChatCommand::summary() const
{
    return QStringLiteral("conversație interactivă în terminal");
}

QString ChatCommand::usage() const
{
    return QStringLiteral(
               "Utilizare: kelo chat [--speak]\n"
               "\n"
               "Conversație interactivă cu Kelo. Liniile de stare ale instrumentelor apar cât timp rulează.\n"
               "\n"
               "  --speak   rostește răspunsurile când „Răspunde cu voce” este activ\n"
               "\n")
        + helpText();
}

QCoro::Task<int> ChatCommand::run(CliSession &session, QStringList arguments)
{
    const auto args = CliArguments::parseOrReport(arguments, { { QStringLiteral("--speak") } }, 0);
    if (!args)
        co_return ExitCode::usage;

    ChatStore &store = session.store();
    store.setSpeaksAnswers(args->has(QStringLiteral("--speak")));
    Terminal::err(QStringLiteral("Kelo · %1 · %2").arg(store.selectedZenModel().name, helpText()));
    const QList<ChatMessage> visible = store.visibleMessages();
    if (!visible.isEmpty())
        Terminal::out(QStringLiteral("Kelo: ") + visible.constLast().text);

    TurnRunner runner(store, QStringLiteral("Kelo: "));
    QObject::connect(&runner, &TurnRunner::listening,
        [] { Terminal::err(QStringLiteral("🎙  Ascult… apasă Enter când ai terminat.")); });
    QObject::connect(
        &runner, &TurnRunner::heard, [](const QString &text) { Terminal::out(QStringLiteral("Tu (voce): ") + text); });
    const bool interactive = Terminal::stdinIsTerminal();
    LineEditor editor;
    QString reportedSaveError;
    while (const auto line = editor.readLine(QStringLiteral("Tu: "))) {
        const QString text = line->trimmed();
        if ((text.isEmpty() && interactive) || text == QLatin1String("/talk")) {
            co_await talk(store, runner, interactive);
            reportUnsavedMemory(runner, reportedSaveError);
            continue;
        }
        if (text.isEmpty())
            continue;
        if (text == QLatin1String("/quit") || text == QLatin1String("/exit"))
            break;
        if (text == QLatin1String("/help")) {
            Terminal::err(helpText());
        } else if (text == QLatin1String("/new")) {
            store.clearConversation();
            Terminal::out(QStringLiteral("Kelo: ") + store.visibleMessages().constLast().text);
        } else if (text == QLatin1String("/memory")) {
            showMemory(store);
        } else if (text.startsWith(QLatin1Char('/'))) {
            Terminal::err(QStringLiteral("Comandă necunoscută: %1. %2").arg(text, helpText()));
        } else {
            co_await runner.run(text);
            co_await runner.waitForSpeech();
        }
        reportUnsavedMemory(runner, reportedSaveError);
    }
    co_return reportedSaveError.isEmpty() ? ExitCode::success : ExitCode::failure;
}
