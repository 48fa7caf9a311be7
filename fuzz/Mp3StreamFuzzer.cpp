// MP3 from the cloud voices, decoded through mpg123 the way playback pulls it.
#include "FuzzEnvironment.h"
#include "voice/Mp3PcmStream.h"

#include <array>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    FuzzEnvironment::expectCleanRejection([&] {
        Mp3PcmStream stream(QByteArray(reinterpret_cast<const char *>(data), qsizetype(size)));
        const QAudioFormat format = stream.format();
        if (format.sampleRate() <= 0 || format.channelCount() < 1 || format.channelCount() > 2)
            FuzzEnvironment::fail("an implausible audio format");
        // The audio device pulls in small pieces; one odd size also tests the buffer's edges.
        std::array<char, 4093> piece;
        for (int reads = 0; !stream.atEnd() && reads < 100'000; ++reads) {
            if (stream.read(piece.data(), qint64(piece.size())) <= 0 && !stream.atEnd())
                FuzzEnvironment::fail("decoding stalled before the end");
        }
    });
    return 0;
}
