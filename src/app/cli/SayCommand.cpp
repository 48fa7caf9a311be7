#include "SayCommand.h"

#include "CliArguments.h"
#include "CliSession.h"
#include "Terminal.h"
#include "VoiceEngineOption.h"
#include "conversation/ChatStore.h"
#include "settings/AppSettings.h"
#include "voice/SpeechService.h"
#include "voice/SpeechText.h"

#include <QCoroTimer>

#include <chrono>

QString SayCommand::summary() const
{
    return QStringLiteral("rostește un text cu vocea aleasă în setări sau cu --engine");
}

QString SayCommand::usage() const
{
    return QStringLiteral("Utilizare: kelo say [--engine local|google|azure|elevenlabs] [--] TEXT…\n"
                          "\n"
                          "Rostește textul (curățat ca un răspuns: fără marcaje, linkurile devin „link”) și se\n"
                          "încheie când redarea s-a terminat. Opțiunile stau înaintea textului: de la primul\n"
                          "cuvânt al textului totul se rostește. Fără --engine se folosește motorul din setări;\n"
                          "cheile și vocile vin din setări (kelo config). Eroarea vocii iese pe stderr, cu codul 1.");
}

CliArguments::Syntax SayCommand::syntax() const
{
    return { {}, { QStringLiteral("--engine") }, true };
}

QCoro::Task<int> SayCommand::run(CliSession &session, QStringList arguments)
{
    const auto parsed = CliArguments::parseOrReport(arguments, syntax());
    if (!parsed)
        co_return ExitCode::usage;
    const QString text = parsed->positional.join(QLatin1Char(' '));
    if (text.trimmed().isEmpty()) {
        Terminal::err(usage());
        co_return ExitCode::usage;
    }
    if (SpeechText::cleanForSpeech(text).isEmpty()) {
        Terminal::err(QStringLiteral("Textul nu conține nimic de rostit."));
        co_return ExitCode::failure;
    }

    ChatStore &store = session.store();
    AppSettings *settings = store.settings();
    VoiceEnginePreset engine = settings->voiceEngine();
    if (const auto word = parsed->value(QStringLiteral("--engine"))) {
        const auto chosen = VoiceEngineOption::parse(*word);
        if (!chosen) {
            Terminal::err(VoiceEngineOption::usageError(*word));
            co_return ExitCode::usage;
        }
        engine = *chosen;
    }

    SpeechService *speech = store.speech();
    bool finished = false;
    std::optional<QString> failure;
    speech->onPlaybackFinished = [&finished] { finished = true; };
    const auto connection = QObject::connect(speech, &SpeechService::lastErrorChanged, [&] {
        if (!speech->lastError().isEmpty())
            failure = speech->lastError();
    });
    speech->speak(text, settings, engine);
    // Every engine ends by itself: cloud requests time out, the local engine has its deadlines.
    while (!finished && !failure)
        co_await QCoro::sleepFor(std::chrono::milliseconds(20));
    QObject::disconnect(connection);
    speech->onPlaybackFinished = nullptr;

    if (failure) {
        Terminal::err(*failure);
        co_return ExitCode::failure;
    }
    co_return ExitCode::success;
}

QStringList SayCommand::completions(const QStringList &previous) const
{
    return VoiceEngineOption::completions(previous);
}
