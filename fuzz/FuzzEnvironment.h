#pragma once

#include "net/KeloError.h"

#include <QByteArray>
#include <QDebug>
#include <QString>

#include <cstdint>
#include <cstdlib>

// What every fuzz target shares: a QCoreApplication for the parsers that need one, Qt's own messages
// kept quiet (a warning about bad input is not a finding), and a private temporary directory for
// the targets that must go through a file. Nothing outside that directory is read or written.
class FuzzEnvironment
{
public:
    // Done once before the first input (this library defines LLVMFuzzerInitialize for every target).
    // KELO_FUZZ_VERBOSE=1 lets Qt's messages through, and with them why each input was rejected.
    static void initialize();
    // The private directory, removed when the target exits normally.
    static QString temporaryPath();

    // The fuzzer's bytes, not copied: reading one byte past them is caught by AddressSanitizer.
    static QByteArray bytes(const uint8_t *data, size_t size)
    {
        return QByteArray::fromRawData(reinterpret_cast<const char *>(data), qsizetype(size));
    }

    // Runs one parser on hostile input. Rejecting it with a KeloError that tells the user something
    // is the expected outcome; any other exception escapes and ends the run as a crash.
    template<typename Parse> static void expectCleanRejection(Parse &&parse)
    {
        try {
            parse();
        } catch (const KeloError &error) {
            const QString description = error.description();
            if (description.trimmed().isEmpty())
                fail("a KeloError without a description");
            qDebug("rejected: %s", qPrintable(description));
        }
    }

    // For the targets that go through files: failing to write is the harness's fault, never a finding.
    static void writeFile(const QString &path, QByteArrayView bytes);
    // The file's contents; empty when it cannot be read.
    static QByteArray readFile(const QString &path);

    // A violated expectation: abort, so libFuzzer keeps the input.
    [[noreturn]] static void fail(const char *what);
};
