#ifndef STATSHISTORY_H
#define STATSHISTORY_H

#include "historycollector.h"

#include <QList>

// Statistics of one plotted value over the stored history. A capacity of 0
// means the target does not have that value.
struct StatsValues
{
    float minimum;
    float maximum;
    float average;
    float capacity;
};

// One combined statistics packet. Unlike CPUUsageSnapshot the CPU shares
// keep the wire order (update before geometry).
struct StatsSnapshot
{
    float dsp;
    float stream;
    float update;
    float geometry;
    float total;
    qint16 realChannels;
    qint16 virtualChannels;
    qint16 playingChannels;
    qint16 adpcm;
    qint16 tadpcm;
    qint16 mpeg;
    qint16 vorbis;
    qint16 xma;
    qint16 at9;
    qint16 pcm;
    float memory;
};

class StatsHistory : public HistoryCollector
{
    Q_OBJECT

public:
    // Indices into values, in StatsSnapshot field order.
    enum StatsIndex
    {
        StatsDSP,
        StatsStream,
        StatsUpdate,
        StatsGeometry,
        StatsTotal,
        StatsRealChannels,
        StatsVirtualChannels,
        StatsPlayingChannels,
        StatsADPCM,
        StatsTADPCM,
        StatsMPEG,
        StatsVorbis,
        StatsXMA,
        StatsAT9,
        StatsPCM,
        StatsMemory,
        StatsValueCount
    };

    explicit StatsHistory(ProfilerNetwork* network);
    ~StatsHistory() override;

    // Read directly by the line graph control during historyUpdated().
    QList<StatsSnapshot>* history;
    StatsValues values[StatsValueCount];
    qint16 channelCapacity;
    qint16 codecCapacity;

protected:
    bool decodePacket(const QByteArray& packet, int version) override;
    int getHistorySize() const override;
    void finishBatch() override;

private:
    void updateStatistics();
};

#endif // STATSHISTORY_H
