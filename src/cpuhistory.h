#ifndef CPUHISTORY_H
#define CPUHISTORY_H

#include "historycollector.h"

#include <QList>

// One CPU packet, in percent. geometry comes third although the wire carries
// it last: it was appended to the wire format later, and the line graph
// plots the fields in this order.
struct CPUUsageSnapshot
{
    float dsp;
    float stream;
    float geometry;
    float update;
    float total;
};

class CPUHistory : public HistoryCollector
{
    Q_OBJECT

public:
    explicit CPUHistory(ProfilerNetwork* network);
    ~CPUHistory() override;

    QList<CPUUsageSnapshot>* getHistoryList() const;

protected:
    bool decodePacket(const QByteArray& packet, int version) override;
    int getHistorySize() const override;

private:
    QList<CPUUsageSnapshot>* history;
};

#endif // CPUHISTORY_H
