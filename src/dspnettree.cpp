#include "dspnettree.h"

#include "dspdepths.h"
#include "packetreader.h"
#include "prefetch.h"
#include "profilepacket.h"
#include "profilernetwork.h"

#include <algorithm>
#include <climits>
#include <cstddef>
#include <utility>

using namespace DSPRecords;

namespace
{

const QString OldVersionText = QStringLiteral("Connected. (Old version detected, reduced functionality)");
const QString IncompatibleVersionText =
    QStringLiteral("Connected. (Incompatible version detected, reduced functionality)");
const QString MalformedDSPText = QStringLiteral("Connected. (Malformed DSP data dropped)");

const int NewestDSPVersion = 6;
const int NewestGroupVersion = 0;
// Older targets do not understand commands.
const int FirstCommandDSPVersion = 5;
const unsigned char DSPCommandVersion = 6;
const unsigned char GroupCommandVersion = 0;

const int GroupRecordSize = 296;
const int GroupNameWidth = 260;

QUuid readGuid(PacketReader& in)
{
    const quint32 data1 = in.u32();
    const quint16 data2 = in.u16();
    const quint16 data3 = in.u16();
    uchar data4[8];
    for (uchar& byte : data4)
        byte = in.u8();
    return QUuid(data1, data2, data3, data4[0], data4[1], data4[2], data4[3], data4[4], data4[5], data4[6],
                 data4[7]);
}

} // namespace

// A unit whose children are still being read.
struct DSPTree::PendingUnit
{
    DSPNode* node;
    DSPNode* parent;
    int childrenLeft;
    DSPNode::InputRecord link;
};

DSPNode& DSPNode::operator=(DSPNode&& other) noexcept
{
    id = other.id;
    groupId = other.groupId;
    sendTargetId = other.sendTargetId;
    name = std::move(other.name);
    active = other.active;
    bypass = other.bypass;
    inclusiveUsage = other.inclusiveUsage;
    inclusiveCPU = other.inclusiveCPU;
    exclusiveUsage = other.exclusiveUsage;
    exclusiveCPU = other.exclusiveCPU;
    levels = std::move(other.levels);
    inputs = std::move(other.inputs);
    depth = other.depth;
    walkIndex = other.walkIndex;
    recordIndex = other.recordIndex;
    return *this;
}

DSPTree::DSPTree(ProfilerNetwork* network)
    : network(network)
{
    connect(network, &ProfilerNetwork::packetReady, this, &DSPTree::slotPacketArrived);
}

DSPTree::~DSPTree()
{
    releaseUnits();
    qDeleteAll(groups);
}

void DSPTree::slotPacketArrived()
{
    const bool dspUpdated = readDSPData();
    const bool groupsUpdated = readGroupData();
    if (dspUpdated || groupsUpdated)
        emit dspNetTreeUpdated();
}

QByteArray DSPTree::takeNewestPacket(unsigned char type)
{
    // Each packet is a whole snapshot, so the older ones are dropped unread.
    QByteArray packet;
    const int waiting = network->getNumWaitingPackets(type, TARN::PacketSubtypeData);
    for (int i = 0; i < waiting; ++i)
        packet = network->getPacket(type, TARN::PacketSubtypeData);
    return packet;
}

bool DSPTree::readDSPData()
{
    if (network->getNumWaitingPackets(TARN::PacketTypeDSPNetwork, TARN::PacketSubtypeData) == 0)
        return false;
    const QByteArray packet = takeNewestPacket(TARN::PacketTypeDSPNetwork);

    cpuUsage = 0.0f;
    timingRate = 0;
    timingLength = 0;

    PacketReader in(packet, TARN::PacketVersionOffset);
    const int version = in.u8();
    if (in.ok() && version > NewestDSPVersion) {
        emit statusChanged(IncompatibleVersionText);
        return false;
    }
    in.skip(1);
    readDSPPrologue(&in, version);

    // Most updates describe the network of the previous one with new
    // figures; those are written into the units that are already there.
    if (in.ok() && updateInPlace(packet, version, in.position())) {
        if (version < NewestDSPVersion)
            emit statusChanged(OldVersionText);
        return true;
    }

    // A packet that ends before its records do is dropped whole, so the
    // graph on screen is never a partial one.
    const int unitCount = in.ok() ? countPacketUnits(packet, in.position(), version) : -1;
    if (unitCount < 0) {
        cpuUsage = 0.0f;
        timingRate = 0;
        timingLength = 0;
        emit statusChanged(MalformedDSPText);
        return false;
    }

    if (version < NewestDSPVersion)
        emit statusChanged(OldVersionText);
    rebuildDSPGraph(packet, version, in.position(), unitCount);
    return true;
}

// Units of the last network are found in the order of the last packet's
// records (a changed network mostly keeps it) and marked as met by their
// first record there, without touching the units themselves. Only ids new
// to the network go into the set.
class DSPTree::KnownUnitSightings : public UnitSightings
{
public:
    explicit KnownUnitSightings(DSPTree* tree) : tree(tree) { }

    void start(int records) override
    {
        pass = ++tree->lastCountPass;
        tree->unitIds.startPass(records);
        tree->countMarks.resize(tree->shapeRecords.size());
    }

    bool firstSighting(unsigned long long id) override
    {
        const int unit = knownUnitRecord(id);
        if (unit < 0)
            return tree->unitIds.insertNew(id, true);
        quint64& mark = tree->countMarks[unit];
        if (mark == pass)
            return false;
        mark = pass;
        return true;
    }

private:
    // The first record of the last network's unit with this id, or -1.
    int knownUnitRecord(unsigned long long id)
    {
        const std::vector<ShapeRecord>& records = tree->shapeRecords;
        if (cursor < int(records.size()) && records[size_t(cursor)].id == id)
            return records[size_t(cursor++)].unitRecord;
        const DSPNode* node = tree->nodesById.value(id, nullptr);
        if (!node)
            return -1;
        cursor = node->recordIndex + 1;
        return node->recordIndex;
    }

    DSPTree* tree;
    quint64 pass = 0;
    int cursor = 0;
};

// countUnits() for the next packet. One whose records form the tree of the
// last packet's (a unit switched on or off, say) has that walk's count;
// another is counted on the units of the last network where it can be.
int DSPTree::countPacketUnits(const QByteArray& packet, int firstRecord, int version)
{
    if (!shapeRecords.empty() && version == dspVersion && firstRecord == shapeFirstRecord
        && sameRecordTree(packet, shapePacket, firstRecord, version, int(shapeRecords.size())))
        return shapeUnitCount;
    if (!shapeRecords.empty() && isAsBuilt()) {
        KnownUnitSightings sightings(this);
        return countUnits(packet, firstRecord, version, &sightings);
    }
    return countUnits(packet, firstRecord, version, &unitIds);
}

void DSPTree::readDSPPrologue(PacketReader* in, int version)
{
    if (version == 6) {
        timingRate = in->i32();
        timingLength = in->i32();
        return;
    }
    if (version >= 1)
        cpuUsage = in->f32();
    if (version >= 2)
        in->skip(1);
}

void DSPTree::rebuildDSPGraph(const QByteArray& packet, int version, int firstRecord, int unitCount)
{
    // The units of the last network are reused for the same ids: most of a
    // changed network is still the network it was.
    keepRecordsForReuse(version);
    shapeNodes.clear();
    shapeRecords.clear();
    root = DSPNode();
    dspVersion = version;
    // A table edited by hand leaves no records to compare with.
    sameTopology = !previousRecords.empty();

    nodesById.reserve(unitCount);
    const char* cursor = packet.constData() + firstRecord;
    recordsEnd = packet.constData() + packet.size();
    createDSPRecurse(&cursor, &root);
    recordsEnd = nullptr;
    if (sameTopology && shapeRecords.size() != previousRecords.size()) {
        sameTopology = false;
        for (const ShapeRecord& shape : qAsConst(shapeRecords))
            shape.node->depth = -1;
    }
    dropUnreadUnits();

    shapeNodes = nodesById;
    shapeUnitCount = unitCount;
    shapePacket = packet;
    shapeFirstRecord = firstRecord;
    ++shapeSerial;

    createDSPUsage();
    assignDepths();
}

// The same as createDSPDepthRecurse() with a fresh table of path marks,
// without filling a table that nobody reads afterwards; skipped when the
// walk found the last network's links, whose depths it has already given.
void DSPTree::assignDepths()
{
    if (sameTopology)
        return;
    if (!fastDepths || !depthsFromRecords())
        assignDSPDepths(nullptr, &root, nodesById.size() + 1);
    shapeDepths.resize(int(shapeRecords.size()));
    const int count = int(shapeRecords.size());
    for (int i = 0; i < count; ++i) {
        if (i + Prefetch::Distance < count)
            Prefetch::object(shapeRecords[i + Prefetch::Distance].node);
        shapeDepths[i] = shapeRecords[i].node->depth;
    }
}

// The longest paths from the head, from the records alone. Every record is
// one link, and a unit's first record comes after its consumer's, so one
// pass in packet order gives each unit its consumer's depth plus one; a
// later link from deeper raises the unit and everything it feeds. On an
// acyclic network that is exactly what the walk computes. A cycle would
// raise its units for ever: past a budget of raises the depths are undone
// and the walk, which has its own rules for cycles, runs instead.
bool DSPTree::depthsFromRecords()
{
    const int count = int(shapeRecords.size());
    qint64 budget = 4 * qint64(count) + 1024;
    QVector<DSPNode*> raised;
    for (int i = 0; i < count; ++i) {
        if (i + Prefetch::Distance < count)
            Prefetch::object(shapeRecords[i + Prefetch::Distance].node);
        const ShapeRecord& record = shapeRecords[i];
        if (record.node->depth > record.parent->depth)
            continue;
        record.node->depth = record.parent->depth + 1;
        if (record.first)
            continue;
        raised.append(record.node);
        while (!raised.isEmpty()) {
            const DSPNode* unit = raised.takeLast();
            for (const DSPNode::InputRecord& input : unit->inputs) {
                if (input.node->depth > unit->depth)
                    continue;
                if (--budget < 0) {
                    for (const ShapeRecord& undone : qAsConst(shapeRecords))
                        undone.node->depth = -1;
                    return false;
                }
                input.node->depth = unit->depth + 1;
                raised.append(input.node);
            }
        }
    }
    return true;
}

// Called for each record in walk order, after the record was appended.
// While the records match the last network's, a unit read for the first
// time gets its depth back from there; at the first difference the units
// given one so far lose it again, as a fresh walk would have them.
void DSPTree::noteRecordTopology(DSPNode* node, DSPNode* parent, bool first)
{
    if (!sameTopology)
        return;
    const int i = int(shapeRecords.size()) - 1;
    if (i < int(previousRecords.size()) && i < shapeDepths.size()) {
        const ShapeRecord& previous = previousRecords[i];
        if (previous.node == node && previous.parent == parent && previous.first == first) {
            if (first)
                node->depth = shapeDepths.at(i);
            return;
        }
    }
    sameTopology = false;
    for (int k = 0; k < i; ++k)
        shapeRecords[k].node->depth = -1;
}

// Starts a walk: a unit is read by it once its readPass is this walk's.
// The last packet's records are kept for the walk: a changed network mostly
// lists its units in the same order, which findUnit() uses, and a unit's
// record there holds the name an unchanged one need not decode again.
// Records of a table edited by hand may name units that are gone, so such
// a table is walked itself.
void DSPTree::keepRecordsForReuse(int version)
{
    ++rebuildPass;
    previousRecords.clear();
    reuseCursor = 0;
    previousNamesKnown = false;
    if (!nodesById.isSharedWith(shapeNodes))
        return;
    previousNamesKnown = version == dspVersion;
    previousRecords.swap(shapeRecords);
    previousRead.fill(false, int(previousRecords.size()));
}

// The unit of the last network with this id, or null. The record after the
// last one matched is tried first: it is sequential, while the table is a
// cache miss or two per unit in a large network.
DSPNode* DSPTree::findUnit(unsigned long long id)
{
    const int next = reuseCursor;
    if (next + Prefetch::Distance < int(previousRecords.size())) {
        Prefetch::object(previousRecords[next + Prefetch::Distance].node);
        // Asked for half the distance ago, so its lists can be found now:
        // the unit's record overwrites both.
        const DSPNode* near = previousRecords[next + Prefetch::Distance / 2].node;
        Prefetch::block(near->levels);
        Prefetch::block(near->inputs);
    }
    if (next < int(previousRecords.size()) && previousRecords[next].id == id) {
        ++reuseCursor;
        return previousRecords[next].node;
    }
    DSPNode* node = nodesById.value(id);
    // Picks up the last network's order again after a unit that was added
    // or moved.
    if (node && node->readPass != rebuildPass && !previousRecords.empty())
        reuseCursor = node->recordIndex + 1;
    return node;
}

// Deletes the units the walk did not read. A table built here is keyed by
// unit id, so the last network's records are enough to find them, and
// their read marks to tell them, without touching the units that stay; a
// table edited by hand is walked itself.
void DSPTree::dropUnreadUnits()
{
    if (previousRecords.empty()) {
        for (auto it = nodesById.begin(); it != nodesById.end();) {
            if (it.value()->readPass == rebuildPass) {
                ++it;
                continue;
            }
            delete it.value();
            it = nodesById.erase(it);
        }
        return;
    }
    for (int i = 0; i < int(previousRecords.size()); ++i) {
        const ShapeRecord& shape = previousRecords[i];
        if (!shape.first || previousRead.at(i))
            continue;
        nodesById.remove(shape.id);
        delete shape.node;
    }
    previousRecords.clear();
}

void DSPTree::createDSPRecurse(const char** cursor, DSPNode* parent)
{
    // An explicit stack instead of recursion: a target may send a chain of
    // units deeper than the call stack.
    std::vector<PendingUnit> pending;
    if (!readUnit(cursor, parent, &pending))
        return;
    while (!pending.empty()) {
        PendingUnit& top = pending.back();
        if (top.childrenLeft > 0) {
            --top.childrenLeft;
            if (!readUnit(cursor, top.node, &pending))
                return;
            continue;
        }
        PendingUnit done = pending.back();
        pending.pop_back();
        done.parent->inclusiveUsage += done.node->inclusiveUsage;
        done.link.node = done.node;
        done.parent->inputs.append(done.link);
    }
}

bool DSPTree::readUnit(const char** cursor, DSPNode* parent, std::vector<PendingUnit>* pending)
{
    const char* record = *cursor;
    clearScratch();
    RecordPlace place;
    if (!decodeRecord(cursor, recordsEnd, dspVersion, &scratch, &place, false))
        return false;
    DSPNode::InputRecord link;
    link.sidechain = place.sidechain;
    link.send = place.send;

    // A unit with several consumers is held once and linked from each; its
    // cost counts only under the first.
    DSPNode* node = findUnit(scratch.id);
    if (node && node->readPass == rebuildPass) {
        link.node = node;
        parent->inputs.append(link);
        shapeRecords.push_back(
            { node, parent, node->id, node->recordIndex, place.childCount, false, link.send, link.sidechain });
        noteRecordTopology(node, parent, false);
        return true;
    }
    if (!node) {
        node = new DSPNode;
        nodesById.insert(scratch.id, node);
    }
    takeRecord(node, record, place.childCount);
    node->recordIndex = int(shapeRecords.size());
    shapeRecords.push_back(
        { node, parent, node->id, node->recordIndex, place.childCount, true, link.send, link.sidechain });
    noteRecordTopology(node, parent, true);
    pending->push_back({ node, parent, place.childCount, link });
    return true;
}

// Gives a new or reused unit exactly the state a freshly decoded one has,
// keeping the room its strings and lists already have.
void DSPTree::takeRecord(DSPNode* node, const char* record, int childCount)
{
    node->id = scratch.id;
    node->groupId = scratch.groupId;
    node->sendTargetId = scratch.sendTargetId;
    node->active = scratch.active;
    node->bypass = scratch.bypass;
    node->exclusiveUsage = scratch.exclusiveUsage;
    node->inclusiveUsage = scratch.inclusiveUsage;
    node->inclusiveCPU = 0.0f;
    node->exclusiveCPU = 0.0f;
    node->depth = -1;
    if (node->levels.size() != scratch.levels.size())
        node->levels.resize(scratch.levels.size());
    std::copy_n(scratch.levels.constData(), scratch.levels.size(), node->levels.data());
    node->inputs.clear();
    // The walk before the rebuild checked that this many records follow.
    node->inputs.reserve(childCount);

    // A unit of the last network still holds the index of its record there.
    const int previous = previousRecords.empty() ? -1 : node->recordIndex;
    if (previous >= 0)
        previousRead[previous] = true;
    node->readPass = rebuildPass;

    const int size = recordSize(dspVersion);
    // shapePacket is still the last network's packet while the walk runs.
    const bool nameKnown = previousNamesKnown && previous >= 0
                           && shapeFirstRecord + qint64(previous + 1) * size <= shapePacket.size()
                           && sameRecordName(record, shapePacket.constData() + shapeFirstRecord + previous * size,
                                             dspVersion);
    if (!nameKnown)
        node->name = readRecordName(record, dspVersion);
}

void DSPTree::releaseUnits()
{
    qDeleteAll(nodesById);
    nodesById.clear();
    shapeNodes.clear();
    shapeRecords.clear();
    shapePacket.clear();
    shapeDepths.clear();
}

// Every unit of the network once. The records of the last packet list them
// in one contiguous array, which is far quicker to walk than the table; a
// table edited by hand is walked itself.
template <typename Visit>
void DSPTree::visitUnits(Visit visit)
{
    if (!nodesById.isSharedWith(shapeNodes)) {
        for (DSPNode* node : qAsConst(nodesById))
            visit(node);
        return;
    }
    const int count = int(shapeRecords.size());
    for (int i = 0; i < count; ++i) {
        if (i + Prefetch::Distance < count)
            Prefetch::object(shapeRecords[i + Prefetch::Distance].node);
        const ShapeRecord& shape = shapeRecords[i];
        if (shape.first)
            visit(shape.node);
    }
}

void DSPTree::createDSPUsage()
{
    // A NaN compares unequal to 0 and takes this path too.
    if (cpuUsage != 0.0f) {
        const quint32 headUsage = root.inputs.isEmpty() ? 0 : root.inputs.first().node->inclusiveUsage;
        const float scale = headUsage != 0 ? 1.0f / static_cast<float>(headUsage) : 0.0f;
        const float share = cpuUsage;
        visitUnits([share, scale](DSPNode* node) {
            node->inclusiveCPU = (static_cast<float>(node->inclusiveUsage) * share) * scale;
            node->exclusiveCPU = (static_cast<float>(node->exclusiveUsage) * share) * scale;
        });
        return;
    }
    if (timingRate == 0 || timingLength == 0)
        return;
    // timingRate counts units per second and timingLength units, so this is
    // the span of one update in microseconds. Kept in float: the integer
    // product would overflow for long spans.
    const float span =
        ((static_cast<float>(timingLength) * 1000.0f) * 1000.0f) / static_cast<float>(timingRate);
    visitUnits([span](DSPNode* node) {
        node->inclusiveCPU = static_cast<float>(node->inclusiveUsage) / span;
        node->exclusiveCPU = static_cast<float>(node->exclusiveUsage) / span;
    });
}

void DSPTree::createDSPDepthRecurse(QHash<DSPNode*, bool>* onPath, DSPNode* node)
{
    assignDSPDepths(onPath, node, nodesById.size() + 1);
}

bool DSPTree::readGroupData()
{
    if (network->getNumWaitingPackets(TARN::PacketTypeGroups, TARN::PacketSubtypeData) == 0)
        return false;
    const QByteArray packet = takeNewestPacket(TARN::PacketTypeGroups);

    PacketReader in(packet, TARN::PacketVersionOffset);
    const int version = in.u8();
    if (!in.ok() || version != NewestGroupVersion) {
        emit statusChanged(IncompatibleVersionText);
        return false;
    }

    groupVersion = version;
    if (groupsAsBuilt(packet))
        return true;
    qDeleteAll(groups);
    groups.clear();
    // The count comes from the bytes received, never from a field, and a
    // partial record at the end is ignored.
    const int count = (packet.size() - TARN::ProfilePacketHeaderSize) / GroupRecordSize;
    createGroup(packet.constData() + TARN::ProfilePacketHeaderSize, count);
    rememberGroups(packet);
    return true;
}

// Whether the groups are still exactly what `packet` would build: the same
// bytes as last time, and a list and groups nobody changed by hand since.
bool DSPTree::groupsAsBuilt(const QByteArray& packet) const
{
    if (packet != groupPacket || !groups.isSharedWith(builtGroups))
        return false;
    for (int i = 0; i < groups.size(); ++i) {
        const GroupNode* group = groups.at(i);
        const GroupNode& built = builtGroupValues.at(i);
        if (group->id != built.id || group->parentId != built.parentId || group->guid != built.guid
            || group->name != built.name)
            return false;
    }
    return true;
}

void DSPTree::rememberGroups(const QByteArray& packet)
{
    groupPacket = packet;
    builtGroups = groups;
    builtGroupValues.resize(groups.size());
    for (int i = 0; i < groups.size(); ++i)
        builtGroupValues[i] = *groups.at(i);
}

void DSPTree::createGroup(const char* records, int count)
{
    if (groupVersion != 0 || count <= 0 || count > INT_MAX / GroupRecordSize)
        return;
    PacketReader in(records, count * GroupRecordSize);
    groups.reserve(groups.size() + count);
    for (int i = 0; i < count; ++i) {
        GroupNode* group = new GroupNode;
        group->id = in.u64();
        group->parentId = in.u64();
        group->guid = readGuid(in);
        in.skip(4);
        group->name = in.fixedString(GroupNameWidth);
        groups.append(group);
    }
}

void DSPTree::sendDSPCommandString(QString text)
{
    if (dspVersion < FirstCommandDSPVersion)
        return;
    sendCommandString(TARN::PacketTypeDSPNetwork, DSPCommandVersion, text);
}

void DSPTree::sendDSPCommandEnable(unsigned long long id, bool enable)
{
    sendCommandUnitState(TARN::PacketSubtypeEnable, id, enable);
}

void DSPTree::sendDSPCommandBypass(unsigned long long id, bool bypass)
{
    sendCommandUnitState(TARN::PacketSubtypeBypass, id, bypass);
}

void DSPTree::sendGroupCommandString(QString text)
{
    // Deliberately not gated by the DSP version: groups have their own.
    sendCommandString(TARN::PacketTypeGroups, GroupCommandVersion, text);
}

void DSPTree::sendCommandString(unsigned char type, unsigned char version, const QString& text)
{
    TARN::ProfilePacketCommandString packet = {};
    packet.header =
        TARN::makeHeader(static_cast<quint32>(sizeof packet), type, TARN::PacketSubtypeCommandString, version);
    // Copies up to the terminator, at most 127 bytes, and always leaves the
    // last byte of the field zero; the rest of the field stays zero.
    qstrncpy(packet.text, text.toUtf8().constData(), sizeof packet.text);
    network->sendCommand(&packet.header);
}

void DSPTree::sendCommandUnitState(unsigned char subtype, unsigned long long id, bool state)
{
    if (dspVersion < FirstCommandDSPVersion)
        return;
    TARN::ProfilePacketCommandUnitState packet = {};
    packet.header =
        TARN::makeHeader(static_cast<quint32>(sizeof packet), TARN::PacketTypeDSPNetwork, subtype, DSPCommandVersion);
    // The id lies unaligned in the packed record: assigning through its
    // field type would be a call on a misaligned object, so store the bytes.
    uchar* bytes = reinterpret_cast<uchar*>(&packet);
    qToLittleEndian<quint64>(id, bytes + offsetof(TARN::ProfilePacketCommandUnitState, id));
    packet.state = state ? 1 : 0;
    network->sendCommand(&packet.header);
}
