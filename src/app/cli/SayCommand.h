#pragma once

#include "CliCommand.h"

// `kelo say TEXT… [--engine …]`: speaks the text and returns when the playback has ended.
class SayCommand : public CliCommand
{
public:
    QString name() const override { return QStringLiteral("say"); }
    QString summary() const override;
    QString usage() const override;
    CliArguments::Syntax syntax() const override;
    QCoro::Task<int> run(CliSession &session, QStringList arguments) override;
    QStringList completions(const QStringList &previous) const override;
};
