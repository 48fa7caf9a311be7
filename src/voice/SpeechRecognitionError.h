#pragma once

#include "net/KeloError.h"

#include <QString>

// Failures of on-device recognition and of its model files. Each case carries the Romanian text the
// user sees; `detail` adds what only that failure knows (a path, a platform message).
class SpeechRecognitionError : public KeloError
{
public:
    enum class Kind {
        permissionDenied,
        unavailable,
        audioFailure,
        modelMissing,
        modelInvalid,
        modelEnglishOnly,
        downloadFailed,
        checksumMismatch,
        transcriptionFailed,
    };

    explicit SpeechRecognitionError(Kind kind, QString detail = {})
        : m_kind(kind)
        , m_detail(std::move(detail))
    { }

    Kind kind() const { return m_kind; }
    QString detail() const { return m_detail; }
    QString description() const override;

    static QString permissionText();
    static QString unavailableText();

private:
    Kind m_kind;
    QString m_detail;
};
