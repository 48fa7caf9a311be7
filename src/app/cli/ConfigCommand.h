#pragma once

#include "CliCommand.h"

class AppSettings;
class QMetaProperty;

// `kelo config list | get KEY | set KEY VALUE` over every setting, by its property name.
class ConfigCommand : public CliCommand
{
public:
    QString name() const override { return QStringLiteral("config"); }
    QString summary() const override;
    QString usage() const override;
    QCoro::Task<int> run(CliSession &session, QStringList arguments) override;
    QStringList completions(const QStringList &previous) const override;

private:
    static QString display(const AppSettings &settings, const QMetaProperty &property, bool showSecrets);
    static int set(AppSettings &settings, const QMetaProperty &property, const QString &value);
};
