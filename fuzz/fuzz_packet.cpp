// One decoder fed arbitrary packets of its own type, through the real
// network link and with every other collector listening, as in the profiler.
#include "fuzzsupport.h"

#include "profilernetwork.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size > 4 * 1024 * 1024)
        return -1;
    ProfilerChain profiler;
    profiler.network.receiveBytes(packetFromFuzzInput(FUZZ_PACKET_TYPE, data, size));
    return 0;
}
