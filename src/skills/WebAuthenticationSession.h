#pragma once

#include <QCoroTask>
#include <QObject>
#include <QUrl>

#include <functional>
#include <optional>

class OAuthCallbackChannel;

// The desktop's web authentication sheet: opens the authorization page in the system browser and
// waits, with a time-out and a cancel, for the "kelo://oauth" redirect the channel hands over.
class WebAuthenticationSession : public QObject
{
    Q_OBJECT

public:
    using BrowserOpener = std::function<bool(const QUrl &)>;

    // The system browser, through the desktop's URL handler.
    static BrowserOpener systemBrowser();

    WebAuthenticationSession(
        OAuthCallbackChannel *channel, BrowserOpener openBrowser, int timeoutMs, QObject *parent = nullptr);

    // The callback URL; throws WebAuthenticationError when cancelled, timed out or not startable.
    QCoro::Task<QUrl> start(QUrl authorizationURL, QString state);
    void cancel();

Q_SIGNALS:
    void finished();

private:
    void offer(const QUrl &callback);
    void finish();

    OAuthCallbackChannel *m_channel;
    BrowserOpener m_openBrowser;
    int m_timeoutMs;
    QString m_state;
    std::optional<QUrl> m_callback;
    bool m_canceled = false;
};
