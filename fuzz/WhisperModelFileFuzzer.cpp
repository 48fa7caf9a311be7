// A whisper model file's header and tensor records: whisper.cpp trusts the sizes it reads, so the
// check in front of it must reject every file that is not whole and plausible.
#include "FuzzEnvironment.h"
#include "voice/WhisperModelFile.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    // The check reads a file, mapped into memory, as the recognizer does.
    const QString path = FuzzEnvironment::temporaryPath() + QStringLiteral("/ggml-fuzz.bin");
    FuzzEnvironment::writeFile(path, FuzzEnvironment::bytes(data, size));

    FuzzEnvironment::expectCleanRejection([&] {
        const WhisperModelFile model = WhisperModelFile::inspect(path);
        if (model.tensorCount <= 0 || !model.isMultilingual() || model.size != qint64(size)
            || model.nAudioState % model.nAudioHead != 0)
            FuzzEnvironment::fail("an implausible model accepted");
    });
    return 0;
}
