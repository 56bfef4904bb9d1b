#ifndef SIMENGINE_H
#define SIMENGINE_H

#include "networkbuilder.h"
#include "simnetwork.h"
#include "simrandom.h"

#include <QHash>
#include <QVector>

// A figure that drifts toward a target and picks a new one now and then, so
// the graphs move like a game's load instead of jumping about.
struct SmoothValue
{
    float value = 0.0f;
    float target = 0.0f;
    float low = 0.0f;
    float high = 0.0f;

    void reset(SimRandom& random, float lowest, float highest);
    void step(SimRandom& random);
};

// The simulated audio engine. It advances in fixed steps of StepMs of game
// time; what it holds after n steps depends only on the seed, the size and
// the commands applied in between, never on the wall clock.
class SimEngine
{
public:
    enum : int
    {
        StepMs = 50
    };

    SimEngine(quint64 seed, int units);

    void step();
    qint64 getStepCount() const { return stepCount; }
    // Changes with every step and every command, so encoded packets can be cached.
    quint64 getRevision() const { return revision; }

    const SimNetwork& getNetwork() const { return layout.network; }
    const SimFigures& getFigures() const { return figures; }
    int getNumChannelSlots() const { return channels.size(); }
    int getNumPlayingChannels() const { return numPlaying; }

    // Commands from the profiler; false when no unit has that id.
    bool setUnitActive(quint64 id, bool active);
    bool setUnitBypass(quint64 id, bool bypass);

    // Starts a sound on every idle channel and lets every sound play on for
    // good, for fixed-size benchmark networks whose shape stays put.
    void playAllChannels();

private:
    struct Channel
    {
        bool playing = false;
        int remainingSteps = 0;
        int attachPoint = -1; // unit index
        float loudness = -18.0f; // dB
    };

    float budgetScale() const;
    int attachPointWithRoom(int first) const;
    void startChannel(int slot, int steps);
    void stopChannel(int slot);
    void stepChannels();
    float channelRate() const;
    void driftLevel(int unit);
    void refreshUnit(int unit);
    void refreshTotals();
    void stepFigures();
    int findUnit(quint64 id) const;

    SimRandom random;
    SimLayout layout;
    QVector<Channel> channels;
    QVector<float> levelDb; // drifting level per unit
    QVector<float> costScale; // drifting cost factor per unit
    float loadScale = 1.0f; // what the whole network's costs are scaled by to fit its budget
    QHash<quint64, int> unitById;
    int numFixedUnits = 0;
    int numPlaying = 0;
    qint64 stepCount = 0;
    quint64 revision = 0;
    SimFigures figures;
    SmoothValue streamLoad;
    SmoothValue updateLoad;
    SmoothValue geometryLoad;
    SmoothValue virtualShare;
    SmoothValue memoryShare;
    SmoothValue codecShare[NumCodecs];
};

#endif // SIMENGINE_H
