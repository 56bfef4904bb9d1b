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

typedef QList<QPoint> PointList;

namespace
{

// A model filled by hand, with the depths the model would compute, and its graph.
struct Model
{
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

    // Makes `head` the head, with a connection kind the head must not draw, and lays the network out.
    DSPNetGraph& layout(DSPNode* head)
    {
        tree.root.inputs = { { head, true, true } };
        graph.reset(new DSPNetGraph(&tree));
        graph->slotProcessTree();
        return *graph;
    }

    ProfilerNetwork network;
    DSPTree tree;
    std::unique_ptr<DSPNetGraph> graph;
};

void feed(DSPNode* consumer, std::initializer_list<DSPNode*> inputs)
{
    for (DSPNode* input : inputs)
        consumer->inputs.append({ input, false, false });
}

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

// "id@x,y" of every placed unit, in placement order.
QString placed(const DSPNetGraph& graph)
{
    QStringList units;
    for (const DSPNetGraphicalNode& node : graph.nodeList)
        units << QStringLiteral("%1@%2,%3").arg(node.id).arg(node.position.x()).arg(node.position.y());
    return units.join(' ');
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
        a->inputs = { { b, false, false }, { c, false, true } };
        b->inputs = { { d, true, false } };
        c->inputs = { { d, true, true } };
        const DSPNetGraph& graph = model.layout(a);

        QCOMPARE(placed(graph), QStringLiteral("1@10,10 2@210,10 4@410,10 3@210,85"));
        QCOMPARE(graph.nodeList.first().name, QStringLiteral("Bus: Master"));
        QCOMPARE(graph.nodeList.first().levels, QList<float>({ 1.0f, 0.0f, 0.5f, 1.125f }));
        // Ends spread over the consumer's right edge: 45 / 3 = 15 apart; 45 / 2 = 22.5 truncated.
        QCOMPARE(graph.standardLines, QVector<QLine>({ QLine(210, 32, 130, 25) }));
        QCOMPARE(graph.sidechainLines, QVector<QLine>({ QLine(410, 32, 330, 32) }));
        QCOMPARE(graph.sendSidechainLines, QVector<QLine>({ QLine(410, 32, 330, 107) }));
        QCOMPARE(graph.sendLines, QVector<QLine>({ QLine(210, 107, 130, 40), QLine(270, 32, 270, 107) }));
        QCOMPARE(graph.size(), QSize(680, 180));
    }

    void hiddenInputs_data()
    {
        QTest::addColumn<int>("inputCount");
        QTest::addColumn<bool>("firstInputPlacedBefore");
        QTest::addColumn<QString>("expected");
        QTest::addColumn<PointList>("markers");

        QTest::newRow("4 inputs, none hidden")
            << 4 << false << "1@10,10 2@210,10 11@410,10 12@410,85 13@410,160 30@610,160 14@410,235" << PointList();
        QTest::newRow("5 inputs, the middle one hidden")
            << 5 << false << "1@10,10 2@210,10 11@410,10 12@410,85 14@410,235 15@410,310" << PointList { { 410, 150 } };
        QTest::newRow("7 inputs, 3 to 5 hidden with their subtrees")
            << 7 << false << "1@10,10 2@210,10 11@410,10 12@410,85 16@410,235 17@410,310" << PointList { { 410, 150 } };
        QTest::newRow("7 inputs, one placed before: nothing hidden")
            << 7 << true
            << "1@10,10 3@210,10 11@410,10 2@210,85 12@410,85 13@410,160 30@610,160 14@410,235 15@410,310 "
               "16@410,385 17@410,460"
            << PointList();
    }

    // Head 1 feeds unit 2, whose inputs are 11 onwards; unit 30 feeds both the third and the last of them, so
    // hiding the third must hide it everywhere.
    void hiddenInputs()
    {
        QFETCH(int, inputCount);
        QFETCH(bool, firstInputPlacedBefore);
        QFETCH(QString, expected);
        QFETCH(PointList, markers);

        Model model;
        DSPNode* head = model.unit(1, 0);
        DSPNode* wide = model.unit(2, 1);
        DSPNode* shared = model.unit(30, 3);
        for (int i = 0; i < inputCount; ++i)
            feed(wide, { model.unit(11 + i, 2) });
        feed(wide->inputs.at(2).node, { shared });
        feed(wide->inputs.last().node, { shared });
        if (firstInputPlacedBefore) {
            DSPNode* other = model.unit(3, 1);
            feed(head, { other });
            feed(other, { wide->inputs.first().node });
        }
        feed(head, { wide });
        DSPNetGraph& graph = model.layout(head);
        QCOMPARE(placed(graph), expected);
        QCOMPARE(graph.ellipsisPoints, markers);
        if (!markers.isEmpty())
            QCOMPARE(graph.placedTable.value(30), QPoint(-1, -1));

        graph.setShowExcessiveInputs(true);
        QCOMPARE(graph.nodeList.size(), model.tree.nodesById.size());
        QVERIFY(graph.ellipsisPoints.isEmpty());
    }

    // Inactive unit 2 is skipped, not hidden: its input 4 still shows through unit 3. Then a cycle through the
    // hidden middle input 2 of a five-input head, and a chain as long as a real packet can carry, which must not
    // exhaust the stack or outgrow the widget's size limit.
    void skippedCyclicAndDeepNetworks()
    {
        Model model;
        DSPNode* a = model.unit(1, 0);
        DSPNode* off = model.unit(2, 1, false);
        DSPNode* c = model.unit(3, 1);
        DSPNode* d = model.unit(4, 2);
        feed(a, { off, c });
        feed(off, { d });
        feed(c, { d });
        DSPNetGraph& graph = model.layout(a);
        QCOMPARE(placed(graph), QStringLiteral("1@10,10 3@210,10 4@410,10"));
        graph.setShowInactiveInputs(true);
        QCOMPARE(placed(graph), QStringLiteral("1@10,10 2@210,10 4@410,10 3@210,85"));

        QElapsedTimer timer;
        timer.start();
        Model cyclic;
        DSPNode* head = cyclic.unit(1, 0);
        DSPNode* loopA = cyclic.unit(2, 1);
        DSPNode* loopB = cyclic.unit(3, 2);
        feed(loopA, { loopB });
        feed(loopB, { loopA });
        feed(head, { cyclic.unit(10, 1), cyclic.unit(11, 1), loopA, cyclic.unit(12, 1), cyclic.unit(13, 1) });
        DSPNetGraph& cyclicGraph = cyclic.layout(head);
        QCOMPARE(placed(cyclicGraph), QStringLiteral("1@10,10 10@210,10 11@210,85 12@210,235 13@210,310"));
        cyclicGraph.setShowExcessiveInputs(true);
        QCOMPARE(placed(cyclicGraph),
                 QStringLiteral("1@10,10 10@210,10 11@210,85 2@210,160 3@410,160 12@210,235 13@210,310"));
        QCOMPARE(cyclicGraph.standardLines.size(), 7);

        const int length = 100000;
        Model deep;
        DSPNode* first = deep.unit(1, 0);
        for (DSPNode* previous = first; deep.tree.nodesById.size() < length;) {
            DSPNode* next = deep.unit(previous->id + 1, previous->depth + 1);
            feed(previous, { next });
            previous = next;
        }
        const DSPNetGraph& deepGraph = deep.layout(first);
        QCOMPARE(deepGraph.nodeList.size(), length);
        QCOMPARE(deepGraph.nodeList.last().position, QPoint((length - 1) * 200 + 10, 10));
        QCOMPARE(deepGraph.maximumWidth(), QWIDGETSIZE_MAX);
        QVERIFY2(timer.elapsed() < 5000, qPrintable(QString::number(timer.elapsed())));
    }

    // Units of 100 and 200 sit in 300, which sits in 400, which sits in 1100; 400 comes after 300 and gets its
    // box in the same pass, 1100 comes first and waits for the next one. 600 holds a unit and names 100 as its
    // parent, but 100 owns units itself and is never grown. 700 is reached before its child 800, which only
    // gets a box in that same pass, so 700 encloses 500 alone. 1000 has neither units nor children: no box.
    void groupBoxes()
    {
        Model model;
        DSPNode* a = model.unit(1, 0, true, 100);
        DSPNode* b = model.unit(2, 1, true, 100);
        feed(a, { b, model.unit(3, 1, true, 200), model.unit(5, 1, true, 500), model.unit(6, 1, true, 900) });
        feed(b, { model.unit(4, 2, true, 600) });
        const QUuid guid("{12345678-9abc-def0-1234-56789abcdef0}");
        const quint64 groups[][2] = { { 1100, 0 }, { 300, 400 }, { 400, 1100 }, { 100, 300 },
                                      { 200, 300 }, { 600, 100 }, { 700, 0 },    { 500, 700 },
                                      { 800, 700 }, { 900, 800 }, { 1000, 0 } };
        for (const auto& group : groups) {
            model.tree.groups.append(new GroupNode { group[0], group[1], group[0] == 400 ? guid : QUuid(),
                                                     QStringLiteral("G%1").arg(group[0]) });
        }
        DSPNetGraph& graph = model.layout(a);

        QStringList boxes; // id, parent, nesting level, rectangle, name and guid
        for (const DSPGroupGraphicalNode& box : graph.groupList) {
            boxes << QStringLiteral("%1 in %2 L%3 %4,%5 %6x%7 %8 %9")
                         .arg(box.id).arg(box.parentId).arg(box.level).arg(box.rect.x()).arg(box.rect.y())
                         .arg(box.rect.width()).arg(box.rect.height()).arg(box.name, box.guidString);
        }
        QCOMPARE(boxes, QStringList({ "100 in 300 L0 6,6 328x53 G100 ", "600 in 100 L0 406,6 128x53 G600 ",
                                      "200 in 300 L0 206,81 128x53 G200 ", "500 in 700 L0 206,156 128x53 G500 ",
                                      "900 in 800 L0 206,231 128x53 G900 ", "300 in 400 L1 2,2 336x136 G300 ",
                                      "400 in 1100 L2 -2,-2 344x144 G400 " + guid.toString(),
                                      "700 in 0 L1 202,152 136x61 G700 ", "800 in 700 L1 202,227 136x61 G800 ",
                                      "1100 in 0 L3 -6,-6 352x152 G1100 " }));
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
        feed(a, { b });
        b->sendTargetId = 1;
        DSPNetGraph& graph = model.layout(a);
        graph.selectedId = 2;
        graph.selectedGroupId = 0;
        QCOMPARE(graph.groupList.size(), 1);

        model.tree.root.inputs.clear();
        graph.slotProcessTree();
        QCOMPARE(placed(graph), QStringLiteral("1@10,10 2@210,10"));
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
        feed(a, { b });
        DSPNetGraph& graph = model.layout(a);
        QSignalSpy moved(&graph, &DSPNetGraph::selectedNodePositionChanged);
        graph.selectedId = 2;
        graph.selectedGroupId = 7;
        graph.selectedPosition = QPoint(210, 10);

        // Unit 3 now comes first and pushes unit 2 down a row; a second pass moves nothing.
        a->inputs.prepend({ model.unit(3, 1), false, false });
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

    // A smaller network does not shrink the widget; only a new scale, clamped to [0.2, 2], sets its size anew.
    void widgetSizing()
    {
        Model model;
        DSPNode* a = model.unit(1, 0);
        DSPNode* b = model.unit(2, 1);
        feed(a, { b, model.unit(4, 1) });
        feed(b, { model.unit(3, 2) });
        DSPNetGraph& graph = model.layout(a);
        QCOMPARE(graph.size(), QSize(680, 180));

        a->inputs.clear();
        graph.slotProcessTree();
        QCOMPARE(graph.size(), QSize(680, 180));
        graph.setScale(0.5f);
        QCOMPARE(graph.size(), QSize(140, 52));
        QCOMPARE(graph.minimumSize(), graph.maximumSize());
        graph.setScale(5.0f);
        QCOMPARE(graph.size(), QSize(560, 210));
        graph.setScale(0.1f);
        QCOMPARE(graph.getScale(), 0.2f);
    }

    void fillColours_data()
    {
        QTest::addColumn<QString>("state"); // of "active", "bypass", "cpu" (CPU usage shown)
        QTest::addColumn<float>("exclusiveCPU");
        QTest::addColumn<QString>("highlight");
        QTest::addColumn<QColor>("expected");

        const QColor blue(66, 186, 255), magenta(Qt::magenta), green(0, 255, 0), red(255, 0, 0);
        QTest::newRow("active") << "active" << 0.0f << "" << blue;
        QTest::newRow("inactive") << "cpu" << 0.5f << "" << QColor(49, 56, 64);
        QTest::newRow("bypassed beats CPU") << "active bypass cpu" << 0.5f << "" << QColor(Qt::white);
        QTest::newRow("CPU at min") << "active cpu" << 0.125f << "" << green;
        QTest::newRow("CPU below min") << "active cpu" << 0.0f << "" << green;
        QTest::newRow("CPU half way") << "active cpu" << 0.3125f << "" << QColor(255, 255, 0);
        QTest::newRow("CPU at max") << "active cpu" << 0.5f << "" << red;
        QTest::newRow("CPU above max") << "active cpu" << 2.0f << "" << red;
        QTest::newRow("highlight beats bypass") << "active bypass cpu" << 0.0f << "Mix" << magenta;
        QTest::newRow("name search is case-sensitive") << "active" << 0.0f << "mix" << blue;
        QTest::newRow("0x suffix of id") << "active" << 0.0f << "0x1F" << magenta;
        QTest::newRow("0x suffix, lower case digits") << "active" << 0.0f << "0xab1f" << magenta;
        QTest::newRow("0x suffix of group id") << "active" << 0.0f << "0x0C" << magenta;
        QTest::newRow("0x not a suffix") << "active" << 0.0f << "0x1E" << blue;
        QTest::newRow("0X is a name search") << "active" << 0.0f << "0X1F" << blue;
        QTest::newRow("0x alone is a name search") << "active" << 0.0f << "0x" << magenta;
    }

    // Sampled inside the unit's fill, clear of its centred text.
    void fillColours()
    {
        QFETCH(QString, state);
        QFETCH(float, exclusiveCPU);
        QFETCH(QString, highlight);
        QFETCH(QColor, expected);

        Model model;
        DSPNode* unit = model.unit(0xAB1F, 0, state.contains("active"), 0x70C);
        unit->name = QStringLiteral("Mixer 0x");
        unit->bypass = state.contains("bypass");
        unit->exclusiveCPU = exclusiveCPU;
        unit->inclusiveCPU = 0.5f;
        DSPNetGraph& graph = model.layout(unit);
        graph.setShowCPUUsage(state.contains("cpu"));
        graph.setMaxCPUUsage(0.5f);
        graph.setMinCPUUsage(0.125f);
        graph.setHighlightName(highlight);
        QCOMPARE(QColor(render(graph).pixel(18, 18)), expected);

        if (state == QLatin1String("active cpu") && highlight.isEmpty()) {
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
        feed(a, { model.unit(2, 1) });
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

    void mouseGestures_data()
    {
        QTest::addColumn<float>("scale");
        QTest::addColumn<int>("button");
        QTest::addColumn<QPoint>("press");
        QTest::addColumn<QPoint>("release");
        QTest::addColumn<quint64>("expectedId");
        QTest::addColumn<QString>("action"); // chosen from the unit menu a right click opens
        QTest::addColumn<QByteArray>("command");

        const auto row = [](const char* name, float scale, int button, QPoint press, QPoint release, quint64 id,
                            const QString& action = QString(), const QByteArray& command = QByteArray()) {
            QTest::newRow(name) << scale << button << press << release << id << action << command;
        };
        // Subtype 2 enables, 3 bypasses; each action offers the opposite of the unit's state.
        const auto command = [](quint8 subtype, quint64 id, quint8 state) {
            return PacketBuilder(1, subtype, 6).u64(id).u8(state).finish();
        };
        const int left = Qt::LeftButton;
        const int right = Qt::RightButton;
        const QPoint unit(300, 100);
        const QPoint first(20, 20);
        const QPoint bypassed(420, 90);
        row("left click on a unit", 1.0f, left, unit, unit, 259);
        row("left click on its corner", 1.0f, left, QPoint(210, 85), QPoint(210, 85), 259);
        row("at half scale", 0.5f, left, QPoint(150, 50), QPoint(150, 50), 259);
        row("click on empty space", 1.0f, left, QPoint(150, 100), QPoint(150, 100), DSPNetGraph::NoSelection);
        row("one pixel drag", 1.0f, left, unit, QPoint(301, 100), 257);
        row("middle button", 1.0f, Qt::MiddleButton, unit, unit, 257);
        row("disable an active unit", 1.0f, right, first, first, 257, "Active", command(2, 257, 0));
        row("bypass a unit", 1.0f, right, first, first, 257, "Bypass", command(3, 257, 1));
        row("unbypass a bypassed unit", 1.0f, right, bypassed, bypassed, 263, "Bypass", command(3, 263, 0));
        row("enable an inactive unit", 1.0f, right, bypassed, bypassed, 262, "Active", command(2, 262, 1));
    }

    // Unit 257 is selected before each gesture. The menu runs its own event loop; a zero timer picks the action
    // from it.
    void mouseGestures()
    {
        QFETCH(float, scale);
        QFETCH(int, button);
        QFETCH(QPoint, press);
        QFETCH(QPoint, release);
        QFETCH(quint64, expectedId);
        QFETCH(QString, action);
        QFETCH(QByteArray, command);
        const Qt::MouseButton mouseButton = static_cast<Qt::MouseButton>(button);
        // The menu's check mark shows the unit's state; the command, ending in the state byte, asks for the other.
        const bool checked = command.endsWith('\0');

        LiveModel model;
        DSPNetGraph& graph = model.graph;
        graph.setScale(scale);
        // Enabling needs an inactive unit: 262 then takes the place of 263.
        graph.setShowInactiveInputs(action == QLatin1String("Active") && !checked);
        QVERIFY(model.show());
        graph.selectedId = 257;
        graph.selectedGroupId = 36865;
        QSignalSpy moved(&graph, &DSPNetGraph::selectedNodePositionChanged);

        QStringList shownActions;
        bool wasChecked = !checked;
        if (mouseButton == Qt::RightButton) {
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
        }
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
        if (!command.isEmpty()) {
            QCOMPARE(shownActions, QStringList({ "Active", "Bypass" }));
            QCOMPARE(wasChecked, checked);
            QVERIFY(model.target.waitForReceived(command.size()));
            QCOMPARE(model.target.received(), command);
        }
    }
};

QTEST_MAIN(TestDSPNetGraph)
#include "tst_dspnetgraph.moc"
