// The "kelo://oauth?..." redirect the browser hands to a new Kelo process, which passes it over a
// local socket to the flow waiting for it. The input is that command-line argument; one flow waits
// in the private directory, so every callback URL must reach it and nothing else may.
#include "FuzzEnvironment.h"
#include "skills/OAuthCallbackChannel.h"

#include <QCoreApplication>
#include <QDir>

namespace {

struct Listener
{
    OAuthCallbackChannel *channel = nullptr;
    int received = 0;
};

Listener &listener()
{
    static Listener waiting = [] {
        const QString directory = FuzzEnvironment::temporaryPath() + QStringLiteral("/oauth");
        Listener created { new OAuthCallbackChannel(directory, nullptr), 0 };
        if (!created.channel->listen())
            FuzzEnvironment::fail("the callback channel cannot listen");
        created.channel->addPendingState(QStringLiteral("8D0C3F1A2B4E4F6A9C7D"));
        return created;
    }();
    return waiting;
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    FuzzEnvironment::initialize();
    Listener &waiting = listener();
    QObject::connect(waiting.channel, &OAuthCallbackChannel::callbackReceived, waiting.channel, [](const QUrl &url) {
        if (!OAuthCallbackChannel::isCallbackURL(url))
            FuzzEnvironment::fail("a flow was handed something that is not a callback URL");
        ++listener().received;
    });
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    Listener &waiting = listener();
    const QString argument = QString::fromUtf8(FuzzEnvironment::bytes(data, size));
    const int receivedBefore = waiting.received;
    const int exitCode = OAuthCallbackChannel::handOffArguments(
        { QStringLiteral("kelo-companion"), argument }, FuzzEnvironment::temporaryPath() + QStringLiteral("/oauth"));
    const bool isCallback = OAuthCallbackChannel::isCallbackURL(QUrl(argument, QUrl::StrictMode));
    if (isCallback != (exitCode == 0) || (exitCode == 0) != (waiting.received == receivedBefore + 1))
        FuzzEnvironment::fail("a callback URL was lost, or something else was handed over");
    // Sockets closed during the hand-off are deleted here, not at the end of the run.
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    return 0;
}
