// The model service's replies: the model list, a chat completion (text, tool calls and their
// arguments, which are JSON inside a JSON string) and a responses-protocol reply. The same bytes
// also go through the error path, where the server's own message is shown to the user.
#include "FuzzEnvironment.h"
#include "conversation/ZenAPIService.h"
#include "net/HttpReply.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    HttpReply reply { 200, FuzzEnvironment::bytes(data, size) };
    FuzzEnvironment::expectCleanRejection([&] {
        const QList<ZenModel> models = ZenAPIService::parseModelList(reply);
        if (models.isEmpty())
            FuzzEnvironment::fail("a model list without the default model");
    });
    FuzzEnvironment::expectCleanRejection([&] {
        const auto result = ZenAPIService::parseChatCompletion(reply);
        for (const ZenToolCall &call : result.toolCalls) {
            if (call.name.isEmpty())
                FuzzEnvironment::fail("a tool call without a name");
        }
    });
    FuzzEnvironment::expectCleanRejection([&] { ZenAPIService::parseResponsesReply(reply); });

    reply.status = 502;
    FuzzEnvironment::expectCleanRejection([&] {
        ZenAPIService::parseChatCompletion(reply);
        FuzzEnvironment::fail("a failed status read as a completion");
    });
    return 0;
}
