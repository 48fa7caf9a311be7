// The encyclopedia's search reply, turned into the digest the model reads.
#include "FuzzEnvironment.h"
#include "skills/WebSkillService.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    FuzzEnvironment::expectCleanRejection([&] {
        if (WebSkillService::searchDigest(FuzzEnvironment::bytes(data, size)).isEmpty())
            FuzzEnvironment::fail("an empty search digest");
    });
    return 0;
}
