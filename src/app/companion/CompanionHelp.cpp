#include "CompanionHelp.h"

#include "system/ManPage.h"

#include <QString>

#include <cstdio>
#include <cstring>

namespace CompanionHelp {

namespace {

const QString tagline = QStringLiteral("companionul tău vocal, aplicația desktop");

QString body()
{
    return QStringLiteral(
        "Utilizare: kelo-companion [ADRESĂ]\n"
        "\n"
        "Deschide fereastra lui Kelo: ții apăsat pe glob, vorbești și eliberezi. Vorbirea este transcrisă pe\n"
        "acest calculator, modelul răspunde, iar vocea aleasă citește răspunsul. Setările, vocile și\n"
        "conexiunile MCP sunt în fereastră; „kelo” le citește și le schimbă din linia de comandă, iar\n"
        "„kelo doctor” spune ce lipsește. Cu „Conversație continuă în fundal”, Kelo rămâne în bara de\n"
        "sistem când închizi fereastra.\n"
        "\n"
        "  ADRESĂ      o adresă kelo://oauth?… cu care browserul revine după o autentificare: este predată\n"
        "              procesului Kelo care o așteaptă, apoi programul se încheie\n"
        "  --help      acest ajutor\n"
        "  --version   versiunea");
}

void print(const QString &text)
{
    std::fputs(text.toUtf8().constData(), stdout);
    std::fputc('\n', stdout);
}

} // namespace

std::optional<int> answer(int argc, char *argv[])
{
    if (argc != 2)
        return std::nullopt;
    if (std::strcmp(argv[1], "--help") == 0 || std::strcmp(argv[1], "-h") == 0) {
        print(QStringLiteral("Kelo — %1.\n\n").arg(tagline) + body());
        return 0;
    }
    if (std::strcmp(argv[1], "--version") == 0) {
        print(QStringLiteral("kelo-companion %1").arg(QStringLiteral(KELO_VERSION)));
        return 0;
    }
    if (std::strcmp(argv[1], "--help-man") == 0) {
        ManPage page(QStringLiteral("kelo-companion"), tagline);
        page.addSection(QStringLiteral("Descriere"), body());
        page.addSection(QStringLiteral("Vezi și"), QStringLiteral("kelo(1)"));
        print(page.roff());
        return 0;
    }
    return std::nullopt;
}

} // namespace CompanionHelp
