// Time from SpeechSynthesizer::speak to the first audio handed over, for a two-sentence Romanian answer.
//
// Cloud (target < 60 ms of our own time): a loopback server answers at once with a real MP3; the
// clock stops when the audio device pulls the first decoded samples.
// Local (target < 150 ms): Qt TextToSpeech 6.4 gives no access to PCM, so the honest end point is
// speech-dispatcher reporting that it began speaking (the engine is warmed up first; its cold start
// is reported apart).
//
// Needs the PulseAudio server of the test services: run it as
//   source scripts/test-services.sh && kelo_start_services && build/bench/bench_voice_latency
#include "FakeHttpServer.h"
#include "TemporaryHome.h"
#include "VoiceTestSupport.h"
#include "settings/AppSettings.h"
#include "voice/CloudAudioOutput.h"
#include "voice/LocalSynthesizer.h"
#include "voice/SpeechSynthesizer.h"

#include <QElapsedTimer>
#include <QEventLoop>
#include <QGuiApplication>
#include <QTimer>

#include <benchmark/benchmark.h>
#include <functional>

namespace {

const QString answer = QStringLiteral("Bună ziua, mă bucur să te aud. Astăzi la București sunt douăzeci de grade.");

// Spins the event loop until `done` is set or the time runs out; false on time-out.
bool spinUntil(const bool &done, int timeoutMs)
{
    QEventLoop loop;
    QTimer poll;
    QObject::connect(&poll, &QTimer::timeout, &loop, [&] {
        if (done)
            loop.quit();
    });
    poll.start(0);
    QTimer::singleShot(timeoutMs, &loop, &QEventLoop::quit);
    if (!done)
        loop.exec();
    return done;
}

void settle(int ms)
{
    QEventLoop loop;
    QTimer::singleShot(ms, &loop, &QEventLoop::quit);
    loop.exec();
}

struct Environment
{
    TemporaryHome home;
    FakeHttpServer server;
    ScopedEnvironment elevenBase { "KELO_ELEVENLABS_BASE_URL", server.baseUrl() };
    AppSettings settings;
    SpeechSynthesizer speech;
};

Environment &environment()
{
    static Environment *shared = new Environment;
    return *shared;
}

void cloudSpeakToFirstAudio(benchmark::State &state)
{
    const QString audioProblem = VoiceTestSupport::audioUnavailableReason();
    if (!audioProblem.isEmpty()) {
        state.SkipWithError(qPrintable(audioProblem));
        return;
    }
    const QByteArray mp3 = VoiceTestSupport::makeSpeechMp3(answer, QStringLiteral("44.1"));
    Environment &env = environment();
    env.server.on("POST", "/v1/text-to-speech/bench", FakeHttpServer::Reply::text(mp3, 200, "audio/mpeg"));
    env.settings.setVoiceEngine(VoiceEnginePreset::elevenLabs);
    env.settings.setElevenAPIKey(QStringLiteral("key"));
    env.settings.setElevenVoiceID(QStringLiteral("bench"));

    double untilSpeaking = 0;
    for (auto _ : state) {
        bool firstAudio = false;
        QElapsedTimer clock;
        qint64 speakingAt = 0;
        const auto connection = QObject::connect(&env.speech, &SpeechSynthesizer::isSpeakingChanged, [&] {
            if (!env.speech.isSpeaking() || !env.speech.cloudAudioOutput())
                return;
            speakingAt = clock.nsecsElapsed();
            QObject::connect(env.speech.cloudAudioOutput(), &CloudAudioOutput::firstAudioQueued, [&] {
                if (!firstAudio)
                    state.SetIterationTime(double(clock.nsecsElapsed()) / 1e9);
                firstAudio = true;
            });
        });
        clock.start();
        env.speech.speak(answer, &env.settings);
        const bool ok = spinUntil(firstAudio, 10'000);
        QObject::disconnect(connection);
        env.speech.stopSpeaking();
        if (!ok) {
            state.SkipWithError(qPrintable("no audio: " + env.speech.lastError()));
            break;
        }
        untilSpeaking += double(speakingAt) / 1e6;
        settle(50);
    }
    state.counters["ms_until_device_start"] = benchmark::Counter(untilSpeaking, benchmark::Counter::kAvgIterations);
}

void localSpeakToSpeechStart(benchmark::State &state)
{
    Environment &env = environment();
    LocalSynthesizer *local = env.speech.localSynthesizer();
    QElapsedTimer coldStart;
    coldStart.start();
    local->prepare();
    bool started = false;
    const auto ready = QObject::connect(local, &LocalSynthesizer::engineStateChanged,
        [&] { started = local->engineState() != LocalSynthesizer::EngineState::starting; });
    spinUntil(started, LocalSynthesizer::startDeadlineMs + 5'000);
    QObject::disconnect(ready);
    if (local->engineState() != LocalSynthesizer::EngineState::ready) {
        state.SkipWithError(qPrintable("local engine unavailable: " + local->unavailableReason()));
        return;
    }
    state.counters["engine_cold_start_ms"] = double(coldStart.elapsed());
    env.settings.setVoiceEngine(VoiceEnginePreset::appleLocal);
    env.settings.setVoiceRate(0.5);

    for (auto _ : state) {
        bool speaking = false;
        QElapsedTimer clock;
        const auto connection = QObject::connect(&env.speech, &SpeechSynthesizer::isSpeakingChanged, [&] {
            if (env.speech.isSpeaking() && !speaking) {
                state.SetIterationTime(double(clock.nsecsElapsed()) / 1e9);
                speaking = true;
            }
        });
        clock.start();
        env.speech.speak(answer, &env.settings);
        const bool ok = spinUntil(speaking, 10'000);
        QObject::disconnect(connection);
        env.speech.stopSpeaking();
        if (!ok) {
            state.SkipWithError(qPrintable("no speech: " + env.speech.lastError()));
            break;
        }
        settle(300);
    }
}

} // namespace

BENCHMARK(cloudSpeakToFirstAudio)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(30);
BENCHMARK(localSpeakToSpeechStart)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(15);

int main(int argc, char **argv)
{
    qputenv("QT_QPA_PLATFORM", "offscreen");
    QGuiApplication app(argc, argv);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
