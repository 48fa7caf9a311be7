#pragma once

#include "CliCommand.h"

// `kelo listen`: one recognition run from the microphone (Enter ends it) or from a WAV file,
// partial transcripts on stderr, the final one on stdout.
class ListenCommand : public CliCommand
{
public:
    QString name() const override { return QStringLiteral("listen"); }
    QString summary() const override;
    QString usage() const override;
    QCoro::Task<int> run(CliSession &session, QStringList arguments) override;
    QStringList completions(const QStringList &previous) const override;
};
