#pragma once

#include "CliCommand.h"

// `kelo models`: the models of the service, one per line.
class ModelsCommand : public CliCommand
{
public:
    QString name() const override { return QStringLiteral("models"); }
    QString summary() const override;
    QString usage() const override;
    QCoro::Task<int> run(CliSession &session, QStringList arguments) override;
};
