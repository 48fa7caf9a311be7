#include "OAuthCallbackChannel.h"

#include <QCoreApplication>
#include <QCoroLocalSocket>
#include <QDir>
#include <QEventLoop>
#include <QFile>
#include <QLocalServer>
#include <QLocalSocket>
#include <QStandardPaths>
#include <QUrlQuery>
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

void OAuthCallbackChannel::addPendingState(const QString &state)
{
    m_pendingStates.insert(state);
}

void OAuthCallbackChannel::removePendingState(const QString &state)
{
    m_pendingStates.remove(state);
}

bool OAuthCallbackChannel::isCallbackURL(const QUrl &url)
{
    return url.isValid() && url.scheme().compare(QLatin1String("kelo"), Qt::CaseInsensitive) == 0
        && url.host().compare(QLatin1String("oauth"), Qt::CaseInsensitive) == 0;
}

// One request line in, one answer line out:
//   "offer URL" -> "taken" when a pending flow issued the URL's state, else "pending N";
//   "force URL" -> "taken" when a flow is pending, else "pending 0".
QByteArray OAuthCallbackChannel::answer(const QByteArray &line)
{
    const qsizetype space = line.indexOf(' ');
    const QByteArray verb = line.left(space);
    const QUrl url(QString::fromUtf8(line.mid(space + 1)), QUrl::StrictMode);
    const bool usable = space > 0 && isCallbackURL(url) && !m_pendingStates.isEmpty();
    const QString state = QUrlQuery(url).queryItemValue(QStringLiteral("state"), QUrl::FullyDecoded);
    const bool take = usable && (verb == "force" || (verb == "offer" && m_pendingStates.contains(state)));
    if (take) {
        // Delivered after the answer is on its way: a flow that fails on this URL may end the
        // process at once, and the handing side must not wait for an answer that never comes.
        QMetaObject::invokeMethod(
            this, [this, url] { Q_EMIT callbackReceived(url); }, Qt::QueuedConnection);
        return "taken\n";
    }
    return "pending " + QByteArray::number(verb == "offer" ? m_pendingStates.size() : 0) + '\n';
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
            const QByteArray reply = end < 0 ? QByteArray("pending 0\n") : answer(buffer->left(end));
            buffer->clear();
            socket->write(reply);
            socket->flush();
            socket->disconnectFromServer();
        });
    }
}

namespace {

struct ListenerAnswer
{
    bool reached = false;
    bool taken = false;
    int pending = 0;
};

QCoro::Task<ListenerAnswer> ask(QString socketPath, QByteArray request)
{
    ListenerAnswer result;
    QLocalSocket socket;
    socket.connectToServer(socketPath);
    // A refused connection fails at once; only a busy listener leaves the socket connecting.
    bool connected = socket.state() == QLocalSocket::ConnectedState;
    if (socket.state() == QLocalSocket::ConnectingState)
        connected = co_await qCoro(socket).waitForConnected(handOffTimeoutMs);
    if (!connected) {
        // Nobody listens there any more: the process ended without closing its server.
        if (socket.error() == QLocalSocket::ConnectionRefusedError)
            QLocalServer::removeServer(socketPath);
        co_return result;
    }
    socket.write(request);
    QByteArray reply;
    // A listener that hangs up without answering ends the wait as well: waiting for more data on a
    // closed socket returns at once, forever.
    while (!reply.contains('\n') && reply.size() < 64 && socket.state() == QLocalSocket::ConnectedState) {
        const bool ready = co_await qCoro(socket).waitForReadyRead(handOffTimeoutMs);
        const QByteArray chunk = socket.readAll();
        if (!ready && chunk.isEmpty())
            break;
        reply += chunk;
    }
    reply += socket.readAll();
    socket.disconnectFromServer();
    result.reached = reply.contains('\n');
    result.taken = reply.startsWith("taken");
    if (reply.startsWith("pending "))
        result.pending = reply.mid(8).trimmed().toInt();
    co_return result;
}

} // namespace

QCoro::Task<bool> OAuthCallbackChannel::deliver(QUrl url, QString directory)
{
    const QByteArray encodedURL = url.toEncoded();
    QString onlyWaiting;
    int waitingFlows = 0;
    for (const QFileInfo &entry : QDir(directory).entryInfoList(QDir::System | QDir::Files | QDir::NoDotAndDotDot)) {
        const ListenerAnswer reply = co_await ask(entry.absoluteFilePath(), "offer " + encodedURL + '\n');
        if (reply.taken)
            co_return true;
        if (reply.pending > 0)
            onlyWaiting = entry.absoluteFilePath();
        waitingFlows += reply.pending;
    }
    if (waitingFlows != 1)
        co_return false;
    const ListenerAnswer forced = co_await ask(onlyWaiting, "force " + encodedURL + '\n');
    co_return forced.taken;
}

int OAuthCallbackChannel::handOffArguments(const QStringList &arguments, const QString &directory)
{
    for (const QString &argument : arguments.mid(1)) {
        const QUrl url(argument, QUrl::StrictMode);
        if (!isCallbackURL(url))
            continue;
        bool done = false;
        bool delivered = false;
        QEventLoop loop;
        auto run = [&]() -> QCoro::Task<> {
            delivered = co_await deliver(url, directory);
            done = true;
            loop.quit();
        };
        auto running = run();
        if (!done)
            loop.exec();
        if (delivered)
            return 0;
        qWarning("%s", qPrintable(QStringLiteral("Nicio conexiune Kelo nu așteaptă acest răspuns de autentificare.")));
        return 1;
    }
    return -1;
}
