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
    Channel
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

// Builds a mixer-like network of about `units` units in one pass: a head
// unit, returns, submixes nested up to three deep with effect chains, sends
// and sidechains, and idle channel slots. The result is acyclic whatever the
// size, and no unit has more inputs than a version 6 record can count.
class NetworkBuilder
{
public:
    NetworkBuilder(quint64 seed, int units);

    SimLayout build();

    static quint64 unitId(int index);
    static quint64 groupId(int index);

private:
    enum EffectKind
    {
        Lowpass,
        EQ,
        Compressor,
        Limiter,
        Send
    };

    struct Bus
    {
        int unit = 0;
        int tail = 0; // last unit of the effect chain: sub-buses and channels feed it
        quint64 groupId = 0;
        int top = 0; // index into topBuses of the bus this one is nested in
        QByteArray name;
    };

    int addUnit(UnitKind kind, const QByteArray& name, quint64 groupId, quint16 cost, float restLevel);
    quint64 addGroup(const QByteArray& name, quint64 parentId);
    void link(int consumer, int input, bool send = false, bool sidechain = false);
    QByteArray uniqueName(const QByteArray& base);

    void addHead();
    void addReturns();
    void addBus(int index);
    QByteArray busName(int level, const Bus* parent);
    void addEffectChain(int index, Bus* bus);
    void addEffect(EffectKind kind, Bus* bus);
    void linkReturns();
    void linkSidechains();
    void addChannelSlots();

    SimRandom random;
    int budget;
    int numChannelSlots;
    int topCount = 0;
    int head = 0;
    quint64 masterGroup = 0;
    int numEffects = 0;
    int numSends = 0;
    SimLayout layout;
    QVector<Bus> buses;
    QVector<int> topBuses; // indices into buses
    QVector<int> middleBuses;
    QVector<int> returns; // unit indices
    QVector<QPair<int, int>> compressors; // unit index, top bus
    QHash<QByteArray, int> nameUses;
};

#endif // NETWORKBUILDER_H
