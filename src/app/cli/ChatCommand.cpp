#include "ChatCommand.h"

#include "CliArguments.h"
#include "CliSession.h"
#include "LineEditor.h"
#include "Terminal.h"
#include "TurnRunner.h"
#include "conversation/ChatStore.h"
#include "conversation/ConversationMemoryStore.h"
#include "settings/AppSettings.h"

namespace {

QString helpText()
{
    return QStringLiteral("Comenzi: /new conversație nouă · /memory ce își amintește Kelo · /quit ieșire · /help");
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
    return QStringLiteral("Utilizare: kelo chat [--speak]\n"
                          "\n"
                          "Conversație interactivă cu Kelo. Liniile de stare ale instrumentelor apar cât timp rulează.\n"
                          "\n"
                          "  --speak   rostește răspunsurile când „Răspunde cu voce” este activ\n"
                          "\n")
        + helpText();
}

QCoro::Task<int> ChatCommand::run(CliSession &session, QStringList arguments)
{
    QString error;
    const auto args = CliArguments::parse(arguments, {QStringLiteral("--speak")}, {}, &error);
    if (!args || !args->positional.isEmpty()) {
        Terminal::err(args ? QStringLiteral("Argument neașteptat: %1").arg(args->positional.first()) : error);
        co_return ExitCode::usage;
    }

    ChatStore &store = session.store();
    store.setSpeaksAnswers(args->has(QStringLiteral("--speak")));
    Terminal::err(QStringLiteral("Kelo · %1 · %2").arg(store.selectedZenModel().name, helpText()));
    const QList<ChatMessage> visible = store.visibleMessages();
    if (!visible.isEmpty())
        Terminal::out(QStringLiteral("Kelo: ") + visible.constLast().text);

    TurnRunner runner(store);
    QObject::connect(&runner, &TurnRunner::replied,
                     [](const ChatMessage &reply, bool) { Terminal::out(QStringLiteral("Kelo: ") + reply.text); });
    LineEditor editor;
    while (const auto line = editor.readLine(QStringLiteral("Tu: "))) {
        const QString text = line->trimmed();
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
    }
    co_return ExitCode::success;
}
