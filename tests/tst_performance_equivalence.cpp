#include "cpuhistory.h"
#include "dspnetgraph.h"
#include "dspshapes.h"
#include "packetbuilder.h"
#include "packetencoder.h"
#include "profilerchain.h"

#include <QImage>
#include <QPainter>
#include <QRandomGenerator>
#include <QSignalSpy>
#include <QTest>

#include <algorithm>
#include <map>

namespace
{

auto matching(quint8 type, quint8 subtype)
{
    return [=](const QByteArray& packet) { return quint8(packet.at(8)) == type && quint8(packet.at(9)) == subtype; };
}

// The packet queue before it was indexed by type: one list in arrival order, scanned from the front on every
// count and take. The indexed queue must answer every question exactly as this does.
class ScanningQueue
{
public:
    // Frames like the network; returns whether packetReady() would follow.
    bool receive(const QByteArray& bytes, bool paused)
    {
        received += bytes;
        while (received.size() >= 12) {
            const int size = int(qFromLittleEndian<quint32>(received.constData()));
            if (received.size() < size)
                break;
            packets.append(received.left(size));
            waitingBytes += size;
            received.remove(0, size);
            while (packets.size() > ProfilerNetwork::MaxWaitingPackets
                   || waitingBytes > ProfilerNetwork::MaxWaitingBytes)
                waitingBytes -= packets.takeFirst().size();
        }
        const bool ready = !packets.isEmpty() && !paused;
        if (paused) {
            packets.clear();
            waitingBytes = 0;
        }
        return ready;
    }

    int count(quint8 type, quint8 subtype) const
    {
        return int(std::count_if(packets.begin(), packets.end(), matching(type, subtype)));
    }

    QByteArray take(quint8 type, quint8 subtype)
    {
        const auto found = std::find_if(packets.begin(), packets.end(), matching(type, subtype));
        if (found == packets.end())
            return QByteArray();
        const QByteArray packet = *found;
        waitingBytes -= packet.size();
        packets.erase(found);
        return packet;
    }

private:
    QList<QByteArray> packets;
    QByteArray received;
    qint64 waitingBytes = 0;
};

struct PacketKind
{
    quint8 type;
    quint8 subtype;
};

// The streams the collectors take, commands echoed back, and types nobody takes, which stay queued in front of
// everything else. CPU data (3, 0) is last: only randomPacket's numbered packets have it.
const PacketKind Kinds[] = {
    { 1, 0 }, { 4, 0 }, { 5, 0 }, { 7, 0 }, { 9, 0 }, { 1, 1 }, { 3, 2 }, { 2, 0 }, { 6, 0 }, { 8, 0 }, { 3, 0 },
};
const int NumKinds = int(sizeof Kinds / sizeof Kinds[0]);

// A CPU packet's first field is a running number, so the history shows exactly which packets were taken and in
// what order.
QByteArray randomPacket(QRandomGenerator& random, int cpuShare, float* serial)
{
    if (int(random.bounded(100)) < cpuShare) {
        *serial += 1.0f;
        return PacketBuilder(3, 0, 1).f32(*serial).f32(0).f32(0).f32(0).f32(0).finish();
    }
    const PacketKind kind = Kinds[random.bounded(NumKinds - 1)];
    PacketBuilder builder(kind.type, kind.subtype, 0);
    for (int i = int(random.bounded(40)); i > 0; --i)
        builder.u8(quint8(random.bounded(256)));
    return builder.finish();
}

// Qt cuts a line to the clip before it draws it, which can move the antialiasing of a long line's edge pixels
// by a few levels; anything missing or extra differs by far more.
int largestDifference(const QImage& a, const QImage& b)
{
    int largest = 0;
    for (int y = 0; y < a.height(); ++y) {
        for (int x = 0; x < a.width(); ++x) {
            for (int shift = 0; shift < 32; shift += 8) {
                const int p = int((a.pixel(x, y) >> shift) & 0xff);
                largest = qMax(largest, qAbs(p - int((b.pixel(x, y) >> shift) & 0xff)));
            }
        }
    }
    return largest <= 16 ? 0 : largest;
}

// A small random network: any number of inputs per unit, units feeding several consumers, now and then a
// cycle, every flag and field varied.
SimNetwork randomNetwork(QRandomGenerator& random)
{
    static const QByteArray names[] = { "Master", "Bus:Music", "Fader", "Lowpass", "ch:12:a", "" };
    SimNetwork network;
    const int count = 1 + random.bounded(30);
    network.units.resize(count);
    for (int i = 0; i < count; ++i) {
        SimUnit& unit = network.units[i];
        // Some ids share their low 32 bits, which the layout places as one.
        unit.id = (quint64(random.bounded(3)) << 32) | quint64(100 + i);
        unit.groupId = random.bounded(4);
        unit.name = names[random.bounded(6)];
        unit.active = random.bounded(5) != 0;
        unit.bypass = random.bounded(4) == 0;
        unit.exclusiveUsage = quint16(random.bounded(600));
        for (int level = random.bounded(4); level > 0; --level)
            unit.levels.append(qint8(random.bounded(-80, 11)));
    }
    for (int i = 0; i < count; ++i) {
        SimUnit& unit = network.units[i];
        if (random.bounded(4) == 0)
            unit.sendTargetId = network.units.at(random.bounded(count)).id;
        // Mostly later units, so the network is mostly a tree; an earlier one now and then closes a cycle.
        for (int input = random.bounded(i + 1 < count ? 7 : 1); input > 0; --input) {
            const int from = random.bounded(10) == 0 ? random.bounded(count) : i + 1 + random.bounded(count - i - 1);
            unit.inputs.append({ from, random.bounded(5) == 0, random.bounded(5) == 0 });
        }
    }
    for (int group = 1; group < 4; ++group)
        network.groups.append({ quint64(group), quint64(random.bounded(group)), QUuid(),
                                "Group " + QByteArray::number(group) });
    network.cpuUsage = random.bounded(100) / 100.0f;
    network.timingLength = 256 + random.bounded(1024);
    return network;
}

// The next snapshot of a running game: new costs, levels, bypass states and now and then a new name.
void driftValues(SimNetwork* network, QRandomGenerator& random)
{
    for (SimUnit& unit : network->units) {
        unit.exclusiveUsage = quint16(random.bounded(600));
        if (random.bounded(8) == 0)
            unit.bypass = !unit.bypass;
        if (random.bounded(10) == 0)
            unit.name += ":x";
        for (qint8& level : unit.levels)
            level = qint8(random.bounded(-80, 11));
        if (random.bounded(15) == 0)
            unit.levels.append(-3);
    }
    network->cpuUsage = random.bounded(100) / 100.0f;
}

// One change that makes it another network.
void changeNetwork(SimNetwork* network, QRandomGenerator& random)
{
    SimUnit& unit = network->units[random.bounded(network->units.size())];
    const int change = random.bounded(6);
    if (change == 0)
        unit.active = !unit.active;
    else if (change == 1)
        unit.groupId = (unit.groupId + 1) % 4;
    else if (change == 2)
        unit.sendTargetId = unit.sendTargetId ? 0 : network->units.first().id;
    else if (change == 3)
        unit.inputs.append({ random.bounded(network->units.size()), false, false });
    else if (change == 4 && !unit.inputs.isEmpty())
        unit.inputs.removeLast();
    else if (!unit.inputs.isEmpty())
        unit.inputs.first().send = !unit.inputs.first().send;
}

// Everything the model holds, a line per unit, floats to the last bit; the packet's own figures come first.
QStringList modelDigest(const DSPTree& tree)
{
    QString text;
    {
        QDebug out(&text);
        out << qSetRealNumberPrecision(9) << tree.dspVersion << tree.cpuUsage << tree.timingRate << tree.timingLength
            << tree.root.inclusiveUsage;
        for (const DSPNode::InputRecord& input : tree.root.inputs)
            out << "\nhead" << input.node->id;
        QList<unsigned long long> ids = tree.nodesById.keys();
        std::sort(ids.begin(), ids.end());
        for (unsigned long long id : ids) {
            const DSPNode* node = tree.nodesById.value(id);
            out << '\n' << id << node->groupId << node->sendTargetId << node->name << node->active << node->bypass
                << node->inclusiveUsage << node->exclusiveUsage << node->inclusiveCPU << node->exclusiveCPU
                << node->depth << QVector<int>(node->levels.begin(), node->levels.end());
            for (const DSPNode::InputRecord& input : node->inputs)
                out << input.node->id << input.send << input.sidechain;
        }
    }
    return text.split('\n');
}

// Everything the view draws and remembers, a line per unit and per group box.
QStringList layoutDigest(const DSPNetGraph& graph)
{
    QString text;
    {
        QDebug out(&text);
        out << qSetRealNumberPrecision(9);
        for (const DSPNetGraphicalNode& node : graph.nodeList)
            out << node.name << node.position << node.id << node.groupId << node.sendTargetId << node.active
                << node.bypass << node.inclusiveCPU << node.exclusiveCPU << node.levels.toList() << '\n';
        out << graph.standardLines << graph.sendLines << graph.sidechainLines << graph.sendSidechainLines
            << graph.ellipsisPoints << graph.maxX << graph.maxY;
        for (const DSPGroupGraphicalNode& group : graph.groupList)
            out << '\n' << group.id << group.parentId << group.name << group.guidString << group.level << group.rect;
        const QHash<int, QPoint> placed = graph.placedTable();
        out << '\n' << QMap<int, QPoint>(std::map<int, QPoint>(placed.keyValueBegin(), placed.keyValueEnd()));
        if (graph.selectedFound)
            out << '\n' << graph.selectedFound->id << graph.selectedNewPosition;
    }
    return text.split('\n');
}

// A network link, its model and a view laid out on every update.
struct ModelAndView
{
    ModelAndView(bool excessive, bool inactive) : tree(&network), graph(&tree)
    {
        graph.setShowExcessiveInputs(excessive);
        graph.setShowInactiveInputs(inactive);
    }

    void select(const SimUnit& unit, int version)
    {
        graph.selectedId = unit.id;
        graph.selectedGroupId = version >= 4 ? unit.groupId : 0;
    }

    ProfilerNetwork network;
    DSPTree tree;
    DSPNetGraph graph;
};

} // namespace

Q_DECLARE_METATYPE(DSPShapes::DSPShape)

class TestPerformanceEquivalence : public QObject
{
    Q_OBJECT

private slots:
    void indexedQueueMatchesScanningQueue_data()
    {
        QTest::addColumn<quint32>("seed");
        QTest::addColumn<int>("steps");
        QTest::addColumn<int>("maxBurst"); // packets per receive: above the queue's bound, the oldest go
        QTest::addColumn<int>("cpuShare");
        QTest::addColumn<int>("pausePercent");

        QTest::newRow("light traffic") << 1u << 3000 << 4 << 30 << 0;
        QTest::newRow("light traffic, other seed") << 2u << 3000 << 4 << 30 << 0;
        QTest::newRow("bursts past the bound") << 3u << 400 << 1500 << 20 << 0;
        QTest::newRow("mostly untaken types") << 4u << 2000 << 40 << 5 << 0;
        QTest::newRow("pause toggling") << 5u << 3000 << 20 << 30 << 10;
        QTest::newRow("only CPU packets") << 6u << 1000 << 30 << 100 << 0;
    }

    // Random streams cut anywhere (packet boundaries included), random counts and takes in between, and a CPU
    // history draining its own packets on every packetReady(): every answer must be the scanning one.
    void indexedQueueMatchesScanningQueue()
    {
        QFETCH(quint32, seed);
        QFETCH(int, steps);
        QFETCH(int, maxBurst);
        QFETCH(int, cpuShare);
        QFETCH(int, pausePercent);

        QRandomGenerator random(seed);
        ProfilerNetwork network;
        CPUHistory history(&network);
        QSignalSpy ready(&network, &ProfilerNetwork::packetReady);
        ScanningQueue reference;
        QList<float> referenceHistory;
        int referenceReady = 0;
        float serial = 0.0f;
        QByteArray pending;
        for (int step = 0; step < steps; ++step) {
            const int action = int(random.bounded(10));
            if (action < 5) {
                for (int i = 1 + int(random.bounded(quint32(maxBurst))); i > 0; --i)
                    pending += randomPacket(random, cpuShare, &serial);
                const int cut = random.bounded(2) ? pending.size() : int(random.bounded(pending.size() + 1));
                const QByteArray chunk = pending.left(cut);
                pending.remove(0, cut);
                network.paused = int(random.bounded(100)) < pausePercent;
                network.receiveBytes(chunk);
                if (reference.receive(chunk, network.paused)) {
                    ++referenceReady;
                    while (reference.count(3, 0) != 0)
                        referenceHistory.append(qFromLittleEndian<float>(reference.take(3, 0).constData() + 12));
                    while (referenceHistory.size() > HistoryCollector::MaxHistorySize)
                        referenceHistory.removeFirst();
                }
            } else {
                const PacketKind kind = Kinds[random.bounded(NumKinds)];
                if (action < 8)
                    QCOMPARE(network.getNumWaitingPackets(kind.type, kind.subtype),
                             reference.count(kind.type, kind.subtype));
                else
                    QCOMPARE(network.getPacket(kind.type, kind.subtype), reference.take(kind.type, kind.subtype));
            }
            QCOMPARE(ready.count(), referenceReady);
        }

        QList<float> taken;
        for (const CPUUsageSnapshot& snapshot : qAsConst(*history.getHistoryList()))
            taken.append(snapshot.dsp);
        QCOMPARE(taken, referenceHistory);
        // What is left comes out in the same order, type by type.
        for (const PacketKind& kind : Kinds) {
            QCOMPARE(network.getNumWaitingPackets(kind.type, kind.subtype),
                     reference.count(kind.type, kind.subtype));
            for (QByteArray expected; !(expected = reference.take(kind.type, kind.subtype)).isNull();)
                QCOMPARE(network.getPacket(kind.type, kind.subtype), expected);
            QVERIFY(network.getPacket(kind.type, kind.subtype).isNull());
        }
    }

    void exposedPaintMatchesWholePaint_data()
    {
        QTest::addColumn<DSPShapes::DSPShape>("shape");
        QTest::addColumn<float>("scale");
        QTest::newRow("tree at 1.0") << DSPShapes::DSPShape::Tree << 1.0f;
        QTest::newRow("tree at 0.5") << DSPShapes::DSPShape::Tree << 0.5f;
        QTest::newRow("cycles at 2.0") << DSPShapes::DSPShape::Cycles << 2.0f;
        QTest::newRow("ladder at 1.0") << DSPShapes::DSPShape::DiamondLadder << 1.0f;
    }

    // Painting only what an exposed area can show must give that area the pixels painting everything gives.
    void exposedPaintMatchesWholePaint()
    {
        QFETCH(DSPShapes::DSPShape, shape);
        QFETCH(float, scale);

        ProfilerChain profiler;
        DSPNetGraph graph(&profiler.dspTree);
        for (auto show : { &DSPNetGraph::setShowCPUUsage, &DSPNetGraph::setShowVolumeLevels,
                           &DSPNetGraph::setShowGroups, &DSPNetGraph::setShowGuids, &DSPNetGraph::setShowSends,
                           &DSPNetGraph::setShowLegend, &DSPNetGraph::setShowExcessiveInputs })
            (graph.*show)(true);
        graph.setScale(scale);
        profiler.network.receiveBytes(DSPShapes::makeDSPPacket(shape, 300, 4));
        QVERIFY(graph.nodeList.size() > 100);

        const QSize size = graph.minimumSize().boundedTo(QSize(3000, 3000));
        const auto render = [&](const QRect& clip) {
            // Opaque, as on screen: nearly transparent pixels have no stable colour.
            QImage image(size, QImage::Format_RGB32);
            image.fill(QColor(49, 56, 64));
            QPainter painter(&image);
            if (!clip.isNull())
                painter.setClipRect(clip);
            graph.renderTree(&painter, false);
            return image;
        };
        const QImage whole = render(QRect());
        QRandomGenerator random(17);
        for (int view = 0; view < 12; ++view) {
            const QRect area = QRect(random.bounded(size.width()), random.bounded(size.height()),
                                     100 + random.bounded(700), 100 + random.bounded(500))
                               & QRect(QPoint(0, 0), size);
            QCOMPARE(largestDifference(render(area).copy(area), whole.copy(area)), 0);
        }
    }

    void indexedPaintMatchesPlainPaint_data()
    {
        QTest::addColumn<DSPShapes::DSPShape>("shape");
        QTest::addColumn<int>("units"); // 0: forty small random networks
        QTest::addColumn<quint32>("seed");
        QTest::newRow("random networks") << DSPShapes::DSPShape::Tree << 0 << 11u;
        QTest::newRow("tree 3000") << DSPShapes::DSPShape::Tree << 3000 << 12u;
        QTest::newRow("cycles 1000") << DSPShapes::DSPShape::Cycles << 1000 << 13u;
        QTest::newRow("ladder 1000") << DSPShapes::DSPShape::DiamondLadder << 1000 << 14u;
    }

    // Painting what the index finds near an exposed area must give exactly the pixels visiting every item gives,
    // under the same clip: an item the index drops, or finds twice, shows. Options, zoom, selection, highlight,
    // guids and long group names vary, and the areas include the whole graph, empty ones and ones past the edge.
    void indexedPaintMatchesPlainPaint()
    {
        QFETCH(DSPShapes::DSPShape, shape);
        QFETCH(int, units);
        QFETCH(quint32, seed);
        QRandomGenerator random(seed);
        for (int trial = 0; trial < (units ? 2 : 40); ++trial) {
            ModelAndView shown(random.bounded(2), random.bounded(2));
            DSPNetGraph& graph = shown.graph;
            for (auto show : { &DSPNetGraph::setShowCPUUsage, &DSPNetGraph::setShowVolumeLevels,
                               &DSPNetGraph::setShowGroups, &DSPNetGraph::setShowGuids, &DSPNetGraph::setShowSends,
                               &DSPNetGraph::setShowLegend })
                (graph.*show)(random.bounded(3) != 0);
            SimNetwork network = units ? DSPShapes::makeNetwork(shape, units, seed + trial) : randomNetwork(random);
            for (SimGroup& group : network.groups) {
                if (random.bounded(2))
                    group.guid = QUuid(random.generate(), 1, 2, 3, 4, 5, 6, 7, 8, 9, 10);
                group.name += QByteArray(random.bounded(3) ? 0 : random.bounded(80), 'W');
            }
            shown.network.receiveBytes(PacketEncoder::encodeGroups(network));
            shown.select(network.units.at(random.bounded(network.units.size())), PacketEncoder::NewestDSPVersion);
            shown.network.receiveBytes(PacketEncoder::encodeDSP(network, PacketEncoder::NewestDSPVersion));
            graph.setHighlightName(QStringList { "", "Fader", "0x6" }.at(random.bounded(3)));
            graph.setScale(0.2f + random.bounded(19) * 0.1f);
            // Built from the lists as they are, so the index, not the fallback, is what gets compared.
            QCOMPARE(graph.unitIndex.size(), graph.nodeList.size());
            QCOMPARE(graph.standardLineIndex.size(), graph.standardLines.size());
            QCOMPARE(graph.groupBoxIndex.size(), graph.groupList.size());

            const QSize size = graph.minimumSize();
            for (int view = 0; view < 10; ++view) {
                const int x = random.bounded(size.width());
                const int y = random.bounded(size.height());
                // Areas that end or start a pixel or two from a unit's corner or a line's end catch a margin too thin.
                const QLine line = graph.standardLines.value(random.bounded(graph.standardLines.size() + 1));
                const QPoint unit = graph.nodeList.value(random.bounded(qMax(1, graph.nodeList.size()))).position;
                const QPoint corner = (random.bounded(2) ? line.p1() : unit) * graph.getScale();
                const QPoint near = corner + QPoint(random.bounded(-2, 3), random.bounded(-2, 3));
                const QRect areas[] = { QRect(QPoint(0, 0), size), QRect(x, y, 0, random.bounded(2) * 50),
                                        QRect(size.width() - 300, y, 800, 600), QRect(x, size.height() - 200, 800, 600),
                                        QRect(x - 400, y - 300, 800, 600), QRect(near - QPoint(800, 600), near),
                                        QRect(near, QSize(800, 600)) };
                const QRect area = areas[view < 2 ? view : random.bounded(7)];
                const bool forImage = random.bounded(4) == 0;
                const auto paint = [&](bool indexed) {
                    QImage image(area.size().expandedTo(QSize(1, 1)).boundedTo(QSize(2000, 2000)),
                                 QImage::Format_RGB32);
                    image.fill(QColor(49, 56, 64));
                    QPainter painter(&image);
                    painter.translate(-area.topLeft());
                    painter.setClipRect(area);
                    graph.paintIndexed = indexed;
                    graph.renderTree(&painter, forImage);
                    return image;
                };
                QVERIFY2(paint(true) == paint(false),
                         qPrintable(QStringLiteral("trial %1, scale %2, area %3,%4 %5x%6")
                                        .arg(trial).arg(graph.getScale()).arg(area.x()).arg(area.y())
                                        .arg(area.width()).arg(area.height())));
            }
        }
    }

    // A snapshot of the network already shown is written into the model and the layout in place. Whatever the
    // packet, the result must be what building both afresh from it gives; a packet dropped as broken must leave
    // both as they were.
    void updateInPlaceMatchesRebuild()
    {
        QRandomGenerator random(2026);
        ModelAndView running(false, false);
        int inPlace = 0;
        int rebuilt = 0;
        for (int trial = 0; trial < 600; ++trial) {
            const int version = random.bounded(7);
            SimNetwork network = randomNetwork(random);
            const bool excessive = random.bounded(2) == 0;
            const bool inactive = random.bounded(2) == 0;
            running.graph.setShowExcessiveInputs(excessive);
            running.graph.setShowInactiveInputs(inactive);
            const QByteArray groups = PacketEncoder::encodeGroups(network);
            running.network.receiveBytes(groups);
            // Half the time the unit is selected before the first layout, so the update after it looks
            // for a selection that layout has already found.
            const bool selectFirst = random.bounded(2) == 0;
            SimUnit chosen = network.units.at(random.bounded(network.units.size()));
            if (selectFirst)
                running.select(chosen, version);
            running.network.receiveBytes(PacketEncoder::encodeDSP(network, version));

            driftValues(&network, random);
            if (random.bounded(3) == 0)
                changeNetwork(&network, random);
            const QByteArray next = PacketEncoder::encodeDSP(network, version);
            if (!selectFirst)
                chosen = network.units.at(random.bounded(network.units.size()));
            running.select(chosen, version);

            // A cut-off copy is dropped and changes no unit (a dropped packet resets its own figures, the
            // digest's first line).
            const QStringList modelBefore = modelDigest(running.tree).mid(1);
            const QStringList layoutBefore = layoutDigest(running.graph);
            const int recordsStart = 12 + PacketEncoder::getDSPPrologueSize(version);
            QByteArray broken = next.left(recordsStart + random.bounded(next.size() - recordsStart));
            qToLittleEndian<quint32>(quint32(broken.size()), broken.data());
            running.network.receiveBytes(broken);
            QCOMPARE(modelDigest(running.tree).mid(1), modelBefore);
            QCOMPARE(layoutDigest(running.graph), layoutBefore);

            const quint64 valueSerial = running.tree.getValueSerial();
            running.network.receiveBytes(next);
            (running.tree.getValueSerial() != valueSerial ? inPlace : rebuilt)++;

            ModelAndView fresh(excessive, inactive);
            fresh.network.receiveBytes(groups);
            // Selected after the groups: a layout without units clears it.
            fresh.select(chosen, version);
            fresh.network.receiveBytes(next);
            QCOMPARE(modelDigest(running.tree), modelDigest(fresh.tree));
            QCOMPARE(layoutDigest(running.graph), layoutDigest(fresh.graph));
        }
        // Both paths must have been taken often for the comparison to mean anything.
        QVERIFY2(inPlace > 300 && rebuilt > 50,
                 qPrintable(QStringLiteral("%1 in place, %2 rebuilt").arg(inPlace).arg(rebuilt)));
    }

    // A layout keeps the display names and meter bytes its units already have; every placed unit must still
    // show what converting its model unit afresh gives, through rebuilds, updates in place and renamings.
    void reusedUnitsMatchTheirModel()
    {
        QRandomGenerator random(4242);
        ModelAndView running(false, false);
        SimNetwork network;
        int version = 6;
        for (int update = 0; update < 400; ++update) {
            if (update % 20 == 0) {
                network = randomNetwork(random);
                version = random.bounded(7);
            }
            driftValues(&network, random);
            if (random.bounded(3) == 0)
                changeNetwork(&network, random);
            running.network.receiveBytes(PacketEncoder::encodeDSP(network, version));
            const DSPNetGraph& graph = running.graph;
            QCOMPARE(graph.placedSources.size(), graph.nodeList.size());
            for (int i = 0; i < graph.nodeList.size(); ++i) {
                const DSPNode* unit = graph.placedSources.at(i);
                QList<float> meters;
                for (char level : unit->levels)
                    meters.append(qint8(level) / 80.0f + 1.0f);
                QCOMPARE(graph.nodeList.at(i).name, QString(unit->name).replace(':', QLatin1String(": ")));
                QCOMPARE(graph.nodeList.at(i).levels.toList(), meters);
            }
        }
    }

    void rebuildMatchesFreshModel_data()
    {
        QTest::addColumn<QByteArrayList>("packets");
        QTest::addColumn<int>("byHand"); // before each packet: 1 every depth
        const QByteArray chain = dspPacketV6({ { 1, 1 }, { 2, 1 }, { 3, 1 }, { 4, 0 } });
        const QByteArray fan = dspPacketV6({ { 1, 2 }, { 2, 0 }, { 3, 0 } });
        const QByteArray nested = dspPacketV6({ { 1, 1 }, { 2, 1 }, { 3, 0 } });
        const QByteArray nestedOff = dspPacketV6({ { 1, 1 }, { 2, 1 }, { 3, 0, 1, 0 } });
        const QByteArray cycle = dspPacketV6({ { 1, 1 }, { 2, 2 }, { 3, 0 }, { 1, 0 } });
        const QByteArray cycleOff = dspPacketV6({ { 1, 1 }, { 2, 2 }, { 3, 0, 1, 0 }, { 1, 0 } });
        // Rebuilds (a flag differs) whose links stay, move or go, so that kept depths are compared with
        // computed ones.
        QTest::newRow("same links") << QByteArrayList { nested, nestedOff } << 0;
        QTest::newRow("same order, other nesting") << QByteArrayList { fan, nestedOff } << 0;
        QTest::newRow("other nesting and back") << QByteArrayList { nested, fan, nestedOff } << 0;
        QTest::newRow("last unit gone") << QByteArrayList { chain, nestedOff } << 0;
        QTest::newRow("cycle kept") << QByteArrayList { cycle, cycleOff, cycle } << 0;
        QTest::newRow("depths set by hand") << QByteArrayList { nested, nestedOff } << 1;
    }

    // A rebuild may keep what the last network's links gave; it must end as a model built from its packet alone.
    void rebuildMatchesFreshModel()
    {
        QFETCH(QByteArrayList, packets);
        QFETCH(int, byHand);
        ModelAndView running(true, true);
        for (const QByteArray& packet : qAsConst(packets)) {
            for (DSPNode* node : qAsConst(running.tree.nodesById))
                node->depth = byHand == 1 ? 7 : node->depth;
            running.network.receiveBytes(packet);
        }
        ModelAndView fresh(true, true);
        fresh.network.receiveBytes(packets.last());
        QCOMPARE(modelDigest(running.tree), modelDigest(fresh.tree));
        QCOMPARE(layoutDigest(running.graph), layoutDigest(fresh.graph));
    }

    void repeatedGroupsMatchFreshGroups_data()
    {
        QTest::addColumn<int>("edit"); // 0 none, 1 a name, 2 the list, 3 another packet in between
        QTest::newRow("same packet again") << 0;
        QTest::newRow("name changed by hand") << 1;
        QTest::newRow("list changed by hand") << 2;
        QTest::newRow("other packet between") << 3;
    }

    // The same groups packet again may keep the groups built from it; what it leaves must be what a fresh model
    // builds from it, and the update must still be reported.
    void repeatedGroupsMatchFreshGroups()
    {
        QFETCH(int, edit);
        QRandomGenerator random(7);
        const QByteArray groups = PacketEncoder::encodeGroups(randomNetwork(random));
        ModelAndView running(true, true);
        QSignalSpy updates(&running.tree, &DSPTree::dspNetTreeUpdated);
        running.network.receiveBytes(groups);
        if (edit == 1)
            running.tree.groups.constFirst()->name = "edited"; // the list itself stays shared
        if (edit == 2)
            delete running.tree.groups.takeLast();
        if (edit == 3)
            running.network.receiveBytes(PacketEncoder::encodeGroups(randomNetwork(random)));
        running.network.receiveBytes(groups);
        QCOMPARE(updates.count(), edit == 3 ? 3 : 2);

        ModelAndView fresh(true, true);
        fresh.network.receiveBytes(groups);
        const auto digest = [](const DSPTree& tree) {
            QStringList lines;
            for (const GroupNode* group : tree.groups)
                lines << QStringLiteral("%1 %2 %3 %4").arg(group->id).arg(group->parentId).arg(group->guid.toString(),
                                                                                            group->name);
            return lines;
        };
        QCOMPARE(digest(running.tree), digest(fresh.tree));
        QVERIFY(!running.tree.groups.isEmpty());
    }

    // A repeated unit's record may carry a child count; no children are read for it, so the records after it
    // still belong to the unit before. An update in place must nest them the same way.
    void repeatedUnitWithChildCount()
    {
        const auto network = [](quint16 usage) {
            return dspPacketV6({ { 1, 2, usage }, { 2, 1, 2 }, { 3, 0, 3 }, { 4, 2, 4 }, { 3, 2, 3 },
                                 { 5, 0, quint16(usage + 5) } });
        };
        ModelAndView running(true, true);
        running.network.receiveBytes(network(10));
        const quint64 valueSerial = running.tree.getValueSerial();
        running.network.receiveBytes(network(20));
        QVERIFY(running.tree.getValueSerial() != valueSerial);

        ModelAndView fresh(true, true);
        fresh.network.receiveBytes(network(20));
        QCOMPARE(modelDigest(running.tree), modelDigest(fresh.tree));
        // Unit 3 counts under unit 2, where it was first read.
        QCOMPARE(running.tree.nodesById.value(4)->inclusiveUsage, quint32(4 + 25));
    }
};

QTEST_MAIN(TestPerformanceEquivalence)
#include "tst_performance_equivalence.moc"
