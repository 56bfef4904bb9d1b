#include "cpuhistory.h"
#include "dspnetgraph.h"
#include "dspshapes.h"
#include "packetbuilder.h"
#include "packetencoder.h"
#include "profilerchain.h"
#include "profilernetwork.h"

#include <QImage>
#include <QPainter>
#include <QRandomGenerator>
#include <QSignalSpy>
#include <QTest>

namespace
{

// The packet queue as it was before it was indexed by type: one list in
// arrival order, scanned from the front on every count and every take. The
// indexed queue must answer every question exactly as this does.
class ScanningQueue
{
public:
    // Frames like the network, returns whether packetReady() would follow.
    bool receive(const QByteArray& bytes, bool paused)
    {
        received += bytes;
        while (received.size() >= 12) {
            const int size = int(qFromLittleEndian<quint32>(received.constData()));
            if (received.size() < size)
                break;
            append(received.left(size));
            received.remove(0, size);
        }
        if (packets.isEmpty())
            return false;
        if (paused) {
            packets.clear();
            waitingBytes = 0;
            return false;
        }
        return true;
    }

    int count(quint8 type, quint8 subtype) const
    {
        int matching = 0;
        for (const QByteArray& packet : packets) {
            if (matches(packet, type, subtype))
                ++matching;
        }
        return matching;
    }

    QByteArray take(quint8 type, quint8 subtype)
    {
        for (int i = 0; i < packets.size(); ++i) {
            if (matches(packets.at(i), type, subtype)) {
                waitingBytes -= packets.at(i).size();
                return packets.takeAt(i);
            }
        }
        return QByteArray();
    }

private:
    static bool matches(const QByteArray& packet, quint8 type, quint8 subtype)
    {
        return quint8(packet.at(8)) == type && quint8(packet.at(9)) == subtype;
    }

    void append(const QByteArray& packet)
    {
        packets.append(packet);
        waitingBytes += packet.size();
        while (packets.size() > ProfilerNetwork::MaxWaitingPackets
               || waitingBytes > ProfilerNetwork::MaxWaitingBytes) {
            waitingBytes -= packets.first().size();
            packets.removeFirst();
        }
    }

    QList<QByteArray> packets;
    QByteArray received;
    qint64 waitingBytes = 0;
};

struct PacketKind
{
    quint8 type;
    quint8 subtype;
};

// The streams the collectors take, commands echoed back, and types nobody
// takes, which stay queued in front of everything else. CPU data (3, 0) is
// last: only randomPacket's numbered packets have it.
const PacketKind Kinds[] = {
    { 1, 0 }, { 4, 0 }, { 5, 0 }, { 7, 0 }, { 9, 0 }, { 1, 1 }, { 3, 2 }, { 2, 0 }, { 6, 0 }, { 8, 0 }, { 3, 0 },
};
const int NumKinds = int(sizeof Kinds / sizeof Kinds[0]);
const int NumRandomKinds = NumKinds - 1;

// A CPU packet's first field is a running number, so the history shows
// exactly which packets were taken and in what order.
QByteArray randomPacket(QRandomGenerator& random, int cpuShare, float* serial)
{
    if (int(random.bounded(100)) < cpuShare) {
        *serial += 1.0f;
        return PacketBuilder(3, 0, 1).f32(*serial).f32(0).f32(0).f32(0).f32(0).finish();
    }
    const PacketKind kind = Kinds[random.bounded(NumRandomKinds)];
    PacketBuilder builder(kind.type, kind.subtype, 0);
    const int payload = int(random.bounded(40));
    for (int i = 0; i < payload; ++i)
        builder.u8(quint8(random.bounded(256)));
    return builder.finish();
}

// Qt cuts a line to the clip before it draws it, which can move the
// antialiasing of a long line's edge pixels by a few levels. What the test
// looks for is anything missing or extra, which differs by far more.
int largestDifference(const QImage& a, const QImage& b)
{
    const int tolerance = 16;
    int largest = 0;
    for (int y = 0; y < a.height(); ++y) {
        for (int x = 0; x < a.width(); ++x) {
            const QRgb p = a.pixel(x, y);
            const QRgb q = b.pixel(x, y);
            const int difference = qMax(qMax(qAbs(qRed(p) - qRed(q)), qAbs(qGreen(p) - qGreen(q))),
                                        qMax(qAbs(qBlue(p) - qBlue(q)), qAbs(qAlpha(p) - qAlpha(q))));
            largest = qMax(largest, difference);
        }
    }
    return largest <= tolerance ? 0 : largest;
}

// A small random network: any number of inputs per unit, units feeding
// several consumers, now and then a cycle, every flag and field varied.
SimNetwork randomNetwork(QRandomGenerator& random)
{
    static const QByteArray names[] = { "Master", "Bus:Music", "Fader", "Lowpass", "ch:12:a", "" };
    SimNetwork network;
    const int count = 1 + random.bounded(30);
    for (int i = 0; i < count; ++i) {
        SimUnit unit;
        // Some ids share their low 32 bits, which the layout places as one.
        unit.id = (quint64(random.bounded(3)) << 32) | quint64(100 + i);
        unit.groupId = random.bounded(4);
        unit.name = names[random.bounded(6)];
        unit.active = random.bounded(5) != 0;
        unit.bypass = random.bounded(4) == 0;
        unit.exclusiveUsage = quint16(random.bounded(600));
        for (int level = random.bounded(4); level > 0; --level)
            unit.levels.append(qint8(random.bounded(-80, 11)));
        network.units.append(unit);
    }
    for (int i = 0; i < count; ++i) {
        SimUnit& unit = network.units[i];
        if (random.bounded(4) == 0)
            unit.sendTargetId = network.units.at(random.bounded(count)).id;
        for (int input = random.bounded(i + 1 < count ? 7 : 1); input > 0; --input) {
            SimInput link;
            // Mostly later units, so the network is mostly a tree; an
            // earlier unit now and then closes a cycle.
            link.unit = random.bounded(10) == 0 ? random.bounded(count) : i + 1 + random.bounded(count - i - 1);
            link.send = random.bounded(5) == 0;
            link.sidechain = random.bounded(5) == 0;
            unit.inputs.append(link);
        }
    }
    for (int group = 1; group < 4; ++group)
        network.groups.append({ quint64(group), quint64(random.bounded(group)), QUuid(), "Group " + QByteArray::number(group) });
    network.cpuUsage = random.bounded(100) / 100.0f;
    network.timingLength = 256 + random.bounded(1024);
    return network;
}

// The next snapshot of a running game: new costs, levels, bypass states and
// now and then a new name, with the network itself unchanged.
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
    switch (random.bounded(6)) {
    case 0:
        unit.active = !unit.active;
        break;
    case 1:
        unit.groupId = (unit.groupId + 1) % 4;
        break;
    case 2:
        unit.sendTargetId = unit.sendTargetId ? 0 : network->units.first().id;
        break;
    case 3:
        unit.inputs.append({ random.bounded(network->units.size()), false, false });
        break;
    case 4:
        if (!unit.inputs.isEmpty())
            unit.inputs.removeLast();
        break;
    default:
        if (!unit.inputs.isEmpty())
            unit.inputs.first().send = !unit.inputs.first().send;
        break;
    }
}

QString modelDigest(const DSPTree& tree)
{
    QStringList lines;
    lines << QStringLiteral("version %1 cpu %2 rate %3 length %4 root %5")
                 .arg(tree.dspVersion)
                 .arg(double(tree.cpuUsage))
                 .arg(tree.timingRate)
                 .arg(tree.timingLength)
                 .arg(tree.root.inclusiveUsage);
    for (const DSPNode::InputRecord& input : tree.root.inputs)
        lines << QStringLiteral("head %1").arg(input.node->id);
    QList<unsigned long long> ids = tree.nodesById.keys();
    std::sort(ids.begin(), ids.end());
    for (unsigned long long id : ids) {
        const DSPNode* node = tree.nodesById.value(id);
        QString line = QStringLiteral("%1 g%2 s%3 '%4' a%5 b%6 u%7/%8 cpu %9/%10 d%11 L")
                           .arg(node->id)
                           .arg(node->groupId)
                           .arg(node->sendTargetId)
                           .arg(node->name)
                           .arg(node->active)
                           .arg(node->bypass)
                           .arg(node->inclusiveUsage)
                           .arg(node->exclusiveUsage)
                           .arg(double(node->inclusiveCPU), 0, 'g', 9)
                           .arg(double(node->exclusiveCPU), 0, 'g', 9)
                           .arg(node->depth);
        for (char level : node->levels)
            line += QStringLiteral(" %1").arg(int(level));
        line += QStringLiteral(" I");
        for (const DSPNode::InputRecord& input : node->inputs)
            line += QStringLiteral(" %1/%2/%3").arg(input.node->id).arg(input.send).arg(input.sidechain);
        lines << line;
    }
    return lines.join(QLatin1Char('\n'));
}

QString linesDigest(const char* kind, const QVector<QLine>& lines)
{
    QString text = QLatin1String(kind);
    for (const QLine& line : lines)
        text += QStringLiteral(" %1,%2-%3,%4").arg(line.x1()).arg(line.y1()).arg(line.x2()).arg(line.y2());
    return text;
}

QString layoutDigest(const DSPNetGraph& graph)
{
    QStringList lines;
    for (const DSPNetGraphicalNode& node : graph.nodeList) {
        QString line = QStringLiteral("'%1' %2,%3 %4 g%5 s%6 a%7 b%8 cpu %9/%10 L")
                           .arg(node.name)
                           .arg(node.position.x())
                           .arg(node.position.y())
                           .arg(node.id)
                           .arg(node.groupId)
                           .arg(node.sendTargetId)
                           .arg(node.active)
                           .arg(node.bypass)
                           .arg(double(node.inclusiveCPU), 0, 'g', 9)
                           .arg(double(node.exclusiveCPU), 0, 'g', 9);
        for (float level : node.levels)
            line += QStringLiteral(" %1").arg(double(level), 0, 'g', 9);
        lines << line;
    }
    lines << linesDigest("standard", graph.standardLines) << linesDigest("send", graph.sendLines)
          << linesDigest("sidechain", graph.sidechainLines) << linesDigest("both", graph.sendSidechainLines);
    for (const QPoint& point : graph.ellipsisPoints)
        lines << QStringLiteral("ellipsis %1,%2").arg(point.x()).arg(point.y());
    for (const DSPGroupGraphicalNode& group : graph.groupList) {
        lines << QStringLiteral("group %1 %2 '%3' %4 level %5 %6,%7 %8x%9")
                     .arg(group.id)
                     .arg(group.parentId)
                     .arg(group.name, group.guidString)
                     .arg(group.level)
                     .arg(group.rect.x())
                     .arg(group.rect.y())
                     .arg(group.rect.width())
                     .arg(group.rect.height());
    }
    QList<int> keys = graph.placedTable.keys();
    std::sort(keys.begin(), keys.end());
    for (int key : keys) {
        const QPoint position = graph.placedTable.value(key);
        lines << QStringLiteral("placed %1 at %2,%3").arg(key).arg(position.x()).arg(position.y());
    }
    lines << QStringLiteral("max %1,%2").arg(graph.maxX).arg(graph.maxY);
    if (graph.selectedFound) {
        lines << QStringLiteral("selected %1 at %2,%3")
                     .arg(graph.selectedFound->id)
                     .arg(graph.selectedNewPosition.x())
                     .arg(graph.selectedNewPosition.y());
    }
    return lines.join(QLatin1Char('\n'));
}

// The first line where two digests part, or nothing when they agree.
QString firstDifference(const QString& actual, const QString& expected)
{
    const QStringList a = actual.split(QLatin1Char('\n'));
    const QStringList e = expected.split(QLatin1Char('\n'));
    for (int i = 0; i < qMax(a.size(), e.size()); ++i) {
        const QString left = a.value(i, QStringLiteral("(none)"));
        const QString right = e.value(i, QStringLiteral("(none)"));
        if (left != right)
            return QStringLiteral("line %1:\n  got      %2\n  expected %3").arg(i).arg(left, right);
    }
    return QString();
}

#define COMPARE_DIGESTS(actual, expected)                                                                              \
    do {                                                                                                               \
        const QString difference = firstDifference(actual, expected);                                                 \
        QVERIFY2(difference.isEmpty(), qPrintable(difference));                                                        \
    } while (false)

// A network link, its model and a view laid out on every update.
struct ModelAndView
{
    ModelAndView()
        : tree(&network)
        , graph(&tree)
    {
    }

    void select(unsigned long long id, unsigned long long groupId)
    {
        graph.selectedId = id;
        graph.selectedGroupId = groupId;
    }

    ProfilerNetwork network;
    DSPTree tree;
    DSPNetGraph graph;
};

} // namespace

class TestPerformanceEquivalence : public QObject
{
    Q_OBJECT

private slots:
    void indexedQueueMatchesScanningQueue_data();
    void indexedQueueMatchesScanningQueue();
    void exposedPaintMatchesWholePaint_data();
    void exposedPaintMatchesWholePaint();
    void updateInPlaceMatchesRebuild();
};

void TestPerformanceEquivalence::indexedQueueMatchesScanningQueue_data()
{
    QTest::addColumn<quint32>("seed");
    QTest::addColumn<int>("steps");
    // Packets per receive: above the queue's bound, the oldest are dropped.
    QTest::addColumn<int>("maxBurst");
    QTest::addColumn<int>("cpuShare");
    QTest::addColumn<int>("pausePercent");

    QTest::newRow("light traffic") << 1u << 3000 << 4 << 30 << 0;
    QTest::newRow("light traffic, other seed") << 2u << 3000 << 4 << 30 << 0;
    QTest::newRow("bursts past the bound") << 3u << 400 << 1500 << 20 << 0;
    QTest::newRow("mostly untaken types") << 4u << 2000 << 40 << 5 << 0;
    QTest::newRow("pause toggling") << 5u << 3000 << 20 << 30 << 10;
    QTest::newRow("only CPU packets") << 6u << 1000 << 30 << 100 << 0;
}

// Random streams cut at random points (packet boundaries included), with
// random counts and takes in between, and a CPU history draining its own
// packets on every packetReady(): every answer must be the scanning one.
void TestPerformanceEquivalence::indexedQueueMatchesScanningQueue()
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
            const int burst = 1 + int(random.bounded(quint32(maxBurst)));
            for (int i = 0; i < burst; ++i)
                pending += randomPacket(random, cpuShare, &serial);
            // Half the reads end on a packet boundary, the rest anywhere.
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
        } else if (action < 8) {
            const PacketKind kind = Kinds[random.bounded(NumKinds)];
            QCOMPARE(network.getNumWaitingPackets(kind.type, kind.subtype), reference.count(kind.type, kind.subtype));
        } else {
            const PacketKind kind = Kinds[random.bounded(NumKinds)];
            const QByteArray expected = reference.take(kind.type, kind.subtype);
            const QByteArray taken = network.getPacket(kind.type, kind.subtype);
            QCOMPARE(taken.isNull(), expected.isNull());
            QCOMPARE(taken, expected);
        }
        QCOMPARE(ready.count(), referenceReady);
    }

    QList<float> taken;
    for (const CPUUsageSnapshot& snapshot : qAsConst(*history.getHistoryList()))
        taken.append(snapshot.dsp);
    QCOMPARE(taken, referenceHistory);

    // What is left must come out in the same order, type by type.
    for (const PacketKind& kind : Kinds) {
        QCOMPARE(network.getNumWaitingPackets(kind.type, kind.subtype), reference.count(kind.type, kind.subtype));
        for (;;) {
            const QByteArray expected = reference.take(kind.type, kind.subtype);
            QCOMPARE(network.getPacket(kind.type, kind.subtype), expected);
            if (expected.isNull())
                break;
        }
    }
}

void TestPerformanceEquivalence::exposedPaintMatchesWholePaint_data()
{
    QTest::addColumn<int>("shape");
    QTest::addColumn<float>("scale");
    QTest::newRow("tree at 1.0") << int(DSPShapes::DSPShape::Tree) << 1.0f;
    QTest::newRow("tree at 0.5") << int(DSPShapes::DSPShape::Tree) << 0.5f;
    QTest::newRow("cycles at 2.0") << int(DSPShapes::DSPShape::Cycles) << 2.0f;
    QTest::newRow("ladder at 1.0") << int(DSPShapes::DSPShape::DiamondLadder) << 1.0f;
}

// Painting only what an exposed area can show must give that area the
// same pixels as painting everything.
void TestPerformanceEquivalence::exposedPaintMatchesWholePaint()
{
    QFETCH(int, shape);
    QFETCH(float, scale);

    ProfilerChain profiler;
    DSPNetGraph graph(&profiler.dspTree);
    graph.setShowCPUUsage(true);
    graph.setShowVolumeLevels(true);
    graph.setShowGroups(true);
    graph.setShowGuids(true);
    graph.setShowSends(true);
    graph.setShowLegend(true);
    graph.setShowExcessiveInputs(true);
    graph.setScale(scale);
    profiler.network.receiveBytes(DSPShapes::makeDSPPacket(DSPShapes::DSPShape(shape), 300, 4));
    QVERIFY(graph.nodeList.size() > 100);

    const QSize size = graph.minimumSize().boundedTo(QSize(3000, 3000));
    auto render = [&](const QRect& clip) {
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
        const QRect exposed(random.bounded(size.width()), random.bounded(size.height()), 100 + random.bounded(700),
                            100 + random.bounded(500));
        const QRect area = exposed & QRect(QPoint(0, 0), size);
        const QImage part = render(area);
        QCOMPARE(largestDifference(part.copy(area), whole.copy(area)), 0);
    }
}

// A snapshot of the network already shown is written into the model and
// the layout in place. Whatever the packet, the result must be exactly what
// building both afresh from that packet gives; a packet dropped as broken
// must leave both as they were.
void TestPerformanceEquivalence::updateInPlaceMatchesRebuild()
{
    QRandomGenerator random(2026);
    ModelAndView running;
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
        running.network.receiveBytes(PacketEncoder::encodeDSP(network, version));

        driftValues(&network, random);
        if (random.bounded(3) == 0)
            changeNetwork(&network, random);
        const QByteArray next = PacketEncoder::encodeDSP(network, version);
        const SimUnit& chosen = network.units.at(random.bounded(network.units.size()));
        running.select(chosen.id, version >= 4 ? chosen.groupId : 0);

        // A cut-off copy first: dropped, and no unit changes (the packet's
        // own figures, on the first line, are reset by a dropped packet).
        const QString modelBefore = modelDigest(running.tree).section(QLatin1Char('\n'), 1);
        const QString layoutBefore = layoutDigest(running.graph);
        const int recordsStart = 12 + PacketEncoder::getDSPPrologueSize(version);
        QByteArray broken = next.left(recordsStart + random.bounded(next.size() - recordsStart));
        qToLittleEndian<quint32>(quint32(broken.size()), broken.data());
        running.network.receiveBytes(broken);
        COMPARE_DIGESTS(modelDigest(running.tree).section(QLatin1Char('\n'), 1), modelBefore);
        COMPARE_DIGESTS(layoutDigest(running.graph), layoutBefore);

        const quint64 valueSerial = running.tree.getValueSerial();
        running.network.receiveBytes(next);
        (running.tree.getValueSerial() != valueSerial ? inPlace : rebuilt)++;

        ModelAndView fresh;
        fresh.graph.setShowExcessiveInputs(excessive);
        fresh.graph.setShowInactiveInputs(inactive);
        fresh.network.receiveBytes(groups);
        // Selected after the groups: a layout without units clears it.
        fresh.select(chosen.id, version >= 4 ? chosen.groupId : 0);
        fresh.network.receiveBytes(next);
        COMPARE_DIGESTS(modelDigest(running.tree), modelDigest(fresh.tree));
        COMPARE_DIGESTS(layoutDigest(running.graph), layoutDigest(fresh.graph));
    }
    // Both paths must have been taken often for the comparison to mean anything.
    QVERIFY2(inPlace > 300 && rebuilt > 50, qPrintable(QStringLiteral("%1 in place, %2 rebuilt").arg(inPlace).arg(rebuilt)));
}

QTEST_MAIN(TestPerformanceEquivalence)

#include "tst_performance_equivalence.moc"
