#include "OAuthCallbackChannel.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QLocalServer>
#include <QLocalSocket>
#include <QStandardPaths>
#include <QUuid>

#include <unistd.h>

namespace {

// A callback URL is short; anything longer is not one of ours.
constexpr qsizetype maxMessageBytes = 64 * 1024;
constexpr int handOffTimeoutMs = 2'000;

bool makePrivateDirectory(const QString &path)
{
    if (!QDir().mkpath(path))
        return false;
    return QFile::setPermissions(path, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
}

} // namespace

QString OAuthCallbackChannel::defaultDirectory()
{
    const QString runtime = QStandardPaths::writableLocation(QStandardPaths::RuntimeLocation);
    if (!runtime.isEmpty())
        return runtime + QStringLiteral("/kelo-oauth");
    return QDir::tempPath() + QStringLiteral("/kelo-oauth-") + QString::number(getuid());
}

OAuthCallbackChannel::OAuthCallbackChannel(QString directory, QObject *parent)
    : QObject(parent)
    , m_directory(std::move(directory))
{ }

OAuthCallbackChannel::~OAuthCallbackChannel()
{
    if (m_server)
        m_server->close();
}

bool OAuthCallbackChannel::isListening() const
{
    return m_server && m_server->isListening();
}

bool OAuthCallbackChannel::listen()
{
    if (isListening())
        return true;
    if (!makePrivateDirectory(m_directory)) {
        m_errorString = QStringLiteral("Nu pot crea dosarul %1.").arg(m_directory);
        return false;
    }
    delete m_server;
    m_server = new QLocalServer(this);
    m_server->setSocketOptions(QLocalServer::UserAccessOption);
    const QString name = m_directory + QLatin1Char('/') + QString::number(QCoreApplication::applicationPid())
        + QLatin1Char('-') + QUuid::createUuid().toString(QUuid::Id128).left(12);
    if (!m_server->listen(name)) {
        m_errorString = m_server->errorString();
        return false;
    }
    QObject::connect(m_server, &QLocalServer::newConnection, this, &OAuthCallbackChannel::acceptConnections);
    return true;
}

void OAuthCallbackChannel::acceptConnections()
{
    while (QLocalSocket *socket = m_server->nextPendingConnection()) {
        auto buffer = std::make_shared<QByteArray>();
        QObject::connect(socket, &QLocalSocket::disconnected, socket, &QObject::deleteLater);
        QObject::connect(socket, &QLocalSocket::readyRead, this, [this, socket, buffer] {
            *buffer += socket->readAll();
            const qsizetype end = buffer->indexOf('\n');
            if (end < 0 && buffer->size() <= maxMessageBytes)
                return;
            const QUrl url = end < 0 ? QUrl() : QUrl(QString::fromUtf8(buffer->left(end)), QUrl::StrictMode);
            buffer->clear();
            socket->disconnectFromServer();
            if (isCallbackURL(url))
                Q_EMIT callbackReceived(url);
        });
    }
}

bool OAuthCallbackChannel::isCallbackURL(const QUrl &url)
{
    return url.isValid() && url.scheme().compare(QLatin1String("kelo"), Qt::CaseInsensitive) == 0
        && url.host().compare(QLatin1String("oauth"), Qt::CaseInsensitive) == 0;
}

int OAuthCallbackChannel::deliver(const QUrl &url, const QString &directory)
{
    const QByteArray message = url.toEncoded() + '\n';
    int reached = 0;
    const QDir dir(directory);
    for (const QFileInfo &entry : dir.entryInfoList(QDir::System | QDir::Files | QDir::NoDotAndDotDot)) {
        QLocalSocket socket;
        socket.connectToServer(entry.absoluteFilePath());
        if (!socket.waitForConnected(handOffTimeoutMs)) {
            // Nobody listens there any more: the process ended without closing its server.
            if (socket.error() == QLocalSocket::ConnectionRefusedError)
                QLocalServer::removeServer(entry.absoluteFilePath());
            continue;
        }
        socket.write(message);
        if (socket.waitForBytesWritten(handOffTimeoutMs))
            ++reached;
        socket.disconnectFromServer();
        if (socket.state() != QLocalSocket::UnconnectedState)
            socket.waitForDisconnected(handOffTimeoutMs);
    }
    return reached;
}

int OAuthCallbackChannel::handOffArguments(const QStringList &arguments, const QString &directory)
{
    for (const QString &argument : arguments.mid(1)) {
        const QUrl url(argument, QUrl::StrictMode);
        if (!isCallbackURL(url))
            continue;
        if (deliver(url, directory) > 0)
            return 0;
        qWarning("%s", qPrintable(QStringLiteral("Nicio conexiune Kelo nu așteaptă acest răspuns de autentificare.")));
        return 1;
    }
    return -1;
}
