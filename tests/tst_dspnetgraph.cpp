#include "dspnetgraph.h"
#include "dspnettree.h"
#include "loopbacktarget.h"
#include "packetbuilder.h"
#include "profilernetwork.h"

#include <QApplication>
#include <QElapsedTimer>
#include <QImage>
#include <QImageReader>
#include <QMenu>
#include <QPainter>
#include <QSignalSpy>
#include <QTimer>
#include <QtTest>

#include <memory>

typedef QList<quint64> IdList;
typedef QList<QPoint> PointList;

namespace
{

// A model filled by hand, with the depths the model would compute, and its graph.
class Model
{
public:
    Model() : tree(&network) {}

    DSPNode* unit(quint64 id, int depth, bool active = true, quint64 groupId = 0)
    {
        DSPNode* node = new DSPNode;
        node->id = id;
        node->name = QStringLiteral("U%1").arg(id);
        node->depth = depth;
        node->active = active;
        node->groupId = groupId;
        tree.nodesById.insert(id, node);
        return node;
    }

    static void feed(DSPNode* consumer, DSPNode* input, bool sidechain = false, bool send = false)
    {
        consumer->inputs.append(DSPNode::InputRecord { input, sidechain, send });
    }

    static void feed(DSPNode* consumer, std::initializer_list<DSPNode*> inputs)
    {
        for (DSPNode* input : inputs)
            feed(consumer, input);
    }

    // Makes `head` the head and lays the network out.
    DSPNetGraph& layout(DSPNode* head)
    {
        tree.root.inputs.clear();
        feed(&tree.root, head, true, true);
        graph.reset(new DSPNetGraph(&tree));
        graph->slotProcessTree();
        return *graph;
    }

    void addGroup(quint64 id, quint64 parentId, const QUuid& guid = QUuid())
    {
        tree.groups.append(new GroupNode);
        tree.groups.last()->id = id;
        tree.groups.last()->parentId = parentId;
        tree.groups.last()->name = QStringLiteral("G%1").arg(id);
        tree.groups.last()->guid = guid;
    }

    ProfilerNetwork network;
    DSPTree tree;
    std::unique_ptr<DSPNetGraph> graph;
};

// A loopback target, the network and the model fed with the version-6 test network, so that commands go
// through, and its graph shown. With inactive inputs hidden, its units sit at:
//   257 (10, 10)   258 (210, 10)   261 (410, 10)
//                  259 (210, 85)   263 (410, 85)    bypassed
//                                  264 (410, 160)
//                                  260 (410, 235)
struct LiveModel
{
    LiveModel() : tree(&network), graph(&tree) {}

    bool show()
    {
        network.connectToHost(QStringLiteral("127.0.0.1"), target.port());
        QSignalSpy updated(&tree, &DSPTree::dspNetTreeUpdated);
        if (!QTest::qWaitFor([this] { return network.isConnected(); }, 5000) || !target.waitForClient())
            return false;
        target.send(readTestData(QStringLiteral("dsp-v6.bin")));
        if (!updated.wait(5000))
            return false;
        graph.show();
        return QTest::qWaitForWindowExposed(&graph);
    }

    LoopbackTarget target;
    ProfilerNetwork network;
    DSPTree tree;
    DSPNetGraph graph;
};

IdList ids(const DSPNetGraph& graph)
{
    IdList result;
    for (const DSPNetGraphicalNode& node : graph.nodeList)
        result.append(node.id);
    return result;
}

PointList positions(const DSPNetGraph& graph)
{
    PointList result;
    for (const DSPNetGraphicalNode& node : graph.nodeList)
        result.append(node.position);
    return result;
}

QImage render(DSPNetGraph& graph)
{
    QImage image(graph.width(), graph.height(), QImage::Format_ARGB32);
    image.fill(Qt::transparent);
    QPainter painter(&image);
    graph.renderTree(&painter, false);
    return image;
}

} // namespace

class TestDSPNetGraph : public QObject
{
    Q_OBJECT

private slots:
    // Unit 4 feeds both 2 and 3: placed once, linked twice. Every connection kind appears once, and 2 sends to 3.
    void smallTreeLayout()
    {
        Model model;
        DSPNode* a = model.unit(1, 0);
        DSPNode* b = model.unit(2, 1);
        DSPNode* c = model.unit(3, 1);
        DSPNode* d = model.unit(4, 2);
        a->name = QStringLiteral("Bus:Master");
        a->levels = { char(0), char(-80), char(-40), char(10) };
        b->sendTargetId = 3;
        Model::feed(a, b);
        Model::feed(a, c, false, true);
        Model::feed(b, d, true, false);
        Model::feed(c, d, true, true);
        const DSPNetGraph& graph = model.layout(a);

        QCOMPARE(ids(graph), IdList({ 1, 2, 4, 3 }));
        QCOMPARE(positions(graph), PointList({ { 10, 10 }, { 210, 10 }, { 410, 10 }, { 210, 85 } }));
        QCOMPARE(graph.nodeList.first().name, QStringLiteral("Bus: Master"));
        QCOMPARE(graph.nodeList.first().levels, QList<float>({ 1.0f, 0.0f, 0.5f, 1.125f }));
        // Ends spread over the consumer's right edge: 45 / 3 = 15 apart; 45 / 2 = 22.5 truncated.
        QCOMPARE(graph.standardLines, QVector<QLine>({ QLine(210, 32, 130, 25) }));
        QCOMPARE(graph.sidechainLines, QVector<QLine>({ QLine(410, 32, 330, 32) }));
        QCOMPARE(graph.sendSidechainLines, QVector<QLine>({ QLine(410, 32, 330, 107) }));
        QCOMPARE(graph.sendLines, QVector<QLine>({ QLine(210, 107, 130, 40), QLine(270, 32, 270, 107) }));
        QCOMPARE(graph.rowCounter, 1);
        QCOMPARE(QPoint(graph.maxX, graph.maxY), QPoint(410, 85));
        QCOMPARE(graph.size(), QSize(680, 180));
    }

    void hiddenInputs_data()
    {
        QTest::addColumn<int>("inputCount");
        QTest::addColumn<bool>("firstInputPlacedBefore");
        QTest::addColumn<IdList>("expectedIds");
        QTest::addColumn<PointList>("expectedPositions");
        QTest::addColumn<PointList>("expectedMarkers");

        const PointList hidden { { 10, 10 }, { 210, 10 }, { 410, 10 }, { 410, 85 }, { 410, 235 }, { 410, 310 } };
        QTest::newRow("4 inputs, none hidden")
            << 4 << false << IdList({ 1, 2, 11, 12, 13, 30, 14 })
            << PointList({ { 10, 10 }, { 210, 10 }, { 410, 10 }, { 410, 85 }, { 410, 160 }, { 610, 160 },
                           { 410, 235 } })
            << PointList();
        QTest::newRow("5 inputs, the middle one hidden")
            << 5 << false << IdList({ 1, 2, 11, 12, 14, 15 }) << hidden << PointList({ { 410, 150 } });
        QTest::newRow("7 inputs, 3 to 5 hidden with their subtrees")
            << 7 << false << IdList({ 1, 2, 11, 12, 16, 17 }) << hidden << PointList({ { 410, 150 } });
        QTest::newRow("7 inputs, one placed before: nothing hidden")
            << 7 << true << IdList({ 1, 3, 11, 2, 12, 13, 30, 14, 15, 16, 17 })
            << PointList({ { 10, 10 }, { 210, 10 }, { 410, 10 }, { 210, 85 }, { 410, 85 }, { 410, 160 }, { 610, 160 },
                           { 410, 235 }, { 410, 310 }, { 410, 385 }, { 410, 460 } })
            << PointList();
    }

    // Head 1 feeds unit 2, whose inputs are 11 onwards; unit 30 feeds both the third and the last of them, so
    // hiding the third must hide it everywhere.
    void hiddenInputs()
    {
        QFETCH(int, inputCount);
        QFETCH(bool, firstInputPlacedBefore);
        QFETCH(IdList, expectedIds);
        QFETCH(PointList, expectedPositions);
        QFETCH(PointList, expectedMarkers);

        Model model;
        DSPNode* head = model.unit(1, 0);
        DSPNode* wide = model.unit(2, 1);
        DSPNode* shared = model.unit(30, 3);
        for (int i = 0; i < inputCount; ++i)
            Model::feed(wide, model.unit(11 + i, 2));
        Model::feed(wide->inputs.at(2).node, shared);
        Model::feed(wide->inputs.last().node, shared);
        if (firstInputPlacedBefore) {
            DSPNode* other = model.unit(3, 1);
            Model::feed(head, other);
            Model::feed(other, wide->inputs.first().node);
        }
        Model::feed(head, wide);
        DSPNetGraph& graph = model.layout(head);

        QCOMPARE(ids(graph), expectedIds);
        QCOMPARE(positions(graph), expectedPositions);
        QCOMPARE(graph.ellipsisPoints, expectedMarkers);
        if (!expectedMarkers.isEmpty())
            QCOMPARE(graph.placedTable.value(30), QPoint(-1, -1));

        graph.setShowExcessiveInputs(true);
        QCOMPARE(graph.nodeList.size(), inputCount + 3 + (firstInputPlacedBefore ? 1 : 0));
        QVERIFY(graph.ellipsisPoints.isEmpty());
    }

    // The skipped unit is not marked: its input still shows through unit 3.
    void inactiveInputs()
    {
        Model model;
        DSPNode* a = model.unit(1, 0);
        DSPNode* off = model.unit(2, 1, false);
        DSPNode* c = model.unit(3, 1);
        DSPNode* d = model.unit(4, 2);
        Model::feed(a, { off, c });
        Model::feed(off, d);
        Model::feed(c, d);
        DSPNetGraph& graph = model.layout(a);
        QCOMPARE(ids(graph), IdList({ 1, 3, 4 }));
        QCOMPARE(positions(graph), PointList({ { 10, 10 }, { 210, 10 }, { 410, 10 } }));

        graph.setShowInactiveInputs(true);
        QCOMPARE(ids(graph), IdList({ 1, 2, 4, 3 }));
    }

    // Units of 100 and 200 sit in 300, which sits in 400, which sits in 1100; 400 comes after 300 and gets its
    // box in the same pass, 1100 comes first and waits for the next one. 600 holds a unit and names 100 as its
    // parent, but 100 owns units itself and is never grown. 700 is reached before its child 800, which only
    // gets a box in that same pass, so 700 encloses 500 alone.
    void groupBoxes()
    {
        Model model;
        DSPNode* a = model.unit(1, 0, true, 100);
        DSPNode* b = model.unit(2, 1, true, 100);
        Model::feed(a, { b, model.unit(3, 1, true, 200), model.unit(5, 1, true, 500), model.unit(6, 1, true, 900) });
        Model::feed(b, model.unit(4, 2, true, 600));
        const QUuid guid("{12345678-9abc-def0-1234-56789abcdef0}");
        const QList<QPair<quint64, quint64>> groups { { 1100, 0 }, { 300, 400 }, { 400, 1100 }, { 100, 300 },
                                                      { 200, 300 }, { 600, 100 }, { 700, 0 }, { 500, 700 },
                                                      { 800, 700 }, { 900, 800 }, { 1000, 0 } }; // 1000: no box
        for (const auto& group : groups)
            model.addGroup(group.first, group.second, group.first == 400 ? guid : QUuid());
        DSPNetGraph& graph = model.layout(a);

        IdList boxIds;
        QList<int> levels;
        for (const DSPGroupGraphicalNode& box : graph.groupList) {
            boxIds << box.id;
            levels << box.level;
        }
        QCOMPARE(boxIds, IdList({ 100, 600, 200, 500, 900, 300, 400, 700, 800, 1100 }));
        QCOMPARE(levels, QList<int>({ 0, 0, 0, 0, 0, 1, 2, 1, 1, 3 }));
        const QVector<DSPGroupGraphicalNode>& boxes = graph.groupList;
        QCOMPARE(boxes.at(0).rect, QRectF(6, 6, 328, 53));
        QCOMPARE(boxes.at(1).rect, QRectF(406, 6, 128, 53));
        QCOMPARE(boxes.at(2).rect, QRectF(206, 81, 128, 53));
        QCOMPARE(boxes.at(5).rect, QRectF(2, 2, 336, 136));
        QCOMPARE(boxes.at(6).rect, QRectF(-2, -2, 344, 144));
        QCOMPARE(boxes.at(7).rect, QRectF(202, 152, 136, 61));
        QCOMPARE(boxes.at(9).rect, QRectF(-6, -6, 352, 152));
        QCOMPARE(boxes.at(0).parentId, 300ULL);
        QCOMPARE(boxes.at(0).name, QStringLiteral("G100"));
        QCOMPARE(boxes.at(6).guidString, guid.toString());
        QVERIFY(boxes.at(5).guidString.isEmpty());
        QCOMPARE(findOwnIndex(graph.groupList, 700), 7);
        QCOMPARE(findOwnIndex(graph.groupList, 1000), -1);
    }

    // Before the first network, or with a model without a head, the old drawing stays; only the group boxes
    // go, and the send lines are added once more, up to a bound.
    void headlessPass()
    {
        Model model;
        DSPNode* a = model.unit(1, 0, true, 100);
        DSPNode* b = model.unit(2, 1);
        Model::feed(a, b);
        b->sendTargetId = 1;
        DSPNetGraph& graph = model.layout(a);
        graph.selectedId = 2;
        graph.selectedGroupId = 0;
        QCOMPARE(graph.groupList.size(), 1);
        QCOMPARE(graph.sendLines.size(), 1);

        model.tree.root.inputs.clear();
        graph.slotProcessTree();
        QCOMPARE(ids(graph), IdList({ 1, 2 }));
        QVERIFY(graph.groupList.isEmpty());
        QCOMPARE(graph.sendLines.size(), 2);
        QCOMPARE(graph.selectedId, DSPNetGraph::NoSelection);
        for (int i = 0; i < 100; ++i)
            graph.slotProcessTree();
        QCOMPARE(graph.sendLines.size(), 17);
    }

    void selectionFollowsUnit()
    {
        Model model;
        DSPNode* a = model.unit(1, 0);
        DSPNode* b = model.unit(2, 1, true, 7);
        Model::feed(a, b);
        DSPNetGraph& graph = model.layout(a);
        QSignalSpy moved(&graph, &DSPNetGraph::selectedNodePositionChanged);
        graph.selectedId = 2;
        graph.selectedGroupId = 7;
        graph.selectedPosition = QPoint(210, 10);

        // Unit 3 now comes first and pushes unit 2 down a row; a second pass moves nothing.
        a->inputs.prepend(DSPNode::InputRecord { model.unit(3, 1), false, false });
        graph.slotProcessTree();
        graph.slotProcessTree();
        QCOMPARE(moved.count(), 1);
        QCOMPARE(moved.at(0), QVariantList({ QPoint(210, 85), QPoint(210, 10) }));
        QRectF rect;
        QVERIFY(graph.getSelectedNodeRect(rect));
        QCOMPARE(rect, QRectF(210, 85, 120, 45));

        // Same id, other group: a different unit, so the selection goes.
        b->groupId = 8;
        graph.slotProcessTree();
        QCOMPARE(graph.selectedId, DSPNetGraph::NoSelection);
        QVERIFY(!graph.getSelectedNodeRect(rect));
    }

    void widgetSizing()
    {
        Model model;
        DSPNode* a = model.unit(1, 0);
        DSPNode* b = model.unit(2, 1);
        Model::feed(a, { b, model.unit(4, 1) });
        Model::feed(b, model.unit(3, 2));
        DSPNetGraph& graph = model.layout(a);
        QCOMPARE(graph.size(), QSize(680, 180));

        a->inputs.clear();
        graph.slotProcessTree();
        QCOMPARE(QPoint(graph.maxX, graph.maxY), QPoint(10, 10));
        QCOMPARE(graph.size(), QSize(680, 180));

        graph.setScale(0.5f);
        QCOMPARE(graph.size(), QSize(140, 52));
        QCOMPARE(graph.minimumSize(), graph.maximumSize());
        graph.setScale(5.0f);
        QCOMPARE(graph.getScale(), 2.0f);
        QCOMPARE(graph.size(), QSize(560, 210));
        graph.setScale(0.1f);
        QCOMPARE(graph.getScale(), 0.2f);
    }

    void cyclicAndDeepNetworks()
    {
        QElapsedTimer timer;
        timer.start();

        // 1 -> 2 -> 3 -> 2, and 2 is the hidden middle input of 1 whose subtree loops back to itself.
        Model cyclic;
        DSPNode* head = cyclic.unit(1, 0);
        DSPNode* loopA = cyclic.unit(2, 1);
        DSPNode* loopB = cyclic.unit(3, 2);
        Model::feed(loopA, loopB);
        Model::feed(loopB, loopA);
        Model::feed(head, { cyclic.unit(10, 1), cyclic.unit(11, 1), loopA, cyclic.unit(12, 1), cyclic.unit(13, 1) });
        DSPNetGraph& cyclicGraph = cyclic.layout(head);
        QCOMPARE(ids(cyclicGraph), IdList({ 1, 10, 11, 12, 13 }));
        cyclicGraph.setShowExcessiveInputs(true);
        QCOMPARE(ids(cyclicGraph), IdList({ 1, 10, 11, 2, 3, 12, 13 }));
        QCOMPARE(cyclicGraph.standardLines.size(), 7);

        // A chain as long as a real packet can carry must not exhaust the stack.
        const int length = 100000;
        Model deep;
        DSPNode* first = deep.unit(1, 0);
        for (DSPNode* previous = first; deep.tree.nodesById.size() < length;) {
            DSPNode* next = deep.unit(previous->id + 1, previous->depth + 1);
            Model::feed(previous, next);
            previous = next;
        }
        const DSPNetGraph& deepGraph = deep.layout(first);
        QCOMPARE(deepGraph.nodeList.size(), length);
        QCOMPARE(deepGraph.nodeList.last().position, QPoint((length - 1) * 200 + 10, 10));
        QCOMPARE(deepGraph.maximumWidth(), QWIDGETSIZE_MAX);
        QVERIFY2(timer.elapsed() < 5000, qPrintable(QString::number(timer.elapsed())));
    }

    void fillColours_data()
    {
        QTest::addColumn<bool>("active");
        QTest::addColumn<bool>("bypass");
        QTest::addColumn<bool>("showCPU");
        QTest::addColumn<float>("exclusiveCPU");
        QTest::addColumn<QString>("highlight");
        QTest::addColumn<QColor>("expected");

        const QColor blue(66, 186, 255), magenta(Qt::magenta), green(0, 255, 0), red(255, 0, 0);
        QTest::newRow("active") << true << false << false << 0.0f << "" << blue;
        QTest::newRow("inactive") << false << false << true << 0.5f << "" << QColor(49, 56, 64);
        QTest::newRow("bypassed beats CPU") << true << true << true << 0.5f << "" << QColor(Qt::white);
        QTest::newRow("CPU at min") << true << false << true << 0.125f << "" << green;
        QTest::newRow("CPU below min") << true << false << true << 0.0f << "" << green;
        QTest::newRow("CPU half way") << true << false << true << 0.3125f << "" << QColor(255, 255, 0);
        QTest::newRow("CPU at max") << true << false << true << 0.5f << "" << red;
        QTest::newRow("CPU above max") << true << false << true << 2.0f << "" << red;
        QTest::newRow("highlight beats bypass") << true << true << true << 0.0f << "Mix" << magenta;
        QTest::newRow("name search is case-sensitive") << true << false << false << 0.0f << "mix" << blue;
        QTest::newRow("0x suffix of id") << true << false << false << 0.0f << "0x1F" << magenta;
        QTest::newRow("0x suffix, lower case digits") << true << false << false << 0.0f << "0xab1f" << magenta;
        QTest::newRow("0x suffix of group id") << true << false << false << 0.0f << "0x0C" << magenta;
        QTest::newRow("0x not a suffix") << true << false << false << 0.0f << "0x1E" << blue;
        QTest::newRow("0X is a name search") << true << false << false << 0.0f << "0X1F" << blue;
        QTest::newRow("0x alone is a name search") << true << false << false << 0.0f << "0x" << magenta;
    }

    // Sampled inside the unit's fill, clear of its centred text.
    void fillColours()
    {
        QFETCH(bool, active);
        QFETCH(bool, bypass);
        QFETCH(bool, showCPU);
        QFETCH(float, exclusiveCPU);
        QFETCH(QString, highlight);
        QFETCH(QColor, expected);

        Model model;
        DSPNode* unit = model.unit(0xAB1F, 0, active, 0x70C);
        unit->name = QStringLiteral("Mixer 0x");
        unit->bypass = bypass;
        unit->exclusiveCPU = exclusiveCPU;
        unit->inclusiveCPU = 0.5f;
        DSPNetGraph& graph = model.layout(unit);
        graph.setShowCPUUsage(showCPU);
        graph.setMaxCPUUsage(0.5f);
        graph.setMinCPUUsage(0.125f);
        graph.setHighlightName(highlight);
        QCOMPARE(QColor(render(graph).pixel(18, 18)), expected);

        if (showCPU && !bypass && active && highlight.isEmpty()) {
            graph.setInclusiveCPUUsage(true);
            QCOMPARE(QColor(render(graph).pixel(18, 18)), QColor(255, 0, 0));
        }
    }

    // The selected unit wears the highlight faceplate; meters show a clipped level in dark red, a silent one
    // not at all.
    void selectedFaceplateAndMeters()
    {
        Model model;
        DSPNode* a = model.unit(1, 0);
        Model::feed(a, model.unit(2, 1));
        a->levels = { char(0), char(10), char(-80), char(-128) };
        DSPNetGraph& graph = model.layout(a);
        graph.selectedId = 2;
        graph.selectedGroupId = 0;
        graph.setShowVolumeLevels(true);
        const QImage image = render(graph);

        const auto plate = [](const QString& file) {
            QImageReader reader(file);
            reader.setScaledSize(QSize(120, 45));
            return reader.read().pixel(1, 30);
        };
        const QRgb normal = plate(QStringLiteral(":Profiler/node-faceplate.png"));
        const QRgb highlight = plate(QStringLiteral(":Profiler/node-faceplate-highlight.png"));
        QVERIFY(normal != highlight);
        QCOMPARE(image.pixel(11, 40), normal);
        QCOMPARE(image.pixel(211, 40), highlight);

        // Bars are 7.125 pixels wide from x = 13; the unit's box bottom is at y = 52.
        const QRgb background = QColor(66, 186, 255).lighter(150).rgba();
        QCOMPARE(image.pixel(16, 15), QColor(Qt::darkGreen).rgba());
        QCOMPARE(image.pixel(23, 15), QColor(Qt::darkRed).rgba());
        QCOMPARE(image.pixel(30, 50), background);
        QCOMPARE(image.pixel(37, 50), background);
        QCOMPARE(image.pixel(37, 60), qRgba(0, 0, 0, 0));
        QCOMPARE(image.pixel(44, 30), qRgb(66, 186, 255));
    }

    void mouseSelection_data()
    {
        QTest::addColumn<float>("scale");
        QTest::addColumn<int>("button");
        QTest::addColumn<QPoint>("press");
        QTest::addColumn<QPoint>("release");
        QTest::addColumn<quint64>("expectedId");

        const int left = Qt::LeftButton;
        const QPoint unit(300, 100);
        QTest::newRow("left click on a unit") << 1.0f << left << unit << unit << quint64(259);
        QTest::newRow("left click on its corner") << 1.0f << left << QPoint(210, 85) << QPoint(210, 85) << quint64(259);
        QTest::newRow("at half scale") << 0.5f << left << QPoint(150, 50) << QPoint(150, 50) << quint64(259);
        QTest::newRow("click on empty space") << 1.0f << left << QPoint(150, 100) << QPoint(150, 100)
                                              << quint64(DSPNetGraph::NoSelection);
        QTest::newRow("one pixel drag") << 1.0f << left << unit << QPoint(301, 100) << quint64(257);
        QTest::newRow("middle button") << 1.0f << int(Qt::MiddleButton) << unit << unit << quint64(257);
    }

    // Unit 257 is selected before each gesture.
    void mouseSelection()
    {
        QFETCH(float, scale);
        QFETCH(int, button);
        QFETCH(QPoint, press);
        QFETCH(QPoint, release);
        QFETCH(quint64, expectedId);
        const Qt::MouseButton mouseButton = static_cast<Qt::MouseButton>(button);

        LiveModel model;
        DSPNetGraph& graph = model.graph;
        graph.setScale(scale);
        QVERIFY(model.show());
        graph.selectedId = 257;
        graph.selectedGroupId = 36865;
        QSignalSpy moved(&graph, &DSPNetGraph::selectedNodePositionChanged);

        QTest::mousePress(&graph, mouseButton, Qt::NoModifier, press);
        if (release != press) {
            QMouseEvent move(QEvent::MouseMove, release, graph.mapToGlobal(release), Qt::NoButton, mouseButton,
                             Qt::NoModifier);
            QApplication::sendEvent(&graph, &move);
        }
        QTest::mouseRelease(&graph, mouseButton, Qt::NoModifier, release);

        QCOMPARE(graph.selectedId, expectedId);
        QRectF rect;
        QCOMPARE(graph.getSelectedNodeRect(rect), expectedId != DSPNetGraph::NoSelection);
        if (expectedId == 259) {
            QCOMPARE(graph.selectedGroupId, 36866ULL);
            QCOMPARE(rect, QRectF(210, 85, 120, 45));
        }
        QCOMPARE(moved.count(), 0);
    }

    void contextMenuCommands_data()
    {
        QTest::addColumn<QPoint>("unit");
        QTest::addColumn<QString>("action");
        QTest::addColumn<bool>("checked");
        QTest::addColumn<QByteArray>("expected");

        // Subtype 2 enables, 3 bypasses.
        const auto command = [](quint8 subtype, quint64 id, quint8 state) {
            return PacketBuilder(1, subtype, 6).u64(id).u8(state).finish();
        };
        QTest::newRow("disable an active unit") << QPoint(20, 20) << "Active" << true << command(2, 257, 0);
        QTest::newRow("bypass a unit") << QPoint(20, 20) << "Bypass" << false << command(3, 257, 1);
        QTest::newRow("unbypass a bypassed unit") << QPoint(420, 90) << "Bypass" << true << command(3, 263, 0);
        QTest::newRow("enable an inactive unit") << QPoint(420, 90) << "Active" << false << command(2, 262, 1);
    }

    // The menu runs its own event loop; a zero timer picks the action from it.
    void contextMenuCommands()
    {
        QFETCH(QPoint, unit);
        QFETCH(QString, action);
        QFETCH(bool, checked);
        QFETCH(QByteArray, expected);

        LiveModel model;
        DSPNetGraph& graph = model.graph;
        if (!checked && action == QLatin1String("Active"))
            graph.setShowInactiveInputs(true); // 262 then takes the place of 263
        QVERIFY(model.show());

        QStringList shownActions;
        bool wasChecked = !checked;
        QTimer::singleShot(0, &graph, [&] {
            QMenu* menu = qobject_cast<QMenu*>(QApplication::activePopupWidget());
            for (QAction* item : menu ? menu->actions() : QList<QAction*>()) {
                shownActions.append(item->text());
                if (item->text() == action) {
                    wasChecked = item->isChecked();
                    item->trigger();
                }
            }
            if (menu)
                menu->close();
        });
        QTest::mousePress(&graph, Qt::RightButton, Qt::NoModifier, unit);
        QTest::mouseRelease(&graph, Qt::RightButton, Qt::NoModifier, unit);

        QCOMPARE(shownActions, QStringList({ "Active", "Bypass" }));
        QCOMPARE(wasChecked, checked);
        QVERIFY(model.target.waitForReceived(expected.size()));
        QCOMPARE(model.target.received(), expected);
        QCOMPARE(graph.selectedId, qFromLittleEndian<quint64>(expected.constData() + 12));
    }
};

QTEST_MAIN(TestDSPNetGraph)
#include "tst_dspnetgraph.moc"
