#ifndef PACKETBUILDER_H
#define PACKETBUILDER_H

#include <QByteArray>
#include <QString>
#include <QVector>
#include <QtEndian>

// Builds packets for tests: a 12-byte header followed by little-endian fields. finish() writes the real size
// into the header; finishWithSize() lets a test lie about it.
class PacketBuilder
{
public:
    PacketBuilder(quint8 type, quint8 subtype, quint8 version);

    PacketBuilder& u8(quint8 value) { return field(value); }
    PacketBuilder& u16(quint16 value) { return field(value); }
    PacketBuilder& i16(qint16 value) { return field(value); }
    PacketBuilder& u32(quint32 value) { return field(value); }
    PacketBuilder& i32(qint32 value) { return field(value); }
    PacketBuilder& u64(quint64 value) { return field(value); }
    PacketBuilder& f32(float value) { return field(value); }
    // Swapped here, the little-endian write lays the bytes out big-endian.
    PacketBuilder& f32BigEndian(float value) { return field(qbswap(value)); }
    // A NUL-padded string in a field of exactly `width` bytes (cut if longer).
    PacketBuilder& fixedString(const QByteArray& utf8, int width)
    {
        return raw(utf8.leftJustified(width, '\0', true));
    }
    PacketBuilder& raw(const QByteArray& bytes);
    PacketBuilder& zeros(int count) { return raw(QByteArray(count, '\0')); }

    int size() const { return bytes.size(); }
    // The packet with its size field set to its real length.
    QByteArray finish() const { return finishWithSize(quint32(bytes.size())); }
    // The packet with an arbitrary size field.
    QByteArray finishWithSize(quint32 size) const;

private:
    template<typename T>
    PacketBuilder& field(T value)
    {
        char le[sizeof(T)];
        qToLittleEndian(value, le);
        bytes.append(le, sizeof(T));
        return *this;
    }

    QByteArray bytes;
};

// One unit record of the current DSP layout; flags bit 0 active, 1 bypass, 2 send, 3 sidechain. Level slot i
// holds -i dB; levelCount says how many the unit claims.
struct DSPUnitV6
{
    quint64 id;
    quint16 children;
    quint16 usage = 1;
    quint8 flags = 0x01;
    QByteArray name = "unit";
    quint8 levelCount = 0;
};

// A whole DSP network packet of the current layout, records in the order given.
QByteArray dspPacketV6(const QVector<DSPUnitV6>& units, qint32 rate = 48000, qint32 length = 1024);

// A chain of `length` units, ids 1 to length, each the only input of the one before; the last claims
// `lastChildren` more records than follow.
QByteArray dspChainV6(int length, quint16 lastChildren = 0);

// A CPU packet: `dsp`, stream 0.1, update 2.5 and, from version 1 on, geometry 1/3.
QByteArray cpuPacket(float dsp, quint8 version = 1);

// A packet of `count` consecutive 32-bit counts from `first`, as channel and codec packets carry them.
QByteArray intsPacket(quint8 type, int count, int first = 1, quint8 version = 0);

// The first `size` bytes of a packet, with the size field saying so.
QByteArray cutPacket(const QByteArray& packet, int size);

// Reads a test vector file from the test data folder.
QByteArray readTestData(const QString& fileName);

#endif // PACKETBUILDER_H
