// The documents of an OAuth connection: protected-resource and authorization-server metadata, the
// registration reply, the token reply (and the error detail of a refused one), the stored grant,
// and the WWW-Authenticate challenge that names the metadata and the scopes.
#include "FuzzEnvironment.h"
#include "net/JsonSupport.h"
#include "skills/MCPOAuthGrant.h"
#include "skills/OAuthRecords.h"
#include "skills/OAuthTokenEndpoint.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const QByteArray body = FuzzEnvironment::bytes(data, size);
    const OAuthBearerChallenge challenge = OAuthBearerChallenge::fromHeader(body);
    if (challenge.resourceMetadata && challenge.resourceMetadata->isEmpty())
        FuzzEnvironment::fail("an empty resource_metadata parameter");

    FuzzEnvironment::expectCleanRejection([&] {
        const OAuthTokenResponse token = OAuthTokenEndpoint::tokenFrom(HttpReply { 200, body });
        if (!token.accessToken || token.accessToken->isEmpty())
            FuzzEnvironment::fail("a token reply accepted without an access token");
    });
    const QString detail = OAuthTokenEndpoint::failureDetail(HttpReply { 400, body });
    if (detail.isEmpty() || detail.contains(QLatin1Char('\n')))
        FuzzEnvironment::fail("a refusal detail that is empty or not one line");

    const auto object = JsonSupport::parseObject(body);
    if (!object)
        return 0;
    OAuthProtectedResourceMetadata::fromJson(*object);
    OAuthAuthorizationServerMetadata::fromJson(*object);
    OAuthRegistrationResponse::fromJson(*object);
    if (const auto grant = MCPOAuthGrant::fromJson(*object);
        grant && MCPOAuthGrant::fromJson(grant->toJson(true)) != grant)
        FuzzEnvironment::fail("a stored grant changes when stored again");
    return 0;
}
