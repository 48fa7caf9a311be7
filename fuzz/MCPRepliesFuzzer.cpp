// An MCP server's replies, as JSON or as an event stream: the reply found in the body (also as the
// body arrives piece by piece, the way the download decides it may stop), its result or error, the
// tool list turned into model tools, and a tool result flattened to text.
#include "FuzzEnvironment.h"
#include "skills/MCPClient.h"
#include "skills/MCPError.h"

#include <QUuid>

namespace {

const MCPServerConfig server { QUuid::fromString(QStringLiteral("6f1c1b8e-6a43-4b8e-9f57-2d2a4f0f5d11")),
    QStringLiteral("Everything"), QStringLiteral("http://127.0.0.1:3001/mcp"), QString(), true, std::nullopt,
    std::nullopt };

// Feeds the body in pieces of growing size, the way it arrives. Once the predicate says a reply
// arrived, the prefix it saw must hold one; and a reply on a finished line must be noticed, or the
// download would wait for the time-out.
void checkArrivalPredicate(const QByteArray &body)
{
    const auto arrived = MCPClient::replyArrivedPredicate();
    for (qsizetype end = 0, step = 1; end < body.size(); step = step * 2 + 1) {
        end = std::min(body.size(), end + step);
        const QByteArray prefix = body.first(end);
        if (arrived(prefix)) {
            if (!MCPClient::firstReplyInEventStream(prefix))
                FuzzEnvironment::fail("the download stopped before a whole reply arrived");
            return;
        }
    }
    if (MCPClient::firstReplyInEventStream(body.first(body.lastIndexOf('\n') + 1)))
        FuzzEnvironment::fail("a whole reply went unnoticed");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const QByteArray body = FuzzEnvironment::bytes(data, size);
    checkArrivalPredicate(body);
    const auto reply = MCPClient::decodeReplyBody(body);
    if (!reply)
        return 0;
    FuzzEnvironment::expectCleanRejection([&] {
        const QJsonObject result = MCPClient::resultOf(*reply);
        const QList<MCPToolBinding> bindings = MCPClient::bindingsFor(server, MCPClient::toolObjects(result));
        for (const MCPToolBinding &binding : bindings) {
            if (binding.definition.name.size() > 64 || !binding.definition.name.startsWith(QLatin1String("mcp_")))
                FuzzEnvironment::fail("a model tool name outside the allowed form");
        }
        MCPClient::flattenToolResult(result);
    });
    return 0;
}
