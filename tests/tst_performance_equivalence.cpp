#include "dspfixture.h"
#include "dspplacements.h"
#include "dspshapes.h"
#include "packetbuilder.h"
#include "packetencoder.h"
#include "passtable.h"

#include <QImage>
#include <QPainter>
#include <QRandomGenerator>

#include <algorithm>
#include <iterator>
#include <map>
#include <memory>
#include <vector>

namespace
{

// The packet queue before it was indexed by type: one list in arrival order, scanned from the front on every
// count and take, framed like the link and bounded to as many packets. The indexed queue must answer as this does.
struct ScanningQueue
{
    // Returns whether packetReady() would follow.
    bool receive(const QByteArray& bytes, bool paused)
    {
        received += bytes;
        for (int size; received.size() >= 12
                       && received.size() >= (size = qFromLittleEndian<qint32>(received.constData()));) {
            packets.append(received.left(size));
            received.remove(0, size);
            if (packets.size() > ProfilerNetwork::MaxWaitingPackets)
                packets.removeFirst();
        }
        const bool ready = !packets.isEmpty() && !paused;
        if (paused)
            packets.clear();
        return ready;
    }

    static auto is(quint8 type, quint8 subtype)
    {
        return [=](const QByteArray& packet) { return quint8(packet[8]) == type && quint8(packet[9]) == subtype; };
    }

    int count(quint8 type, quint8 subtype) const
    {
        return int(std::count_if(packets.begin(), packets.end(), is(type, subtype)));
    }

    QByteArray take(quint8 type, quint8 subtype)
    {
        const int found = int(std::find_if(packets.begin(), packets.end(), is(type, subtype)) - packets.begin());
        return found < packets.size() ? packets.takeAt(found) : QByteArray();
    }

    QList<QByteArray> packets;
    QByteArray received;
};

// The streams the collectors take, commands echoed back, and types nobody takes.
const std::pair<quint8, quint8> Kinds[] = { { 1, 0 }, { 4, 0 }, { 5, 0 }, { 7, 0 }, { 9, 0 }, { 1, 1 },
                                            { 3, 2 }, { 2, 0 }, { 6, 0 }, { 8, 0 }, { 3, 0 } };

QByteArray randomPacket(QRandomGenerator& random)
{
    const auto [type, subtype] = Kinds[random.bounded(int(std::size(Kinds)))];
    PacketBuilder builder(type, subtype, 0);
    for (int i = int(random.bounded(40)); i > 0; --i)
        builder.u8(quint8(random.bounded(256)));
    return builder.finish();
}

// Qt cuts a line to the clip before it draws it, which can move the antialiasing of a long line's edge pixels
// by a few levels; anything missing or extra differs by far more.
int largestDifference(const QImage& a, const QImage& b)
{
    if (a == b)
        return 0;
    int largest = 0;
    for (int y = 0; y < a.height(); ++y) {
        for (int i = 0; i < a.bytesPerLine(); ++i)
            largest = qMax(largest, qAbs(int(a.constScanLine(y)[i]) - int(b.constScanLine(y)[i])));
    }
    return largest <= 16 ? 0 : largest;
}

// A small random network: units feeding several consumers, now and then a cycle, every field varied.
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
            const int from =
                random.bounded(10) == 0 ? random.bounded(count) : i + 1 + random.bounded(count - i - 1);
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

// Everything the model holds and the view draws and remembers, a line per model field, per placed unit and
// per group box; on request without the packet's own figures, which a dropped packet resets.
QStringList digest(const ModelAndView& shown, bool figures = true)
{
    QStringList lines;
    const Fields fields = unitFields(shown.tree);
    for (auto field = fields.cbegin(); field != fields.cend(); ++field) {
        if (figures || !QStringList({ "cpuUsage", "timingRate", "timingLength" }).contains(field.key()))
            lines << field.key() + ' ' + field.value();
    }
    const DSPNetGraph& graph = shown.graph;
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
            out << '\n' << group.id << group.parentId << group.name << group.guidString << group.level
                << group.rect;
        const QHash<int, QPoint> placed = graph.placedTable();
        out << '\n' << QMap<int, QPoint>(std::map<int, QPoint>(placed.keyValueBegin(), placed.keyValueEnd()));
        if (graph.selectedFound)
            out << '\n' << graph.selectedFound->id << graph.selectedNewPosition;
    }
    return lines + text.split('\n');
}

void select(DSPNetGraph* graph, const SimUnit& unit, int version)
{
    graph->selectedId = unit.id;
    graph->selectedGroupId = version >= 4 ? unit.groupId : 0;
}

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
        QTest::addColumn<int>("pausePercent");

        QTest::newRow("light traffic") << 1u << 3000 << 4 << 0;
        QTest::newRow("bursts past the bound") << 3u << 400 << 1500 << 0;
        QTest::newRow("pause toggling") << 5u << 3000 << 20 << 10;
    }

    // Random streams cut anywhere (packet boundaries included), random counts and takes in between: every
    // answer must be the scanning one, and what is left comes out in the same order, type by type.
    void indexedQueueMatchesScanningQueue()
    {
        QFETCH(quint32, seed);
        QFETCH(int, steps);
        QFETCH(int, maxBurst);
        QFETCH(int, pausePercent);

        QRandomGenerator random(seed);
        ProfilerNetwork network;
        QSignalSpy ready(&network, &ProfilerNetwork::packetReady);
        ScanningQueue reference;
        int referenceReady = 0;
        QByteArray pending;
        for (int step = 0; step < steps; ++step) {
            const int action = int(random.bounded(10));
            const auto [type, subtype] = Kinds[random.bounded(int(std::size(Kinds)))];
            if (action < 5) {
                for (int i = 1 + int(random.bounded(quint32(maxBurst))); i > 0; --i)
                    pending += randomPacket(random);
                const int cut = random.bounded(2) ? pending.size() : int(random.bounded(pending.size() + 1));
                network.paused = int(random.bounded(100)) < pausePercent;
                network.receiveBytes(pending.left(cut));
                referenceReady += reference.receive(pending.left(cut), network.paused);
                pending.remove(0, cut);
            } else if (action < 8) {
                QCOMPARE(network.getNumWaitingPackets(type, subtype), reference.count(type, subtype));
            } else {
                QCOMPARE(network.getPacket(type, subtype), reference.take(type, subtype));
            }
            QCOMPARE(ready.count(), referenceReady);
        }
        for (const auto& [type, subtype] : Kinds) {
            QCOMPARE(network.getNumWaitingPackets(type, subtype), reference.count(type, subtype));
            for (QByteArray expected; !(expected = reference.take(type, subtype)).isNull();)
                QCOMPARE(network.getPacket(type, subtype), expected);
            QVERIFY(network.getPacket(type, subtype).isNull());
        }
    }

    // The layout's flat table against a hash: passes of random sizes, often more keys than a pass was started
    // for, and keys that differ only in their high bits.
    void passTableMatchesHash()
    {
        QRandomGenerator random(99);
        PassTable<qint64, int> table;
        QHash<qint64, int> reference;
        int value = 0;
        for (int pass = 0; pass < 300; ++pass) {
            table.startPass(random.bounded(40));
            reference.clear();
            for (int step = random.bounded(200); step > 0; --step) {
                const qint64 key = qint64(random.bounded(-3, 4)) * (qint64(1) << 32) + random.bounded(64);
                const int action = random.bounded(3);
                if (action == 0) {
                    table.insert(key, step);
                    reference.insert(key, step);
                } else if (action == 1) {
                    QCOMPARE(table.insertNew(key, step), !reference.contains(key));
                    reference.insert(key, reference.value(key, step));
                } else {
                    QCOMPARE(table.find(key, &value), reference.contains(key));
                    QCOMPARE(value, reference.value(key, value));
                }
            }
            QCOMPARE(table.size(), reference.size());
        }
    }

    // Two layouts share units that come and go, change ids or share their low 32 bits, and small passes make
    // rows be given up and numbered again: every answer must be a plain hash's, keyed by the low 32 bits.
    void placementsMatchAPlainHash()
    {
        QRandomGenerator random(11);
        std::vector<std::unique_ptr<DSPNode>> units;
        DSPPlacementTable tables[2];
        QHash<int, QPoint> expected[2];
        for (int pass = 0; pass < 60; ++pass) {
            // New units, every fifth sharing the low bits of an earlier one.
            for (int i = 0; i < 40; ++i) {
                auto unit = std::make_unique<DSPNode>();
                const bool twin = !units.empty() && i % 5 == 0;
                const quint64 low = twin ? units[random.bounded(int(units.size()))]->id & 0xffffffffULL
                                         : random.generate();
                unit->id = (quint64(random.bounded(4)) << 32) | low;
                units.push_back(std::move(unit));
            }
            if (units.size() > 300)
                units.erase(units.begin(), units.begin() + 40);
            // A model edited by hand may give a unit another id.
            units[random.bounded(int(units.size()))]->id = random.generate64();

            const int t = pass % 2;
            tables[t].startPass(pass % 3 == 0 ? 0 : int(units.size()));
            expected[t].clear();
            for (int step = 0; step < 400; ++step) {
                const DSPNode* unit = units[random.bounded(int(units.size()))].get();
                const int key = DSPPlacementTable::keyOf(unit->id);
                if (random.bounded(2)) {
                    const QPoint position(random.bounded(1000), random.bounded(1000));
                    tables[t].insert(unit, position);
                    expected[t].insert(key, position);
                    continue;
                }
                QPoint found(-7, -7);
                QCOMPARE(tables[t].find(unit, &found), expected[t].contains(key));
                QCOMPARE(found, expected[t].value(key, QPoint(-7, -7)));
            }
            QCOMPARE(tables[t].toHash(), expected[t]);
            QCOMPARE(tables[1 - t].toHash(), expected[1 - t]);
        }

        // Units that come and go do not grow the table without bound.
        DSPPlacementTable churn;
        for (int pass = 0; pass < 100; ++pass) {
            churn.startPass(100);
            for (int i = 0; i < 100; ++i) {
                DSPNode unit;
                unit.id = quint64(pass) * 100 + i;
                churn.insert(&unit, QPoint());
            }
            QVERIFY(churn.rowCount() <= 2 * 100 + 1024 + 100);
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

    // Painting what the index finds in an area must give exactly the pixels of visiting every item under the
    // same clip (an item dropped or found twice shows), and those of an unclipped paint (one culled wrongly
    // shows). Options, zoom, selection, highlight, guids and names vary; areas may be empty or overhang.
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
                               &DSPNetGraph::setShowGroups, &DSPNetGraph::setShowGuids,
                               &DSPNetGraph::setShowSends, &DSPNetGraph::setShowLegend })
                (graph.*show)(random.bounded(3) != 0);
            SimNetwork network =
                units ? DSPShapes::makeNetwork(shape, units, seed + trial) : randomNetwork(random);
            for (SimGroup& group : network.groups) {
                if (random.bounded(2))
                    group.guid = QUuid(random.generate(), 1, 2, 3, 4, 5, 6, 7, 8, 9, 10);
                group.name += QByteArray(random.bounded(3) ? 0 : random.bounded(80), 'W');
            }
            shown.network.receiveBytes(PacketEncoder::encodeGroups(network));
            const int chosen = random.bounded(network.units.size());
            select(&graph, network.units.at(chosen), PacketEncoder::NewestDSPVersion);
            shown.network.receiveBytes(PacketEncoder::encodeDSP(network, PacketEncoder::NewestDSPVersion));
            graph.setHighlightName(QStringList { "", "Fader", "0x6" }.at(random.bounded(3)));
            graph.setScale(0.2f + random.bounded(19) * 0.1f);
            bool forImage = false;
            const auto paint = [&](const QRect& area, bool indexed, bool clipped) {
                // Opaque, as on screen: nearly transparent pixels have no stable colour.
                QImage image(area.size().expandedTo(QSize(1, 1)).boundedTo(QSize(2000, 2000)),
                             QImage::Format_RGB32);
                image.fill(QColor(49, 56, 64));
                QPainter painter(&image);
                painter.translate(-area.topLeft());
                if (clipped)
                    painter.setClipRect(area);
                graph.paintIndexed = indexed;
                graph.renderTree(&painter, forImage);
                return image;
            };
            // A paint has indexed this layout when the next snapshot, in place, gives units up to 32 meters, which
            // widens their boxes: the next paint must index them again.
            paint(QRect(0, 0, 1, 1), true, false);
            for (SimUnit& unit : network.units)
                unit.levels.resize(random.bounded(33));
            const quint64 values = shown.tree.getValueSerial();
            shown.network.receiveBytes(PacketEncoder::encodeDSP(network, PacketEncoder::NewestDSPVersion));
            QVERIFY(shown.tree.getValueSerial() != values);

            const QSize size = graph.minimumSize();
            for (int view = 0; view < 10; ++view) {
                const int x = random.bounded(size.width()), y = random.bounded(size.height());
                // Areas that end or start a pixel or two from a unit's corner or a line's end catch a margin too thin.
                const QLine line = graph.standardLines.value(random.bounded(graph.standardLines.size() + 1));
                const int node = random.bounded(qMax(1, graph.nodeList.size()));
                const QPoint corner = (random.bounded(2) ? line.p1() : graph.nodeList.value(node).position)
                                      * graph.getScale();
                const QPoint near = corner + QPoint(random.bounded(-2, 3), random.bounded(-2, 3));
                const QRect areas[] = { QRect(QPoint(0, 0), size), QRect(x, y, 0, random.bounded(2) * 50),
                                        QRect(size.width() - 300, y, 800, 600),
                                        QRect(x, size.height() - 200, 800, 600),
                                        QRect(x - 400, y - 300, 800, 600), QRect(near - QPoint(800, 600), near),
                                        QRect(near, QSize(800, 600)) };
                const QRect area = areas[view < 2 ? view : random.bounded(7)];
                forImage = random.bounded(4) == 0;
                graph.paintIndexStale |= random.bounded(2); // the first finds pass over the boxes, later ones ask the grid
                const QImage indexed = paint(area, true, true);
                // Built from the lists as they are: the index, not the fallback, is what gets compared.
                QCOMPARE(graph.unitIndex.size(), graph.nodeList.size());
                QCOMPARE(graph.standardLineIndex.size(), graph.standardLines.size());
                QCOMPARE(graph.groupBoxIndex.size(), graph.groupList.size());
                QString where;
                QDebug(&where) << "trial" << trial << "scale" << graph.getScale() << area;
                QVERIFY2(indexed == paint(area, false, true), qPrintable(where));
                // Unclipped, a large network paints slowly: a few areas do. The first area clips nothing.
                if (!area.isEmpty() && view >= 2 && (!units || view % 4 == 2))
                    QVERIFY2(largestDifference(indexed, paint(area, false, false)) == 0, qPrintable(where));
            }
        }
    }

    // A running model and view take snapshot after snapshot, the same network in place, a changed one rebuilt
    // from the units they have: after every packet both must be what a fresh build gives, and a broken packet
    // must leave both as they were. Groups edited by hand must be built again from the same packet.
    void updatesMatchFreshBuild()
    {
        QRandomGenerator random(2026);
        ModelAndView running;
        int inPlace = 0, rebuilt = 0;
        for (int trial = 0; trial < 300; ++trial) {
            const int version = random.bounded(7);
            SimNetwork network = randomNetwork(random);
            bool excessive = random.bounded(2) == 0, inactive = random.bounded(2) == 0;
            running.graph.setShowExcessiveInputs(excessive);
            running.graph.setShowInactiveInputs(inactive);
            QByteArray groups = PacketEncoder::encodeGroups(network);
            QSignalSpy updated(&running.tree, &DSPTree::dspNetTreeUpdated);
            running.network.receiveBytes(groups);
            const int edit = running.tree.groups.isEmpty() ? 0 : random.bounded(4);
            if (edit == 1)
                running.tree.groups.constFirst()->name = "edited"; // the list itself stays shared
            if (edit == 2)
                delete running.tree.groups.takeLast();
            if (edit != 0)
                running.network.receiveBytes(groups);
            // The same packet again is still an update.
            QCOMPARE(updated.count(), edit != 0 ? 2 : 1);
            // Half the time the unit is selected before the first layout, so the update after it looks
            // for a selection that layout has already found.
            const bool selectFirst = random.bounded(2) == 0;
            SimUnit chosen = network.units.at(random.bounded(network.units.size()));
            if (selectFirst)
                select(&running.graph, chosen, version);
            running.network.receiveBytes(PacketEncoder::encodeDSP(network, version));

            for (int step = random.bounded(1, 4); step > 0; --step) {
                driftValues(&network, random);
                if (random.bounded(3) == 0)
                    changeNetwork(&network, random);
                const QByteArray next = PacketEncoder::encodeDSP(network, version);
                if (!selectFirst)
                    chosen = network.units.at(random.bounded(network.units.size()));
                select(&running.graph, chosen, version);

                // A cut-off copy is dropped and changes no unit (a dropped packet resets its own figures).
                const QStringList before = digest(running, false);
                const int recordsStart = 12 + PacketEncoder::getDSPPrologueSize(version);
                const int cut = recordsStart + random.bounded(next.size() - recordsStart);
                running.network.receiveBytes(cutPacket(next, cut));
                QCOMPARE(digest(running, false), before);

                const quint64 valueSerial = running.tree.getValueSerial();
                running.network.receiveBytes(next);
                (running.tree.getValueSerial() != valueSerial ? inPlace : rebuilt)++;

                // What follows a DSP packet without changing it: the groups packet, as a target sends it each
                // time (at times with a group renamed), a new selection, an option switched.
                if (random.bounded(2) == 0) {
                    if (random.bounded(3) == 0) {
                        network.groups[random.bounded(network.groups.size())].name += '\'';
                        groups = PacketEncoder::encodeGroups(network);
                    }
                    if (!selectFirst) {
                        chosen = network.units.at(random.bounded(network.units.size()));
                        select(&running.graph, chosen, version);
                    }
                    running.network.receiveBytes(groups);
                }
                if (random.bounded(6) == 0)
                    running.graph.setShowExcessiveInputs(excessive = !excessive);
                if (random.bounded(6) == 0)
                    running.graph.setShowInactiveInputs(inactive = !inactive);

                ModelAndView fresh(excessive, inactive);
                // Its depths come from the walk and its send targets from a search of the whole list; the running
                // model takes its depths from its records, the running view its targets from their entries.
                fresh.tree.fastDepths = false;
                fresh.graph.sendsByEntry = false;
                fresh.network.receiveBytes(groups);
                // Selected after the groups: a layout without units clears it. A layout that did not reach the
                // unit has cleared it in the running view too, and an option switched since cannot bring it back.
                if (running.graph.selectedId != DSPNetGraph::NoSelection)
                    select(&fresh.graph, chosen, version);
                fresh.network.receiveBytes(next);
                QCOMPARE(digest(running), digest(fresh));
            }
        }
        // Both paths must have been taken often for the comparison to mean anything.
        QVERIFY2(inPlace > 300 && rebuilt > 50,
                 qPrintable(QStringLiteral("%1 in place, %2 rebuilt").arg(inPlace).arg(rebuilt)));
    }
};

QTEST_MAIN(TestPerformanceEquivalence)
#include "tst_performance_equivalence.moc"
