// The documents of an OAuth connection: protected-resource and authorization-server metadata, the
// registration and token replies, and the WWW-Authenticate challenge that names the metadata.
#include "FuzzEnvironment.h"
#include "net/JsonSupport.h"
#include "skills/MCPOAuthManager.h"
#include "skills/OAuthRecords.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const QByteArray body = FuzzEnvironment::bytes(data, size);
    if (const auto parameter = MCPOAuthManager::resourceMetadataParameter(body); parameter && parameter->isEmpty())
        FuzzEnvironment::fail("an empty resource_metadata parameter");

    const auto object = JsonSupport::parseObject(body);
    if (!object)
        return 0;
    OAuthProtectedResourceMetadata::fromJson(*object);
    OAuthAuthorizationServerMetadata::fromJson(*object);
    OAuthRegistrationResponse::fromJson(*object);
    OAuthTokenResponse::fromJson(*object);
    return 0;
}
