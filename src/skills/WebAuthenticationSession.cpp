#include "WebAuthenticationSession.h"

#include "OAuthCallbackChannel.h"
#include "WebAuthenticationError.h"

#include <QCoroSignal>
#include <QDesktopServices>

#include <chrono>

WebAuthenticationSession::BrowserOpener WebAuthenticationSession::systemBrowser()
{
    return [](const QUrl &url) { return QDesktopServices::openUrl(url); };
}

WebAuthenticationSession::WebAuthenticationSession(
    OAuthCallbackChannel *channel, BrowserOpener openBrowser, int timeoutMs, QObject *parent)
    : QObject(parent)
    , m_channel(channel)
    , m_openBrowser(std::move(openBrowser))
    , m_timeoutMs(timeoutMs)
{
    QObject::connect(m_channel, &OAuthCallbackChannel::callbackReceived, this, &WebAuthenticationSession::offer);
}

void WebAuthenticationSession::offer(const QUrl &callback)
{
    // The channel hands over only what this flow issued, or a stray redirect while this is the only
    // flow waiting; the caller's state check tells them apart.
    if (m_state.isEmpty() || m_callback)
        return;
    m_callback = callback;
    Q_EMIT finished();
}

void WebAuthenticationSession::cancel()
{
    if (m_state.isEmpty() || m_callback)
        return;
    m_canceled = true;
    Q_EMIT finished();
}

QCoro::Task<QUrl> WebAuthenticationSession::start(QUrl authorizationURL, QString state)
{
    m_callback.reset();
    m_canceled = false;
    if (!m_channel->listen())
        throw WebAuthenticationError(WebAuthenticationError::callbackChannelUnavailable, m_channel->errorString());
    m_state = state;
    m_channel->addPendingState(state);
    if (!m_openBrowser || !m_openBrowser(authorizationURL)) {
        finish();
        throw WebAuthenticationError(WebAuthenticationError::browserUnavailable);
    }
    if (!m_callback && !m_canceled) {
        const auto signalled
            = co_await qCoro(this, &WebAuthenticationSession::finished, std::chrono::milliseconds(m_timeoutMs));
        Q_UNUSED(signalled);
    }
    finish();
    if (m_callback)
        co_return QUrl(*m_callback);
    if (m_canceled)
        throw WebAuthenticationError(WebAuthenticationError::canceled);
    throw WebAuthenticationError(WebAuthenticationError::timedOut);
}

void WebAuthenticationSession::finish()
{
    m_channel->removePendingState(m_state);
    m_state.clear();
}
