// libFuzzer target: every bina decoder on values built from arbitrary bytes.
#include "binareplay.h"

#include <cstdint>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const QByteArray baInput(reinterpret_cast<const char*>(data), static_cast<int>(size));
    if (!FuzzReplay::replayBinaDecoders(baInput))
        abort();
    return 0;
}
