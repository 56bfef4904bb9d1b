#include "dspnettree.h"

#include "prefetch.h"

#include <algorithm>

using namespace DSPRecords;

// A snapshot of the network already built carries the same records in the
// same order with new figures. It is recognised record by record against
// the list kept from the last build, and its figures are written into the
// units in place: no unit, name or list is allocated or freed.

bool DSPTree::updateInPlace(const QByteArray& packet, int version, int firstRecord)
{
    // A table or head changed by hand is not the network last built.
    const bool sameModel = !shapeRecords.empty() && nodesById.isSharedWith(shapeNodes)
                           && root.inputs.size() == 1 && root.inputs.first().node == shapeRecords.front().node;
    if (!sameModel || version != dspVersion || firstRecord != shapeFirstRecord)
        return false;
    if (!stageValues(packet, version, firstRecord))
        return false;
    applyStagedValues(version);
    sumInclusiveUsage();
    createDSPUsage();
    shapePacket = packet;
    ++valueSerial;
    return true;
}

// Reads every record the last network had and checks that it says the
// same about the network: the same unit in the same place, with the same
// inputs, flags, group and send target. The figures are staged, not
// written.
bool DSPTree::stageValues(const QByteArray& packet, int version, int firstRecord)
{
    const int size = recordSize(version);
    if (packet.size() - firstRecord < qint64(shapeRecords.size()) * size)
        return false;
    const char* cursor = packet.constData() + firstRecord;
    const char* end = cursor + qint64(shapeRecords.size()) * size;
    const char* previous = shapePacket.constData() + shapeFirstRecord;
    staged.clear();
    stagedLevelCount = 0;
    const int count = int(shapeRecords.size());
    for (int i = 0; i < count; ++i) {
        if (i + Prefetch::Distance < count)
            Prefetch::object(shapeRecords[i + Prefetch::Distance].node);
        const ShapeRecord& shape = shapeRecords[i];
        const char* record = cursor;
        const char* previousRecord = previous;
        previous += size;
        clearScratch();
        RecordPlace place;
        if (!decodeRecord(&cursor, end, version, &scratch, &place, false))
            return false;
        const DSPNode* node = shape.node;
        if (scratch.id != node->id || place.send != shape.send || place.sidechain != shape.sidechain)
            return false;
        if (!shape.first)
            continue;
        if (place.childCount != shape.childCount || scratch.groupId != node->groupId
            || scratch.sendTargetId != node->sendTargetId || scratch.active != node->active) {
            return false;
        }
        staged.append({ shape.node, record, scratch.exclusiveUsage, stagedLevelCount, scratch.levels.size(),
                        scratch.bypass, !sameRecordName(record, previousRecord, version) });
        stageLevels();
    }
    return true;
}

// Resets the record scratch unit but for its level list, which every
// record sets anew: kept at its size, it is mostly not resized at all.
void DSPTree::clearScratch()
{
    // Field by field: a fresh unit per record cost building and destroying
    // its string and lists each time. Every field a record may leave
    // unwritten (older versions carry fewer) gets its default.
    scratch.id = 0;
    scratch.groupId = 0;
    scratch.sendTargetId = 0;
    scratch.name.clear();
    scratch.active = false;
    scratch.bypass = false;
    scratch.inclusiveUsage = 0;
    scratch.inclusiveCPU = 0.0f;
    scratch.exclusiveUsage = 0;
    scratch.exclusiveCPU = 0.0f;
    scratch.inputs.clear();
    scratch.depth = -1;
    scratch.walkIndex = -1;
    scratch.recordIndex = -1;
}

// Copies the scratch unit's levels behind those staged so far. The list
// grows by doubling and is never cut: resized once per record, its size
// would be adjusted, and checked for sharing, for every unit of every update.
void DSPTree::stageLevels()
{
    const int start = stagedLevelCount;
    const int end = start + scratch.levels.size();
    if (end > stagedLevels.size())
        stagedLevels.resize(qMax(end, 2 * stagedLevels.size()));
    std::copy_n(scratch.levels.constData(), scratch.levels.size(), stagedLevels.data() + start);
    stagedLevelCount = end;
}

void DSPTree::applyStagedValues(int version)
{
    const int count = staged.size();
    for (int i = 0; i < count; ++i) {
        // The units were loaded while staging; only their level lists are new.
        if (i + Prefetch::Distance < count)
            Prefetch::block(staged.at(i + Prefetch::Distance).node->levels);
        const StagedValues& values = staged.at(i);
        DSPNode* node = values.node;
        node->bypass = values.bypass;
        node->exclusiveUsage = values.exclusiveUsage;
        node->inclusiveUsage = values.exclusiveUsage;
        node->inclusiveCPU = 0.0f;
        node->exclusiveCPU = 0.0f;
        if (values.nameChanged)
            node->name = readRecordName(values.record, version);
        if (node->levels.size() != values.levelCount)
            node->levels.resize(values.levelCount);
        std::copy_n(stagedLevels.constData() + values.levelStart, values.levelCount, node->levels.data());
    }
}

// A unit's inclusive cost is its own plus that of the units first read
// below it. Records come parent first, so going backwards every unit is
// complete before it is added to its parent.
void DSPTree::sumInclusiveUsage()
{
    root.inclusiveUsage = 0;
    for (int i = int(shapeRecords.size()) - 1; i >= 0; --i) {
        if (i >= Prefetch::Distance)
            Prefetch::object(shapeRecords[i - Prefetch::Distance].node);
        const ShapeRecord& shape = shapeRecords[i];
        if (shape.first)
            shape.parent->inclusiveUsage += shape.node->inclusiveUsage;
    }
}
