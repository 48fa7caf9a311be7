#pragma once

#include <QObject>
#include <QString>
#include <QUrl>

class QLocalServer;

// Brings a "kelo://oauth?..." redirect from the process the browser starts to the Kelo process that
// waits for it (the app or the command line). Every waiting process listens on its own local socket
// in a per-user directory; the hand-off sends the URL to all of them and each flow keeps only the
// callback whose state it issued.
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

    // Sends the URL to every waiting process; returns how many received it. Sockets left behind by
    // processes that ended are removed on the way.
    static int deliver(const QUrl &url, const QString &directory = defaultDirectory());

    // The hand-off for an executable started with the redirect URL as an argument (the desktop
    // entry's "Exec=kelo-companion %u"). Returns the process exit code when an argument was a
    // callback URL, or -1 when none was and the program should start normally.
    static int handOffArguments(const QStringList &arguments, const QString &directory = defaultDirectory());

    static bool isCallbackURL(const QUrl &url);

Q_SIGNALS:
    void callbackReceived(const QUrl &url);

private:
    void acceptConnections();

    QString m_directory;
    QLocalServer *m_server = nullptr;
    QString m_errorString;
};
