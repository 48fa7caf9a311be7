// The page reader's cleaning of a downloaded page: whatever the bytes, readable text within bounds.
#include "FuzzEnvironment.h"
#include "skills/WebSkillService.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const QString text = WebSkillService::readableText(FuzzEnvironment::bytes(data, size));
    if (text.size() > 2 * 14'000)
        FuzzEnvironment::fail("cleaned text longer than the limit");
    if (!text.isEmpty() && text.back().isHighSurrogate())
        FuzzEnvironment::fail("cleaned text ends in half a character");
    return 0;
}
