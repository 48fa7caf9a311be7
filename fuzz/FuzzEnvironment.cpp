#include "FuzzEnvironment.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QSettings>
#include <QTemporaryDir>

#include <cstdio>

namespace {

void quietMessageHandler(QtMsgType type, const QMessageLogContext &, const QString &message)
{
    // Fatal messages still abort (Qt does that after the handler returns); show why.
    if (type == QtFatalMsg)
        std::fprintf(stderr, "qFatal: %s\n", qPrintable(message));
}

QTemporaryDir &privateDirectory()
{
    static QTemporaryDir directory(QDir::tempPath() + QStringLiteral("/kelo-fuzz-XXXXXX"));
    return directory;
}

} // namespace

void FuzzEnvironment::initialize()
{
    if (qEnvironmentVariableIntValue("KELO_FUZZ_VERBOSE") == 0)
        qInstallMessageHandler(quietMessageHandler);
    // Lives as long as the process; reachable through this pointer, so no leak is reported.
    static int argc = 1;
    static char name[] = "kelo-fuzz";
    static char *argv[] = { name, nullptr };
    static QCoreApplication *application = new QCoreApplication(argc, argv);
    Q_UNUSED(application);
    if (!privateDirectory().isValid())
        fail("no private temporary directory");
    // Whatever a parser under test might open by default lies inside the private directory.
    const QString home = privateDirectory().path();
    for (const char *variable : { "XDG_CONFIG_HOME", "XDG_DATA_HOME", "XDG_CACHE_HOME", "XDG_RUNTIME_DIR" }) {
        const QString path = home + QLatin1Char('/') + QString::fromLatin1(variable).toLower();
        QDir().mkpath(path);
        QFile::setPermissions(path, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
        qputenv(variable, path.toUtf8());
    }
    QSettings::setPath(QSettings::NativeFormat, QSettings::UserScope, home + QStringLiteral("/xdg_config_home"));
    QSettings::setPath(QSettings::IniFormat, QSettings::UserScope, home + QStringLiteral("/xdg_config_home"));
    qputenv("KELO_SECRET_STORE", "file");
}

QString FuzzEnvironment::temporaryPath()
{
    return privateDirectory().path();
}

void FuzzEnvironment::fail(const char *what)
{
    std::fprintf(stderr, "fuzz expectation failed: %s\n", what);
    std::abort();
}

void FuzzEnvironment::writeFile(const QString &path, QByteArrayView bytes)
{
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate)
        || file.write(bytes.data(), bytes.size()) != bytes.size())
        fail("cannot write a file in the private directory");
}

QByteArray FuzzEnvironment::readFile(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return {};
    return file.readAll();
}

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    FuzzEnvironment::initialize();
    return 0;
}
