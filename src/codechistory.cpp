#include "codechistory.h"

#include "packetreader.h"
#include "profilepacket.h"

#include <algorithm>

CodecHistory::CodecHistory(ProfilerNetwork* network)
    : HistoryCollector(network, TARN::PacketTypeCodecs), history(new QList<CodecUsageSnapshot>), maximumValue(0)
{
}

CodecHistory::~CodecHistory()
{
    delete history;
}

QList<CodecUsageSnapshot>* CodecHistory::getHistoryList() const
{
    return history;
}

int CodecHistory::getMaximumValue() const
{
    return maximumValue;
}

bool CodecHistory::decodePacket(const QByteArray& packet, int version)
{
    if (version != 0)
        return rejectIncompatibleVersion();

    PacketReader in(packet, TARN::ProfilePacketHeaderSize);
    CodecUsageSnapshot snapshot;
    snapshot.mpegUsed = in.i32();
    snapshot.mpegCapacity = in.i32();
    snapshot.adpcmUsed = in.i32();
    snapshot.adpcmCapacity = in.i32();
    snapshot.xmaUsed = in.i32();
    snapshot.xmaCapacity = in.i32();
    snapshot.pcmUsed = in.i32();
    snapshot.pcmCapacity = in.i32();
    if (!in.ok())
        return rejectTruncated();

    // From this packet alone, so the spin box shrinks with the target; a
    // negative capacity is nonsense and must not make the bound negative.
    maximumValue = std::max({ 0, snapshot.mpegCapacity, snapshot.adpcmCapacity, snapshot.xmaCapacity,
                              snapshot.pcmCapacity });
    appendSnapshot(history, snapshot);
    return true;
}

int CodecHistory::getHistorySize() const
{
    return history->size();
}
