#include "DoctorCommand.h"

#include "CliArguments.h"
#include "CliSession.h"
#include "Terminal.h"
#include "system/SystemDoctor.h"

QString DoctorCommand::summary() const
{
    return QStringLiteral("verifică tot ce îi trebuie lui Kelo și spune ce lipsește");
}

QString DoctorCommand::usage() const
{
    return QStringLiteral(
        "Utilizare: kelo doctor [--live]\n"
        "\n"
        "O linie pentru fiecare lucru de care are nevoie Kelo: cheia serviciului de modele, portcheiul,\n"
        "difuzorul și microfonul, speech-dispatcher cu vocea română, modelul de recunoaștere (și suma lui),\n"
        "fiecare server MCP activ și aplicația care primește adresele kelo://. „OK” înseamnă în regulă,\n"
        "„!!” arată ce ai de făcut. Aceleași verificări sunt și în aplicație, în Setări.\n"
        "\n"
        "  --live   încearcă și cheia la serviciul de modele (o cerere prin rețea)\n"
        "\n"
        "Cod de ieșire: 0 când are tot ce îi trebuie o tură vocală, 1 altfel, 2 utilizare greșită.");
}

QCoro::Task<int> DoctorCommand::run(CliSession &session, QStringList arguments)
{
    const auto parsed = CliArguments::parseOrReport(arguments, { { QStringLiteral("--live") } }, 0);
    if (!parsed)
        co_return ExitCode::usage;
    SystemDoctor doctor(&session.store());
    const QList<DoctorCheck> checks = co_await doctor.examine(parsed->has(QStringLiteral("--live")));
    for (const DoctorCheck &check : checks)
        Terminal::out(check.line());
    if (!SystemDoctor::readyForVoice(checks)) {
        Terminal::out(
            QStringLiteral("\nO tură vocală nu poate avea loc până nu rezolvi liniile marcate cu „!!” de mai sus."));
        co_return ExitCode::failure;
    }
    Terminal::out(QStringLiteral("\nKelo are tot ce îi trebuie pentru o tură vocală."));
    co_return ExitCode::success;
}
