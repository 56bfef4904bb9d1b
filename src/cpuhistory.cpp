#include "cpuhistory.h"

#include "packetreader.h"
#include "profilepacket.h"

CPUHistory::CPUHistory(ProfilerNetwork* network)
    : HistoryCollector(network, TARN::PacketTypeCPU), history(new QList<CPUUsageSnapshot>)
{
}

CPUHistory::~CPUHistory()
{
    delete history;
}

QList<CPUUsageSnapshot>* CPUHistory::getHistoryList() const
{
    return history;
}

bool CPUHistory::decodePacket(const QByteArray& packet, int version)
{
    // Version 0 predates the geometry share.
    if (version > 1)
        return rejectIncompatibleVersion();

    PacketReader in(packet, TARN::ProfilePacketHeaderSize);
    CPUUsageSnapshot snapshot;
    snapshot.dsp = in.f32();
    snapshot.stream = in.f32();
    snapshot.update = in.f32();
    snapshot.geometry = version == 1 ? in.f32() : 0.0f;
    if (!in.ok())
        return rejectTruncated();
    // The graph shows the total the target would show: this order, in floats.
    snapshot.total = ((snapshot.dsp + snapshot.stream) + snapshot.geometry) + snapshot.update;

    if (version == 0)
        reportOldVersion();
    appendSnapshot(history, snapshot);
    return true;
}

int CPUHistory::getHistorySize() const
{
    return history->size();
}
