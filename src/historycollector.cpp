#include "historycollector.h"

#include "packetreader.h"
#include "profilepacket.h"
#include "profilernetwork.h"

#include <QtGlobal>

HistoryCollector::HistoryCollector(ProfilerNetwork* network, unsigned char packetType)
    : QObject(nullptr), network(network), packetType(packetType)
{
    connect(network, SIGNAL(packetReady()), this, SLOT(slotPacketArrived()));
}

void HistoryCollector::slotPacketArrived()
{
    int numAppended = 0;
    while (network->getNumWaitingPackets(packetType, TARN::PacketSubtypeData) != 0) {
        const QByteArray packet = network->getPacket(packetType, TARN::PacketSubtypeData);
        if (packet.isNull())
            break;
        if (decodeOnePacket(packet))
            ++numAppended;
    }
    if (numAppended == 0)
        return;
    finishBatch();
    // More than the list holds were appended when a burst pushed its own
    // first snapshots out; only those still stored are new to the reader.
    emit historyUpdated(qMin(numAppended, getHistorySize()));
}

void HistoryCollector::finishBatch()
{
}

void HistoryCollector::reportOldVersion()
{
    emit statusChanged(QStringLiteral("Connected. (Old version detected, reduced functionality)"));
}

bool HistoryCollector::rejectIncompatibleVersion()
{
    emit statusChanged(QStringLiteral("Connected. (Incompatible version detected, reduced functionality)"));
    return false;
}

bool HistoryCollector::rejectTruncated()
{
    emit statusChanged(QStringLiteral("Connected. (Truncated packet dropped)"));
    return false;
}

qint32 HistoryCollector::wrappingAdd(qint32 a, qint32 b)
{
    const quint32 sum = quint32(a) + quint32(b);
    // ~sum is below 2^31 whenever sum is, as a signed value, negative.
    return sum <= quint32(0x7fffffff) ? qint32(sum) : -qint32(~sum) - 1;
}

qint16 HistoryCollector::wrappingAdd(qint16 a, qint16 b)
{
    const quint16 sum = quint16(quint16(a) + quint16(b));
    return sum <= quint16(0x7fff) ? qint16(sum) : qint16(int(sum) - 0x10000);
}

bool HistoryCollector::decodeOnePacket(const QByteArray& packet)
{
    PacketReader header(packet, TARN::PacketVersionOffset);
    const int version = header.u8();
    if (!header.ok())
        return rejectTruncated();
    return decodePacket(packet, version);
}
