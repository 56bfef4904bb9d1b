#ifndef CODECHISTORY_H
#define CODECHISTORY_H

#include "historycollector.h"

#include <QList>

// One codec packet as four (in use, capacity) pool pairs.
struct CodecUsageSnapshot
{
    qint32 mpegUsed;
    qint32 mpegCapacity;
    qint32 adpcmUsed;
    qint32 adpcmCapacity;
    qint32 xmaUsed;
    qint32 xmaCapacity;
    qint32 pcmUsed;
    qint32 pcmCapacity;
};

class CodecHistory : public HistoryCollector
{
    Q_OBJECT

public:
    explicit CodecHistory(ProfilerNetwork* network);
    ~CodecHistory() override;

    QList<CodecUsageSnapshot>* getHistoryList() const;
    int getMaximumValue() const;

protected:
    bool decodePacket(const QByteArray& packet, int version) override;
    int getHistorySize() const override;

private:
    QList<CodecUsageSnapshot>* history;
    int maximumValue;
};

#endif // CODECHISTORY_H
