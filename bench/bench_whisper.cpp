// Recognition latency on this machine with a model of the published "base" dimensions (random
// weights, so the text is meaningless but every matrix product is real):
//   - release → final transcript for a 5-second utterance fed at real time (partials running);
//   - the cost of one partial over the whole 5 seconds;
//   - peak resident memory.
// Random weights never end their text, so the decoder is stopped at --max-tokens (30 by default: where
// a real 5-second utterance ends). --threads fixes the compute threads (default: the app's policy).
// Usage: bench_whisper [--model PATH] [--runs N] [--max-tokens N] [--threads N]   (a PATH that does not
// exist yet is generated there and kept, so later runs skip the generation)

#include "RandomWhisperModel.h"
#include "voice/AudioMath.h"
#include "voice/RecognitionTask.h"
#include "voice/Resampler.h"
#include "voice/TranscriptionWorker.h"
#include "voice/WavFile.h"
#include "voice/WavFileInput.h"
#include "voice/WhisperModel.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QTimer>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <sys/resource.h>

namespace {

constexpr double kUtteranceSeconds = 5.0;

// Five seconds of 16 kHz speech: espeak-ng's Romanian voice, repeated or cut to length; a voiced
// synthetic signal when espeak-ng is not installed.
WavFile utterance(const QString &directory)
{
    const int frames = int(kUtteranceSeconds * WhisperModel::kSampleRate);
    WavFile wav;
    wav.sampleRate = WhisperModel::kSampleRate;
    wav.channels = 1;
    const QString espeak = QStandardPaths::findExecutable(QStringLiteral("espeak-ng"));
    const QString path = directory + QStringLiteral("/utterance.wav");
    if (!espeak.isEmpty()
        && QProcess::execute(espeak,
               { QStringLiteral("-v"), QStringLiteral("ro"), QStringLiteral("-w"), path,
                   QStringLiteral("Bună ziua. Aș vrea să știu cum va fi vremea mâine la București, "
                                  "și dacă plouă după-amiază.") })
            == 0) {
        const WavFile spoken = WavFile::read(path);
        Resampler resampler(spoken.sampleRate, WhisperModel::kSampleRate);
        QVector<float> mono = resampler.process(AudioMath::downmix(spoken.interleaved, spoken.channels));
        mono += resampler.flush();
        while (mono.size() < frames)
            mono += mono;
        wav.interleaved = mono.mid(0, frames);
        return wav;
    }
    wav.interleaved.resize(frames);
    for (int i = 0; i < frames; ++i) {
        const double t = double(i) / WhisperModel::kSampleRate;
        wav.interleaved[i] = float(0.2 * std::sin(2 * M_PI * 140 * t) * (0.6 + 0.4 * std::sin(2 * M_PI * 3 * t)));
    }
    return wav;
}

double releaseToFinalSeconds(
    const std::shared_ptr<WhisperModel> &model, TranscriptionWorker &worker, const WavFile &wav, int *partials)
{
    RecognitionTask task(model, std::make_unique<WavFileInput>(wav, 1.0), &worker);
    QEventLoop loop;
    QElapsedTimer sinceRelease;
    double latency = -1;
    *partials = 0;
    QObject::connect(&task, &RecognitionTask::result, &loop, [&](const QString &, bool isFinal) {
        if (!isFinal) {
            ++*partials;
            return;
        }
        latency = sinceRelease.isValid() ? sinceRelease.nsecsElapsed() / 1e9 : -1;
        loop.quit();
    });
    task.start();
    // The file input ends the audio itself after its last buffer: that is the release.
    QTimer poll;
    QObject::connect(&poll, &QTimer::timeout, &loop, [&] {
        if (task.audioEnded() && !sinceRelease.isValid())
            sinceRelease.start();
    });
    poll.start(1);
    loop.exec();
    return latency;
}

double percentile(std::vector<double> values, int percent)
{
    std::sort(values.begin(), values.end());
    return values.empty() ? 0 : values[std::min(values.size() - 1, values.size() * size_t(percent) / 100)];
}

QString loadAverage()
{
    QFile file(QStringLiteral("/proc/loadavg"));
    return file.open(QIODevice::ReadOnly) ? QString::fromLatin1(file.readAll().trimmed()) : QStringLiteral("?");
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    const QStringList args = app.arguments();
    QString modelPath;
    int runs = 5;
    WhisperModel::Decoding decoding { .maxTokens = 30 };
    for (int i = 1; i + 1 < args.size(); ++i) {
        if (args[i] == QLatin1String("--model"))
            modelPath = args[i + 1];
        else if (args[i] == QLatin1String("--runs"))
            runs = std::max(1, args[i + 1].toInt());
        else if (args[i] == QLatin1String("--max-tokens"))
            decoding.maxTokens = std::max(0, args[i + 1].toInt());
        else if (args[i] == QLatin1String("--threads"))
            decoding.threads = std::max(0, args[i + 1].toInt());
    }

    QTemporaryDir dir;
    QElapsedTimer timer;
    if (modelPath.isEmpty())
        modelPath = dir.filePath(QStringLiteral("ggml-base-shaped.bin"));
    if (!QFileInfo::exists(modelPath)) {
        timer.start();
        RandomWhisperModel::write(modelPath, RandomWhisperModel::base());
        std::printf("generated base-shaped model in %.2f s\n", timer.nsecsElapsed() / 1e9);
    }

    // Everything runs on the worker thread, as in the app.
    TranscriptionWorker worker;
    timer.restart();
    std::shared_ptr<WhisperModel> model;
    worker
        .submitVoid([&] {
            model = WhisperModel::load(modelPath);
            model->warmUp();
        })
        .waitForFinished();
    std::printf("load + warm-up: %.2f s (n_audio_state %d, %d+%d layers)\n", timer.nsecsElapsed() / 1e9,
        model->file().nAudioState, model->file().nAudioLayer, model->file().nTextLayer);

    model->setDecoding(decoding);
    const WavFile wav = utterance(dir.path());
    const std::vector<float> samples(wav.interleaved.cbegin(), wav.interleaved.cend());

    std::printf("threads %d (0 = policy), token cap %d (0 = by length), load average %s\n", decoding.threads,
        decoding.maxTokens, qPrintable(loadAverage()));
    std::vector<double> partialCosts;
    for (int i = 0; i < runs; ++i) {
        timer.restart();
        worker.submit([&] { return model->transcribe(samples); }).waitForFinished();
        partialCosts.push_back(timer.nsecsElapsed() / 1e9);
    }
    std::printf(
        "one partial over %.1f s of audio (%d tokens): median %.3f s, p90 %.3f s, worst %.3f s (target ≤ 0.4 s)\n",
        kUtteranceSeconds, model->lastTokenCount(), percentile(partialCosts, 50), percentile(partialCosts, 90),
        percentile(partialCosts, 100));

    std::vector<double> latencies;
    for (int i = 0; i < runs; ++i) {
        int partials = 0;
        latencies.push_back(releaseToFinalSeconds(model, worker, wav, &partials));
        std::printf("  run %d: release → final %.3f s after %d partials\n", i + 1, latencies.back(), partials);
    }
    std::printf("release → final transcript, %.1f s utterance: median %.3f s, p90 %.3f s, worst %.3f s (target ≤ "
                "0.5 s)\n",
        kUtteranceSeconds, percentile(latencies, 50), percentile(latencies, 90), percentile(latencies, 100));
    std::printf("load average after: %s\n", qPrintable(loadAverage()));
    std::printf("transcriptions running at once, at most: %d\n", worker.peakConcurrency());

    rusage usage {};
    getrusage(RUSAGE_SELF, &usage);
    std::printf("peak resident memory: %.1f MB\n", usage.ru_maxrss / 1024.0);
    return 0;
}
