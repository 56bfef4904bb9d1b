#ifndef CHANNELHISTORY_H
#define CHANNELHISTORY_H

#include "historycollector.h"

#include <QList>

// One channel packet as five (in use, capacity) pairs.
struct ChannelUsageSnapshot
{
    qint32 hardwareUsed;
    qint32 hardwareCapacity;
    qint32 softwareUsed;
    qint32 softwareCapacity;
    qint32 realUsed;
    qint32 realCapacity;
    qint32 virtualUsed;
    qint32 virtualCapacity;
    qint32 playingUsed;
    qint32 playingCapacity;
};

class ChannelHistory : public HistoryCollector
{
    Q_OBJECT

public:
    explicit ChannelHistory(ProfilerNetwork* network);
    ~ChannelHistory() override;

    QList<ChannelUsageSnapshot>* getHistoryList() const;
    int getMaximumValue() const;

protected:
    bool decodePacket(const QByteArray& packet, int version) override;
    int getHistorySize() const override;

private:
    QList<ChannelUsageSnapshot>* history;
    int maximumValue;
};

#endif // CHANNELHISTORY_H
