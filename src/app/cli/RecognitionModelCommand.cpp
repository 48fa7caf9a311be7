#include "RecognitionModelCommand.h"

#include "Terminal.h"
#include "net/KeloError.h"
#include "voice/WhisperModelManager.h"

#include <QFileInfo>

QString RecognitionModelCommand::summary() const
{
    return QStringLiteral("modelul de recunoaștere vocală: list | download NUME | use CALE");
}

QString RecognitionModelCommand::usage() const
{
    return QStringLiteral(
        "Utilizare: kelo model list | download NUME | use CALE\n"
        "\n"
        "  list           modelele cunoscute și cele din dosarul de modele; * marchează modelul ales\n"
        "  download NUME  descarcă modelul (base implicit, small mai precis), verifică suma SHA-1\n"
        "                 și îl alege; o descărcare întreruptă continuă de unde a rămas\n"
        "  use CALE       alege un fișier de model existent (multilingv)");
}

QCoro::Task<int> RecognitionModelCommand::run(CliSession &, QStringList arguments)
{
    const QString action = arguments.isEmpty() ? QString() : arguments.takeFirst();
    WhisperModelManager models;
    if (action == QLatin1String("list") && arguments.isEmpty())
        co_return list(models);
    if (action == QLatin1String("download") && arguments.size() <= 1)
        co_return co_await download(models, arguments.value(0, WhisperModelManager::defaultModelName()));
    if (action == QLatin1String("use") && arguments.size() == 1)
        co_return use(models, arguments.first());
    Terminal::err(usage());
    co_return ExitCode::usage;
}

int RecognitionModelCommand::list(WhisperModelManager &models)
{
    const QString chosen = QFileInfo(models.modelPath()).absoluteFilePath();
    QStringList listed;
    for (const auto &entry : models.catalogue()) {
        const QString path = models.pathFor(entry);
        const bool installed = QFileInfo(path).isFile();
        const QString mark
            = installed && QFileInfo(path).absoluteFilePath() == chosen ? QStringLiteral("*") : QStringLiteral(" ");
        Terminal::out(QStringLiteral("%1 %2\t%3\t%4")
                          .arg(mark, entry.name, entry.title, installed ? path : QStringLiteral("(nedescărcat)")));
        listed.append(QFileInfo(path).absoluteFilePath());
    }
    for (const auto &installed : models.installedModels()) {
        const QString path = QFileInfo(installed.path).absoluteFilePath();
        if (listed.contains(path))
            continue;
        listed.append(path);
        const QString mark = path == chosen ? QStringLiteral("*") : QStringLiteral(" ");
        Terminal::out(QStringLiteral("%1 %2\t%3")
                          .arg(mark, path, installed.usable ? QStringLiteral("utilizabil") : installed.problem));
    }
    if (!chosen.isEmpty() && !models.modelPath().isEmpty() && !listed.contains(chosen))
        Terminal::out(QStringLiteral("* %1").arg(chosen));
    Terminal::err(models.statusText());
    return ExitCode::success;
}

QCoro::Task<int> RecognitionModelCommand::download(WhisperModelManager &models, QString name)
{
    int lastPercent = -1;
    const bool interactive = Terminal::stderrIsTerminal();
    QObject::connect(&models, &WhisperModelManager::downloadChanged, &models, [&] {
        const int percent = qRound(models.downloadProgress() * 100);
        if (!models.isDownloading() || percent == lastPercent || (!interactive && percent % 10 != 0))
            return;
        lastPercent = percent;
        const QString line = QStringLiteral("Se descarcă %1: %2% (%3 MB)")
                                 .arg(models.downloadingModel())
                                 .arg(percent)
                                 .arg(models.bytesReceived() / 1'000'000);
        if (interactive)
            Terminal::errInline(QStringLiteral("\r\033[K") + line);
        else
            Terminal::err(line);
    });
    try {
        const QString path = co_await models.download(name);
        if (interactive)
            Terminal::errInline(QStringLiteral("\r\033[K"));
        Terminal::err(QStringLiteral("Modelul a fost descărcat, verificat și ales."));
        Terminal::out(path);
        co_return ExitCode::success;
    } catch (...) {
        if (interactive)
            Terminal::errInline(QStringLiteral("\n"));
        Terminal::err(describeException(std::current_exception()));
        co_return ExitCode::failure;
    }
}

int RecognitionModelCommand::use(WhisperModelManager &models, const QString &path)
{
    try {
        models.useModel(path);
    } catch (const KeloError &error) {
        Terminal::err(error.description());
        return ExitCode::failure;
    }
    Terminal::err(models.statusText());
    Terminal::out(models.modelPath());
    return ExitCode::success;
}

QStringList RecognitionModelCommand::completions(const QStringList &previous) const
{
    if (previous.isEmpty())
        return { QStringLiteral("list"), QStringLiteral("download"), QStringLiteral("use") };
    if (previous.size() > 1)
        return {};
    if (previous.first() == QLatin1String("use"))
        return { fileWord() };
    QStringList names;
    if (previous.first() == QLatin1String("download")) {
        for (const auto &entry : WhisperModelManager::defaultCatalogue())
            names.append(entry.name);
    }
    return names;
}
