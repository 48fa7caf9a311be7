// The cloud voices' replies other than the MP3 itself: the three voice catalogues, Google's
// synthesis reply (base64 audio inside JSON) and the error text shown when a request fails.
#include "FuzzEnvironment.h"
#include "voice/CloudVoiceProvider.h"
#include "voice/ProviderError.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const QByteArray body = FuzzEnvironment::bytes(data, size);
    const auto checkVoices = [](const QList<CloudVoice> &voices) {
        for (const CloudVoice &voice : voices) {
            if (voice.id.isEmpty() || voice.name.isEmpty())
                FuzzEnvironment::fail("a voice without an id or a name");
        }
    };
    for (const CloudVoiceProvider &provider : CloudVoiceProvider::all()) {
        FuzzEnvironment::expectCleanRejection([&] { checkVoices(provider.parseVoiceList(body)); });
        FuzzEnvironment::expectCleanRejection([&] { provider.audioFromReply(body); });
    }

    const ProviderError error = ProviderError::fromResponse(QStringLiteral("Azure Speech"), 429, body);
    // At most 600 characters of the body, each at most two UTF-16 units.
    if (error.description().isEmpty() || error.description().size() > 1200)
        FuzzEnvironment::fail("an error text that is empty or too long");
    return 0;
}
