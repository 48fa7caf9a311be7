// The memory file, read the way Kelo reads it at start. Whatever it holds, nothing may be lost: a
// file that cannot be read whole is first copied aside unchanged, and the file itself is left alone.
#include "FuzzEnvironment.h"
#include "conversation/ConversationMemoryStore.h"

#include <QDir>

namespace {

// A message read from the file comes back the same after the next write.
void checkRoundTrip(const ChatMessage &message)
{
    const auto again = ChatMessage::fromJson(message.toJson());
    if (!again || again->id != message.id || again->role != message.role || again->text != message.text)
        FuzzEnvironment::fail("a stored message changes when written again");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const QByteArray bytes = FuzzEnvironment::bytes(data, size);
    const QString directory = FuzzEnvironment::temporaryPath() + QStringLiteral("/memory");
    QDir(directory).removeRecursively();
    QDir().mkpath(directory);
    const QString path = directory + QStringLiteral("/conversation-memory.json");
    FuzzEnvironment::writeFile(path, bytes);

    {
        ConversationMemoryStore store(directory, nullptr);
        for (const ChatMessage &message : store.messages())
            checkRoundTrip(message);
        if (!store.recoveredCopyPath().isEmpty() && FuzzEnvironment::readFile(store.recoveredCopyPath()) != bytes)
            FuzzEnvironment::fail("the copy of an unreadable memory file differs from it");
    }
    if (FuzzEnvironment::readFile(path) != bytes)
        FuzzEnvironment::fail("reading the memory file changed it");
    return 0;
}
