#ifndef PROFILEPACKET_H
#define PROFILEPACKET_H

#include <QtEndian>
#include <QtGlobal>

// The wire records shared by the profiler and anything that talks to it.
// Every field is little-endian and packed: the records are written to the
// socket exactly as they lie in memory, which is the wire image on the
// little-endian hosts we build for. Fields are plain integers so that the
// compiler, not a member function on a misaligned object, does the
// unaligned access.
namespace TARN
{

enum PacketType : unsigned char
{
    PacketTypeRequest = 0,
    PacketTypeDSPNetwork = 1,
    PacketTypeCPU = 3,
    PacketTypeChannels = 4,
    PacketTypeCodecs = 5,
    PacketTypeGroups = 7,
    PacketTypeStats = 9
};

enum PacketSubtype : unsigned char
{
    PacketSubtypeData = 0,
    PacketSubtypeCommandString = 1,
    PacketSubtypeEnable = 2,
    PacketSubtypeBypass = 3
};

enum : int
{
    ProfilePacketHeaderSize = 12,
    // Offsets of the header bytes that consumers read from a received packet.
    PacketTypeOffset = 8,
    PacketSubtypeOffset = 9,
    PacketVersionOffset = 10
};

#pragma pack(push, 1)

struct ProfilePacketHeader
{
    quint32 size;
    quint32 reserved;
    quint8 type;
    quint8 subtype;
    quint8 version;
    quint8 pad;
};

struct ProfilePacketDataRequest
{
    ProfilePacketHeader header;
    quint8 requestedType;
    quint8 requestedSubtype;
    quint32 updateInterval;
};

// Text commands carry a NUL-terminated UTF-8 string in a fixed field.
struct ProfilePacketCommandString
{
    ProfilePacketHeader header;
    char text[128];
};

// Enable and bypass commands: a unit id and one on/off byte.
struct ProfilePacketCommandUnitState
{
    ProfilePacketHeader header;
    quint64 id;
    quint8 state;
};

#pragma pack(pop)

static_assert(Q_BYTE_ORDER == Q_LITTLE_ENDIAN, "packed wire records are written as they lie in memory");
static_assert(sizeof(ProfilePacketHeader) == 12, "the packet header is 12 bytes on the wire");
static_assert(sizeof(ProfilePacketDataRequest) == 18, "a data request is 18 bytes on the wire");
static_assert(sizeof(ProfilePacketCommandString) == 140, "a text command is 140 bytes on the wire");
static_assert(sizeof(ProfilePacketCommandUnitState) == 21, "a unit command is 21 bytes on the wire");

// Fills a header for a packet of `size` bytes; reserved and pad stay zero.
inline ProfilePacketHeader makeHeader(quint32 size, quint8 type, quint8 subtype, quint8 version)
{
    ProfilePacketHeader header;
    header.size = size;
    header.reserved = 0;
    header.type = type;
    header.subtype = subtype;
    header.version = version;
    header.pad = 0;
    return header;
}

} // namespace TARN

#endif // PROFILEPACKET_H
