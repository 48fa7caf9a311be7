#pragma once

#include "FakeHttpServer.h"
#include "TemporaryHome.h"
#include "voice/CloudVoiceProvider.h"

#include <QCoreApplication>
#include <QProcess>
#include <QSignalSpy>

#include <memory>

class AppSettings;

// Real audio for the voice tests: eSpeak NG speech encoded by LAME, and what the null sink played.
namespace VoiceTestSupport {

// An MP3 of the Romanian text at `sampleRateKHz` ("22.05", "24", "44.1"); empty without espeak-ng or lame.
QByteArray makeSpeechMp3(const QString &text, const QString &sampleRateKHz = QStringLiteral("24"));

// Why audio tests cannot run here; empty when a PulseAudio server answers and Qt sees an output.
QString audioUnavailableReason();

// Skips the calling test function when there is no audio (QSKIP returns from where it is written).
#define KELO_REQUIRE_AUDIO()                                                                                           \
    do {                                                                                                               \
        const QString kelo_audio_problem = VoiceTestSupport::audioUnavailableReason();                                 \
        if (!kelo_audio_problem.isEmpty())                                                                             \
            QSKIP(qPrintable(kelo_audio_problem));                                                                     \
    } while (false)

// Playback streams a process (this one unless given) has open on the sound server.
int playingStreams(qint64 pid = QCoreApplication::applicationPid());

// The first argument of every signal the spy recorded, as text.
QStringList firstArguments(const QSignalSpy &spy);

// Statistics of 16 kHz mono s16le audio; audibleSeconds counts 20 ms windows above the silence floor.
struct AudioLevels
{
    double audibleSeconds = 0;
    double peak = 0;
};
AudioLevels measure(const QByteArray &pcm16kMono);

// Records the null sink's monitor (16 kHz mono s16le) until stop().
class MonitorRecording
{
public:
    MonitorRecording();
    ~MonitorRecording() { stop(); }
    bool isRecording() const { return m_process->state() == QProcess::Running; }
    QByteArray stop();

private:
    std::unique_ptr<QProcess> m_process;
};

// Every cloud voice's base address on one loopback server, answered in that provider's shapes.
struct FakeCloudVoices
{
    FakeHttpServer server;
    ScopedEnvironment google { "KELO_GOOGLE_TTS_BASE_URL", server.baseUrl() };
    ScopedEnvironment azure { "KELO_AZURE_TTS_BASE_URL", server.baseUrl() };
    ScopedEnvironment eleven { "KELO_ELEVENLABS_BASE_URL", server.baseUrl() };

    // Credentials every provider accepts, and settings holding these or others for every provider.
    static inline const CloudVoiceCredentials credentials { "key", "westeurope", "voice" };
    static void configure(
        AppSettings &settings, VoiceEnginePreset engine, const CloudVoiceCredentials &given = credentials);
    static QString synthesisPath(VoiceEnginePreset engine);
    // A successful synthesis answer carrying this MP3.
    static FakeHttpServer::Reply audio(VoiceEnginePreset engine, const QByteArray &mp3);
};

} // namespace VoiceTestSupport

Q_DECLARE_METATYPE(CloudVoiceCredentials)
