#include "SayCommand.h"

#include "CliArguments.h"
#include "CliSession.h"
#include "Terminal.h"
#include "VoiceEngineOption.h"
#include "conversation/ChatStore.h"
#include "settings/AppSettings.h"
#include "system/SignalWait.h"
#include "voice/SpeechSynthesizer.h"
#include "voice/SpeechText.h"

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
    const auto engine = VoiceEngineOption::chosen(parsed->value(QStringLiteral("--engine")), settings->voiceEngine());
    if (!engine)
        co_return ExitCode::usage;
    SpeechSynthesizer *speech = store.synthesizer();
    bool finished = false;
    const auto connection
        = QObject::connect(speech, &SpeechSynthesizer::playbackFinished, [&finished] { finished = true; });
    speech->speak(text, settings, *engine);
    // Every engine ends by itself: cloud requests time out, the local engine has its deadlines.
    co_await SignalWait::until(
        speech, [&] { return finished || !speech->lastError().isEmpty(); }, &SpeechSynthesizer::playbackFinished,
        &SpeechSynthesizer::lastErrorChanged);
    QObject::disconnect(connection);
    const std::optional<QString> failure = finished ? std::nullopt : std::optional<QString>(speech->lastError());

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
