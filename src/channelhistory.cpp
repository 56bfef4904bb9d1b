#include "channelhistory.h"

#include "packetreader.h"
#include "profilepacket.h"

ChannelHistory::ChannelHistory(ProfilerNetwork* network)
    : HistoryCollector(network, TARN::PacketTypeChannels), history(new QList<ChannelUsageSnapshot>), maximumValue(0)
{
}

ChannelHistory::~ChannelHistory()
{
    delete history;
}

QList<ChannelUsageSnapshot>* ChannelHistory::getHistoryList() const
{
    return history;
}

int ChannelHistory::getMaximumValue() const
{
    return maximumValue;
}

bool ChannelHistory::decodePacket(const QByteArray& packet, int version)
{
    if (version != 0)
        return rejectIncompatibleVersion();

    PacketReader in(packet, TARN::ProfilePacketHeaderSize);
    ChannelUsageSnapshot snapshot;
    snapshot.hardwareUsed = in.i32();
    snapshot.hardwareCapacity = in.i32();
    snapshot.softwareUsed = in.i32();
    snapshot.softwareCapacity = in.i32();
    snapshot.virtualUsed = in.i32();
    snapshot.virtualCapacity = in.i32();
    if (!in.ok())
        return rejectTruncated();
    snapshot.realUsed = wrappingAdd(snapshot.hardwareUsed, snapshot.softwareUsed);
    snapshot.realCapacity = wrappingAdd(snapshot.hardwareCapacity, snapshot.softwareCapacity);
    snapshot.playingUsed = wrappingAdd(snapshot.realUsed, snapshot.virtualUsed);
    // Playing channels are bounded by the virtual pool, not by a sum.
    snapshot.playingCapacity = snapshot.virtualCapacity;

    // Follows the newest packet so the spin box shrinks with the target.
    maximumValue = snapshot.virtualCapacity;
    appendSnapshot(history, snapshot);
    return true;
}

int ChannelHistory::getHistorySize() const
{
    return history->size();
}
