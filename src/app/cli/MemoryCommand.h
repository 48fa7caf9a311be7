#pragma once

#include "CliCommand.h"

// `kelo memory show | clear`.
class MemoryCommand : public CliCommand
{
public:
    QString name() const override { return QStringLiteral("memory"); }
    QString summary() const override;
    QString usage() const override;
    QCoro::Task<int> run(CliSession &session, QStringList arguments) override;
    QStringList completions(const QStringList &previous) const override
    {
        return previous.isEmpty() ? QStringList { QStringLiteral("show"), QStringLiteral("clear") } : QStringList();
    }
};
