#pragma once

#include <QByteArray>
#include <QList>
#include <QPair>
#include <QString>
#include <QStringList>

#include <functional>

// Runs the `kelo` executable as a user would, while this process's event loop keeps turning (the
// loopback servers a test talks to live here).
namespace KeloProcess {

struct Result
{
    int exitCode = -1; // -1: killed after the time-out
    QString out;
    QString err;
    qint64 elapsedMs = 0;

    // The command's own message: a warning about where secrets are kept may come first.
    QString lastErrorLine() const { return err.trimmed().split(QLatin1Char('\n')).last(); }
};

struct Options
{
    // Added to (or replacing in) the inherited environment.
    QList<QPair<QString, QString>> environment;
    QByteArray input;
    // Called on every turn of the wait, e.g. to play a browser.
    std::function<void()> whileRunning;
    int timeoutMs = 60'000;
};

Result run(const QString &executable, const QStringList &arguments, const Options &options = {});

} // namespace KeloProcess
