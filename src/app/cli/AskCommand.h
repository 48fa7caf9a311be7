#pragma once

#include "CliCommand.h"

// `kelo ask TEXT…`: one turn of the stored conversation; the reply alone on stdout.
class AskCommand : public CliCommand
{
public:
    QString name() const override { return QStringLiteral("ask"); }
    QString summary() const override;
    QString usage() const override;
    CliArguments::Syntax syntax() const override;
    QCoro::Task<int> run(CliSession &session, QStringList arguments) override;
    QStringList completions(const QStringList &) const override
    {
        return { QStringLiteral("--new"), QStringLiteral("--speak") };
    }
};
