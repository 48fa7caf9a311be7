// The settings Kelo reads at start: the settings file (with the stored MCP server list, JSON inside
// the INI file) and the secrets file used when no keychain answers. The input is the settings file,
// then a NUL byte, then the secrets file. Loading must accept anything and lose nothing: what one
// start reads, the next start reads again.
#include "FuzzEnvironment.h"
#include "settings/AppSettings.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QSettings>

#include <cmath>

namespace {

void setModificationTime(const QString &path, qint64 seconds)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadWrite)
        || !file.setFileTime(QDateTime::fromSecsSinceEpoch(seconds, Qt::UTC), QFileDevice::FileModificationTime))
        FuzzEnvironment::fail("cannot set the time of a settings file");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const QString configHome = FuzzEnvironment::temporaryPath() + QStringLiteral("/settings");
    QDir().mkpath(configHome + QStringLiteral("/Kelo"));
    qputenv("XDG_CONFIG_HOME", configHome.toUtf8());
    QSettings::setPath(QSettings::NativeFormat, QSettings::UserScope, configHome);

    const QByteArray input = FuzzEnvironment::bytes(data, size);
    const qsizetype separator = input.indexOf('\0');
    const QByteArray settingsFile = separator < 0 ? input : input.first(separator);
    const QByteArray secretsFile = separator < 0 ? QByteArray() : input.sliced(separator + 1);
    const QString settingsPath = configHome + QStringLiteral("/Kelo/KeloCompanion.conf");
    const QString secretsPath = configHome + QStringLiteral("/Kelo/secrets.json");
    // QSettings reads a file again only when its size or time changed; every input gets its own time.
    static qint64 run = 0;
    FuzzEnvironment::writeFile(settingsPath, settingsFile);
    setModificationTime(settingsPath, ++run);
    QFile::remove(secretsPath);
    if (separator >= 0)
        FuzzEnvironment::writeFile(secretsPath, secretsFile);

    QList<MCPServerConfig> servers;
    QString modelID;
    QString apiKey;
    double voiceRate = 0;
    {
        AppSettings settings;
        if (!std::isfinite(settings.voiceRate()))
            FuzzEnvironment::fail("a voice rate that is not a number");
        for (const MCPServerConfig &server : settings.mcpServers()) {
            if (server.id.isNull())
                FuzzEnvironment::fail("a stored server without an id");
        }
        settings.systemPrompt(QStringLiteral("Memorie."));
        servers = settings.mcpServers();
        modelID = settings.zenModelID();
        apiKey = settings.zenAPIKey();
        voiceRate = settings.voiceRate();
    }
    // Loading may move old secrets into the secure store; whatever it wrote must read back the same.
    AppSettings again;
    if (again.mcpServers() != servers || again.zenModelID() != modelID || again.zenAPIKey() != apiKey
        || again.voiceRate() != voiceRate)
        FuzzEnvironment::fail("the settings read a second time differ from the first");
    return 0;
}
