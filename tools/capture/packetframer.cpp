#include "packetframer.h"

#include "profilepacket.h"
#include "profilernetwork.h"

#include <QtEndian>

void PacketFramer::reset()
{
    buffer.clear();
    offset = 0;
    broken = false;
}

void PacketFramer::append(const QByteArray& bytes)
{
    if (broken)
        return;
    // Only the unfinished packet is kept, so the buffer never holds more
    // than one packet and one record.
    if (offset > 0) {
        buffer.remove(0, offset);
        offset = 0;
    }
    buffer.append(bytes);
}

PacketFramer::Result PacketFramer::take(QByteArray* packet)
{
    if (broken || buffer.size() - offset < TARN::ProfilePacketHeaderSize)
        return NeedMore;
    const quint32 size = qFromLittleEndian<quint32>(buffer.constData() + offset);
    if (size < quint32(TARN::ProfilePacketHeaderSize) || size > ProfilerNetwork::MaxPacketSize) {
        broken = true;
        buffer.clear();
        offset = 0;
        return StreamBroken;
    }
    if (buffer.size() - offset < int(size))
        return NeedMore;
    *packet = buffer.mid(offset, int(size));
    offset += int(size);
    return PacketTaken;
}

int PacketFramer::pendingBytes() const
{
    return buffer.size() - offset;
}

bool PacketFramer::isBroken() const
{
    return broken;
}
