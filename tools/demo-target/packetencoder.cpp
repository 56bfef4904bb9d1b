#include "packetencoder.h"

#include "profilepacket.h"

#include <QVector>
#include <QtEndian>

#include <cmath>
#include <cstring>

namespace
{

const int UnitNameSize = 32;
const int GroupNameSize = 260;
const int LevelSlots = 32;

// Writes little-endian fields after a header and fills in the size at the
// end. Large networks make packets of tens of megabytes, so room is made once
// per record with reserve() and the fields are then stored without checks;
// the first `expectedSize` bytes are there from the start.
class PacketWriter
{
public:
    PacketWriter(quint8 type, quint8 version, int expectedSize)
        : bytes(qMax(expectedSize, static_cast<int>(TARN::ProfilePacketHeaderSize)), Qt::Uninitialized)
        , data(bytes.data())
    {
        const TARN::ProfilePacketHeader header = TARN::makeHeader(0, type, TARN::PacketSubtypeData, version);
        std::memcpy(data, &header, sizeof header);
        at = sizeof header;
    }

    // Makes room for the next `count` bytes of fields.
    void reserve(int count)
    {
        if (at + count <= bytes.size())
            return;
        bytes.resize(qMax(at + count, bytes.size() * 2));
        data = bytes.data();
    }

    void u8(quint8 value) { data[at++] = static_cast<char>(value); }
    void u16(quint16 value) { put(value); }
    void u32(quint32 value) { put(value); }
    void u64(quint64 value) { put(value); }
    void i16(qint16 value) { put(value); }
    void i32(qint32 value) { put(value); }

    void f32(float value)
    {
        quint32 bits;
        std::memcpy(&bits, &value, sizeof bits);
        put(bits);
    }

    void f32BigEndian(float value)
    {
        quint32 bits;
        std::memcpy(&bits, &value, sizeof bits);
        qToBigEndian(bits, data + at);
        at += 4;
    }

    void zeros(int count)
    {
        std::memset(data + at, 0, static_cast<size_t>(count));
        at += count;
    }

    // A NUL-terminated string in a field of `width` bytes. A long name is cut
    // on a character boundary so the field never ends in half a UTF-8 sequence.
    void fixedString(const QByteArray& utf8, int width)
    {
        int length = qMin(utf8.size(), width - 1);
        while (length > 0 && length < utf8.size() && (static_cast<uchar>(utf8[length]) & 0xc0) == 0x80)
            --length;
        std::memcpy(data + at, utf8.constData(), static_cast<size_t>(length));
        at += length;
        zeros(width - length);
    }

    QByteArray finish()
    {
        bytes.resize(at);
        qToLittleEndian(static_cast<quint32>(at), bytes.data());
        return bytes;
    }

private:
    template <typename T>
    void put(T value)
    {
        Q_ASSERT(at + static_cast<int>(sizeof(T)) <= bytes.size());
        qToLittleEndian(value, data + at);
        at += static_cast<int>(sizeof(T));
    }

    QByteArray bytes;
    char* data;
    int at = 0;
};

// The profiler turns a level float back into dB by truncating 20 log10(x)
// toward zero. Aiming at the middle of the whole-dB step brings the same
// whole number back despite rounding; silence is sent as zero.
float amplitudeFor(qint8 db)
{
    if (db <= -80)
        return 0.0f;
    const float middle = db >= 0 ? db + 0.5f : db - 0.5f;
    return std::pow(10.0f, middle / 20.0f);
}

int levelCount(const SimUnit& unit)
{
    return qMin(unit.levels.size(), LevelSlots);
}

void writeFloatLevels(PacketWriter& out, const SimUnit& unit)
{
    const int count = levelCount(unit);
    for (int slot = 0; slot < LevelSlots; ++slot)
        out.f32BigEndian(slot < count ? amplitudeFor(unit.levels[slot]) : 0.0f);
}

// Versions 0 and 1: 32-bit ids, no bypass, no levels.
void writeRecordV0(PacketWriter& out, const SimUnit& unit, quint32 childCount, int version)
{
    out.u32(static_cast<quint32>(unit.id));
    out.fixedString(unit.name, UnitNameSize);
    out.u32(childCount);
    out.u8(unit.active ? 1 : 0);
    out.zeros(4);
    if (version == 1)
        out.u32(unit.exclusiveUsage);
}

// Versions 2 and 3: 64-bit ids, bypass, and from version 3 the levels.
void writeRecordV2(PacketWriter& out, const SimUnit& unit, quint32 childCount, int version)
{
    out.u64(unit.id);
    out.fixedString(unit.name, UnitNameSize);
    out.u32(childCount);
    out.u8(unit.active ? 1 : 0);
    out.u8(unit.bypass ? 1 : 0);
    out.zeros(2);
    out.u16(unit.exclusiveUsage);
    out.u8(static_cast<quint8>(levelCount(unit)));
    if (version == 2)
        out.zeros(10);
    else
        writeFloatLevels(out, unit);
}

// Versions 4 and 5: groups, and from version 5 the send target.
void writeRecordV4(PacketWriter& out, const SimUnit& unit, quint32 childCount, int version)
{
    out.u64(unit.id);
    out.u64(unit.groupId);
    out.fixedString(unit.name, UnitNameSize);
    out.u32(childCount);
    out.u8(unit.active ? 1 : 0);
    out.u8(unit.bypass ? 1 : 0);
    out.zeros(2);
    out.u16(unit.exclusiveUsage);
    out.u8(static_cast<quint8>(levelCount(unit)));
    writeFloatLevels(out, unit);
    if (version == 5)
        out.u64(unit.sendTargetId);
}

// Version 6: flags for the connection into the parent, levels as dB bytes.
void writeRecordV6(PacketWriter& out, const SimUnit& unit, const SimInput& link, quint32 childCount)
{
    out.u64(unit.id);
    out.u64(unit.groupId);
    out.u64(unit.sendTargetId);
    out.u16(static_cast<quint16>(childCount));
    out.u16(unit.exclusiveUsage);
    quint8 flags = 0;
    flags |= unit.active ? 0x01 : 0;
    flags |= unit.bypass ? 0x02 : 0;
    flags |= link.send ? 0x04 : 0;
    flags |= link.sidechain ? 0x08 : 0;
    out.u8(flags);
    const int count = levelCount(unit);
    out.u8(static_cast<quint8>(count));
    for (int slot = 0; slot < LevelSlots; ++slot)
        out.u8(static_cast<quint8>(slot < count ? unit.levels[slot] : 0));
    out.fixedString(unit.name, UnitNameSize);
}

void writeRecord(PacketWriter& out, const SimUnit& unit, const SimInput& link, quint32 childCount, int version)
{
    out.reserve(PacketEncoder::getDSPRecordSize(version));
    if (version <= 1)
        writeRecordV0(out, unit, childCount, version);
    else if (version <= 3)
        writeRecordV2(out, unit, childCount, version);
    else if (version <= 5)
        writeRecordV4(out, unit, childCount, version);
    else
        writeRecordV6(out, unit, link, childCount);
}

void writePrologue(PacketWriter& out, const SimNetwork& network, int version)
{
    out.reserve(PacketEncoder::getDSPPrologueSize(version));
    if (version == 1) {
        out.f32(network.cpuUsage);
    } else if (version >= 2 && version <= 5) {
        out.f32(network.cpuUsage);
        out.u8(0);
    } else if (version == 6) {
        out.i32(network.timingRate);
        out.i32(network.timingLength);
    }
}

qint16 clampToI16(qint32 value)
{
    return static_cast<qint16>(qBound<qint32>(-32768, value, 32767));
}

} // namespace

int PacketEncoder::getDSPRecordSize(int version)
{
    static const int sizes[] = {45, 49, 61, 179, 187, 195, 94};
    return version >= 0 && version <= NewestDSPVersion ? sizes[version] : 0;
}

int PacketEncoder::getDSPPrologueSize(int version)
{
    static const int sizes[] = {0, 4, 5, 5, 5, 5, 8};
    return version >= 0 && version <= NewestDSPVersion ? sizes[version] : 0;
}

QByteArray PacketEncoder::encodeDSP(const SimNetwork& network, int version)
{
    const int recordSize = getDSPRecordSize(version);
    if (recordSize == 0)
        return QByteArray();
    PacketWriter out(TARN::PacketTypeDSPNetwork, static_cast<quint8>(version),
                     TARN::ProfilePacketHeaderSize + getDSPPrologueSize(version)
                         + recordSize * (network.units.size() + network.units.size() / 4));
    writePrologue(out, network, version);
    if (network.head < 0 || network.head >= network.units.size())
        return out.finish();

    // An explicit stack: a long chain of units must not exhaust the call stack.
    struct Frame
    {
        int unit;
        int nextInput;
    };
    QVector<bool> written(network.units.size(), false);
    QVector<Frame> path;
    const SimUnit& head = network.units[network.head];
    writeRecord(out, head, SimInput(), static_cast<quint32>(head.inputs.size()), version);
    written[network.head] = true;
    path.append({network.head, 0});
    while (!path.isEmpty()) {
        Frame& frame = path.last();
        const QVector<SimInput>& inputs = network.units[frame.unit].inputs;
        if (frame.nextInput == inputs.size()) {
            path.removeLast();
            continue;
        }
        const SimInput link = inputs[frame.nextInput++];
        const SimUnit& unit = network.units[link.unit];
        if (written[link.unit]) {
            writeRecord(out, unit, link, 0, version);
            continue;
        }
        written[link.unit] = true;
        writeRecord(out, unit, link, static_cast<quint32>(unit.inputs.size()), version);
        path.append({link.unit, 0});
    }
    return out.finish();
}

QByteArray PacketEncoder::encodeGroups(const SimNetwork& network)
{
    PacketWriter out(TARN::PacketTypeGroups, 0,
                     TARN::ProfilePacketHeaderSize + GroupRecordSize * network.groups.size());
    for (const SimGroup& group : network.groups) {
        out.reserve(GroupRecordSize);
        out.u64(group.id);
        out.u64(group.parentId);
        out.u32(group.guid.data1);
        out.u16(group.guid.data2);
        out.u16(group.guid.data3);
        for (uchar byte : group.guid.data4)
            out.u8(byte);
        out.zeros(4);
        out.fixedString(group.name, GroupNameSize);
    }
    return out.finish();
}

QByteArray PacketEncoder::encodeCPU(const SimFigures& figures, int version)
{
    PacketWriter out(TARN::PacketTypeCPU, static_cast<quint8>(version), 28);
    out.f32(figures.dsp);
    out.f32(figures.stream);
    out.f32(figures.update);
    // Geometry came last, when version 1 added it.
    if (version >= 1)
        out.f32(figures.geometry);
    return out.finish();
}

QByteArray PacketEncoder::encodeChannels(const SimFigures& figures)
{
    PacketWriter out(TARN::PacketTypeChannels, 0, 36);
    out.i32(figures.hardwareUsed);
    out.i32(figures.hardwareCapacity);
    out.i32(figures.softwareUsed);
    out.i32(figures.softwareCapacity);
    out.i32(figures.virtualUsed);
    out.i32(figures.virtualCapacity);
    return out.finish();
}

QByteArray PacketEncoder::encodeCodecs(const SimFigures& figures)
{
    PacketWriter out(TARN::PacketTypeCodecs, 0, 44);
    for (SimCodec codec : {CodecMPEG, CodecADPCM, CodecXMA, CodecPCM}) {
        out.i32(figures.codecUsed[codec]);
        out.i32(figures.codecCapacity[codec]);
    }
    return out.finish();
}

// The counts are 16-bit here; a load-test network can play more channels
// than that, so they saturate rather than wrap.
QByteArray PacketEncoder::encodeStats(const SimFigures& figures)
{
    PacketWriter out(TARN::PacketTypeStats, 0, 72);
    out.f32(figures.dsp);
    out.f32(figures.stream);
    out.f32(figures.update);
    out.f32(figures.geometry);
    out.i16(clampToI16(figures.hardwareUsed + figures.softwareUsed));
    out.i16(clampToI16(figures.hardwareCapacity + figures.softwareCapacity));
    out.i16(clampToI16(figures.virtualUsed));
    out.i16(clampToI16(figures.virtualCapacity));
    for (int codec = 0; codec < NumCodecs; ++codec) {
        out.i16(clampToI16(figures.codecUsed[codec]));
        out.i16(clampToI16(figures.codecCapacity[codec]));
    }
    out.i32(figures.memoryUsed);
    out.i32(figures.memoryCapacity);
    return out.finish();
}
