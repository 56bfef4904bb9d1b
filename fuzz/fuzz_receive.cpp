// The receive loop fed an arbitrary byte stream in arbitrary pieces. The
// first byte of each piece tells how long the piece is, so the fuzzer
// controls the chunking as well as the bytes.
#include "fuzzsupport.h"

#include "profilernetwork.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size > 4 * 1024 * 1024)
        return -1;
    ProfilerChain profiler;
    size_t offset = 0;
    while (offset < size) {
        const size_t piece = 1 + data[offset] * 4;
        ++offset;
        const size_t length = piece < size - offset ? piece : size - offset;
        profiler.network.receiveBytes(QByteArray(reinterpret_cast<const char*>(data + offset), int(length)));
        offset += length;
    }
    return 0;
}
