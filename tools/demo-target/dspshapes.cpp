#include "dspshapes.h"

#include "networkbuilder.h"
#include "packetencoder.h"
#include "simengine.h"

#include <QVector>

namespace DSPShapes
{

namespace
{

SimUnit makeLadderUnit(int index, const QByteArray& name, int steps)
{
    const int drift = index + 7 * steps;
    SimUnit unit;
    unit.id = NetworkBuilder::unitId(index);
    unit.name = name;
    unit.exclusiveUsage = static_cast<quint16>(40 + drift % 60);
    unit.levels = {static_cast<qint8>(-6 - drift % 30), static_cast<qint8>(-9 - drift % 30)};
    return unit;
}

void linkInput(SimNetwork* network, int consumer, int input)
{
    SimInput link;
    link.unit = input;
    network->units[consumer].inputs.append(link);
}

SimNetwork makeTree(int units, quint64 seed, int steps)
{
    SimEngine engine(seed, units);
    // Channels started this way never stop, so stepping only drifts values.
    engine.playAllChannels();
    for (int i = 0; i < steps; ++i)
        engine.step();
    return engine.getNetwork();
}

SimNetwork makeDiamondLadder(int units, int steps)
{
    SimNetwork network;
    network.units.append(makeLadderUnit(0, "Master", steps));
    int above[2] = {0, 0}; // the head counts as both units of the rung above
    int rung = 1;
    while (network.units.size() < units) {
        const int first = network.units.size();
        const int width = qMin(2, units - first);
        for (int side = 0; side < width; ++side) {
            const QByteArray name = "Rung " + QByteArray::number(rung) + (side == 0 ? " A" : " B");
            network.units.append(makeLadderUnit(first + side, name, steps));
        }
        for (int side = 0; side < width; ++side) {
            linkInput(&network, above[0], first + side);
            if (above[1] != above[0])
                linkInput(&network, above[1], first + side);
        }
        above[0] = first;
        above[1] = first + width - 1;
        ++rung;
    }
    return network;
}

// Every eighth unit at depth three or more lists its grandparent again, so
// the packet walks back into a unit that is still open above it.
SimNetwork makeCycles(int units, quint64 seed, int steps)
{
    SimNetwork network = makeTree(units, seed, steps);
    QVector<int> parent(network.units.size(), -1);
    QVector<int> depth(network.units.size(), -1);
    QVector<int> order;
    order.reserve(network.units.size());
    depth[network.head] = 0;
    order.append(network.head);
    for (int i = 0; i < order.size(); ++i) {
        for (const SimInput& input : qAsConst(network.units[order[i]].inputs)) {
            if (depth[input.unit] >= 0)
                continue;
            depth[input.unit] = depth[order[i]] + 1;
            parent[input.unit] = order[i];
            order.append(input.unit);
        }
    }
    for (int i = 0; i < order.size(); i += 8) {
        const int unit = order[i];
        if (depth[unit] >= 3)
            linkInput(&network, unit, parent[parent[unit]]);
    }
    return network;
}

} // namespace

SimNetwork makeNetwork(DSPShape shape, int units, quint64 seed, int steps)
{
    switch (shape) {
    case DSPShape::DiamondLadder:
        return makeDiamondLadder(qMax(1, units), steps);
    case DSPShape::Cycles:
        return makeCycles(units, seed, steps);
    case DSPShape::Tree:
        break;
    }
    return makeTree(units, seed, steps);
}

QByteArray makeDSPPacket(DSPShape shape, int units, quint64 seed)
{
    return PacketEncoder::encodeDSP(makeNetwork(shape, units, seed), PacketEncoder::NewestDSPVersion);
}

} // namespace DSPShapes
