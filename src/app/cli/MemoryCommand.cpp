#include "MemoryCommand.h"

#include "CliSession.h"
#include "Terminal.h"
#include "conversation/ChatStore.h"
#include "conversation/ConversationMemoryStore.h"

QString MemoryCommand::summary() const
{
    return QStringLiteral("arată sau resetează memoria lui Kelo");
}

QString MemoryCommand::usage() const
{
    return QStringLiteral("Utilizare: kelo memory show | clear\n"
                          "\n"
                          "  show    memoria compactă (pe stdout) și câte mesaje sunt păstrate (pe stderr)\n"
                          "  clear   resetează memoria și istoricul conversației");
}

QCoro::Task<int> MemoryCommand::run(CliSession &session, QStringList arguments)
{
    if (arguments.size() != 1 || (arguments.first() != QLatin1String("show") && arguments.first() != QLatin1String("clear"))) {
        Terminal::err(usage());
        co_return ExitCode::usage;
    }
    ChatStore &store = session.store();
    ConversationMemoryStore *memory = store.memory();
    if (arguments.first() == QLatin1String("clear")) {
        store.clearMemory();
        Terminal::out(QStringLiteral("Memoria a fost resetată."));
        co_return ExitCode::success;
    }
    Terminal::out(memory->summary().isEmpty()
                      ? QStringLiteral("Memoria se construiește automat pe măsură ce conversația progresează.")
                      : memory->summary());
    Terminal::err(QStringLiteral("%1 mesaje păstrate · rezumatul acoperă %2 mesaje ale tale · %3")
                      .arg(memory->messages().size())
                      .arg(memory->summarizedUserCount())
                      .arg(memory->filePath()));
    co_return ExitCode::success;
}
