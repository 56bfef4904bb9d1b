#include "dsprecords.h"

#include "dspnettree.h"
#include "packetreader.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <vector>

namespace DSPRecords
{

namespace
{

const int NameWidth = 32;
const int LevelSlots = 32;
const char SilentLevel = -80;
const char LoudestLevel = 10;

// A record's size and where its tree structure lies; the rest of a record
// is read by the decoders below.
struct RecordLayout
{
    int size;
    int childCountOffset;
    int nameOffset;
    bool signedId32;
    bool childCount16;
};

const RecordLayout RecordLayouts[] = {
    { 45, 36, 4, true, false },
    { 49, 36, 4, true, false },
    { 61, 40, 8, false, false },
    { 179, 40, 8, false, false },
    { 187, 48, 16, false, false },
    { 195, 48, 16, false, false },
    { 94, 24, 62, false, true },
};

// Versions past 6 are refused before any record is read.
RecordLayout recordLayout(int version)
{
    return RecordLayouts[version >= 0 && version < 6 ? version : 6];
}

unsigned long long readUnitId(PacketReader& in, bool signedId32)
{
    if (signedId32)
        return static_cast<unsigned long long>(static_cast<qint64>(in.i32()));
    return in.u64();
}

int readChildCount(PacketReader& in, bool childCount16)
{
    if (childCount16)
        return in.u16();
    // A count that is negative as a signed int reads no children.
    return qMax(in.i32(), 0);
}

// Whole dB in -80..10 from a linear level. +infinity would overflow the
// integer conversion; like NaN and non-positive levels it counts as silence.
char levelFromFloat(float level)
{
    if (!(level > 0.0f))
        return SilentLevel;
    const float db = 20.0f * std::log10(level);
    if (!std::isfinite(db))
        return SilentLevel;
    const int whole = static_cast<int>(db);
    if (whole > 9)
        return LoudestLevel;
    if (whole < -79)
        return SilentLevel;
    return static_cast<char>(whole);
}

// Gives the unit `count` levels and returns them to be written. The unit is
// the scratch record of a walk, whose list keeps its size from record to
// record: most records carry as many levels as the one before.
char* setLevelCount(DSPNode* node, int count)
{
    if (node->levels.size() != count)
        node->levels.resize(count);
    return node->levels.data();
}

void readFloatLevels(PacketReader& in, int count, DSPNode* node)
{
    const int used = qMin(count, LevelSlots);
    char* levels = setLevelCount(node, used);
    for (int slot = 0; slot < LevelSlots; ++slot) {
        const float level = in.f32BigEndian();
        if (slot < used)
            levels[slot] = levelFromFloat(level);
    }
}

void readByteLevels(PacketReader& in, int count, DSPNode* node)
{
    const int used = qMin(count, LevelSlots);
    const char* field = in.bytes(LevelSlots);
    if (!field)
        return;
    // The levels are already the bytes the meters want; copied in one go.
    std::memcpy(setLevelCount(node, used), field, size_t(used));
}

void decodeRecordV0V1(PacketReader& in, int version, DSPNode* node, RecordPlace* place)
{
    setLevelCount(node, 0);
    node->id = readUnitId(in, true);
    in.skip(NameWidth);
    place->childCount = readChildCount(in, false);
    node->active = in.u8() != 0;
    in.skip(4);
    if (version == 1)
        node->exclusiveUsage = in.u32();
}

// Versions 2 to 5 share the run of fields from the name to the level count.
int readNameToLevelCount(PacketReader& in, DSPNode* node, RecordPlace* place)
{
    in.skip(NameWidth);
    place->childCount = readChildCount(in, false);
    node->active = in.u8() != 0;
    node->bypass = in.u8() != 0;
    in.skip(2);
    node->exclusiveUsage = in.u16();
    return in.u8();
}

void decodeRecordV2V3(PacketReader& in, int version, DSPNode* node, RecordPlace* place)
{
    node->id = in.u64();
    const int levelCount = readNameToLevelCount(in, node, place);
    if (version == 3) {
        readFloatLevels(in, levelCount, node);
        return;
    }
    // These targets only say how many channels there are.
    in.skip(10);
    const int used = qMin(levelCount, LevelSlots);
    std::fill_n(setLevelCount(node, used), used, SilentLevel);
}

void decodeRecordV4V5(PacketReader& in, int version, DSPNode* node, RecordPlace* place)
{
    node->id = in.u64();
    node->groupId = in.u64();
    const int levelCount = readNameToLevelCount(in, node, place);
    readFloatLevels(in, levelCount, node);
    if (version == 5)
        node->sendTargetId = in.u64();
}

void decodeRecordV6(PacketReader& in, DSPNode* node, RecordPlace* place)
{
    node->id = in.u64();
    node->groupId = in.u64();
    node->sendTargetId = in.u64();
    place->childCount = readChildCount(in, true);
    node->exclusiveUsage = in.u16();
    const quint8 flags = in.u8();
    node->active = (flags & 0x01) != 0;
    node->bypass = (flags & 0x02) != 0;
    place->send = (flags & 0x04) != 0;
    place->sidechain = (flags & 0x08) != 0;
    const int levelCount = in.u8();
    readByteLevels(in, levelCount, node);
    in.skip(NameWidth);
}

} // namespace

int recordSize(int version)
{
    return recordLayout(version).size;
}

QString readRecordName(const char* record, int version)
{
    PacketReader in(record, recordLayout(version).size, recordLayout(version).nameOffset);
    return in.fixedString(NameWidth);
}

bool sameRecordName(const char* record, const char* other, int version)
{
    const int offset = recordLayout(version).nameOffset;
    return std::memcmp(record + offset, other + offset, NameWidth) == 0;
}

// Decodes one record and moves the cursor past it; false when the record
// does not fit before `end`. Each decoder gets exactly its record's bytes,
// so it can neither read into the next record nor leave bytes behind. The
// name is decoded only when asked for: a unit whose name did not change
// keeps the string it has.
bool decodeRecord(const char** cursor, const char* end, int version, DSPNode* node, RecordPlace* place,
                  bool withName)
{
    const int size = recordLayout(version).size;
    if (!end || *cursor > end || end - *cursor < size)
        return false;
    PacketReader in(*cursor, size);
    if (version <= 1)
        decodeRecordV0V1(in, version, node, place);
    else if (version <= 3)
        decodeRecordV2V3(in, version, node, place);
    else if (version <= 5)
        decodeRecordV4V5(in, version, node, place);
    else
        decodeRecordV6(in, node, place);
    if (!in.ok() || in.remaining() != 0)
        return false;
    if (withName)
        node->name = readRecordName(*cursor, version);
    node->inclusiveUsage = node->exclusiveUsage;
    *cursor += size;
    return true;
}

bool sameRecordTree(const QByteArray& packet, const QByteArray& other, int firstRecord, int version, int count)
{
    const RecordLayout layout = recordLayout(version);
    const qint64 bytes = qint64(count) * layout.size;
    if (firstRecord < 0 || count < 0 || packet.size() - firstRecord < bytes || other.size() - firstRecord < bytes)
        return false;
    const int idWidth = layout.signedId32 ? 4 : 8;
    const int childWidth = layout.childCount16 ? 2 : 4;
    const char* record = packet.constData() + firstRecord;
    const char* otherRecord = other.constData() + firstRecord;
    for (int i = 0; i < count; ++i, record += layout.size, otherRecord += layout.size) {
        if (std::memcmp(record, otherRecord, size_t(idWidth)) != 0
            || std::memcmp(record + layout.childCountOffset, otherRecord + layout.childCountOffset, size_t(childWidth))
                   != 0)
            return false;
    }
    return true;
}

// Walks the record structure without building anything, so that a packet
// that ends before its records do is refused while the old graph is still
// there. Returns the number of distinct units, or -1.
int countUnits(const QByteArray& packet, int firstRecord, int version, UnitSightings* sightings)
{
    const RecordLayout layout = recordLayout(version);
    // Every record but the first is some unit's child, so no more units
    // than records can be met.
    sightings->start(qMax(0, packet.size() - firstRecord) / layout.size + 1);
    int units = 0;
    PacketReader in(packet, firstRecord);
    // A standard vector: one push per unit with children, inlined.
    std::vector<int> childrenLeft { 1 };
    while (!childrenLeft.empty()) {
        if (childrenLeft.back() == 0) {
            childrenLeft.pop_back();
            continue;
        }
        --childrenLeft.back();
        const char* record = in.bytes(layout.size);
        if (!record)
            return -1;
        PacketReader fields(record, layout.size);
        const unsigned long long id = readUnitId(fields, layout.signedId32);
        fields.skip(layout.childCountOffset - fields.position());
        const int children = readChildCount(fields, layout.childCount16);
        // A repeated unit's children are not sent again.
        if (!sightings->firstSighting(id))
            continue;
        ++units;
        if (children > 0)
            childrenLeft.push_back(children);
    }
    return units;
}

int countUnits(const QByteArray& packet, int firstRecord, int version, UnitIdSet* seen)
{
    struct SetSightings : UnitSightings
    {
        explicit SetSightings(UnitIdSet* seen) : seen(seen) { }
        void start(int records) override { seen->startPass(records); }
        bool firstSighting(unsigned long long id) override { return seen->insertNew(id, true); }
        UnitIdSet* seen;
    };
    SetSightings sightings(seen);
    return countUnits(packet, firstRecord, version, &sightings);
}

} // namespace DSPRecords
