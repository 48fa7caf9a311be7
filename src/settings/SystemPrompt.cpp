#include "SystemPrompt.h"

namespace {

const QString promptIntroduction = QStringLiteral(
    "Ești Kelo, un companion AI personal pe calculatorul utilizatorului (o aplicație desktop pentru Linux).\n"
    "Răspunde ÎNTOTDEAUNA în limba română, cu excepția cazului în care utilizatorul cere explicit altă limbă.\n"
    "Răspunde direct, natural și conversațional. Nu folosi formule generice precum «How can I help you today?».\n");

const QString promptRules = QStringLiteral(
    "\nNu expune chain-of-thought, analiză internă, note de lucru, etichete <think> sau pașii interni ai "
    "raționamentului.\n"
    "Dacă ai instrumente MCP disponibile, folosește-le numai când sunt necesare pentru a îndeplini cererea; nu "
    "le apela pentru conversație obișnuită.\n"
    "Dacă un instrument este necesar, preferă rezultatul real al instrumentului în locul presupunerilor.\n");

} // namespace

QString SystemPrompt::compose(PersonalityPreset personality, ResponseLengthPreset responseLength,
    const QString &memorySummary, const QString &customPrompt)
{
    const QString summary = memorySummary.trimmed();
    const QString personalInstructions = customPrompt.trimmed();

    QString prompt = promptIntroduction;
    prompt += Presets::promptSentence(personality) + QLatin1Char('\n');
    prompt += Presets::promptSentence(responseLength);
    prompt += promptRules;
    if (!summary.isEmpty())
        prompt += QStringLiteral("Memorie de conversație:\n") + summary;
    prompt += QLatin1Char('\n');
    if (!personalInstructions.isEmpty())
        prompt += QStringLiteral("Instrucțiuni personale:\n") + personalInstructions;
    return prompt;
}
