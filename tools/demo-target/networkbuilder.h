#ifndef NETWORKBUILDER_H
#define NETWORKBUILDER_H

#include "simnetwork.h"
#include "simrandom.h"

#include <QByteArray>
#include <QHash>
#include <QVector>

enum class UnitKind
{
    Head,
    Bus,
    Effect,
    Send,
    Return,
    Channel,
    Generator
};

// What the engine needs to know about a unit beyond what goes on the wire.
struct UnitTraits
{
    UnitKind kind = UnitKind::Effect;
    quint16 baseCost = 0; // microseconds per mix block while active
    int numChannels = 2; // output channels, one level each
    float restLevel = -12.0f; // dB the level drifts around
};

// A freshly built network: the fixed units are linked, the channel slots are
// created but idle (nobody lists them as inputs yet).
struct SimLayout
{
    SimNetwork network;
    QVector<UnitTraits> traits; // parallel to network.units
    QVector<int> channelUnits; // unit index of each channel slot
    QVector<int> attachPoints; // units that take playing channels as inputs
};

// Builds a mixer-like network of exactly `units` units in one pass, shaped
// the way a game's mix reads: the head takes the top-level buses and the
// reverb returns; every bus has a short effect chain whose last unit takes
// the child buses (nested up to three deep) and the playing channels.
//
// The top-level buses come in fours: the second one sends to a return that
// follows it, the fourth one's compressor is keyed by the third one's chain,
// and a generator feeds both of these. Every unit with two consumers sits at
// the same distance from the head along both, so the profiler's longest-path
// columns keep it next to both. The result is acyclic whatever the size, and
// no unit has more inputs than a version 6 record can count.
//
// A large game's master cannot take thousands of buses: beyond twelve groups
// of four, whole groups (buses and return together, so shared units keep
// their equal distances) go under submix buses, in as many balanced levels
// as it takes for no unit to have more than MaxInputs fixed inputs.
class NetworkBuilder
{
public:
    enum : int
    {
        MaxInputs = 64 // channels included: the engine attaches them only where there is room
    };

    NetworkBuilder(quint64 seed, int units);

    SimLayout build();

    static quint64 unitId(int index);
    static quint64 groupId(int index);

private:
    enum EffectKind
    {
        Fader,
        Lowpass,
        EQ,
        Compressor,
        Limiter,
        Send
    };

    struct Bus
    {
        int unit = 0;
        QVector<int> chain; // effects from the bus unit outwards
        int tail = 0; // last unit of the chain: child buses and channels feed it
        quint64 groupId = 0;
        int level = 1; // 1 under the head, 3 innermost
        int top = 0; // index into topBuses of the top-level bus above, or of itself
        int lastChild = -1; // index into buses of the newest child bus
        int numChildren = 0;
        int firstName = 0; // where the child buses' names start
        QByteArray name;
    };

    int addUnit(UnitKind kind, const QByteArray& name, quint64 groupId, quint16 cost, float restLevel);
    quint64 addGroup(const QByteArray& name, quint64 parentId);
    void link(int consumer, int input, bool send = false, bool sidechain = false);
    QByteArray uniqueName(const QByteArray& base);

    void addHead();
    void planSubmixes(int topGroups);
    void enterSubmixes(int topGroup, int topGroups);
    void addSubmix(int level);
    void addTopBus(int index);
    void addNestedBus(int index);
    int startBus(int level, int parent);
    QByteArray busName(int level, const Bus* parent);
    int addEffect(EffectKind kind, int bus);
    int addReturn();
    void addSharedGenerator(int first, int second);
    void keySidechain(int compressor, int chainIndex, int keyBus);
    void addChannelSlots();

    SimRandom random;
    int budget;
    int numChannelSlots;
    int topCount = 0;
    int head = 0;
    quint64 masterGroup = 0;
    int numEffects = 0;
    SimLayout layout;
    QVector<Bus> buses;
    QVector<int> topBuses; // indices into buses
    QVector<int> middleBuses;
    // Submixes from the head down: how many each level has, and the one
    // the current group of top-level buses goes under.
    QVector<int> submixCounts;
    QVector<int> submixIndex;
    QVector<int> submixUnits;
    QVector<quint64> submixGroups;
    int topConsumer = 0; // unit the top-level buses and returns feed
    quint64 topGroupId = 0; // channel group their groups nest in
    quint64 returnGroupId = 0;
    int numReturns = 0;
    QHash<QByteArray, int> nameUses;
};

#endif // NETWORKBUILDER_H
