#include "networkbuilder.h"

#include <QtGlobal>

namespace
{

// About three units in ten are channel slots; at any time roughly two thirds
// of them play, the rest of the budget is the fixed mixer structure.
const int ChannelSlotPercent = 30;
// Fixed units per group of four top-level buses: the default network has
// one such group, larger ones get more groups (under submixes) rather than
// deeper bus nesting.
const int UnitsPerTopGroup = 50;
const int TopGroupSize = 4;
// The four buses of a group and their return.
const int GroupInputs = TopGroupSize + 1;
const int GroupsPerSubmix = NetworkBuilder::MaxInputs / GroupInputs;

const char* const TopNames[] = {"Music", "SFX", "Dialogue", "Ambience", "UI", "Foley", "Cinematics", "Vehicles"};
const int NumTopNames = 8;

const char* const MiddleNames[NumTopNames][4] = {
    {"Score", "Stingers", "Stems", "Layers"},
    {"Weapons", "Impacts", "Explosions", "Debris"},
    {"Voice", "Radio", "Barks", "Crowd"},
    {"Wind", "Birds", "Water", "Room"},
    {"Menu", "HUD", "Alerts", "Map"},
    {"Footsteps", "Cloth", "Hands", "Props"},
    {"Cutscene", "Trailer", "Intro", "Credits"},
    {"Engines", "Tyres", "Horns", "Crashes"},
};

const char* const InnerNames[] = {"Near", "Far", "Layer"};
const char* const ReturnNames[] = {"Reverb Return", "Echo Return", "Hall Return", "Plate Return"};

qint64 power(int base, int exponent)
{
    qint64 result = 1;
    for (int i = 0; i < exponent; ++i)
        result *= base;
    return result;
}

int divideRoundingUp(qint64 dividend, qint64 divisor)
{
    return static_cast<int>((dividend + divisor - 1) / divisor);
}

// Spreads `count` items evenly over `slots`, in order: which slot item `item` takes.
int evenSlot(int item, int count, int slots)
{
    return static_cast<int>(static_cast<qint64>(item) * slots / count);
}

} // namespace

NetworkBuilder::NetworkBuilder(quint64 seed, int units)
    : random(seed)
{
    const int total = qMax(1, units);
    numChannelSlots = total * ChannelSlotPercent / 100;
    budget = total - numChannelSlots;
}

// Ids look like the engine's own object handles. The low 32 bits differ for
// every unit, so the 32-bit ids of the oldest layouts stay unique too.
quint64 NetworkBuilder::unitId(int index)
{
    return 0x00007f3a00000000ULL + 0x10000000ULL + static_cast<quint64>(index) * 0x2c0ULL;
}

quint64 NetworkBuilder::groupId(int index)
{
    return 0x00007f3a00000000ULL + 0x60000000ULL + static_cast<quint64>(index) * 0x140ULL;
}

SimLayout NetworkBuilder::build()
{
    addHead();
    const int topGroups = qMax(1, budget / UnitsPerTopGroup);
    topCount = TopGroupSize * topGroups;
    // A group of four takes at most 15 units (with its share of submixes)
    // out of the 50 it is planned for, so every group is whole.
    planSubmixes(topGroups);
    for (int index = 0; index < topCount && budget > 0; ++index) {
        if (index % TopGroupSize == 0)
            enterSubmixes(index / TopGroupSize, topGroups);
        addTopBus(index);
    }
    for (int index = 0; budget > 0; ++index)
        addNestedBus(index);
    addChannelSlots();
    return layout;
}

int NetworkBuilder::addUnit(UnitKind kind, const QByteArray& name, quint64 groupId, quint16 cost, float restLevel)
{
    const int index = layout.network.units.size();
    SimUnit unit;
    unit.id = unitId(index);
    unit.groupId = groupId;
    unit.name = name;
    layout.network.units.append(unit);

    UnitTraits traits;
    traits.kind = kind;
    traits.baseCost = cost;
    traits.restLevel = restLevel;
    layout.traits.append(traits);
    return index;
}

quint64 NetworkBuilder::addGroup(const QByteArray& name, quint64 parentId)
{
    SimGroup group;
    group.id = groupId(layout.network.groups.size());
    group.parentId = parentId;
    group.name = name;
    // A version 4 GUID from the seed: random bits with the version and variant set.
    group.guid = QUuid(static_cast<uint>(random.next()), static_cast<ushort>(random.next()),
                       static_cast<ushort>((random.next() & 0x0fff) | 0x4000),
                       static_cast<uchar>((random.next() & 0x3f) | 0x80), static_cast<uchar>(random.next()),
                       static_cast<uchar>(random.next()), static_cast<uchar>(random.next()),
                       static_cast<uchar>(random.next()), static_cast<uchar>(random.next()),
                       static_cast<uchar>(random.next()), static_cast<uchar>(random.next()));
    layout.network.groups.append(group);
    return group.id;
}

void NetworkBuilder::link(int consumer, int input, bool send, bool sidechain)
{
    SimInput connection;
    connection.unit = input;
    connection.send = send;
    connection.sidechain = sidechain;
    layout.network.units[consumer].inputs.append(connection);
}

QByteArray NetworkBuilder::uniqueName(const QByteArray& base)
{
    const int uses = ++nameUses[base];
    return uses == 1 ? base : base + ' ' + QByteArray::number(uses);
}

void NetworkBuilder::addHead()
{
    masterGroup = addGroup("Master", 0);
    head = addUnit(UnitKind::Head, "Master", masterGroup, 150, -6.0f);
    layout.traits[head].numChannels = 6; // the output is 5.1
    layout.network.head = head;
    topConsumer = head;
    topGroupId = masterGroup;
    --budget;
}

// With L levels the lowest one needs n submixes and each level above has
// about the L-th root of n times fewer, so the fan-in is alike at every level.
void NetworkBuilder::planSubmixes(int topGroups)
{
    if (topGroups <= GroupsPerSubmix)
        return;
    const int lowest = divideRoundingUp(topGroups, GroupsPerSubmix);
    int levels = 1;
    while (power(MaxInputs, levels) < lowest)
        ++levels;
    int fanOut = 2;
    while (power(fanOut, levels) < lowest)
        ++fanOut;
    for (int level = 1; level <= levels; ++level)
        submixCounts.append(divideRoundingUp(lowest, power(fanOut, levels - level)));
    submixIndex.fill(-1, levels);
    submixUnits.fill(head, levels);
    submixGroups.fill(masterGroup, levels);
}

// Starts the submixes a group of top-level buses goes under, from the first
// level that changes down to the lowest; each child belongs to one parent,
// so a new parent always comes with new children.
void NetworkBuilder::enterSubmixes(int topGroup, int topGroups)
{
    const int levels = submixCounts.size();
    if (levels == 0)
        return;
    QVector<int> wanted(levels);
    wanted[levels - 1] = evenSlot(topGroup, topGroups, submixCounts[levels - 1]);
    for (int level = levels - 1; level > 0; --level)
        wanted[level - 1] = evenSlot(wanted[level], submixCounts[level], submixCounts[level - 1]);
    for (int level = 0; level < levels; ++level) {
        if (wanted[level] == submixIndex[level])
            continue;
        submixIndex[level] = wanted[level];
        addSubmix(level);
    }
    topConsumer = submixUnits.last();
    topGroupId = submixGroups.last();
    returnGroupId = topGroupId;
}

void NetworkBuilder::addSubmix(int level)
{
    const int consumer = level > 0 ? submixUnits[level - 1] : head;
    const quint64 parentGroup = level > 0 ? submixGroups[level - 1] : masterGroup;
    const QByteArray name = uniqueName("Submix");
    submixGroups[level] = addGroup(name, parentGroup);
    submixUnits[level] = addUnit(UnitKind::Bus, name + " Bus", submixGroups[level], 60, -10.0f);
    link(consumer, submixUnits[level]);
    --budget;
}

// The profiler places a unit at its first visit and only draws a line from
// later consumers, walking inputs in order. So whatever a bus shares with a
// neighbour is listed by the earlier bus first, and the return comes right
// after the bus that sends to it.
void NetworkBuilder::addTopBus(int index)
{
    const int bus = startBus(1, -1);
    switch (index % TopGroupSize) {
    case 0:
        addEffect(Fader, bus);
        addEffect(Lowpass, bus);
        break;
    case 1:
        // The send feeds the bus unit itself: two columns from the head
        // through the bus and through the return alike.
        addEffect(budget >= 2 ? Send : Lowpass, bus);
        addEffect(Limiter, bus);
        break;
    case 2:
        addEffect(Fader, bus);
        addEffect(EQ, bus);
        break;
    default: {
        const int keyBus = topBuses.last();
        const int compressor = addEffect(Compressor, bus);
        addEffect(Lowpass, bus);
        keySidechain(compressor, 0, keyBus);
        addSharedGenerator(keyBus, bus);
        break;
    }
    }
    layout.attachPoints.append(buses[bus].tail);
    topBuses.append(bus);
}

// Middle buses go round the top-level ones, inner buses round the middle
// ones, so the nesting stays at most three deep at any size.
void NetworkBuilder::addNestedBus(int index)
{
    const int round = index / 3;
    int parent;
    int level;
    if (index % 3 == 2) {
        level = 3;
        parent = middleBuses[round % middleBuses.size()];
    } else {
        level = 2;
        parent = topBuses[(round * 2 + index % 3) % topBuses.size()];
    }
    const int sibling = buses[parent].lastChild;
    const int bus = startBus(level, parent);
    const int turn = buses[parent].numChildren + parent;
    if (level == 3) {
        // One effect each keeps the innermost buses from widening the picture.
        static const EffectKind innerKinds[] = {Fader, EQ, Lowpass};
        addEffect(innerKinds[turn % 3], bus);
        layout.attachPoints.append(buses[bus].tail);
        return;
    }
    // Neighbouring siblings get different chains; the one before a
    // compressor has two effects, so the compressor can be keyed by it.
    switch (turn % 4) {
    case 0:
        addEffect(Lowpass, bus);
        addEffect(Fader, bus);
        break;
    case 1: {
        const int compressor = addEffect(Compressor, bus);
        addEffect(EQ, bus);
        if (sibling >= 0)
            keySidechain(compressor, 0, sibling);
        break;
    }
    case 2:
        addEffect(EQ, bus);
        break;
    default:
        addEffect(Fader, bus);
        break;
    }
    layout.attachPoints.append(buses[bus].tail);
    middleBuses.append(bus);
}

int NetworkBuilder::startBus(int level, int parent)
{
    Bus bus;
    bus.level = level;
    const Bus* above = parent >= 0 ? &buses[parent] : nullptr;
    bus.top = above ? above->top : topBuses.size();
    bus.name = busName(level, above);
    bus.firstName = random.below(12);
    bus.groupId = addGroup(bus.name, above ? above->groupId : topGroupId);
    bus.unit = addUnit(UnitKind::Bus, bus.name + " Bus", bus.groupId, 60, -10.0f);
    bus.tail = bus.unit;
    link(above ? above->tail : topConsumer, bus.unit);
    --budget;

    const int index = buses.size();
    buses.append(bus);
    if (parent >= 0) {
        buses[parent].lastChild = index;
        ++buses[parent].numChildren;
    }
    return index;
}

QByteArray NetworkBuilder::busName(int level, const Bus* parent)
{
    if (level == 1)
        return uniqueName(TopNames[topBuses.size() % NumTopNames]);
    // Siblings take the names in turn, starting at a random one.
    const int turn = parent->numChildren + parent->firstName;
    if (level == 2)
        return uniqueName(MiddleNames[parent->top % NumTopNames][turn % 4]);
    return uniqueName(parent->name + ' ' + InnerNames[turn % 3]);
}

// Returns -1 once the budget is spent.
int NetworkBuilder::addEffect(EffectKind kind, int bus)
{
    if (budget <= 0)
        return -1;
    static const char* const names[] = {"Fader", "Lowpass", "EQ", "Compressor", "Limiter", "Send"};
    static const quint16 costs[] = {30, 120, 160, 450, 300, 40};
    Bus& owner = buses[bus];
    const UnitKind unitKind = kind == Send ? UnitKind::Send : UnitKind::Effect;
    const int unit = addUnit(unitKind, names[kind], owner.groupId, costs[kind], -12.0f);
    link(owner.tail, unit);
    owner.tail = unit;
    owner.chain.append(unit);
    --budget;

    if (kind == Send) {
        const int target = addReturn();
        layout.network.units[unit].sendTargetId = layout.network.units[target].id;
        link(target, unit, true, false);
    } else if (owner.level > 1) {
        // A few nested effects start switched off or bypassed, as a mixer
        // left mid-session would; compressors stay on so their keys matter.
        SimUnit& record = layout.network.units[unit];
        record.active = kind == Compressor || numEffects % 9 != 4;
        record.bypass = numEffects % 7 == 3;
        ++numEffects;
    }
    return unit;
}

// Returns at the head belong to no channel group: they are fed by sends, not
// by a bus. Under a submix they take its group, so its box holds them.
int NetworkBuilder::addReturn()
{
    const QByteArray name = uniqueName(ReturnNames[numReturns++ % 4]);
    const int unit = addUnit(UnitKind::Return, name, returnGroupId, 1100, -20.0f);
    link(topConsumer, unit);
    --budget;
    return unit;
}

// A room-tone bed mixed under two neighbouring buses. The first lists it
// last, so it ends up on the bottom row of that bus's block, right above the
// second bus.
void NetworkBuilder::addSharedGenerator(int first, int second)
{
    if (budget <= 0)
        return;
    const int unit = addUnit(UnitKind::Generator, uniqueName("Room Tone"), buses[first].groupId, 80, -30.0f);
    link(buses[first].unit, unit);
    link(buses[second].unit, unit);
    --budget;
}

// The key is the unit one step further out in a sibling bus's chain than the
// compressor is in its own, so both of the key's consumers have the same
// depth. The sibling comes earlier in the parent's inputs: its subtree is
// disjoint from the compressor's and every key points to an earlier sibling,
// so no chain of sidechains leads back to where it started.
void NetworkBuilder::keySidechain(int compressor, int chainIndex, int keyBus)
{
    const QVector<int>& chain = buses[keyBus].chain;
    if (compressor >= 0 && chain.size() > chainIndex + 1)
        link(compressor, chain[chainIndex + 1], false, true);
}

void NetworkBuilder::addChannelSlots()
{
    if (layout.attachPoints.isEmpty())
        layout.attachPoints.append(head);
    for (int slot = 0; slot < numChannelSlots; ++slot) {
        const quint16 cost = static_cast<quint16>(20 + random.below(41));
        const int unit = addUnit(UnitKind::Channel, "Channel " + QByteArray::number(slot), 0, cost, -18.0f);
        layout.traits[unit].numChannels = random.chance(0.5f) ? 1 : 2;
        layout.channelUnits.append(unit);
    }
}
