#include "EchoCancelProbe.h"

#include <QCoroProcess>
#include <QFileInfo>
#include <QProcess>
#include <QStandardPaths>

#include <chrono>

namespace {

// The server's complaint, short enough for a settings line.
QString firstLine(const QString &text)
{
    const QString line = text.trimmed().section(QLatin1Char('\n'), 0, 0).trimmed();
    return line.size() > 160 ? line.left(160) + QStringLiteral("…") : line;
}

const QString kNoAnswer = QStringLiteral("Serverul de sunet nu a răspuns la verificarea anulării ecoului.");

} // namespace

EchoCancelProbe::EchoCancelProbe(QString pactl)
    : m_pactl(std::move(pactl))
{ }

QCoro::Task<EchoCancelProbe::Outcome> EchoCancelProbe::run(QStringList arguments) const
{
    const QFileInfo given(m_pactl);
    const QString program
        = given.isAbsolute() ? (given.isExecutable() ? m_pactl : QString()) : QStandardPaths::findExecutable(m_pactl);
    Outcome outcome;
    if (program.isEmpty())
        co_return outcome;
    QProcess process;
    process.setProgram(program);
    process.setArguments(arguments);
    // QCoro waits for the started signal only: a program that cannot be run would hold the probe for
    // its default 30 s.
    const bool started = co_await qCoro(process).start(QIODevice::ReadOnly, std::chrono::milliseconds(kTimeoutMs));
    bool finished = false;
    if (started)
        finished = co_await qCoro(process).waitForFinished(std::chrono::milliseconds(kTimeoutMs));
    // pactl often ends before the wait begins, which QCoro reports as not finished.
    finished = finished || (started && process.state() == QProcess::NotRunning);
    if (!finished || process.exitStatus() != QProcess::NormalExit) {
        process.kill();
        process.waitForFinished(1000);
        outcome.status = Outcome::Status::failedToRun;
        co_return outcome;
    }
    outcome.status = Outcome::Status::exited;
    outcome.exitCode = process.exitCode();
    outcome.output = QString::fromLocal8Bit(process.readAllStandardOutput());
    outcome.error = QString::fromLocal8Bit(process.readAllStandardError());
    co_return outcome;
}

QCoro::Task<EchoCancelProbe::Result> EchoCancelProbe::probe() const
{
    const Outcome info = co_await run({ QStringLiteral("info") });
    if (info.status == Outcome::Status::missing)
        co_return unavailable(QStringLiteral(
            "Anularea ecoului nu poate fi verificată: lipsește comanda pactl (pachetul pulseaudio-utils)."));
    if (info.status == Outcome::Status::failedToRun)
        co_return unavailable(kNoAnswer);
    if (info.exitCode != 0)
        co_return unavailable(QStringLiteral("Nu rulează niciun server de sunet PulseAudio sau PipeWire, deci ecoul "
                                             "vocii lui Kelo nu poate fi anulat."));

    const Outcome load = co_await run({ QStringLiteral("load-module"), QStringLiteral("module-echo-cancel"),
        QStringLiteral("source_name=kelo_echo_probe"), QStringLiteral("sink_name=kelo_echo_probe_sink") });
    if (load.status == Outcome::Status::failedToRun)
        co_return unavailable(kNoAnswer);
    if (load.exitCode != 0) {
        const QString detail = firstLine(load.error);
        co_return unavailable(
            QStringLiteral("Serverul de sunet nu poate încărca modulul de anulare a ecoului (module-echo-cancel)")
            + (detail.isEmpty() ? QStringLiteral(".") : QStringLiteral(": ") + detail + QStringLiteral(".")));
    }
    bool isIndex = false;
    const uint index = load.output.trimmed().toUInt(&isIndex);
    if (isIndex)
        co_await run({ QStringLiteral("unload-module"), QString::number(index) });
    co_return Result { true, {} };
}
