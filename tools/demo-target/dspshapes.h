#ifndef DSPSHAPES_H
#define DSPSHAPES_H

#include "simnetwork.h"

#include <QByteArray>

// Networks of an exact size and a chosen shape, for benchmarks and fuzz
// seeds, without a server or a running engine.
namespace DSPShapes
{

enum class DSPShape
{
    // The engine's own network with every channel slot playing.
    Tree,
    // A head over rungs of two units, each unit an input of both units of
    // the rung above, so every unit below the top rung feeds two consumers.
    DiamondLadder,
    // The tree, with some units listing an ancestor as an extra input.
    Cycles
};

// After `steps` engine steps the network has the same units and inputs with
// new costs and levels, as a running game's next snapshots do.
SimNetwork makeNetwork(DSPShape shape, int units, quint64 seed = 1, int steps = 0);
// A version 6 DSP packet of that network.
QByteArray makeDSPPacket(DSPShape shape, int units, quint64 seed = 1);

} // namespace DSPShapes

#endif // DSPSHAPES_H
