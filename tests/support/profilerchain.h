#ifndef PROFILERCHAIN_H
#define PROFILERCHAIN_H

#include "channelhistory.h"
#include "codechistory.h"
#include "cpuhistory.h"
#include "dspnettree.h"
#include "profilernetwork.h"
#include "statshistory.h"

// The network link and the five collectors, created and connected in the
// order the main form uses, without any widgets.
struct ProfilerChain
{
    ProfilerChain()
        : dspTree(&network)
        , cpuHistory(&network)
        , channelHistory(&network)
        , codecHistory(&network)
        , statsHistory(&network)
    {
    }

    ProfilerNetwork network;
    DSPTree dspTree;
    CPUHistory cpuHistory;
    ChannelHistory channelHistory;
    CodecHistory codecHistory;
    StatsHistory statsHistory;
};

#endif // PROFILERCHAIN_H
