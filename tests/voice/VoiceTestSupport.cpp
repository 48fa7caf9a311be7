#include "VoiceTestSupport.h"

#include "settings/AppSettings.h"

#include <QAudioDevice>
#include <QCoreApplication>
#include <QJsonObject>
#include <QMediaDevices>
#include <QStandardPaths>
#include <QtEndian>

#include <cmath>

namespace VoiceTestSupport {

namespace {

QByteArray run(const QString &program, const QStringList &arguments, const QByteArray &input = {})
{
    QProcess process;
    process.start(program, arguments);
    if (!process.waitForStarted(5'000))
        return {};
    process.write(input);
    process.closeWriteChannel();
    if (!process.waitForFinished(30'000) || process.exitCode() != 0)
        return {};
    return process.readAllStandardOutput();
}

} // namespace

QByteArray makeSpeechMp3(const QString &text, const QString &sampleRateKHz)
{
    if (QStandardPaths::findExecutable(QStringLiteral("espeak-ng")).isEmpty()
        || QStandardPaths::findExecutable(QStringLiteral("lame")).isEmpty())
        return {};
    const QByteArray wav = run(
        QStringLiteral("espeak-ng"), { QStringLiteral("-v"), QStringLiteral("ro"), QStringLiteral("--stdout"), text });
    if (wav.isEmpty())
        return {};
    return run(QStringLiteral("lame"),
        { QStringLiteral("--quiet"), QStringLiteral("--resample"), sampleRateKHz, QStringLiteral("-"),
            QStringLiteral("-") },
        wav);
}

QString audioUnavailableReason()
{
    if (qEnvironmentVariableIsEmpty("XDG_RUNTIME_DIR"))
        return QStringLiteral("no XDG_RUNTIME_DIR: start the test services (scripts/test.sh)");
    QProcess info;
    info.start(QStringLiteral("pactl"), { QStringLiteral("info") });
    if (!info.waitForStarted(5'000) || !info.waitForFinished(5'000) || info.exitCode() != 0)
        return QStringLiteral("no PulseAudio server reachable: start the test services (scripts/test.sh)");
    if (QMediaDevices::defaultAudioOutput().isNull())
        return QStringLiteral("Qt sees no audio output device");
    return {};
}

int playingStreams()
{
    // Only this process's streams: other tests and programs may share the sound server.
    const QByteArray owner
        = "application.process.id = \"" + QByteArray::number(QCoreApplication::applicationPid()) + '"';
    return int(run(QStringLiteral("pactl"), { QStringLiteral("list"), QStringLiteral("sink-inputs") }).count(owner));
}

AudioLevels measure(const QByteArray &pcm16kMono)
{
    constexpr int rate = 16'000;
    constexpr int window = rate / 50;
    // About -46 dBFS: above the dither of a silent stream, far below speech.
    constexpr double silenceFloor = 160.0;
    const auto *samples = reinterpret_cast<const qint16 *>(pcm16kMono.constData());
    const qsizetype count = pcm16kMono.size() / 2;

    AudioLevels levels;
    levels.seconds = double(count) / rate;
    for (qsizetype start = 0; start + window <= count; start += window) {
        double sum = 0;
        for (qsizetype i = start; i < start + window; ++i) {
            const double value = qFromLittleEndian(samples[i]);
            sum += value * value;
            levels.peak = std::max(levels.peak, std::abs(value));
        }
        if (std::sqrt(sum / window) > silenceFloor)
            levels.audibleSeconds += double(window) / rate;
    }
    return levels;
}

MonitorRecording::MonitorRecording()
    : m_process(std::make_unique<QProcess>())
{
    m_process->start(QStringLiteral("parec"),
        { QStringLiteral("--device=nullsink.monitor"), QStringLiteral("--format=s16le"), QStringLiteral("--rate=16000"),
            QStringLiteral("--channels=1"), QStringLiteral("--raw"), QStringLiteral("--latency-msec=20") });
    m_process->waitForStarted(5'000);
}

MonitorRecording::~MonitorRecording()
{
    if (isRecording()) {
        m_process->terminate();
        m_process->waitForFinished(5'000);
    }
}

bool MonitorRecording::isRecording() const
{
    return m_process->state() == QProcess::Running;
}

QByteArray MonitorRecording::stop()
{
    m_process->terminate();
    m_process->waitForFinished(5'000);
    return m_process->readAllStandardOutput();
}

FakeCloudVoices::FakeCloudVoices()
    : m_server(std::make_unique<FakeHttpServer>())
{
    for (const char *variable : { "KELO_GOOGLE_TTS_BASE_URL", "KELO_AZURE_TTS_BASE_URL", "KELO_ELEVENLABS_BASE_URL" })
        m_environment.push_back(std::make_unique<ScopedEnvironment>(variable, m_server->baseUrl()));
}

CloudVoiceCredentials FakeCloudVoices::credentials()
{
    return { QStringLiteral("key"), QStringLiteral("westeurope"), QStringLiteral("voice") };
}

void FakeCloudVoices::configure(AppSettings &settings, VoiceEnginePreset engine)
{
    const CloudVoiceCredentials complete = credentials();
    settings.setVoiceEngine(engine);
    settings.setGoogleTTSAPIKey(complete.apiKey);
    settings.setAzureSpeechKey(complete.apiKey);
    settings.setAzureRegion(complete.region);
    settings.setElevenAPIKey(complete.apiKey);
    settings.setElevenVoiceID(complete.voice);
}

QString FakeCloudVoices::synthesisPath(VoiceEnginePreset engine)
{
    return CloudVoiceProvider::forEngine(engine)->synthesisRequest(credentials()).url().path();
}

FakeHttpServer::Reply FakeCloudVoices::audio(VoiceEnginePreset engine, const QByteArray &mp3)
{
    if (engine == VoiceEnginePreset::googleCloud)
        return FakeHttpServer::Reply::json(QJsonObject { { "audioContent", QString::fromLatin1(mp3.toBase64()) } });
    return FakeHttpServer::Reply::text(mp3, 200, "audio/mpeg");
}

} // namespace VoiceTestSupport
