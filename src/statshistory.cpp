#include "statshistory.h"

#include "packetreader.h"
#include "profilepacket.h"

#include <algorithm>
#include <array>
#include <limits>

namespace
{

const int CodecCount = 7;

// The target reports bytes; the graph plots millions of bytes.
float toMegabytes(qint32 bytes)
{
    return float(bytes) / 1000000.0f;
}

std::array<float, StatsHistory::StatsValueCount> toValueArray(const StatsSnapshot& snapshot)
{
    return { { snapshot.dsp, snapshot.stream, snapshot.update, snapshot.geometry, snapshot.total,
               float(snapshot.realChannels), float(snapshot.virtualChannels), float(snapshot.playingChannels),
               float(snapshot.adpcm), float(snapshot.tadpcm), float(snapshot.mpeg), float(snapshot.vorbis),
               float(snapshot.xma), float(snapshot.at9), float(snapshot.pcm), snapshot.memory } };
}

} // namespace

StatsHistory::StatsHistory(ProfilerNetwork* network)
    : HistoryCollector(network, TARN::PacketTypeStats),
      history(new QList<StatsSnapshot>),
      values(),
      channelCapacity(0),
      codecCapacity(0)
{
}

StatsHistory::~StatsHistory()
{
    delete history;
}

bool StatsHistory::decodePacket(const QByteArray& packet, int version)
{
    if (version != 0)
        return rejectIncompatibleVersion();

    PacketReader in(packet, TARN::ProfilePacketHeaderSize);
    StatsSnapshot snapshot;
    snapshot.dsp = in.f32();
    snapshot.stream = in.f32();
    snapshot.update = in.f32();
    snapshot.geometry = in.f32();
    snapshot.realChannels = in.i16();
    const qint16 realCapacity = in.i16();
    snapshot.virtualChannels = in.i16();
    const qint16 virtualCapacity = in.i16();
    // The wire and the snapshot list the codec pools in the same order.
    qint16 codecUsed[CodecCount];
    qint16 codecCapacities[CodecCount];
    for (int i = 0; i < CodecCount; ++i) {
        codecUsed[i] = in.i16();
        codecCapacities[i] = in.i16();
    }
    const qint32 memoryUsed = in.i32();
    const qint32 memoryCapacity = in.i32();
    if (!in.ok())
        return rejectTruncated();

    // Not the order CPUHistory adds in; the target's own total is built so.
    snapshot.total = ((snapshot.dsp + snapshot.geometry) + snapshot.stream) + snapshot.update;
    snapshot.playingChannels = wrappingAdd(snapshot.realChannels, snapshot.virtualChannels);
    snapshot.adpcm = codecUsed[0];
    snapshot.tadpcm = codecUsed[1];
    snapshot.mpeg = codecUsed[2];
    snapshot.vorbis = codecUsed[3];
    snapshot.xma = codecUsed[4];
    snapshot.at9 = codecUsed[5];
    snapshot.pcm = codecUsed[6];
    snapshot.memory = toMegabytes(memoryUsed);

    for (int i = StatsDSP; i <= StatsTotal; ++i)
        values[i].capacity = 100.0f;
    values[StatsRealChannels].capacity = float(realCapacity);
    // Playing channels are bounded by the virtual pool, as in ChannelHistory.
    values[StatsVirtualChannels].capacity = float(virtualCapacity);
    values[StatsPlayingChannels].capacity = float(virtualCapacity);
    for (int i = 0; i < CodecCount; ++i)
        values[StatsADPCM + i].capacity = float(codecCapacities[i]);
    values[StatsMemory].capacity = toMegabytes(memoryCapacity);

    channelCapacity = virtualCapacity;
    codecCapacity = *std::max_element(codecCapacities, codecCapacities + CodecCount);

    appendSnapshot(history, snapshot);
    return true;
}

int StatsHistory::getHistorySize() const
{
    return history->size();
}

void StatsHistory::finishBatch()
{
    updateStatistics();
}

void StatsHistory::updateStatistics()
{
    // The maximum starts at 0, so a value that is never positive shows 0.
    for (StatsValues& value : values) {
        value.minimum = std::numeric_limits<float>::max();
        value.maximum = 0.0f;
        value.average = 0.0f;
    }
    for (const StatsSnapshot& snapshot : *history) {
        const std::array<float, StatsValueCount> fields = toValueArray(snapshot);
        for (int i = 0; i < StatsValueCount; ++i) {
            const float v = fields[i];
            if (v > values[i].maximum)
                values[i].maximum = v;
            if (!(v > values[i].minimum))
                values[i].minimum = v;
            values[i].average += v;
        }
    }
    const float count = float(history->size());
    for (StatsValues& value : values)
        value.average /= count;
}
