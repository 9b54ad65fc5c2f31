// libFuzzer target: arbitrary bytes as a manifest, through the record's own
// parser and through JsonUtil's file loader.
#include "manifestreplay.h"

#include <QDir>
#include <QTemporaryDir>

#include <cstdint>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    // One scratch file for the whole run; the directory goes when the process ends.
    static QTemporaryDir dirScratch;
    static const std::string scratchPath = dirScratch.isValid()
        ? QDir(dirScratch.path()).filePath(QStringLiteral("mainifest.json")).toStdString()
        : std::string();
    const QByteArray baInput(reinterpret_cast<const char*>(data), static_cast<int>(size));
    if (!FuzzReplay::replayManifest(baInput, scratchPath))
        abort();
    return 0;
}
