#include "VoiceTestSupport.h"

#include "settings/AppSettings.h"

#include <QAudioDevice>
#include <QCoreApplication>
#include <QJsonObject>
#include <QMediaDevices>
#include <QtEndian>

#include <cmath>

using namespace Qt::StringLiterals;

namespace VoiceTestSupport {

namespace {

// The program's output, or nothing when it is missing or fails.
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
    const QByteArray wav = run(u"espeak-ng"_s, { u"-v"_s, u"ro"_s, u"--stdout"_s, text });
    return wav.isEmpty() ? QByteArray()
                         : run(u"lame"_s, { u"--quiet"_s, u"--resample"_s, sampleRateKHz, u"-"_s, u"-"_s }, wav);
}

QString audioUnavailableReason()
{
    if (qEnvironmentVariableIsEmpty("XDG_RUNTIME_DIR"))
        return u"no XDG_RUNTIME_DIR: start the test services (scripts/test.sh)"_s;
    if (run(u"pactl"_s, { u"info"_s }).isEmpty())
        return u"no PulseAudio server reachable: start the test services (scripts/test.sh)"_s;
    if (QMediaDevices::defaultAudioOutput().isNull())
        return u"Qt sees no audio output device"_s;
    return {};
}

int playingStreams(qint64 pid)
{
    // Only that process's streams: other tests and programs may share the sound server.
    const QByteArray owner = "application.process.id = \"" + QByteArray::number(pid) + '"';
    return int(run(u"pactl"_s, { u"list"_s, u"sink-inputs"_s }).count(owner));
}

QStringList firstArguments(const QSignalSpy &spy)
{
    QStringList values;
    for (const QList<QVariant> &arguments : spy)
        values.append(arguments.first().toString());
    return values;
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
    m_process->start(u"parec"_s,
        { u"--device=nullsink.monitor"_s, u"--format=s16le"_s, u"--rate=16000"_s, u"--channels=1"_s, u"--raw"_s,
            u"--latency-msec=20"_s });
    m_process->waitForStarted(5'000);
}

QByteArray MonitorRecording::stop()
{
    m_process->terminate();
    m_process->waitForFinished(5'000);
    return m_process->readAllStandardOutput();
}

void FakeCloudVoices::configure(AppSettings &settings, VoiceEnginePreset engine, const CloudVoiceCredentials &given)
{
    settings.setVoiceEngine(engine);
    settings.setGoogleTTSAPIKey(given.apiKey);
    settings.setAzureSpeechKey(given.apiKey);
    settings.setAzureRegion(given.region);
    settings.setElevenAPIKey(given.apiKey);
    settings.setElevenVoiceID(given.voice);
}

QString FakeCloudVoices::synthesisPath(VoiceEnginePreset engine)
{
    return CloudVoiceProvider::forEngine(engine)->synthesisRequest(credentials).url().path();
}

FakeHttpServer::Reply FakeCloudVoices::audio(VoiceEnginePreset engine, const QByteArray &mp3)
{
    if (engine == VoiceEnginePreset::googleCloud)
        return FakeHttpServer::Reply::json(QJsonObject { { "audioContent", QString::fromLatin1(mp3.toBase64()) } });
    return FakeHttpServer::Reply::text(mp3, 200, "audio/mpeg");
}

} // namespace VoiceTestSupport
