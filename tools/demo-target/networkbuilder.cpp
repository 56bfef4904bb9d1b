#include "networkbuilder.h"

#include <QtGlobal>

namespace
{

// About three units in ten are channel slots; at any time roughly two thirds
// of them play, the rest of the budget is the fixed mixer structure.
const int ChannelSlotPercent = 30;
// Buses per top-level submix once the network grows past the default size.
const int UnitsPerTopBus = 36;
const int UnitsPerReturn = 5000;

const char* const TopNames[] = {"Music", "SFX", "Dialogue", "Ambience", "UI"};
const int NumTopNames = 5;

const char* const MiddleNames[NumTopNames][4] = {
    {"Stems", "Stingers", "Score", "Layers"},
    {"Weapons", "Footsteps", "Impacts", "Vehicles"},
    {"Voice", "Radio", "Barks", "Crowd"},
    {"Wind", "Birds", "Water", "Room"},
    {"Menu", "HUD", "Alerts", "Map"},
};

const char* const InnerNames[] = {"Near", "Far", "Layer"};
const char* const ReturnNames[] = {"Reverb Return", "Echo Return", "Hall Return", "Plate Return"};

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
    addReturns();
    topCount = qMax(NumTopNames, budget / UnitsPerTopBus);
    for (int index = 0; budget > 0; ++index)
        addBus(index);
    // Returns come last under the head, so their send inputs are already on
    // the wire when the returns list them again.
    linkReturns();
    linkSidechains();
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
    --budget;
}

// Returns belong to no channel group: they are fed by sends, not by a bus.
void NetworkBuilder::addReturns()
{
    if (budget < 3)
        return;
    const int count = qMin(1 + budget / UnitsPerReturn, budget - 2);
    for (int i = 0; i < count; ++i) {
        const QByteArray name = uniqueName(ReturnNames[i % 4]);
        returns.append(addUnit(UnitKind::Return, name, 0, 1100, -20.0f));
        --budget;
    }
}

void NetworkBuilder::addBus(int index)
{
    Bus bus;
    const Bus* parent = nullptr;
    int level = 1;
    if (index >= topCount) {
        const int nested = index - topCount;
        level = (nested % 3 == 2) ? 3 : 2;
        parent = level == 3 ? &buses[middleBuses[(nested / 3) % middleBuses.size()]]
                            : &buses[topBuses[((nested / 3) * 2 + nested % 3) % topBuses.size()]];
        bus.top = parent->top;
    } else {
        bus.top = topBuses.size();
    }
    bus.name = busName(level, parent);
    bus.groupId = addGroup(bus.name, parent ? parent->groupId : masterGroup);
    bus.unit = addUnit(UnitKind::Bus, bus.name + " Bus", bus.groupId, 60, -10.0f);
    bus.tail = bus.unit;
    link(parent ? parent->tail : head, bus.unit);
    --budget;

    addEffectChain(index, &bus);
    layout.attachPoints.append(bus.tail);
    if (level == 1)
        topBuses.append(buses.size());
    else if (level == 2)
        middleBuses.append(buses.size());
    buses.append(bus);
}

QByteArray NetworkBuilder::busName(int level, const Bus* parent)
{
    if (level == 1)
        return uniqueName(TopNames[topBuses.size() % NumTopNames]);
    if (level == 2) {
        const int kind = parent->top % NumTopNames;
        return uniqueName(MiddleNames[kind][random.below(4)]);
    }
    return uniqueName(parent->name + ' ' + InnerNames[random.below(3)]);
}

// Chains follow a short rotation so every kind of effect shows up early.
void NetworkBuilder::addEffectChain(int index, Bus* bus)
{
    switch (index % 4) {
    case 0:
        addEffect(Lowpass, bus);
        addEffect(Send, bus);
        break;
    case 1:
        addEffect(Compressor, bus);
        break;
    case 2:
        addEffect(EQ, bus);
        addEffect(Send, bus);
        break;
    default:
        addEffect(Limiter, bus);
        break;
    }
}

void NetworkBuilder::addEffect(EffectKind kind, Bus* bus)
{
    if (budget <= 0)
        return;
    if (kind == Send && returns.isEmpty())
        kind = Lowpass;

    static const char* const names[] = {"Lowpass", "EQ", "Compressor", "Limiter", "Send"};
    static const quint16 costs[] = {120, 160, 450, 300, 40};
    const UnitKind unitKind = kind == Send ? UnitKind::Send : UnitKind::Effect;
    const int unit = addUnit(unitKind, names[kind], bus->groupId, costs[kind], -12.0f);
    link(bus->tail, unit);
    bus->tail = unit;
    --budget;

    // A few effects start switched off or bypassed, as a mixer left mid-session would.
    SimUnit& record = layout.network.units[unit];
    record.active = numEffects % 9 != 4;
    record.bypass = numEffects % 7 == 3;
    ++numEffects;

    if (kind == Send)
        record.sendTargetId = layout.network.units[returns[numSends++ % returns.size()]].id;
    if (kind == Compressor)
        compressors.append(qMakePair(unit, bus->top));
}

void NetworkBuilder::linkReturns()
{
    for (int index : qAsConst(returns))
        link(head, index);
    for (int unit = 0; unit < layout.network.units.size(); ++unit) {
        const quint64 target = layout.network.units[unit].sendTargetId;
        if (target == 0)
            continue;
        for (int index : qAsConst(returns)) {
            if (layout.network.units[index].id == target)
                link(index, unit, true, false);
        }
    }
}

// A compressor is keyed by the next top-level bus along. Keys only ever point
// to a later top bus, whose subtree is disjoint from the compressor's own, so
// no chain of sidechains can lead back to where it started.
void NetworkBuilder::linkSidechains()
{
    for (const auto& compressor : qAsConst(compressors)) {
        const int keyTop = compressor.second + 1;
        if (keyTop < topBuses.size())
            link(compressor.first, buses[topBuses[keyTop]].unit, false, true);
    }
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
