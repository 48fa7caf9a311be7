#pragma once

#include <QCoroTask>
#include <QString>
#include <QStringList>

// Whether the sound server can remove Kelo's own voice from the microphone (PulseAudio's, or
// PipeWire's pulse server's, module-echo-cancel), which hearing the user over an answer needs. The
// probe loads the module with throw-away device names and unloads it at once.
class EchoCancelProbe
{
public:
    struct Result
    {
        bool available = false;
        // Romanian, for the settings: why it is not available; empty when it is.
        QString reason;
    };

    // The pactl to run; a test points it at a stand-in.
    explicit EchoCancelProbe(QString pactl = QStringLiteral("pactl"));

    QCoro::Task<Result> probe() const;

    static constexpr int kTimeoutMs = 5000;

private:
    struct Outcome
    {
        enum class Status { missing, failedToRun, exited } status = Status::missing;
        int exitCode = -1;
        QString output;
        QString error;
    };

    QCoro::Task<Outcome> run(QStringList arguments) const;
    static Result unavailable(const QString &reason) { return { false, reason }; }

    QString m_pactl;
};
