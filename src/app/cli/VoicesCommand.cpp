#include "VoicesCommand.h"

#include "CliArguments.h"
#include "CliSession.h"
#include "Terminal.h"
#include "VoiceEngineOption.h"
#include "conversation/ChatStore.h"
#include "settings/AppSettings.h"
#include "system/SignalWait.h"
#include "voice/LocalSynthesizer.h"
#include "voice/LocalVoice.h"
#include "voice/SpeechSynthesizer.h"

QString VoicesCommand::summary() const
{
    return QStringLiteral("listează vocile românești ale unui motor de voce");
}

QString VoicesCommand::usage() const
{
    return QStringLiteral("Utilizare: kelo voices [--engine local|google|azure|elevenlabs]\n"
                          "\n"
                          "O linie pe voce, separată prin tab. Local: identificator, nume, calitate.\n"
                          "Cloud: id, nume, gen, detaliu (cu cheile din setări). Fără --engine, motorul din setări.");
}

QCoro::Task<int> VoicesCommand::run(CliSession &session, QStringList arguments)
{
    const auto parsed = CliArguments::parseOrReport(arguments, { {}, { QStringLiteral("--engine") } }, 0);
    if (!parsed)
        co_return ExitCode::usage;
    ChatStore &store = session.store();
    AppSettings *settings = store.settings();
    const auto engine = VoiceEngineOption::chosen(parsed->value(QStringLiteral("--engine")), settings->voiceEngine());
    if (!engine)
        co_return ExitCode::usage;
    SpeechSynthesizer *speech = store.synthesizer();
    if (*engine == VoiceEnginePreset::appleLocal)
        co_return co_await listLocalVoices(speech);

    std::optional<QString> failure;
    const auto connection = QObject::connect(speech, &SpeechSynthesizer::lastErrorChanged, [&] {
        if (!speech->lastError().isEmpty())
            failure = speech->lastError();
    });
    co_await speech->refreshVoices(*engine, settings);
    const QList<CloudVoice> voices = speech->cloudVoices(*engine);
    QObject::disconnect(connection);
    if (failure) {
        Terminal::err(*failure);
        co_return ExitCode::failure;
    }
    for (const CloudVoice &voice : voices) {
        Terminal::out(
            QStringList { voice.id, voice.name, voice.genderOrEmpty(), voice.detailOrEmpty() }.join(QLatin1Char('\t')));
    }
    co_return ExitCode::success;
}

QCoro::Task<int> VoicesCommand::listLocalVoices(SpeechSynthesizer *speech)
{
    LocalSynthesizer *local = speech->localSynthesizer();
    local->prepare();
    co_await SignalWait::until(
        local, [local] { return local->engineState() != LocalSynthesizer::EngineState::starting; },
        &LocalSynthesizer::engineStateChanged);
    if (local->engineState() != LocalSynthesizer::EngineState::ready) {
        Terminal::err(local->unavailableReason());
        co_return ExitCode::failure;
    }
    for (const LocalVoice &voice : speech->romanianVoices())
        Terminal::out(QStringList { voice.identifier, voice.name, voice.qualityLabel() }.join(QLatin1Char('\t')));
    co_return ExitCode::success;
}

QStringList VoicesCommand::completions(const QStringList &previous) const
{
    return VoiceEngineOption::completions(previous);
}
