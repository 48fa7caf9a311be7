#pragma once

#include <QCoroTask>
#include <QObject>
#include <QSet>
#include <QString>
#include <QUrl>

class QLocalServer;
class QLocalSocket;

// Brings a "kelo://oauth?..." redirect from the process the browser starts to the Kelo process that
// waits for it (the app or the command line). Every waiting flow listens on its own local socket in
// a per-user directory. The hand-off first offers the redirect to all of them: the flow that issued
// its state takes it. When none did and exactly one flow is waiting, that flow gets it anyway and
// fails on the state check, since the provider answered it with a foreign state; with no flow or
// several flows waiting, a redirect nobody claims is dropped.
class OAuthCallbackChannel : public QObject
{
    Q_OBJECT

public:
    // The per-user directory of listening sockets (mode 0700).
    static QString defaultDirectory();

    explicit OAuthCallbackChannel(QString directory = defaultDirectory(), QObject *parent = nullptr);
    ~OAuthCallbackChannel() override;

    // Starts listening unless already listening; false when no socket could be created.
    bool listen();
    bool isListening() const;
    QString errorString() const { return m_errorString; }

    // The states of the flows waiting on this channel.
    void addPendingState(const QString &state);
    void removePendingState(const QString &state);

    // Hands the URL to the waiting flow; true when one received it. Sockets left behind by processes
    // that ended are removed on the way. Never throws.
    static QCoro::Task<bool> deliver(QUrl url, QString directory = defaultDirectory());

    // The hand-off for an executable started with the redirect URL as an argument (the desktop
    // entry's "Exec=kelo-companion %u"). Needs a QCoreApplication. Returns the process exit code when
    // an argument was a callback URL, or -1 when none was and the program should start normally.
    static int handOffArguments(const QStringList &arguments, const QString &directory = defaultDirectory());

    static bool isCallbackURL(const QUrl &url);

Q_SIGNALS:
    // A redirect for one of the pending flows (or, when forced, for the only one).
    void callbackReceived(const QUrl &url);

private:
    void acceptConnections();
    QByteArray answer(const QByteArray &line);

    QString m_directory;
    QLocalServer *m_server = nullptr;
    QString m_errorString;
    QSet<QString> m_pendingStates;
};
