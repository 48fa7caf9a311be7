#pragma once

#include "FakeHttpServer.h"
#include "TemporaryHome.h"
#include "settings/Presets.h"
#include "voice/CloudVoiceProvider.h"

#include <QByteArray>
#include <QProcess>
#include <QString>

#include <memory>
#include <vector>

class AppSettings;

// Real audio for the voice tests: speech made by eSpeak NG and encoded by LAME at test time, and a
// recording of what the PulseAudio null sink of the test services played.
namespace VoiceTestSupport {

// An MP3 of the Romanian text, resampled to `sampleRateKHz` ("22.05", "24", "44.1"); empty when
// espeak-ng or lame is missing.
QByteArray makeSpeechMp3(const QString &text, const QString &sampleRateKHz = QStringLiteral("24"));

// Why audio tests cannot run here, or an empty string when a PulseAudio server answers and Qt
// sees an output device.
QString audioUnavailableReason();

// Skips the calling test function when there is no audio server (QSKIP returns from the function
// it is written in, hence a macro).
#define KELO_REQUIRE_AUDIO()                                                                                           \
    do {                                                                                                               \
        const QString kelo_audio_problem = VoiceTestSupport::audioUnavailableReason();                                 \
        if (!kelo_audio_problem.isEmpty())                                                                             \
            QSKIP(qPrintable(kelo_audio_problem));                                                                     \
    } while (false)

// Playback streams this process has open on the sound server, as pactl lists them.
int playingStreams();

// Statistics of 16 kHz mono s16le audio.
struct AudioLevels
{
    double seconds = 0;
    // Total length of 20 ms windows whose RMS is above the silence floor.
    double audibleSeconds = 0;
    double peak = 0;
};
AudioLevels measure(const QByteArray &pcm16kMono);

// Records the null sink's monitor (16 kHz mono s16le) until stop().
class MonitorRecording
{
public:
    MonitorRecording();
    ~MonitorRecording();
    bool isRecording() const;
    QByteArray stop();

private:
    std::unique_ptr<QProcess> m_process;
};

// A loopback stand-in for every cloud voice: each provider's base address points at one server,
// and its answers are built in the shape that provider sends.
class FakeCloudVoices
{
public:
    FakeCloudVoices();
    FakeHttpServer &server() { return *m_server; }

    // Credentials every provider accepts.
    static CloudVoiceCredentials credentials();
    // Complete settings for every cloud voice, `engine` chosen.
    static void configure(AppSettings &settings, VoiceEnginePreset engine);
    // Where the provider's synthesis requests go, read from its own request.
    static QString synthesisPath(VoiceEnginePreset engine);
    // A successful synthesis answer carrying this MP3.
    static FakeHttpServer::Reply audio(VoiceEnginePreset engine, const QByteArray &mp3);

private:
    std::unique_ptr<FakeHttpServer> m_server;
    std::vector<std::unique_ptr<ScopedEnvironment>> m_environment;
};

} // namespace VoiceTestSupport
