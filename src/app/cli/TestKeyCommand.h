#pragma once

#include "CliCommand.h"

// `kelo test-key`: checks the stored key against the service.
class TestKeyCommand : public CliCommand
{
public:
    QString name() const override { return QStringLiteral("test-key"); }
    QString summary() const override;
    QString usage() const override;
    QCoro::Task<int> run(CliSession &session, QStringList arguments) override;
};
