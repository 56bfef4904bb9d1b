#ifndef FUZZSUPPORT_H
#define FUZZSUPPORT_H

#include <QByteArray>

#include <cstddef>
#include <cstdint>
#include <memory>

class ChannelHistory;
class CodecHistory;
class CPUHistory;
class DSPTree;
class ProfilerNetwork;
class StatsHistory;

// Starts the offscreen application once per fuzzer process.
void initFuzzApplication();

// A network link with every collector attached, as in the application.
struct FuzzProfiler
{
    FuzzProfiler();
    ~FuzzProfiler();

    std::unique_ptr<ProfilerNetwork> network;
    std::unique_ptr<DSPTree> dspTree;
    std::unique_ptr<CPUHistory> cpuHistory;
    std::unique_ptr<ChannelHistory> channelHistory;
    std::unique_ptr<CodecHistory> codecHistory;
    std::unique_ptr<StatsHistory> statsHistory;
};

// A whole packet of `type`: the first input byte is the version, the rest
// the payload; the size field is the real length.
QByteArray packetFromFuzzInput(unsigned char type, const uint8_t* data, size_t size);

#endif // FUZZSUPPORT_H
