#include "simengine.h"

#include <QtGlobal>

#include <limits>

namespace
{

// Sounds last from half a second to six and a half; with this start rate
// about two thirds of the channel slots play on average.
const int MinSoundSteps = 10;
const int SoundStepSpread = 121;
const float BaseStartChance = 0.026f;
// Game intensity rises and falls over half a minute, and the channel count with it.
const int IntensityPeriodSteps = 600;
// The last steps of a sound fade it out instead of cutting it.
const int ReleaseSteps = 3;
const float SilentDb = -80.0f;
// A game gives its mixer a share of each mix block. A network that would
// cost more at full price (from about 120 units) is priced down to it,
// as a real engine would be tuned to fit, so the load stays believable.
const float LoadBudget = 0.5f;
const float PlayingShare = 2.0f / 3.0f;

const qint32 CodecBaseCapacity[NumCodecs] = {32, 16, 16, 32, 0, 0, 64};
const qint32 MegaByte = 1024 * 1024;

float blockMicroseconds(const SimNetwork& network)
{
    return static_cast<float>(network.timingLength) * 1000000.0f / network.timingRate;
}

// Where a unit's cost is cut to whole microseconds. Full-price costs are
// rounded; scaled-down ones are mostly below a microsecond, and offsets
// spread over [0, 1) make the truncated costs add up to the scaled total.
float roundingOffset(int unit, bool scaled)
{
    if (!scaled)
        return 0.5f;
    const double golden = 0.6180339887498949;
    const double product = unit * golden;
    return static_cast<float>(product - static_cast<qint64>(product));
}

} // namespace

void SmoothValue::reset(SimRandom& random, float lowest, float highest)
{
    low = lowest;
    high = highest;
    value = random.range(low, high);
    target = random.range(low, high);
}

void SmoothValue::step(SimRandom& random)
{
    const bool arrived = qAbs(target - value) < (high - low) * 0.02f;
    if (random.chance(0.05f) || arrived)
        target = random.range(low, high);
    value += (target - value) * 0.1f;
}

// The engine draws from its own stream, not the builder's, so changing how
// the network is built does not change how the same network then behaves.
SimEngine::SimEngine(quint64 seed, int units)
    : random(seed ^ 0x6a09e667f3bcc909ULL)
    , layout(NetworkBuilder(seed, units).build())
{
    const SimNetwork& network = layout.network;
    numFixedUnits = network.units.size() - layout.channelUnits.size();
    channels.resize(layout.channelUnits.size());
    levelDb.resize(network.units.size());
    costScale.fill(1.0f, network.units.size());
    unitById.reserve(network.units.size());
    for (int unit = 0; unit < network.units.size(); ++unit) {
        unitById.insert(network.units[unit].id, unit);
        levelDb[unit] = layout.traits[unit].restLevel;
    }
    loadScale = budgetScale();

    // The game is already running when the profiler looks in.
    for (int slot = 0; slot < channels.size(); ++slot) {
        if (random.chance(0.6f))
            startChannel(slot, 1 + random.below(MinSoundSteps + SoundStepSpread));
    }

    const int slots = channels.size();
    figures.hardwareCapacity = slots >= 8 ? 8 : 0;
    figures.softwareCapacity = slots - figures.hardwareCapacity;
    figures.virtualCapacity = qMax(256, slots * 8);
    const int codecScale = qMax(1, slots / 64);
    for (int codec = 0; codec < NumCodecs; ++codec) {
        figures.codecCapacity[codec] = CodecBaseCapacity[codec] * codecScale;
        codecShare[codec].reset(random, 0.05f, 0.85f);
    }
    figures.memoryCapacity = qMin(128 * MegaByte + slots * 64 * 1024, 1536 * MegaByte);
    streamLoad.reset(random, 0.5f, 4.0f);
    updateLoad.reset(random, 1.5f, 6.0f);
    geometryLoad.reset(random, 0.2f, 1.8f);
    virtualShare.reset(random, 0.05f, 0.35f);
    memoryShare.reset(random, 0.3f, 0.5f);

    for (int unit = 0; unit < network.units.size(); ++unit)
        refreshUnit(unit);
    refreshTotals();
}

void SimEngine::step()
{
    ++stepCount;
    stepChannels();
    for (int unit = 0; unit < numFixedUnits; ++unit) {
        driftLevel(unit);
        refreshUnit(unit);
    }
    for (int slot = 0; slot < channels.size(); ++slot) {
        if (!channels[slot].playing)
            continue;
        driftLevel(layout.channelUnits[slot]);
        refreshUnit(layout.channelUnits[slot]);
    }
    streamLoad.step(random);
    updateLoad.step(random);
    geometryLoad.step(random);
    virtualShare.step(random);
    memoryShare.step(random);
    for (SmoothValue& share : codecShare)
        share.step(random);
    refreshTotals();
    ++revision;
}

bool SimEngine::setUnitActive(quint64 id, bool active)
{
    const int unit = findUnit(id);
    if (unit < 0)
        return false;
    layout.network.units[unit].active = active;
    refreshUnit(unit);
    refreshTotals();
    ++revision;
    return true;
}

bool SimEngine::setUnitBypass(quint64 id, bool bypass)
{
    const int unit = findUnit(id);
    if (unit < 0)
        return false;
    layout.network.units[unit].bypass = bypass;
    refreshUnit(unit);
    refreshTotals();
    ++revision;
    return true;
}

void SimEngine::playAllChannels()
{
    for (int slot = 0; slot < channels.size(); ++slot) {
        if (channels[slot].playing) {
            channels[slot].remainingSteps = std::numeric_limits<int>::max();
            continue;
        }
        startChannel(slot, std::numeric_limits<int>::max());
        refreshUnit(layout.channelUnits[slot]);
    }
    refreshTotals();
    ++revision;
}

// The full-price cost of the fixed units and of the channels that play on
// average, against the budget.
float SimEngine::budgetScale() const
{
    double nominal = 0.0;
    for (int unit = 0; unit < layout.traits.size(); ++unit)
        nominal += layout.traits[unit].baseCost * (unit < numFixedUnits ? 1.0 : PlayingShare);
    const double budget = LoadBudget * blockMicroseconds(layout.network);
    return nominal > budget ? static_cast<float>(budget / nominal) : 1.0f;
}

// The drawn attach point or, if it is full, the next one with room; -1 if
// none has any, which the builder's few channels per bus never come near.
int SimEngine::attachPointWithRoom(int first) const
{
    const QVector<int>& points = layout.attachPoints;
    for (int i = 0; i < points.size(); ++i) {
        const int point = points[(first + i) % points.size()];
        if (layout.network.units[point].inputs.size() < NetworkBuilder::MaxInputs)
            return point;
    }
    return -1;
}

void SimEngine::startChannel(int slot, int steps)
{
    const int attachPoint = attachPointWithRoom(random.below(layout.attachPoints.size()));
    if (attachPoint < 0)
        return;
    Channel& channel = channels[slot];
    channel.playing = true;
    channel.remainingSteps = steps;
    channel.attachPoint = attachPoint;
    channel.loudness = random.range(-30.0f, -6.0f);

    const int unit = layout.channelUnits[slot];
    SimUnit& record = layout.network.units[unit];
    record.groupId = layout.network.units[channel.attachPoint].groupId;
    levelDb[unit] = channel.loudness - 18.0f; // the attack is still rising

    SimInput input;
    input.unit = unit;
    layout.network.units[channel.attachPoint].inputs.append(input);
    ++numPlaying;
}

void SimEngine::stopChannel(int slot)
{
    Channel& channel = channels[slot];
    const int unit = layout.channelUnits[slot];
    QVector<SimInput>& inputs = layout.network.units[channel.attachPoint].inputs;
    for (int i = inputs.size() - 1; i >= 0; --i) {
        if (inputs[i].unit == unit) {
            inputs.remove(i);
            break;
        }
    }
    channel.playing = false;
    channel.attachPoint = -1;
    --numPlaying;
}

void SimEngine::stepChannels()
{
    const float chance = channelRate();
    for (int slot = 0; slot < channels.size(); ++slot) {
        Channel& channel = channels[slot];
        if (channel.playing) {
            if (--channel.remainingSteps <= 0)
                stopChannel(slot);
        } else if (random.chance(chance)) {
            startChannel(slot, MinSoundSteps + random.below(SoundStepSpread));
        }
    }
}

float SimEngine::channelRate() const
{
    const float phase = static_cast<float>(stepCount % IntensityPeriodSteps) / IntensityPeriodSteps;
    const float triangle = phase < 0.5f ? phase * 2.0f : 2.0f - phase * 2.0f;
    return BaseStartChance * (0.6f + 0.8f * triangle);
}

void SimEngine::driftLevel(int unit)
{
    float target = layout.traits[unit].restLevel;
    if (unit >= numFixedUnits) {
        const Channel& channel = channels[unit - numFixedUnits];
        target = channel.remainingSteps <= ReleaseSteps ? -60.0f : channel.loudness;
    }
    levelDb[unit] += (target - levelDb[unit]) * 0.2f + random.range(-2.0f, 2.0f);
    costScale[unit] = qBound(0.85f, costScale[unit] + random.range(-0.03f, 0.03f), 1.15f);
}

// Derives the wire fields from the drifting state without drawing numbers, so
// a command shows in the very next snapshot without disturbing the sequence.
void SimEngine::refreshUnit(int unit)
{
    SimUnit& record = layout.network.units[unit];
    const UnitTraits& traits = layout.traits[unit];
    record.levels.resize(traits.numChannels);
    for (int channel = 0; channel < traits.numChannels; ++channel) {
        // Later channels of a bus carry a little less: surrounds and LFE.
        const float level = record.active ? levelDb[unit] - 1.5f * channel : SilentDb;
        record.levels[channel] = static_cast<qint8>(qBound(-80, static_cast<int>(level), 10));
    }

    // An inactive unit costs nothing; a bypassed one only passes its buffer
    // on, a microsecond at full price.
    float fullPrice = traits.baseCost * costScale[unit];
    if (!record.active)
        fullPrice = 0.0f;
    else if (record.bypass)
        fullPrice = 1.0f;
    const int cost = static_cast<int>(fullPrice * loadScale + roundingOffset(unit, loadScale < 1.0f));
    record.exclusiveUsage = static_cast<quint16>(qBound(0, cost, 65535));
}

void SimEngine::refreshTotals()
{
    SimNetwork& network = layout.network;
    quint64 total = 0;
    for (int unit = 0; unit < numFixedUnits; ++unit)
        total += network.units[unit].exclusiveUsage;
    for (int slot = 0; slot < channels.size(); ++slot) {
        if (channels[slot].playing)
            total += network.units[layout.channelUnits[slot]].exclusiveUsage;
    }
    network.cpuUsage = static_cast<float>(total) / blockMicroseconds(network);

    figures.dsp = network.cpuUsage * 100.0f;
    figures.stream = streamLoad.value;
    figures.update = updateLoad.value;
    figures.geometry = geometryLoad.value;
    // A third of the sounds go to hardware voices, more once software is full.
    figures.hardwareUsed = qMax(numPlaying - figures.softwareCapacity, qMin(figures.hardwareCapacity, numPlaying / 3));
    figures.softwareUsed = numPlaying - figures.hardwareUsed;
    const int idleVirtual = figures.virtualCapacity - numPlaying;
    figures.virtualUsed = numPlaying + static_cast<int>(virtualShare.value * idleVirtual);
    for (int codec = 0; codec < NumCodecs; ++codec)
        figures.codecUsed[codec] = static_cast<int>(codecShare[codec].value * figures.codecCapacity[codec]);
    const qint64 memory = static_cast<qint64>(memoryShare.value * figures.memoryCapacity) + numPlaying * 32 * 1024;
    figures.memoryUsed = static_cast<qint32>(qMin<qint64>(memory, figures.memoryCapacity));
}

int SimEngine::findUnit(quint64 id) const
{
    return unitById.value(id, -1);
}
