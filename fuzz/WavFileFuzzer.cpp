// WAV files given to recognition: RIFF chunks, the format header and the samples.
#include "FuzzEnvironment.h"
#include "voice/WavFile.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    FuzzEnvironment::expectCleanRejection([&] {
        const WavFile wav = WavFile::parse(FuzzEnvironment::bytes(data, size));
        if (wav.channels < 1 || wav.sampleRate < 1000 || wav.interleaved.size() % wav.channels != 0
            || wav.interleaved.size() > qsizetype(size))
            FuzzEnvironment::fail("an implausible WAV accepted");
    });
    return 0;
}
