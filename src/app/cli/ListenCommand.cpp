#include "ListenCommand.h"

#include "CliArguments.h"
#include "Terminal.h"
#include "net/KeloError.h"
#include "system/SignalWait.h"
#include "voice/SpeechRecognizer.h"
#include "voice/WavFile.h"
#include "voice/WavFileInput.h"
#include "voice/WhisperModelManager.h"

#include <QSocketNotifier>

#include <cstdio>
#include <memory>

namespace {

// Ends the run when the user presses Enter (or closes stdin).
class EnterKey : public QObject
{
public:
    explicit EnterKey(SpeechRecognizer *speech)
        : m_notifier(fileno(stdin), QSocketNotifier::Read)
    {
        connect(&m_notifier, &QSocketNotifier::activated, this, [this, speech] {
            m_notifier.setEnabled(false);
            speech->finishListening();
        });
    }

private:
    QSocketNotifier m_notifier;
};

} // namespace

QString ListenCommand::summary() const
{
    return QStringLiteral("recunoaște vorbirea în română (microfon sau fișier WAV)");
}

QString ListenCommand::usage() const
{
    return QStringLiteral(
        "Utilizare: kelo listen [--file FIȘIER.wav] [--model CALE] [--fast]\n"
        "\n"
        "Ascultă la microfon până apeși Enter, sau citește un fișier WAV, și transcrie pe dispozitiv.\n"
        "Transcrierile parțiale apar pe stderr, textul final pe stdout.\n"
        "\n"
        "  --file FIȘIER   audio dintr-un fișier WAV în loc de microfon (în timp real)\n"
        "  --fast          cu --file: fișierul este citit cât de repede se poate\n"
        "  --model CALE    folosește acest model doar acum (altfel modelul ales cu `kelo model use`)");
}

QCoro::Task<int> ListenCommand::run(CliSession &, QStringList arguments)
{
    const auto parsed = CliArguments::parseOrReport(
        arguments, { { QStringLiteral("--fast") }, { QStringLiteral("--file"), QStringLiteral("--model") } }, 0);
    if (!parsed)
        co_return ExitCode::usage;

    auto speech = std::make_unique<SpeechRecognizer>();
    if (const auto model = parsed->value(QStringLiteral("--model")))
        speech->recognitionModels()->setSessionModelPath(*model);

    const std::optional<QString> file = parsed->value(QStringLiteral("--file"));
    if (file) {
        try {
            const WavFile wav = WavFile::read(*file);
            const double speed = parsed->has(QStringLiteral("--fast")) ? 0.0 : 1.0;
            speech->setAudioInputFactory(
                [wav, speed] { return std::unique_ptr<AudioInput>(new WavFileInput(wav, speed)); });
        } catch (const KeloError &e) {
            Terminal::err(e.description());
            co_return ExitCode::failure;
        }
    }

    QString finalText;
    QObject::connect(speech.get(), &SpeechRecognizer::finalTranscript, speech.get(),
        [&finalText](const QString &text) { finalText = text; });
    const bool interactive = Terminal::stderrIsTerminal();
    QObject::connect(speech.get(), &SpeechRecognizer::transcriptChanged, speech.get(), [&speech, interactive] {
        if (!speech->isListening() || speech->transcript().isEmpty())
            return;
        if (interactive)
            Terminal::errInline(QStringLiteral("\r\033[K… ") + speech->transcript());
        else
            Terminal::err(QStringLiteral("… ") + speech->transcript());
    });

    co_await speech->startListening(true, true);
    if (!speech->isListening()) {
        Terminal::err(speech->lastError());
        co_return ExitCode::failure;
    }
    std::unique_ptr<EnterKey> enter;
    if (!file) {
        Terminal::err(QStringLiteral("Ascult… apasă Enter când ai terminat."));
        enter = std::make_unique<EnterKey>(speech.get());
    }
    co_await SignalWait::until(
        speech.get(), [&speech] { return !speech->isListening(); }, &SpeechRecognizer::isListeningChanged);
    if (interactive)
        Terminal::errInline(QStringLiteral("\r\033[K"));

    if (!speech->lastError().isEmpty()) {
        Terminal::err(speech->lastError());
        co_return ExitCode::failure;
    }
    if (finalText.isEmpty()) {
        Terminal::err(QStringLiteral("Nu s-a auzit nimic."));
        co_return ExitCode::failure;
    }
    Terminal::out(finalText);
    co_return ExitCode::success;
}

QStringList ListenCommand::completions(const QStringList &previous) const
{
    if (!previous.isEmpty()
        && (previous.last() == QLatin1String("--file") || previous.last() == QLatin1String("--model")))
        return { fileWord() };
    return { QStringLiteral("--file"), QStringLiteral("--model"), QStringLiteral("--fast") };
}
