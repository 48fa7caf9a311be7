#pragma once

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

    const WhisperModelFile &file() const { return m_file; }

    // Romanian text of 16 kHz mono samples, normalised. Returns an empty string when `abort` was set
    // while it ran; throws SpeechRecognitionError(transcriptionFailed) when whisper fails.
    QString transcribe(const std::vector<float> &samples, const std::atomic_bool *abort = nullptr);

    // One short run so the first real transcription does not pay for allocating compute buffers.
    void warmUp();

    // Encoder frames for this much audio: 50 per second plus a margin, far below the 30 s window.
    int audioContextFor(size_t sampleCount) const;

private:
    WhisperModel(WhisperModelFile file, whisper_context *context);

    WhisperModelFile m_file;
    whisper_context *m_context;
    int m_threads;
};
