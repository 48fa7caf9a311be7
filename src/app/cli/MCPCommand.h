#pragma once

#include "CliCommand.h"

#include <optional>

class AppSettings;

// `kelo mcp list | add | remove | enable | disable | tools | gallery | connect`: the Skills screen's
// server list from the command line.
class MCPCommand : public CliCommand
{
public:
    QString name() const override { return QStringLiteral("mcp"); }
    QString summary() const override;
    QString usage() const override;
    QCoro::Task<int> run(CliSession &session, QStringList arguments) override;
    QStringList completions(const QStringList &previous) const override;

private:
    static int list(const AppSettings &settings);
    static int gallery(const AppSettings &settings);
    int add(AppSettings &settings, const QStringList &words);
    int change(AppSettings &settings, const QString &action, const QString &key);
    QCoro::Task<int> tools(CliSession &session, QString key);
    QCoro::Task<int> connect(AppSettings &settings, QStringList words);
    // The index of the server with this id (any case, braces optional) or this unique name.
    static std::optional<qsizetype> findServer(const AppSettings &settings, const QString &key);
};
