// Voice to voice: release of the orb → the first decoded audio of the answer pulled by the output
// device, through the real ChatStore. A 5-second espeak-ng Romanian utterance is fed through the capture
// path in real time, recognised by a base-shaped random-weights model (decoder stopped at 30 tokens),
// answered by a loopback model service (first token after 300 ms, then 60 tokens/s, four sentences of
// about 120 tokens; streamed as events or as one JSON object) and spoken by a loopback cloud voice
// (150 ms per request, a real MP3) into the PulseAudio null sink of the test services.
//
//   source scripts/test-services.sh && kelo_start_services
//   build/bench/bench_voice_to_voice [--runs N] [--model PATH] [--threads N (default: by load)]
//
// Both modes run in the same process, alternating, so they see the same machine load.
#include "FakeHttpServer.h"
#include "RandomWhisperModel.h"
#include "TemporaryHome.h"
#include "VoiceTestSupport.h"
#include "VoiceTurnAdapter.h"
#include "conversation/ChatStore.h"
#include "settings/AppSettings.h"
#include "voice/AudioMath.h"
#include "voice/Resampler.h"
#include "voice/TranscriptionWorker.h"
#include "voice/WavFile.h"
#include "voice/WavFileInput.h"
#include "voice/WhisperModel.h"
#include "voice/WhisperModelManager.h"

#include <QCoroTask>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QFile>
#include <QFileInfo>
#include <QGuiApplication>
#include <QJsonArray>
#include <QJsonDocument>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QProcess>
#include <QTemporaryDir>
#include <QTimer>

#include <algorithm>
#include <cstdio>

using Reply = FakeHttpServer::Reply;

namespace {

constexpr double kUtteranceSeconds = 5.0;
constexpr int kFirstTokenMs = 300;
constexpr int kTokensPerSecond = 60;
constexpr int kVoiceDelayMs = 150;
constexpr int kTimeoutMs = 60'000;

const QString kAnswer = QStringLiteral(
    "Mâine la București va fi senin dimineața, cu temperaturi în jur de douăzeci și două de grade. "
    "După-amiază cerul se va înnora treptat, iar spre seară sunt posibile averse scurte, mai ales în nordul "
    "orașului. Vântul va sufla slab până la moderat, așa că o umbrelă mică în geantă ar fi de ajutor. "
    "Dacă vrei, îți pot spune și cum va fi vremea la sfârșitul săptămânii.");

// About three characters a token, as a tokenizer cuts Romanian text with its diacritics.
QStringList tokens(const QString &text)
{
    QStringList pieces;
    for (qsizetype i = 0; i < text.size(); i += 3)
        pieces.append(text.mid(i, 3));
    return pieces;
}

QByteArray completionJson(const QString &text)
{
    const QJsonObject message { { "role", "assistant" }, { "content", text } };
    const QJsonObject choice { { "index", 0 }, { "message", message }, { "finish_reason", "stop" } };
    return QJsonDocument(QJsonObject { { "choices", QJsonArray { choice } } }).toJson(QJsonDocument::Compact);
}

// One event per token, each its own chunk on the wire, the first after kFirstTokenMs.
Reply streamedAnswer()
{
    Reply reply = Reply::text({}, 200, "text/event-stream");
    for (const QString &piece : tokens(kAnswer)) {
        const QJsonObject delta { { "content", piece } };
        const QJsonObject choice { { "index", 0 }, { "delta", delta } };
        const QJsonObject event { { "choices", QJsonArray { choice } } };
        reply.chunks.append("data: " + QJsonDocument(event).toJson(QJsonDocument::Compact) + "\n\n");
    }
    const QJsonObject last { { "index", 0 }, { "delta", QJsonObject {} }, { "finish_reason", "stop" } };
    reply.chunks.append(
        "data: " + QJsonDocument(QJsonObject { { "choices", QJsonArray { last } } }).toJson(QJsonDocument::Compact)
        + "\n\ndata: [DONE]\n\n");
    reply.delayMs = kFirstTokenMs;
    reply.chunkIntervalMs = 1000 / kTokensPerSecond;
    return reply;
}

Reply wholeAnswer()
{
    Reply reply = Reply::text(completionJson(kAnswer), 200, "application/json");
    reply.delayMs = kFirstTokenMs + int(tokens(kAnswer).size()) * 1000 / kTokensPerSecond;
    return reply;
}

// Five seconds of espeak-ng Romanian at 16 kHz, made at run time.
WavFile utterance(const QString &directory)
{
    const QString path = directory + QStringLiteral("/utterance.wav");
    const int status = QProcess::execute(QStringLiteral("espeak-ng"),
        { QStringLiteral("-v"), QStringLiteral("ro"), QStringLiteral("-w"), path,
            QStringLiteral("Bună ziua. Aș vrea să știu cum va fi vremea mâine la București, "
                           "și dacă plouă după-amiază.") });
    if (status != 0)
        return {};
    const WavFile spoken = WavFile::read(path);
    Resampler resampler(spoken.sampleRate, WhisperModel::kSampleRate);
    QVector<float> mono = resampler.process(AudioMath::downmix(spoken.interleaved, spoken.channels));
    mono += resampler.flush();
    const int frames = int(kUtteranceSeconds * WhisperModel::kSampleRate);
    while (!mono.isEmpty() && mono.size() < frames)
        mono += mono;
    WavFile wav;
    wav.sampleRate = WhisperModel::kSampleRate;
    wav.channels = 1;
    wav.interleaved = mono.mid(0, frames);
    return wav;
}

// 20 ms windows of s16le mono audio, each either audible or silent.
QList<bool> audibleWindows(const QByteArray &pcm, int sampleRate)
{
    const int window = sampleRate / 50;
    const auto *samples = reinterpret_cast<const qint16 *>(pcm.constData());
    const qsizetype count = pcm.size() / 2;
    QList<bool> audible;
    for (qsizetype start = 0; start + window <= count; start += window) {
        double sum = 0;
        for (int i = 0; i < window; ++i)
            sum += double(samples[start + i]) * samples[start + i];
        audible.append(std::sqrt(sum / window) > 300.0);
    }
    return audible;
}

// Silence the voice's own MP3 carries before and after its words, in ms: two pieces played back to
// back are separated by this much even when the player adds nothing.
int paddingMs(const QByteArray &mp3, const QString &directory)
{
    const QString mp3Path = directory + QStringLiteral("/voice.mp3");
    const QString wavPath = directory + QStringLiteral("/voice.wav");
    QFile file(mp3Path);
    if (!file.open(QIODevice::WriteOnly) || file.write(mp3) != mp3.size())
        return -1;
    file.close();
    if (QProcess::execute(
            QStringLiteral("lame"), { QStringLiteral("--quiet"), QStringLiteral("--decode"), mp3Path, wavPath })
        != 0)
        return -1;
    const WavFile wav = WavFile::read(wavPath);
    QByteArray pcm;
    for (const float sample : AudioMath::downmix(wav.interleaved, wav.channels)) {
        const qint16 value = qint16(std::clamp(sample, -1.0f, 1.0f) * 32767);
        pcm.append(reinterpret_cast<const char *>(&value), 2);
    }
    const QList<bool> audible = audibleWindows(pcm, wav.sampleRate);
    if (!audible.contains(true))
        return -1;
    return int(audible.indexOf(true) + (audible.size() - 1 - audible.lastIndexOf(true))) * 20;
}

// Silences inside the answer longer than the MP3's own padding plus 100 ms, in a 16 kHz mono s16le
// recording of the sink: time the player added between two pieces. The voice's sentence has no
// commas, so its own pauses between words are far shorter.
int gapsBetweenPieces(const QByteArray &pcm, int paddingMs)
{
    const QList<bool> audible = audibleWindows(pcm, 16'000);
    const int gapWindows = (paddingMs + 100) / 20;
    const qsizetype first = audible.indexOf(true);
    const qsizetype last = audible.lastIndexOf(true);
    int gaps = 0;
    int silentRun = 0;
    for (qsizetype i = first; first >= 0 && i <= last; ++i) {
        silentRun = audible[i] ? 0 : silentRun + 1;
        gaps += silentRun == gapWindows ? 1 : 0;
    }
    return gaps;
}

bool spinUntil(const std::function<bool()> &done, int timeoutMs)
{
    QEventLoop loop;
    QTimer poll;
    QObject::connect(&poll, &QTimer::timeout, &loop, [&] {
        if (done())
            loop.quit();
    });
    poll.start(2);
    QTimer::singleShot(timeoutMs, &loop, &QEventLoop::quit);
    if (!done())
        loop.exec();
    return done();
}

struct Run
{
    double releaseToFirstAudio = -1;
    // Where the time went: release → the final transcript, → the model's request, → the first voice
    // request.
    double releaseToTranscript = -1;
    double releaseToModel = -1;
    double releaseToVoice = -1;
    int gaps = 0;
    int underruns = 0;
    QString failure;
};

class Harness
{
public:
    Harness(const QString &modelPath, WavFile wav)
        : m_wav(std::move(wav))
    {
        m_service.on("POST", QStringLiteral("/chat/completions"), [this](const FakeHttpServer::Request &) {
            stamp(m_modelAt);
            return m_streamed ? streamedAnswer() : wholeAnswer();
        });
        const QByteArray mp3 = VoiceTestSupport::makeSpeechMp3(
            QStringLiteral("Mâine va fi o zi frumoasă cu soare la București"), QStringLiteral("24"));
        m_paddingMs = paddingMs(mp3, m_scratch.path());
        Reply voice = Reply::text(mp3, 200, "audio/mpeg");
        voice.delayMs = kVoiceDelayMs;
        m_service.on(
            "POST", QStringLiteral("/v1/text-to-speech/bench"), [this, voice](const FakeHttpServer::Request &) {
                stamp(m_voiceAt);
                return voice;
            });

        AppSettings *settings = m_store.settings();
        settings->setMemoryEnabled(false);
        settings->setAutoSpeak(true);
        settings->setVoiceEngine(VoiceEnginePreset::elevenLabs);
        settings->setElevenAPIKey(QStringLiteral("key"));
        settings->setElevenVoiceID(QStringLiteral("bench"));
        auto *speech = VoiceTurnAdapter::recognizerOf(m_store);
        QObject::connect(speech, &SpeechRecognizer::finalTranscript, [this] { stamp(m_transcriptAt); });
        speech->recognitionModels()->setSessionModelPath(modelPath);
        speech->setAudioInputFactory([this] {
            auto input = std::make_unique<WavFileInput>(m_wav, 1.0);
            QObject::connect(input.get(), &AudioInput::ended, [this] { m_release.start(); });
            return std::unique_ptr<AudioInput>(std::move(input));
        });
    }

    // Loads the model with the 30-token cap before the first press, as the app preloads it.
    bool prepare(int threads)
    {
        auto *speech = VoiceTurnAdapter::recognizerOf(m_store);
        bool loaded = false;
        auto load = [&]() -> QCoro::Task<> {
            try {
                co_await speech->recognitionModels()->loadModel(speech->transcriptionWorker());
            } catch (...) { }
            loaded = true;
        };
        QCoro::Task<> task = load();
        spinUntil([&] { return loaded; }, kTimeoutMs);
        const std::shared_ptr<WhisperModel> model = speech->recognitionModels()->loadedModel();
        if (!model)
            return false;
        model->setDecoding({ .maxTokens = 30, .threads = threads });
        return true;
    }

    ~Harness()
    {
        // Players and audio sinks of the last answer go with deleteLater; no event loop runs any more.
        VoiceTurnAdapter::synthesizerOf(m_store)->stopSpeaking();
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    }

    // The streamed service on its own, so its pace can be trusted before the store consumes it.
    void checkStreamedService()
    {
        m_streamed = true;
        QNetworkAccessManager network;
        QNetworkRequest request(QUrl(m_service.baseUrl() + QStringLiteral("/chat/completions")));
        request.setHeader(QNetworkRequest::ContentTypeHeader, QByteArray("application/json"));
        QElapsedTimer clock;
        clock.start();
        QNetworkReply *reply = network.post(request, QByteArray("{\"stream\":true}"));
        qint64 firstMs = -1;
        QByteArray body;
        QObject::connect(reply, &QNetworkReply::readyRead, [&] {
            if (firstMs < 0)
                firstMs = clock.elapsed();
            body += reply->readAll();
        });
        spinUntil([&] { return reply->isFinished(); }, kTimeoutMs);
        body += reply->readAll();
        std::printf("streamed service alone: first event after %lld ms, %lld events, done after %lld ms\n",
            static_cast<long long>(firstMs), static_cast<long long>(body.count("data: ")),
            static_cast<long long>(clock.elapsed()));
        reply->deleteLater();
    }

    bool streamingAvailable() const { return VoiceTurnAdapter::streamsAnswers(); }
    int voicePaddingMs() const { return m_paddingMs; }

    Run run(bool streamed)
    {
        m_streamed = streamed;
        m_release.invalidate();
        m_transcriptAt = m_modelAt = m_voiceAt = -1;
        Run result;
        bool firstAudio = false;
        bool turnDone = false;
        const auto turn = QObject::connect(&m_store, &ChatStore::turnFinished, [&] { turnDone = true; });
        QObject watch;
        VoiceTurnAdapter::onFirstAudio(m_store, &watch, [&] {
            if (!firstAudio && m_release.isValid())
                result.releaseToFirstAudio = m_release.nsecsElapsed() / 1e9;
            firstAudio = true;
        });
        VoiceTestSupport::MonitorRecording recording;
        m_store.startPushToTalk();
        // The file input ends itself after five seconds; the release follows at that moment.
        spinUntil([&] { return m_release.isValid(); }, kTimeoutMs);
        m_store.stopPushToTalk();
        if (!spinUntil([&] { return firstAudio; }, kTimeoutMs))
            result.failure = QStringLiteral("no audio: ") + VoiceTurnAdapter::lastVoiceError(m_store);
        // The answer's output goes when it has played; its count is read while it is still there.
        spinUntil(
            [&] {
                if (const CloudAudioOutput *output = VoiceTurnAdapter::synthesizerOf(m_store)->cloudAudioOutput())
                    result.underruns = std::max(result.underruns, output->underruns());
                return turnDone && !VoiceTurnAdapter::isSpeaking(m_store);
            },
            kTimeoutMs);
        result.gaps = gapsBetweenPieces(recording.stop(), m_paddingMs);
        result.releaseToTranscript = m_transcriptAt;
        result.releaseToModel = m_modelAt;
        result.releaseToVoice = m_voiceAt;
        QObject::disconnect(turn);
        return result;
    }

private:
    // The first moment of this run's kind, in seconds after the release.
    void stamp(double &at) const
    {
        if (at < 0 && m_release.isValid())
            at = m_release.nsecsElapsed() / 1e9;
    }

    TemporaryHome m_home;
    QTemporaryDir m_scratch;
    int m_paddingMs = -1;
    FakeHttpServer m_service;
    ScopedEnvironment m_zen { "KELO_ZEN_BASE_URL", m_service.baseUrl() };
    ScopedEnvironment m_key { "KELO_ZEN_API_KEY", QStringLiteral("bench") };
    ScopedEnvironment m_eleven { "KELO_ELEVENLABS_BASE_URL", m_service.baseUrl() };
    WavFile m_wav;
    ChatStore m_store;
    bool m_streamed = false;
    QElapsedTimer m_release;
    double m_transcriptAt = -1;
    double m_modelAt = -1;
    double m_voiceAt = -1;
};

struct Figures
{
    QList<double> seconds;
    int gaps = 0;
    int underruns = 0;
    int failures = 0;

    double percentile(int percent) const
    {
        QList<double> sorted = seconds;
        std::sort(sorted.begin(), sorted.end());
        return sorted.isEmpty() ? 0 : sorted[std::min(sorted.size() - 1, sorted.size() * percent / 100)];
    }

    void print(const char *mode) const
    {
        std::printf("%-13s release → first audio: median %.3f s, p90 %.3f s over %lld runs (%d failed); "
                    "underruns: %d; gaps between pieces: %d\n",
            mode, percentile(50), percentile(90), static_cast<long long>(seconds.size()), failures, underruns, gaps);
    }
};

} // namespace

int main(int argc, char **argv)
{
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", "offscreen");
    QGuiApplication app(argc, argv);
    const QStringList args = app.arguments();
    int runs = 10;
    int threads = 0;
    QString modelPath;
    for (int i = 1; i + 1 < args.size(); ++i) {
        if (args[i] == QLatin1String("--runs"))
            runs = std::max(1, args[i + 1].toInt());
        else if (args[i] == QLatin1String("--model"))
            modelPath = args[i + 1];
        else if (args[i] == QLatin1String("--threads"))
            threads = std::max(0, args[i + 1].toInt());
    }
    const QString audioProblem = VoiceTestSupport::audioUnavailableReason();
    if (!audioProblem.isEmpty()) {
        std::fprintf(stderr, "%s\n", qPrintable(audioProblem));
        return 2;
    }
    QTemporaryDir dir;
    if (modelPath.isEmpty())
        modelPath = dir.filePath(QStringLiteral("ggml-base-shaped.bin"));
    if (!QFileInfo::exists(modelPath))
        RandomWhisperModel::write(modelPath, RandomWhisperModel::base());
    const WavFile wav = utterance(dir.path());
    if (wav.interleaved.isEmpty()) {
        std::fprintf(stderr, "espeak-ng could not make the utterance\n");
        return 2;
    }

    std::printf("answer: %lld tokens, %d ms to the first, %d per second\n",
        static_cast<long long>(tokens(kAnswer).size()), kFirstTokenMs, kTokensPerSecond);
    Harness harness(modelPath, wav);
    if (!harness.prepare(threads)) {
        std::fprintf(stderr, "the model did not load\n");
        return 2;
    }
    harness.checkStreamedService();
    std::printf("the voice's MP3 carries %d ms of silence at its ends; a gap is a silence longer than that + 100 ms\n",
        harness.voicePaddingMs());
    QList<bool> modes { false };
    if (harness.streamingAvailable())
        modes.prepend(true);
    else
        std::printf("streamed mode: the store does not stream answers yet; only the whole-answer mode runs\n");
    harness.run(false); // warm-up: connections, the voice's first request, the audio device

    Figures streamed;
    Figures whole;
    for (int i = 0; i < runs; ++i) {
        for (const bool mode : modes) {
            const Run run = harness.run(mode);
            Figures &figures = mode ? streamed : whole;
            if (!run.failure.isEmpty()) {
                ++figures.failures;
                std::printf("  %s run %d failed: %s\n", mode ? "streamed" : "whole", i + 1, qPrintable(run.failure));
                continue;
            }
            figures.seconds.append(run.releaseToFirstAudio);
            figures.gaps += run.gaps;
            figures.underruns += run.underruns;
            std::printf("  %s run %d: %.3f s (transcript at %.3f s, model asked at %.3f, voice at %.3f), %d underruns, "
                        "%d gaps\n",
                mode ? "streamed" : "whole", i + 1, run.releaseToFirstAudio, run.releaseToTranscript,
                run.releaseToModel, run.releaseToVoice, run.underruns, run.gaps);
        }
    }
    if (modes.contains(true))
        streamed.print("streamed:");
    whole.print("whole answer:");
    if (!streamed.seconds.isEmpty() && !whole.seconds.isEmpty())
        std::printf("speed-up of the median: %.1f× (target ≥ 3×; streamed target ≤ 1.0 s)\n",
            whole.percentile(50) / streamed.percentile(50));
    return 0;
}
