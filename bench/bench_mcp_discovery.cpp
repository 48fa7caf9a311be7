// Discovery of five enabled MCP servers whose every reply takes 200 ms, and the per-turn cost of
// reusing the cached bindings. Prints one line per measurement; run by hand.
#include "AsyncTest.h"
#include "FakeHttpServer.h"
#include "skills/MCPClient.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QJsonArray>

#include <algorithm>
#include <cstdio>
#include <memory>
#include <vector>

namespace {

constexpr int serverCount = 5;
constexpr int toolsPerServer = 20;
constexpr int replyDelayMs = 200;
constexpr int rounds = 5;

std::unique_ptr<FakeHttpServer> slowServer()
{
    auto server = std::make_unique<FakeHttpServer>();
    QJsonArray tools;
    for (int i = 0; i < toolsPerServer; ++i) {
        tools.append(QJsonObject { { "name", QStringLiteral("tool-%1").arg(i) },
            { "description", QStringLiteral("Unealta numărul %1").arg(i) },
            { "inputSchema",
                QJsonObject { { "type", "object" },
                    { "properties", QJsonObject { { "q", QJsonObject { { "type", "string" } } } } } } } });
    }
    server->on("POST", "/mcp", [tools](const FakeHttpServer::Request &request) {
        const QJsonObject message = request.json();
        const QString method = message.value("method").toString();
        FakeHttpServer::Reply reply = method == QLatin1String("notifications/initialized")
            ? FakeHttpServer::Reply::text({}, 202)
            : FakeHttpServer::Reply::json(QJsonObject { { "jsonrpc", "2.0" }, { "id", message.value("id") },
                { "result",
                    method == QLatin1String("tools/list") ? QJsonObject { { "tools", tools } } : QJsonObject() } });
        reply.delayMs = replyDelayMs;
        return reply;
    });
    return server;
}

double median(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    std::vector<std::unique_ptr<FakeHttpServer>> servers;
    QList<MCPServerConfig> configs;
    for (int i = 0; i < serverCount; ++i) {
        servers.push_back(slowServer());
        configs.append(MCPServerConfig { QUuid::createUuid(), QStringLiteral("Server %1").arg(i),
            servers.back()->baseUrl() + "/mcp", {}, true, {}, {} });
    }

    std::vector<double> cold;
    std::vector<double> warm;
    QList<MCPToolBinding> bindings;
    for (int round = 0; round < rounds; ++round) {
        MCPClient client;
        QElapsedTimer timer;
        timer.start();
        bindings = AsyncTest::await(client.discoverBindings(configs));
        cold.push_back(timer.nsecsElapsed() / 1e6);
        timer.restart();
        bindings = AsyncTest::await(client.discoverBindings(configs));
        warm.push_back(timer.nsecsElapsed() / 1e6);
        if (bindings.size() != serverCount * toolsPerServer) {
            std::fprintf(stderr, "unexpected binding count %lld\n", static_cast<long long>(bindings.size()));
            return 1;
        }
    }
    std::printf("servers=%d tools/server=%d reply delay=%d ms, median of %d rounds\n", serverCount, toolsPerServer,
        replyDelayMs, rounds);
    std::printf(
        "discovery, first contact (initialize + initialized + tools/list): %.1f ms (one after another: %d ms)\n",
        median(cold), serverCount * 3 * replyDelayMs);
    std::printf("discovery, sessions already open (tools/list only): %.1f ms (one after another: %d ms)\n",
        median(warm), serverCount * replyDelayMs);

    // What a turn inside the cache window pays: copying the cached bindings and building the
    // definitions offered to the model.
    constexpr int iterations = 20'000;
    QElapsedTimer timer;
    timer.start();
    qsizetype sink = 0;
    for (int i = 0; i < iterations; ++i) {
        const QList<MCPToolBinding> cached = bindings;
        QList<ZenToolDefinition> definitions;
        definitions.reserve(cached.size());
        for (const MCPToolBinding &binding : cached)
            definitions.append(binding.definition);
        sink += definitions.size();
    }
    std::printf("cached list per turn (%lld bindings, copy + definitions): %.2f us (checksum %lld)\n",
        static_cast<long long>(bindings.size()), timer.nsecsElapsed() / 1e3 / iterations, static_cast<long long>(sink));
    return 0;
}
