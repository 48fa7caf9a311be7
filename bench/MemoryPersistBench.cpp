// Writing the memory file with a full window of 80 messages: target under 2 ms.
#include "conversation/ConversationMemoryStore.h"

#include <QTemporaryDir>

#include <benchmark/benchmark.h>

namespace {

QList<ChatMessage> fullConversation()
{
    QList<ChatMessage> messages;
    for (int i = 0; i < 80; ++i) {
        const auto role = i % 2 == 0 ? ChatMessage::Role::user : ChatMessage::Role::assistant;
        messages.append(ChatMessage::make(role,
            QStringLiteral("Mesajul %1: ne-am gândit să mergem la Brașov în weekend, să vedem Biserica Neagră "
                           "și să urcăm pe Tâmpa dacă vremea ține cu noi; ce crezi că merită văzut?")
                .arg(i)));
    }
    return messages;
}

// What the caller's (UI) thread pays: the snapshot is encoded there and written in the background.
void memoryPersist(benchmark::State &state)
{
    QTemporaryDir directory;
    ConversationMemoryStore store(directory.path(), nullptr);
    store.updateSummary(QStringLiteral("• Îi place ceaiul negru.\n• Lucrează la proiectul Kelo."), {});
    const QList<ChatMessage> messages = fullConversation();
    for (auto _ : state)
        store.persist(messages);
    store.waitForWrites();
}

// The whole way to disk: encode, atomic replace and the sync that ends it.
void memoryPersistUntilOnDisk(benchmark::State &state)
{
    QTemporaryDir directory;
    ConversationMemoryStore store(directory.path(), nullptr);
    const QList<ChatMessage> messages = fullConversation();
    for (auto _ : state) {
        store.persist(messages);
        store.waitForWrites();
    }
}

} // namespace

BENCHMARK(memoryPersist)->Unit(benchmark::kMicrosecond);
BENCHMARK(memoryPersistUntilOnDisk)->Unit(benchmark::kMicrosecond)->UseRealTime();
BENCHMARK_MAIN();
