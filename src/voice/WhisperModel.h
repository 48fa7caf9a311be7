#pragma once

#include "CpuCompetition.h"
#include "WhisperModelFile.h"

#include <QString>

#include <atomic>
#include <memory>
#include <vector>

struct whisper_context;

// A loaded whisper model. Not thread-safe: one transcription at a time, which the
// TranscriptionWorker guarantees by running every job on its single thread.
class WhisperModel
{
public:
    static constexpr int kSampleRate = 16000;

    // Checks the file, then loads it; throws SpeechRecognitionError.
    static std::shared_ptr<WhisperModel> load(const QString &path);
    ~WhisperModel();

    WhisperModel(const WhisperModel &) = delete;
    WhisperModel &operator=(const WhisperModel &) = delete;

    struct Decoding
    {
        // Upper bound on text tokens, on top of the bound by the audio's length (tokensFor); 0: none.
        // Random-weight models never end their text; a benchmark stops them where real speech would.
        int maxTokens = 0;
        // Compute threads; 0 means chosen per run from the cores and how busy they are.
        int threads = 0;
    };

    const WhisperModelFile &file() const { return m_file; }

    // Romanian text of 16 kHz mono samples, normalised. Returns an empty string when `abort` was set
    // while it ran; throws SpeechRecognitionError(transcriptionFailed) when whisper fails.
    QString transcribe(const std::vector<float> &samples, const std::atomic_bool *abort = nullptr);
    // Applies to the transcriptions that start afterwards; safe to call while one runs.
    void setDecoding(Decoding decoding);
    // Text tokens the last transcription produced (read on the worker thread or after it finished).
    int lastTokenCount() const { return m_lastTokenCount; }

    // One short run so the first real transcription does not pay for allocating compute buffers.
    void warmUp();

    // Encoder frames for this much audio: 50 per second plus a margin, far below the 30 s window.
    int audioContextFor(size_t sampleCount) const;
    // A token bound for this much speech: fast Romanian speech needs about 7 tokens a second, a margin
    // covers the start. Without one a confused decoder runs on for the whole text context.
    static int tokensFor(size_t sampleCount);
    // Compute threads for a run. ggml's threads meet at a barrier after every layer; when other programs
    // keep cores busy, a thread that loses its core holds up the others for a whole time slice, and
    // two threads came out over ten times slower than one on two busy cores. So every core only
    // while the others are idle, and one core fewer for each core they keep busy.
    static int threadsFor(int cores, int busyTasks);

private:
    WhisperModel(WhisperModelFile file, whisper_context *context);
    // Runs on the worker thread only, as does m_competition.
    int threadsNow();

    WhisperModelFile m_file;
    whisper_context *m_context;
    std::atomic<int> m_maxTokens { 0 };
    std::atomic<int> m_threads { 0 };
    int m_lastTokenCount = 0;
    CpuCompetition m_competition;
};
