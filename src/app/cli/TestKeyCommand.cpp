#include "TestKeyCommand.h"

#include "CliSession.h"
#include "Terminal.h"
#include "conversation/ChatStore.h"

QString TestKeyCommand::summary() const
{
    return QStringLiteral("verifică cheia OpenCode Zen");
}

QString TestKeyCommand::usage() const
{
    return QStringLiteral("Utilizare: kelo test-key\n"
                          "\n"
                          "Verifică cheia salvată la serviciul de modele și afișează rezultatul.\n"
                          "Cod de ieșire: 0 conectat, 1 eșec.");
}

QCoro::Task<int> TestKeyCommand::run(CliSession &session, QStringList arguments)
{
    if (!arguments.isEmpty()) {
        Terminal::err(QStringLiteral("Argument neașteptat: %1").arg(arguments.first()));
        co_return ExitCode::usage;
    }
    const QString result = co_await session.store().testZenConnection();
    Terminal::out(result);
    co_return result.startsWith(QLatin1String("Conectat")) ? ExitCode::success : ExitCode::failure;
}
