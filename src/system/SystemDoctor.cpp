#include "SystemDoctor.h"

#include "VariantLists.h"
#include "conversation/ChatStore.h"
#include "net/KeloError.h"
#include "settings/AppSettings.h"
#include "settings/SecureStore.h"
#include "skills/MCPClient.h"
#include "skills/MCPError.h"
#include "voice/LocalSynthesizer.h"
#include "voice/SpeechRecognizer.h"
#include "voice/SpeechSynthesizer.h"
#include "voice/WhisperModelManager.h"

#include <QAudioDevice>
#include <QCoroProcess>
#include <QCoroTimer>
#include <QFileInfo>
#include <QMediaDevices>
#include <QProcess>
#include <QStandardPaths>

#include <chrono>
#include <vector>

namespace {

DoctorCheck passed(const QString &title, const QString &detail, bool neededForVoice = false)
{
    return { title, detail, true, neededForVoice };
}

DoctorCheck toDo(const QString &title, const QString &detail, bool neededForVoice = false)
{
    return { title, detail, false, neededForVoice };
}

DoctorCheck audioDevice(const QString &title, const QAudioDevice &device, const QString &whenMissing)
{
    return device.isNull() ? toDo(title, whenMissing, true) : passed(title, device.description(), true);
}

const QString installVoices = QStringLiteral("sudo apt install speech-dispatcher speech-dispatcher-espeak-ng");

} // namespace

SystemDoctor::SystemDoctor(ChatStore *store, QObject *parent)
    : QObject(parent)
    , m_store(store)
{ }

SystemDoctor::~SystemDoctor() = default;

QCoro::Task<QList<DoctorCheck>> SystemDoctor::examine(bool live)
{
    QList<DoctorCheck> checks;
    const DoctorCheck key = co_await checkServiceKey(live);
    checks << key << checkKeychain() << checkSpeaker() << checkMicrophone();
    const DoctorCheck voice = co_await checkLocalVoice();
    checks << voice;
    if (const auto cloudKey = checkCloudVoiceKey())
        checks << *cloudKey;
    const DoctorCheck model = co_await checkRecognitionModel();
    checks << model;
    const QList<DoctorCheck> servers = co_await checkMCPServers();
    checks << servers;
    checks << checkVoiceBargeIn();
    const DoctorCheck scheme = co_await checkSchemeHandler();
    checks << scheme;
    co_return checks;
}

void SystemDoctor::start(bool live)
{
    if (m_running)
        return;
    m_running = true;
    Q_EMIT runningChanged();
    // Fire and forget: every check turns its own failure into a line, so nothing is thrown here.
    [](SystemDoctor *self, bool liveCheck) -> QCoro::Task<> {
        const QList<DoctorCheck> checks = co_await self->examine(liveCheck);
        self->m_checks = checks;
        self->m_running = false;
        Q_EMIT self->checksChanged();
        Q_EMIT self->runningChanged();
    }(this, live);
}

QVariantList SystemDoctor::checkList() const
{
    return VariantLists::from(m_checks);
}

bool SystemDoctor::readyForVoice(const QList<DoctorCheck> &checks)
{
    return std::all_of(checks.begin(), checks.end(), [](const DoctorCheck &c) { return c.ok || !c.neededForVoice; });
}

QCoro::Task<DoctorCheck> SystemDoctor::checkServiceKey(bool live)
{
    const QString title = QStringLiteral("Cheia OpenCode Zen");
    if (m_store->settings()->zenAPIKey().trimmed().isEmpty())
        co_return toDo(title,
            QStringLiteral("lipsește. Salveaz-o cu „kelo config set zenAPIKey CHEIA” sau în Setări → OpenCode Zen."),
            true);
    if (!live)
        co_return passed(title, QStringLiteral("salvată („kelo doctor --live” o încearcă la serviciu)."), true);
    const QString result = co_await m_store->testZenConnection();
    if (result.startsWith(QLatin1String("Conectat")))
        co_return passed(title, result, true);
    co_return toDo(title, result + QStringLiteral(" Verifică cheia în Setări → OpenCode Zen."), true);
}

DoctorCheck SystemDoctor::checkKeychain() const
{
    const QString title = QStringLiteral("Portcheiul");
    if (!m_store->settings()->secretsInFile())
        return passed(title, QStringLiteral("cheile sunt în portcheiul desktopului (Secret Service)."));
    const QString file = SecureStore().fallbackFilePath();
    if (qEnvironmentVariable("KELO_SECRET_STORE") == QLatin1String("file"))
        return passed(title, QStringLiteral("cheile sunt în fișierul protejat %1 (KELO_SECRET_STORE=file).").arg(file));
    return toDo(title,
        QStringLiteral("niciun Secret Service nu răspunde; cheile sunt în fișierul protejat %1. Pornește GNOME "
                       "Keyring sau KWallet și Kelo le mută singur în portchei.")
            .arg(file));
}

DoctorCheck SystemDoctor::checkSpeaker()
{
    return audioDevice(QStringLiteral("Difuzorul"), QMediaDevices::defaultAudioOutput(),
        QStringLiteral("nu găsesc nicio ieșire audio. Pornește sistemul de sunet (PipeWire sau PulseAudio) și "
                       "conectează boxele sau căștile."));
}

DoctorCheck SystemDoctor::checkMicrophone()
{
    return audioDevice(QStringLiteral("Microfonul"), QMediaDevices::defaultAudioInput(),
        QStringLiteral("nu găsesc niciun microfon. Conectează unul și verifică în setările de sunet că nu "
                       "este dezactivat."));
}

QCoro::Task<DoctorCheck> SystemDoctor::checkLocalVoice()
{
    const QString title = QStringLiteral("speech-dispatcher și vocea română");
    AppSettings *settings = m_store->settings();
    const bool used = settings->voiceEngine() == VoiceEnginePreset::appleLocal;
    // Starting the engine costs seconds: only when the answers are spoken with it.
    if (!used)
        co_return passed(
            title, QStringLiteral("nefolosit: răspunsurile se rostesc cu %1.").arg(settings->voiceEngineRawValue()));
    LocalSynthesizer *local = m_store->synthesizer()->localSynthesizer();
    local->prepare();
    while (local->engineState() == LocalSynthesizer::EngineState::starting)
        co_await QCoro::sleepFor(std::chrono::milliseconds(50));
    if (local->engineState() != LocalSynthesizer::EngineState::ready)
        co_return toDo(title, local->unavailableReason() + QStringLiteral(" Instalează: ") + installVoices, true);
    const QList<LocalVoice> voices = local->romanianVoices();
    if (voices.isEmpty())
        co_return toDo(
            title, QStringLiteral("speech-dispatcher nu are nicio voce română. Instalează: ") + installVoices, true);
    co_return passed(
        title, QStringLiteral("%1 voci românești (de exemplu %2).").arg(voices.size()).arg(voices.first().name), true);
}

std::optional<DoctorCheck> SystemDoctor::checkCloudVoiceKey() const
{
    const AppSettings *settings = m_store->settings();
    QString key;
    QString account;
    switch (settings->voiceEngine()) {
    case VoiceEnginePreset::appleLocal:
        return std::nullopt;
    case VoiceEnginePreset::googleCloud:
        key = settings->googleTTSAPIKey();
        account = QStringLiteral("googleTTSAPIKey");
        break;
    case VoiceEnginePreset::azureSpeech:
        key = settings->azureSpeechKey();
        account = QStringLiteral("azureSpeechKey");
        break;
    case VoiceEnginePreset::elevenLabs:
        key = settings->elevenAPIKey();
        account = QStringLiteral("elevenAPIKey");
        break;
    }
    const QString title = QStringLiteral("Cheia vocii %1").arg(settings->voiceEngineRawValue());
    if (key.trimmed().isEmpty())
        return toDo(title,
            QStringLiteral("lipsește. Salveaz-o cu „kelo config set %1 CHEIA” sau în Setări → Voce.").arg(account),
            true);
    return passed(title, QStringLiteral("salvată."), true);
}

QCoro::Task<DoctorCheck> SystemDoctor::checkRecognitionModel()
{
    const QString title = QStringLiteral("Modelul de recunoaștere vocală");
#ifndef KELO_WITH_WHISPER
    co_return toDo(title, QStringLiteral("această versiune de Kelo nu include recunoașterea vocală."), true);
#else
    WhisperModelManager *models = m_store->recognizer()->recognitionModels();
    const QString download
        = QStringLiteral("„kelo model download %1” sau Setări → Voce").arg(WhisperModelManager::defaultModelName());
    if (!models->modelAvailable())
        co_return toDo(
            title, models->statusText() + QStringLiteral(" Descarcă-l: ") + download + QLatin1Char('.'), true);
    const QString file = QFileInfo(models->modelPath()).fileName();
    const std::optional<bool> matches = co_await models->chosenModelMatchesChecksum();
    if (!matches)
        co_return passed(
            title, QStringLiteral("%1, ales de tine (nu are o sumă publicată de verificat).").arg(file), true);
    if (!*matches)
        co_return toDo(title,
            QStringLiteral("%1 nu are suma SHA-1 publicată (fișier stricat sau schimbat). Descarcă-l din nou: "
                           "„kelo model download %2”.")
                .arg(file, models->chosenCatalogueEntry()->name),
            true);
    co_return passed(title, QStringLiteral("%1, suma SHA-1 verificată; rulează pe acest calculator.").arg(file), true);
#endif
}

QCoro::Task<QList<DoctorCheck>> SystemDoctor::checkMCPServers()
{
    QList<MCPServerConfig> enabled;
    for (const MCPServerConfig &server : m_store->settings()->mcpServers()) {
        if (server.enabled)
            enabled.append(server);
    }
    if (enabled.isEmpty())
        co_return QList<DoctorCheck> { passed(QStringLiteral("Servere MCP"), QStringLiteral("niciunul activ.")) };
    MCPClient client(probeTimeoutMs, nullptr);
    // Every server is asked at once; the lines keep the list's order.
    std::vector<QCoro::Task<DoctorCheck>> pending;
    for (const MCPServerConfig &server : enabled)
        pending.push_back(checkServer(&client, server));
    QList<DoctorCheck> checks;
    for (auto &task : pending) {
        const DoctorCheck check = co_await task;
        checks.append(check);
    }
    co_return checks;
}

QCoro::Task<DoctorCheck> SystemDoctor::checkServer(MCPClient *client, MCPServerConfig server)
{
    const QString title = QStringLiteral("Serverul MCP „%1”").arg(server.name);
    try {
        const QList<QJsonObject> tools = co_await client->listTools(server);
        co_return passed(title, QStringLiteral("răspunde, %1 instrumente.").arg(tools.size()));
    } catch (const MCPError &error) {
        if (error.kind() == MCPError::unauthorized)
            co_return toDo(title,
                QStringLiteral("cere autorizare. Conectează-l din nou: „kelo mcp connect %1” sau Conexiuni.")
                    .arg(server.sourceID.value_or(server.endpoint)));
        co_return toDo(title, error.description() + QStringLiteral(" Verifică adresa și că serverul rulează."));
    } catch (...) {
        co_return toDo(title,
            describeException(std::current_exception()) + QStringLiteral(" Verifică adresa și că serverul rulează."));
    }
}

// Hearing the user over Kelo's own voice needs the sound server's echo canceller, and with the devices
// tried so far it leaves too much of that voice to tell the user's words apart
// (bench/echo_cancel_experiment.py). Loading the canceller just to look would stall the user's sound
// server for seconds, so the line says so without trying.
DoctorCheck SystemDoctor::checkVoiceBargeIn()
{
    return passed(QStringLiteral("Întrerupere cu vocea"),
        QStringLiteral("nu este pornită: anularea ecoului nu îmi desparte destul de sigur vocea de a ta. Ca să "
                       "mă oprești, apasă globul sau Space."));
}

QCoro::Task<DoctorCheck> SystemDoctor::checkSchemeHandler()
{
    const QString title = QStringLiteral("Adresele kelo://");
    const QString desktopFile = SecureStore::appID() + QStringLiteral(".desktop");
    const QString registerIt
        = QStringLiteral("„xdg-mime default %1 x-scheme-handler/kelo” (după instalarea pachetului)").arg(desktopFile);
    const QString xdgMime = QStandardPaths::findExecutable(QStringLiteral("xdg-mime"));
    if (xdgMime.isEmpty())
        co_return toDo(title, QStringLiteral("nu le pot verifica: lipsește xdg-mime (sudo apt install xdg-utils)."));
    QProcess process;
    process.setProgram(xdgMime);
    process.setArguments(
        { QStringLiteral("query"), QStringLiteral("default"), QStringLiteral("x-scheme-handler/kelo") });
    const bool started = co_await qCoro(process).start(QIODevice::ReadOnly, std::chrono::milliseconds(probeTimeoutMs));
    bool finished = false;
    if (started)
        finished = co_await qCoro(process).waitForFinished(std::chrono::milliseconds(probeTimeoutMs));
    // A quick answer may end before the wait begins, which QCoro reports as not finished.
    finished = finished || (started && process.state() == QProcess::NotRunning);
    if (!finished) {
        process.kill();
        co_return toDo(title, QStringLiteral("xdg-mime nu a răspuns."));
    }
    const QString handler = QString::fromUtf8(process.readAllStandardOutput()).trimmed();
    if (handler == desktopFile)
        co_return passed(
            title, QStringLiteral("le deschide Kelo (%1), autentificarea OAuth se poate întoarce.").arg(desktopFile));
    if (handler.isEmpty())
        co_return toDo(title,
            QStringLiteral("nicio aplicație nu le primește, deci OAuth nu se poate întoarce la Kelo. Rulează ")
                + registerIt + QLatin1Char('.'));
    co_return toDo(
        title, QStringLiteral("le primește %1 în loc de Kelo. Rulează ").arg(handler) + registerIt + QLatin1Char('.'));
}
