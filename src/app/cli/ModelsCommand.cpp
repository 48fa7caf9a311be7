#include "ModelsCommand.h"

#include "CliSession.h"
#include "Terminal.h"
#include "conversation/ChatStore.h"
#include "net/KeloError.h"
#include "settings/AppSettings.h"

QString ModelsCommand::summary() const
{
    return QStringLiteral("listează modelele serviciului (id, nume, FREE)");
}

QString ModelsCommand::usage() const
{
    return QStringLiteral("Utilizare: kelo models\n"
                          "\n"
                          "O linie pe model, în ordinea serviciului: id, nume și FREE pentru modelele gratuite,\n"
                          "separate prin tab.");
}

QCoro::Task<int> ModelsCommand::run(CliSession &session, QStringList arguments)
{
    if (!arguments.isEmpty()) {
        Terminal::err(QStringLiteral("Argument neașteptat: %1").arg(arguments.first()));
        co_return ExitCode::usage;
    }
    ChatStore &store = session.store();
    try {
        const QList<ZenModel> models = co_await store.zen()->fetchModels(store.settings()->zenAPIKey());
        for (const ZenModel &model : models) {
            QString line = model.id + QLatin1Char('\t') + model.name;
            if (model.isFree)
                line += QStringLiteral("\tFREE");
            Terminal::out(line);
        }
        co_return ExitCode::success;
    } catch (...) {
        Terminal::err(describeException(std::current_exception()));
        co_return ExitCode::failure;
    }
}
