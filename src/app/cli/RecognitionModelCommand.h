#pragma once

#include "CliCommand.h"

class WhisperModelManager;

// `kelo model`: the on-device recognition model: list, download, choose.
class RecognitionModelCommand : public CliCommand
{
public:
    QString name() const override { return QStringLiteral("model"); }
    QString summary() const override;
    QString usage() const override;
    QCoro::Task<int> run(CliSession &session, QStringList arguments) override;
    QStringList completions(const QStringList &previous) const override;

private:
    static int list(WhisperModelManager &models);
    static QCoro::Task<int> download(WhisperModelManager &models, QString name);
    static int use(WhisperModelManager &models, const QString &path);
};
