// An MCP server's replies, as JSON or as an event stream: the reply found in the body (also as the
// stream arrives piece by piece, the way the download decides it may stop), its result or error, a
// page of the tool list turned into model tools, and a tool result flattened to text.
#include "FuzzEnvironment.h"
#include "skills/MCPClient.h"
#include "skills/MCPError.h"
#include "skills/MCPEventStream.h"

#include <QUuid>

namespace {

const MCPServerConfig server { QUuid::fromString(QStringLiteral("6f1c1b8e-6a43-4b8e-9f57-2d2a4f0f5d11")),
    QStringLiteral("Everything"), QStringLiteral("http://127.0.0.1:3001/mcp"), QString(), true, std::nullopt,
    std::nullopt };

// Feeds the body in pieces of growing size, the way it arrives: the reply found must be the one in
// the whole body, wherever the network happens to split the stream.
void checkPiecewiseReading(const QByteArray &body)
{
    MCPEventStream stream;
    std::optional<QJsonObject> reply;
    for (qsizetype start = 0, step = 1; start < body.size() && !reply; start += step, step = step * 2 + 1)
        reply = stream.feed(QByteArrayView(body).sliced(start, std::min(step, body.size() - start)));
    if (!reply)
        reply = stream.finish();
    if (reply != MCPEventStream::firstReply(body))
        FuzzEnvironment::fail("a stream read in pieces gives another reply than read whole");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const QByteArray body = FuzzEnvironment::bytes(data, size);
    checkPiecewiseReading(body);
    const auto reply = MCPClient::decodeReplyBody(body);
    if (!reply)
        return 0;
    FuzzEnvironment::expectCleanRejection([&] {
        const QJsonObject result = MCPClient::resultOf(*reply);
        const auto tools = MCPClient::toolsOfPage(result);
        const QList<MCPToolBinding> bindings = MCPClient::bindingsFor(server, tools.value_or(QList<QJsonObject>()));
        for (const MCPToolBinding &binding : bindings) {
            if (binding.definition.name.size() > 64 || !binding.definition.name.startsWith(QLatin1String("mcp_")))
                FuzzEnvironment::fail("a model tool name outside the allowed form");
        }
        MCPClient::flattenToolResult(result);
    });
    return 0;
}
