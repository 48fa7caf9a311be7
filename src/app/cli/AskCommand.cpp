#include "AskCommand.h"

#include "CliArguments.h"
#include "CliSession.h"
#include "Terminal.h"
#include "TurnRunner.h"
#include "conversation/ChatStore.h"

QString AskCommand::summary() const
{
    return QStringLiteral("trimite un mesaj în conversația salvată și afișează răspunsul");
}

QString AskCommand::usage() const
{
    return QStringLiteral("Utilizare: kelo ask [--new] [--speak] [--] TEXT…\n"
                          "           kelo ask [--new] [--speak] -        (textul se citește de la intrarea standard)\n"
                          "\n"
                          "Rulează o tură a conversației salvate și scrie pe stdout, pe măsură ce sosește,\n"
                          "exact mesajul adăugat de Kelo (răspunsul sau mesajul de eroare).\n"
                          "Liniile de stare merg pe stderr.\n"
                          "Opțiunile stau înaintea textului: de la primul cuvânt al textului (sau după „--”)\n"
                          "totul face parte din întrebare, chiar și „-h”.\n"
                          "\n"
                          "  --new     începe o conversație nouă înainte (memoria utilă rămâne)\n"
                          "  --speak   rostește răspunsul când „Răspunde cu voce” este activ\n"
                          "\n"
                          "Cod de ieșire: 0 răspuns primit, 1 tura a eșuat sau memoria nu a putut fi salvată,\n"
                          "2 utilizare greșită.");
}

CliArguments::Syntax AskCommand::syntax() const
{
    return { { QStringLiteral("--new"), QStringLiteral("--speak") }, {}, true };
}

QCoro::Task<int> AskCommand::run(CliSession &session, QStringList arguments)
{
    const auto args = CliArguments::parseOrReport(arguments, syntax());
    if (!args)
        co_return ExitCode::usage;
    QString text = args->positional.join(QLatin1Char(' '));
    if (args->positional == QStringList { QStringLiteral("-") }) {
        QStringList lines;
        while (const auto line = Terminal::readPlainLine())
            lines.append(*line);
        text = lines.join(QLatin1Char('\n'));
    }
    if (text.trimmed().isEmpty()) {
        Terminal::err(QStringLiteral("Lipsește textul mesajului.\n\n") + usage());
        co_return ExitCode::usage;
    }

    ChatStore &store = session.store();
    store.setSpeaksAnswers(args->has(QStringLiteral("--speak")));
    if (args->has(QStringLiteral("--new")))
        store.clearConversation();

    TurnRunner runner(store);
    const TurnRunner::Outcome outcome = co_await runner.run(text);
    co_await runner.waitForSpeech();
    // The answer stands, but a conversation that was not saved is a failed run.
    const QString unsaved = runner.memorySaveError();
    if (!unsaved.isEmpty()) {
        Terminal::err(unsaved);
        co_return ExitCode::failure;
    }
    co_return outcome.answered ? ExitCode::success : ExitCode::failure;
}
