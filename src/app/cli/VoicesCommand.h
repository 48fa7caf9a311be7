#pragma once

#include "CliCommand.h"

class SpeechSynthesizer;

// `kelo voices [--engine …]`: the Romanian voices of an engine, one per line.
class VoicesCommand : public CliCommand
{
public:
    QString name() const override { return QStringLiteral("voices"); }
    QString summary() const override;
    QString usage() const override;
    QCoro::Task<int> run(CliSession &session, QStringList arguments) override;
    QStringList completions(const QStringList &previous) const override;

private:
    static QCoro::Task<int> listLocalVoices(SpeechSynthesizer *speech);
};
