#ifndef BENCHCASES_H
#define BENCHCASES_H

#include "dspshapes.h"

#include <QByteArray>
#include <QImage>
#include <QRect>
#include <QSize>
#include <QString>
#include <QVector>

#include <memory>

class ChannelHistory;
class CodecHistory;
class CPUHistory;
class DSPNetGraph;
class DSPTree;
class LineGraph;
class LineGraphControl;
class ProfilerNetwork;
class StatsHistory;

// The four history collectors, attached to a network in the order the main
// form creates them.
struct HistoryCollectors
{
    explicit HistoryCollectors(ProfilerNetwork* network);
    ~HistoryCollectors();

    CPUHistory* cpu;
    ChannelHistory* channels;
    CodecHistory* codecs;
    StatsHistory* stats;
};

// Everything one network size and shape needs, built once and reused by
// every stage so that a stage times only its own work.
struct NetworkCase
{
    static constexpr int ViewportWidth = 1200;
    static constexpr int ViewportHeight = 700;
    // A whole-graph image larger than this is not allocated: 64 MB is
    // already more than a saved picture should cost.
    static constexpr int MaxImageSide = 4096;

    NetworkCase(DSPShapes::DSPShape shape, int units);
    ~NetworkCase();

    QByteArray dspPacket;
    // The same network one engine step later: new costs and levels, as in
    // the next snapshot of a running game. Alternated with dspPacket.
    QByteArray driftedPacket;
    // The network with one unit switched off: the model and the layout
    // are rebuilt. Alternated with dspPacket.
    QByteArray changedPacket;
    // The packet the model was given last; the pairs alternate across
    // benchmark runs too, so a run of one iteration still sees a change.
    const QByteArray* lastFed = nullptr;
    // The packet as the socket hands it over: at most one read pass each.
    QVector<QByteArray> dspPacketReads;
    QByteArray copyBuffer;

    // Frames and queues as the application does; a drain stands in for the
    // DSP model so that no decoding is timed with the framing.
    std::unique_ptr<ProfilerNetwork> framingNetwork;
    std::unique_ptr<HistoryCollectors> framingCollectors;

    // The model and the view, their signal connections cut so that each
    // stage is run by hand.
    std::unique_ptr<ProfilerNetwork> network;
    std::unique_ptr<DSPTree> tree;
    std::unique_ptr<DSPNetGraph> graph;

    QSize graphSize;
    int placedUnits = 0;
    QRect viewport;
    QImage viewportImage;
    QImage wholeImage;
    bool wholeCapped = false;
};

// The case for that shape and size; building it frees the previous one, so
// benchmarks registered case by case keep one large network in memory.
NetworkCase& networkCase(DSPShapes::DSPShape shape, int units);
// A case's DSP packet size, or -1 if that case was never built.
qint64 networkCasePacketBytes(DSPShapes::DSPShape shape, int units);
QString networkCaseNote(DSPShapes::DSPShape shape, int units);

// The line graph panel as the application has it, every line switched on
// (the most it draws), fed one packet of each history stream.
struct LineGraphCase
{
    static constexpr int Width = 800;
    static constexpr int Height = 300;

    LineGraphCase();
    ~LineGraphCase();

    QByteArray packets;
    QByteArray copyBuffer;
    std::unique_ptr<ProfilerNetwork> network;
    std::unique_ptr<HistoryCollectors> collectors;
    std::unique_ptr<LineGraph> lineGraph;
    std::unique_ptr<LineGraphControl> control;
    QImage image;
};

LineGraphCase& lineGraphCase();

// A backlog of history packets arriving in one read, as after the
// interface was busy for a while: as many as the queue holds, taken by the
// application's five collectors.
struct BurstCase
{
    static constexpr int PacketsPerStream = 256;

    BurstCase();
    ~BurstCase();

    QByteArray bytes;
    QByteArray copyBuffer;
    std::unique_ptr<ProfilerNetwork> network;
    std::unique_ptr<DSPTree> tree;
    std::unique_ptr<HistoryCollectors> collectors;
};

BurstCase& burstCase();

void releaseBenchCases();

#endif // BENCHCASES_H
