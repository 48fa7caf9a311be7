#pragma once

#include "CliCommand.h"

// `kelo doctor [--live]`: one line per thing Kelo needs, each OK or what to do.
class DoctorCommand : public CliCommand
{
public:
    QString name() const override { return QStringLiteral("doctor"); }
    QString summary() const override;
    QString usage() const override;
    QCoro::Task<int> run(CliSession &session, QStringList arguments) override;
    QStringList completions(const QStringList &) const override { return { QStringLiteral("--live") }; }
};
