#pragma once

#include "CliCommand.h"

// `kelo chat`: an interactive conversation in the terminal.
class ChatCommand : public CliCommand
{
public:
    QString name() const override { return QStringLiteral("chat"); }
    QString summary() const override;
    QString usage() const override;
    QCoro::Task<int> run(CliSession &session, QStringList arguments) override;
    QStringList completions(const QStringList &) const override { return { QStringLiteral("--speak") }; }
};
