// The "kelo://oauth?..." redirect the browser hands to a new Kelo process, which passes it over a
// local socket to the flow waiting for it. The input is that command-line argument; one flow waits
// in the private directory, so every callback URL must reach it and nothing else may.
#include "FuzzEnvironment.h"
#include "skills/OAuthCallbackChannel.h"

#include <QCoreApplication>

namespace {

// The flow that waits, created with the first input and kept for the whole run.
class WaitingFlow
{
public:
    static WaitingFlow &instance()
    {
        static WaitingFlow flow;
        return flow;
    }

    static QString directory() { return FuzzEnvironment::temporaryPath() + QStringLiteral("/oauth"); }
    int received() const { return m_received; }

private:
    WaitingFlow()
        : m_channel(directory())
    {
        if (!m_channel.listen())
            FuzzEnvironment::fail("the callback channel cannot listen");
        m_channel.addPendingState(QStringLiteral("8D0C3F1A2B4E4F6A9C7D"));
        QObject::connect(&m_channel, &OAuthCallbackChannel::callbackReceived, &m_channel, [this](const QUrl &url) {
            if (!OAuthCallbackChannel::isCallbackURL(url))
                FuzzEnvironment::fail("a flow was handed something that is not a callback URL");
            ++m_received;
        });
    }

    OAuthCallbackChannel m_channel;
    int m_received = 0;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    WaitingFlow &flow = WaitingFlow::instance();
    const QString argument = QString::fromUtf8(FuzzEnvironment::bytes(data, size));
    const int receivedBefore = flow.received();
    const int exitCode = OAuthCallbackChannel::handOffArguments(
        { QStringLiteral("kelo-companion"), argument }, WaitingFlow::directory());
    const bool isCallback = OAuthCallbackChannel::isCallbackURL(QUrl(argument, QUrl::StrictMode));
    if (isCallback != (exitCode == 0) || (exitCode == 0) != (flow.received() == receivedBefore + 1))
        FuzzEnvironment::fail("a callback URL was lost, or something else was handed over");
    // Sockets closed during the hand-off are deleted here, not at the end of the run.
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    return 0;
}
