#include "WhisperModel.h"

#include "SpeechRecognitionError.h"
#include "TranscriptText.h"

#include <QFile>
#include <QThread>

#ifdef KELO_WITH_WHISPER
#include <whisper.h>
#endif

#include <algorithm>
#include <mutex>

#ifdef KELO_WITH_WHISPER

namespace {

void silenceLibraryLog()
{
    static std::once_flag once;
    std::call_once(once, [] { whisper_log_set([](ggml_log_level, const char *, void *) {}, nullptr); });
}

bool shouldAbort(void *flag)
{
    return flag && static_cast<const std::atomic_bool *>(flag)->load();
}

// Special tokens (start of transcript, language, timestamps, end) are not text.
int textTokens(whisper_context *context, int segment)
{
    const whisper_token firstSpecial = whisper_token_eot(context);
    int count = 0;
    for (int i = 0; i < whisper_full_n_tokens(context, segment); ++i)
        count += whisper_full_get_token_id(context, segment, i) < firstSpecial ? 1 : 0;
    return count;
}

} // namespace

WhisperModel::WhisperModel(WhisperModelFile file, whisper_context *context)
    : m_file(std::move(file))
    , m_context(context)
{ }

WhisperModel::~WhisperModel()
{
    whisper_free(m_context);
}

std::shared_ptr<WhisperModel> WhisperModel::load(const QString &path)
{
    WhisperModelFile file = WhisperModelFile::inspect(path);
    silenceLibraryLog();
    whisper_context_params params = whisper_context_default_params();
    params.use_gpu = false;
    whisper_context *context = whisper_init_from_file_with_params(path.toLocal8Bit().constData(), params);
    if (!context)
        throw SpeechRecognitionError(
            SpeechRecognitionError::Kind::modelInvalid, QStringLiteral("whisper nu l-a putut încărca"));
    if (!whisper_is_multilingual(context)) {
        whisper_free(context);
        throw SpeechRecognitionError(SpeechRecognitionError::Kind::modelEnglishOnly, file.path);
    }
    return std::shared_ptr<WhisperModel>(new WhisperModel(std::move(file), context));
}

int WhisperModel::audioContextFor(size_t sampleCount) const
{
    const int frames = int(sampleCount * 50 / kSampleRate) + 64;
    const int rounded = (frames + 63) / 64 * 64;
    return std::min(rounded, m_file.nAudioCtx);
}

QString WhisperModel::transcribe(const std::vector<float> &samples, const std::atomic_bool *abort)
{
    whisper_full_params params = whisper_full_default_params(WHISPER_SAMPLING_GREEDY);
    const int threads = m_threads.load();
    params.n_threads = threads > 0 ? threads : threadsNow();
    params.language = "ro";
    params.translate = false;
    params.no_context = true;
    params.no_timestamps = true;
    params.single_segment = true;
    params.print_progress = false;
    params.print_realtime = false;
    params.print_special = false;
    params.print_timestamps = false;
    params.audio_ctx = audioContextFor(samples.size());
    // A push-to-talk turn is short: no temperature fallbacks (each would decode again).
    params.temperature_inc = 0.0f;
    const int cap = m_maxTokens.load();
    const int bound = cap > 0 ? std::min(cap, tokensFor(samples.size())) : tokensFor(samples.size());
    // whisper stops after the token that goes past max_tokens.
    params.max_tokens = std::max(1, bound - 1);
    auto *flag = const_cast<std::atomic_bool *>(abort);
    params.abort_callback = [](void *data) { return shouldAbort(data); };
    params.abort_callback_user_data = flag;
    params.encoder_begin_callback = [](whisper_context *, whisper_state *, void *data) { return !shouldAbort(data); };
    params.encoder_begin_callback_user_data = flag;

    const int status = whisper_full(m_context, params, samples.data(), int(samples.size()));
    if (abort && abort->load())
        return {};
    if (status != 0)
        throw SpeechRecognitionError(SpeechRecognitionError::Kind::transcriptionFailed);

    QString text;
    m_lastTokenCount = 0;
    const int segments = whisper_full_n_segments(m_context);
    for (int i = 0; i < segments; ++i) {
        text += QString::fromUtf8(whisper_full_get_segment_text(m_context, i));
        m_lastTokenCount += textTokens(m_context, i);
    }
    return TranscriptText::normalised(text);
}

void WhisperModel::warmUp()
{
    const std::vector<float> silence(kSampleRate, 0.0f);
    transcribe(silence);
}

#endif

void WhisperModel::setDecoding(Decoding decoding)
{
    m_maxTokens = std::max(0, decoding.maxTokens);
    m_threads = std::max(0, decoding.threads);
}

int WhisperModel::tokensFor(size_t sampleCount)
{
    return int(std::min<size_t>(16 + sampleCount * 7 / kSampleRate, 200));
}

int WhisperModel::threadsFor(int cores, int busyTasks)
{
    return std::max(1, cores - std::max(0, busyTasks));
}

int WhisperModel::threadsNow()
{
    return threadsFor(std::clamp(QThread::idealThreadCount(), 1, 4), m_competition.busyCores());
}

#ifndef KELO_WITH_WHISPER

WhisperModel::WhisperModel(WhisperModelFile file, whisper_context *context)
    : m_file(std::move(file))
    , m_context(context)
{ }

WhisperModel::~WhisperModel() = default;

std::shared_ptr<WhisperModel> WhisperModel::load(const QString &path)
{
    WhisperModelFile::inspect(path);
    throw SpeechRecognitionError(SpeechRecognitionError::Kind::unavailable);
}

int WhisperModel::audioContextFor(size_t) const
{
    return 0;
}

QString WhisperModel::transcribe(const std::vector<float> &, const std::atomic_bool *)
{
    throw SpeechRecognitionError(SpeechRecognitionError::Kind::unavailable);
}

void WhisperModel::warmUp()
{ }

#endif
