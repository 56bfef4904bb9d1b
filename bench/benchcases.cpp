#include "benchcases.h"

#include "channelhistory.h"
#include "codechistory.h"
#include "cpuhistory.h"
#include "dspnetgraph.h"
#include "dspnettree.h"
#include "linegraph.h"
#include "linegraphcontrol.h"
#include "packetencoder.h"
#include "profilernetwork.h"
#include "simengine.h"
#include "statshistory.h"

#include <QHash>
#include <QPair>

namespace
{

using CaseKey = QPair<int, int>;

CaseKey caseKey(DSPShapes::DSPShape shape, int units)
{
    return qMakePair(static_cast<int>(shape), units);
}

struct CaseFacts
{
    qint64 packetBytes = -1;
    QString note;
};

QHash<CaseKey, CaseFacts>& caseFacts()
{
    static QHash<CaseKey, CaseFacts> facts;
    return facts;
}

// Widgets must go before the application object does, so these are not
// function statics.
std::unique_ptr<NetworkCase> currentCase;
CaseKey currentKey;
std::unique_ptr<LineGraphCase> lineGraphs;
std::unique_ptr<BurstCase> burst;

} // namespace

HistoryCollectors::HistoryCollectors(ProfilerNetwork* network)
    : cpu(new CPUHistory(network))
    , channels(new ChannelHistory(network))
    , codecs(new CodecHistory(network))
    , stats(new StatsHistory(network))
{
}

HistoryCollectors::~HistoryCollectors()
{
    delete stats;
    delete codecs;
    delete channels;
    delete cpu;
}

NetworkCase::NetworkCase(DSPShapes::DSPShape shape, int units)
{
    const SimNetwork simulated = DSPShapes::makeNetwork(shape, units);
    dspPacket = PacketEncoder::encodeDSP(simulated, PacketEncoder::NewestDSPVersion);
    driftedPacket = PacketEncoder::encodeDSP(DSPShapes::makeNetwork(shape, units, 1, 1),
                                             PacketEncoder::NewestDSPVersion);
    SimNetwork changed = simulated;
    SimUnit& switched = changed.units[changed.units[changed.head].inputs.first().unit];
    switched.active = !switched.active;
    changedPacket = PacketEncoder::encodeDSP(changed, PacketEncoder::NewestDSPVersion);
    copyBuffer.resize(dspPacket.size());
    for (int offset = 0; offset < dspPacket.size(); offset += int(ProfilerNetwork::MaxReadPerPass))
        dspPacketReads.append(dspPacket.mid(offset, int(ProfilerNetwork::MaxReadPerPass)));

    framingNetwork.reset(new ProfilerNetwork);
    // Takes the DSP packets the way the model does, newest kept, and drops
    // them undecoded.
    ProfilerNetwork* framing = framingNetwork.get();
    QObject::connect(framing, &ProfilerNetwork::packetReady, framing, [framing] {
        const int waiting = framing->getNumWaitingPackets(TARN::PacketTypeDSPNetwork, TARN::PacketSubtypeData);
        for (int i = 0; i < waiting; ++i)
            framing->getPacket(TARN::PacketTypeDSPNetwork, TARN::PacketSubtypeData);
    });
    framingCollectors.reset(new HistoryCollectors(framing));

    network.reset(new ProfilerNetwork);
    tree.reset(new DSPTree(network.get()));
    graph.reset(new DSPNetGraph(tree.get()));
    // The DSP panel's initial options: every input, groups and sends shown.
    graph->setShowExcessiveInputs(true);
    graph->setShowInactiveInputs(true);
    graph->setShowGroups(true);
    graph->setShowSends(true);

    // The groups come once; the model keeps them until the next groups packet.
    network->receiveBytes(PacketEncoder::encodeGroups(simulated));
    network->receiveBytes(dspPacket);
    lastFed = &dspPacket;
    QObject::disconnect(network.get(), &ProfilerNetwork::packetReady, tree.get(), &DSPTree::slotPacketArrived);
    QObject::disconnect(tree.get(), &DSPTree::dspNetTreeUpdated, graph.get(), &DSPNetGraph::slotTreeUpdated);
    // A large network's layout waits for the event loop; the stages call it themselves.
    graph->slotProcessTree();

    graphSize = QSize(graph->widgetWidth, graph->widgetHeight);
    placedUnits = graph->nodeList.size();
    // Where a scroll area would be half-way through the graph.
    viewport = QRect(qMax(0, (graphSize.width() - ViewportWidth) / 2),
                     qMax(0, (graphSize.height() - ViewportHeight) / 2), ViewportWidth, ViewportHeight);
    viewportImage = QImage(ViewportWidth, ViewportHeight, QImage::Format_ARGB32_Premultiplied);
    const QSize wholeSize(qMin(graphSize.width(), MaxImageSide), qMin(graphSize.height(), MaxImageSide));
    wholeCapped = wholeSize != graphSize;
    wholeImage = QImage(wholeSize, QImage::Format_ARGB32);

    // Dotted lines cost in proportion to their length, wherever they show.
    qint64 sendLength = 0;
    int sendsInView = 0;
    for (const QLine& line : qAsConst(graph->sendLines)) {
        sendLength += qint64(QLineF(line).length());
        if (QRectF(QPointF(line.p1()), QPointF(line.p2())).normalized().adjusted(-3, -3, 3, 3).intersects(viewport))
            ++sendsInView;
    }

    CaseFacts& facts = caseFacts()[caseKey(shape, units)];
    facts.packetBytes = dspPacket.size();
    facts.note = QStringLiteral("%1 units placed, graph %2x%3 px")
                     .arg(placedUnits)
                     .arg(graphSize.width())
                     .arg(graphSize.height());
    facts.note += QStringLiteral("; %1 send lines, %2 px long in all, %3 with bounds meeting the viewport; %4 group boxes")
                      .arg(graph->sendLines.size())
                      .arg(sendLength)
                      .arg(sendsInView)
                      .arg(graph->groupList.size());
    if (wholeCapped) {
        facts.note += QStringLiteral("; whole-graph image capped at %1x%2, everything still drawn")
                          .arg(wholeSize.width())
                          .arg(wholeSize.height());
    }
}

NetworkCase::~NetworkCase() = default;

NetworkCase& networkCase(DSPShapes::DSPShape shape, int units)
{
    const CaseKey key = caseKey(shape, units);
    if (!currentCase || currentKey != key) {
        currentCase.reset();
        currentCase.reset(new NetworkCase(shape, units));
        currentKey = key;
    }
    return *currentCase;
}

qint64 networkCasePacketBytes(DSPShapes::DSPShape shape, int units)
{
    return caseFacts().value(caseKey(shape, units)).packetBytes;
}

QString networkCaseNote(DSPShapes::DSPShape shape, int units)
{
    return caseFacts().value(caseKey(shape, units)).note;
}

LineGraphCase::LineGraphCase()
{
    SimEngine engine(1, 60);
    engine.step();
    const SimFigures& figures = engine.getFigures();
    packets = PacketEncoder::encodeCPU(figures, PacketEncoder::NewestCPUVersion)
              + PacketEncoder::encodeChannels(figures) + PacketEncoder::encodeCodecs(figures)
              + PacketEncoder::encodeStats(figures);
    copyBuffer.resize(packets.size());

    network.reset(new ProfilerNetwork);
    collectors.reset(new HistoryCollectors(network.get()));
    lineGraph.reset(new LineGraph);
    control.reset(new LineGraphControl(lineGraph.get(), collectors->cpu, collectors->channels,
                                       collectors->codecs, collectors->stats));
    for (LineGraphLegendItem* row : control->findChildren<LineGraphLegendItem*>())
        row->setChecked(true);
    lineGraph->resize(Width, Height);
    image = QImage(Width, Height, QImage::Format_ARGB32_Premultiplied);
    // A full history, so every line draws all its samples.
    for (int i = 0; i < 500; ++i)
        network->receiveBytes(packets);
}

LineGraphCase::~LineGraphCase() = default;

LineGraphCase& lineGraphCase()
{
    if (!lineGraphs)
        lineGraphs.reset(new LineGraphCase);
    return *lineGraphs;
}

BurstCase::BurstCase()
{
    SimEngine engine(1, 60);
    for (int i = 0; i < PacketsPerStream; ++i) {
        engine.step();
        const SimFigures& figures = engine.getFigures();
        bytes += PacketEncoder::encodeCPU(figures, PacketEncoder::NewestCPUVersion);
        bytes += PacketEncoder::encodeChannels(figures);
        bytes += PacketEncoder::encodeCodecs(figures);
        bytes += PacketEncoder::encodeStats(figures);
    }
    copyBuffer.resize(bytes.size());
    network.reset(new ProfilerNetwork);
    tree.reset(new DSPTree(network.get()));
    collectors.reset(new HistoryCollectors(network.get()));
}

BurstCase::~BurstCase() = default;

BurstCase& burstCase()
{
    if (!burst)
        burst.reset(new BurstCase);
    return *burst;
}

void releaseBenchCases()
{
    currentCase.reset();
    lineGraphs.reset();
    burst.reset();
}
