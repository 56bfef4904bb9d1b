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
    // Inactive unit 2 is skipped at first, not hidden: its input 4 still shows through unit 3.
    void smallTreeLayout()
    {
        Model model;
        DSPNode* a = model.unit(1, 0);
        DSPNode* b = model.unit(2, 1, false);
        DSPNode* c = model.unit(3, 1);
        DSPNode* d = model.unit(4, 2);
        a->name = QStringLiteral("Bus:Master");
        a->levels = { char(0), char(-80), char(-40), char(10) };
        b->sendTargetId = 3;
        a->inputs = { { b, false, false }, { c, false, true } };
        b->inputs = { { d, true, false } };
        c->inputs = { { d, true, true } };
        DSPNetGraph& graph = model.layout(a);
        QCOMPARE(placed(graph), QStringLiteral("1@10,10 3@210,10 4@410,10"));

        graph.setShowInactiveInputs(true);
        QCOMPARE(placed(graph), QStringLiteral("1@10,10 2@210,10 4@410,10 3@210,85"));
        QCOMPARE(graph.nodeList.first().name, QStringLiteral("Bus: Master"));
        QCOMPARE(graph.nodeList.first().levels, QList<float>({ 1.0f, 0.0f, 0.5f, 1.125f }));
        // Ends spread over the consumer's right edge: 45 / 3 = 15 apart; 45 / 2 = 22.5 truncated.
        QCOMPARE(graph.standardLines, QVector<QLine>({ QLine(210, 32, 130, 25) }));
        QCOMPARE(graph.sidechainLines, QVector<QLine>({ QLine(410, 32, 330, 32) }));
        QCOMPARE(graph.sendSidechainLines, QVector<QLine>({ QLine(410, 32, 330, 107) }));
        QCOMPARE(graph.sendLines, QVector<QLine>({ QLine(210, 107, 130, 40), QLine(270, 32, 270, 107) }));
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
    // hiding the third must hide it everywhere, and is fed by the third again: neither placing nor hiding may loop.
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
        feed(shared, { wide->inputs.at(2).node });
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
            QCOMPARE(graph.placedTable().value(30), QPoint(-1, -1));
        for (const QLine& line : qAsConst(graph.standardLines))
            QVERIFY2(line.x1() > 0, "a line from a hidden unit");

        graph.setShowExcessiveInputs(true);
        QCOMPARE(graph.nodeList.size(), model.tree.nodesById.size());
        QVERIFY(graph.ellipsisPoints.isEmpty());
        int links = 0;
        for (const DSPNode* node : qAsConst(model.tree.nodesById))
            links += node->inputs.size();
        QCOMPARE(graph.standardLines.size(), links);
    }

    // A chain as long as a real packet can carry must not exhaust the stack.
    void deepChain()
    {
        QElapsedTimer timer;
        timer.start();
        const int length = 100000;
        Model model;
        DSPNode* first = model.unit(1, 0);
        for (DSPNode* previous = first; model.tree.nodesById.size() < length;) {
            DSPNode* next = model.unit(previous->id + 1, previous->depth + 1);
            feed(previous, { next });
            previous = next;
        }
        const DSPNetGraph& graph = model.layout(first);
        QCOMPARE(graph.nodeList.size(), length);
        QCOMPARE(graph.nodeList.last().position, QPoint((length - 1) * 200 + 10, 10));
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

    // What a pass keeps of the drawing and the selection the last one left.
    void laterPasses()
    {
        Model model;
        DSPNode* a = model.unit(1, 0, true, 100);
        DSPNode* b = model.unit(2, 1, true, 7);
        feed(a, { b, model.unit(4, 1) });
        feed(b, { model.unit(3, 2) });
        b->sendTargetId = 1;
        DSPNetGraph& graph = model.layout(a);
        QSignalSpy moved(&graph, &DSPNetGraph::selectedNodePositionChanged);
        graph.selectedId = 2;
        graph.selectedGroupId = 7;
        graph.selectedPosition = QPoint(210, 10);

        // Unit 5 now comes first and pushes unit 2 down a row; a second pass moves nothing.
        a->inputs.prepend({ model.unit(5, 1), false, false });
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

        // Without a head the old drawing stays; only the group boxes and the selection go, and the send lines are
        // added once more, up to a bound.
        graph.selectedId = 2;
        graph.selectedGroupId = 8;
        model.tree.root.inputs.clear();
        graph.slotProcessTree();
        QCOMPARE(placed(graph), QStringLiteral("1@10,10 5@210,10 2@210,85 3@410,85 4@210,160"));
        QVERIFY(graph.groupList.isEmpty());
        QCOMPARE(graph.sendLines.size(), 2);
        QCOMPARE(graph.selectedId, DSPNetGraph::NoSelection);
        for (int i = 0; i < 100; ++i)
            graph.slotProcessTree();
        QCOMPARE(graph.sendLines.size(), 17);

        // A smaller network does not shrink the widget; only a new scale, clamped to [0.2, 2], sets its size anew.
        model.tree.root.inputs = { { a, false, false } };
        a->inputs.clear();
        graph.slotProcessTree();
        QCOMPARE(graph.size(), QSize(680, 255));
        graph.setScale(0.5f);
        QCOMPARE(graph.size(), QSize(140, 52));
        graph.setScale(5.0f);
        QCOMPARE(graph.size(), QSize(560, 210));
        graph.setScale(0.1f);
        QCOMPARE(graph.getScale(), 0.2f);
    }

    void unitPixels_data()
    {
        // "active", "bypass", "cpu" (CPU usage shown), "inclusive", "volume" (meters shown), "selected" (unit 2, in
        // the head's group, is)
        QTest::addColumn<QString>("state");
        QTest::addColumn<float>("exclusiveCPU");
        QTest::addColumn<QString>("highlight");
        QTest::addColumn<QPoint>("at");
        QTest::addColumn<QRgb>("expected");

        // By default inside the head's fill, clear of its centred text; unit 2's is at (218, 18).
        const auto row = [](const char* name, const char* state, float cpu, const char* highlight, QRgb expected,
                            QPoint at = QPoint(18, 18)) {
            QTest::newRow(name) << QString(state) << cpu << QString(highlight) << at << expected;
        };
        const auto plate = [](const char* file) {
            QImageReader reader(QStringLiteral(":Profiler/") + file);
            reader.setScaledSize(QSize(120, 45));
            return reader.read().pixel(1, 30);
        };
        const QRgb normal = plate("node-faceplate.png");
        const QRgb highlighted = plate("node-faceplate-highlight.png");
        QVERIFY(normal != highlighted);
        const QRgb blue = qRgb(66, 186, 255), magenta = qRgb(255, 0, 255), green = qRgb(0, 255, 0),
                   red = qRgb(255, 0, 0), grey = qRgb(49, 56, 64);
        row("active", "active", 0.0f, "", blue);
        row("inactive", "cpu", 0.5f, "", grey);
        row("bypassed beats CPU", "active bypass cpu", 0.5f, "", qRgb(255, 255, 255));
        row("CPU at min", "active cpu", 0.125f, "", green);
        row("CPU below min", "active cpu", 0.0f, "", green);
        row("CPU half way", "active cpu", 0.3125f, "", qRgb(255, 255, 0));
        row("CPU at max", "active cpu", 0.5f, "", red);
        row("CPU above max", "active cpu", 2.0f, "", red);
        row("inclusive CPU", "active cpu inclusive", 0.0f, "", red);
        row("highlight beats bypass", "active bypass cpu", 0.0f, "Mix", magenta);
        row("name search is case-sensitive", "active", 0.0f, "mix", blue);
        row("0x suffix of id", "active", 0.0f, "0x1F", magenta);
        row("0x suffix, lower case digits", "active", 0.0f, "0xab1f", magenta);
        row("0x suffix of group id", "active", 0.0f, "0x0C", magenta);
        row("0x not a suffix", "active", 0.0f, "0x1E", blue);
        row("0X is a name search", "active", 0.0f, "0X1F", blue);
        row("0x alone is a name search", "active", 0.0f, "0x", magenta);
        row("0x alone matches no id", "active", 0.0f, "0x", blue, QPoint(218, 18));
        row("faceplate beside the selected unit", "active selected", 0.0f, "", normal, QPoint(11, 40));
        row("faceplate of the selected unit", "active selected", 0.0f, "", highlighted, QPoint(211, 40));
        // Meter bars are 7.125 pixels wide from x = 13; the box's inner bottom is at y = 52. Levels 0, +10, -80
        // and -128 dB: a clipped level shows in dark red, a silent one not at all.
        const QRgb background = QColor(blue).lighter(150).rgba();
        row("meter at 0 dB", "active volume", 0.0f, "", QColor(Qt::darkGreen).rgba(), QPoint(16, 15));
        row("meter clipping", "active volume", 0.0f, "", QColor(Qt::darkRed).rgba(), QPoint(23, 15));
        row("meter at -80 dB", "active volume", 0.0f, "", background, QPoint(30, 50));
        row("meter below -80 dB", "active volume", 0.0f, "", background, QPoint(37, 50));
        row("nothing under the box", "active volume", 0.0f, "", qRgba(0, 0, 0, 0), QPoint(37, 60));
        row("no fifth meter", "active volume", 0.0f, "", blue, QPoint(44, 15));
        row("no meters on an inactive unit", "volume", 0.0f, "", grey, QPoint(16, 15));
    }

    void unitPixels()
    {
        QFETCH(QString, state);
        QFETCH(float, exclusiveCPU);
        QFETCH(QString, highlight);
        QFETCH(QPoint, at);
        QFETCH(QRgb, expected);

        Model model;
        DSPNode* unit = model.unit(0xAB1F, 0, state.contains("active"), 0x70C);
        feed(unit, { model.unit(2, 1, true, 0x70C) });
        unit->name = QStringLiteral("Mixer 0x");
        unit->bypass = state.contains("bypass");
        unit->exclusiveCPU = exclusiveCPU;
        unit->inclusiveCPU = 0.5f;
        unit->levels = { char(0), char(10), char(-80), char(-128) };
        DSPNetGraph& graph = model.layout(unit);
        graph.setShowCPUUsage(state.contains("cpu"));
        graph.setInclusiveCPUUsage(state.contains("inclusive"));
        graph.setShowVolumeLevels(state.contains("volume"));
        graph.setMaxCPUUsage(0.5f);
        graph.setMinCPUUsage(0.125f);
        graph.setHighlightName(highlight);
        graph.selectedId = state.contains("selected") ? 2 : DSPNetGraph::NoSelection;
        graph.selectedGroupId = 0x70C;
        QCOMPARE(render(graph).pixel(at), expected);
    }

    void mouseGestures_data()
    {
        QTest::addColumn<float>("scale");
        QTest::addColumn<int>("button");
        QTest::addColumn<QPoint>("press");
        QTest::addColumn<QPoint>("release");
        QTest::addColumn<quint64>("expectedId");
        QTest::addColumn<QString>("menu"); // the unit menu a right click opens, "+" on a checked action
        QTest::addColumn<QString>("action"); // chosen from it
        QTest::addColumn<QByteArray>("command");

        const auto row = [](const char* name, float scale, int button, QPoint press, QPoint release, quint64 id,
                            const QString& menu = QString(), const QString& action = QString(),
                            const QByteArray& command = QByteArray()) {
            QTest::newRow(name) << scale << button << press << release << id << menu << action << command;
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
        row("disable an active unit", 1.0f, right, first, first, 257, "Active+ Bypass-", "Active", command(2, 257, 0));
        row("bypass a unit", 1.0f, right, first, first, 257, "Active+ Bypass-", "Bypass", command(3, 257, 1));
        row("unbypass a bypassed unit", 1.0f, right, bypassed, bypassed, 263, "Active+ Bypass+", "Bypass",
            command(3, 263, 0));
        row("enable an inactive unit", 1.0f, right, bypassed, bypassed, 262, "Active- Bypass-", "Active",
            command(2, 262, 1));
    }

    // Unit 257 is selected before each gesture. The menu runs its own event loop; a zero timer reads it and picks
    // the action.
    void mouseGestures()
    {
        QFETCH(float, scale);
        QFETCH(int, button);
        QFETCH(QPoint, press);
        QFETCH(QPoint, release);
        QFETCH(quint64, expectedId);
        QFETCH(QString, menu);
        QFETCH(QString, action);
        QFETCH(QByteArray, command);
        const Qt::MouseButton mouseButton = static_cast<Qt::MouseButton>(button);

        LiveModel model;
        DSPNetGraph& graph = model.graph;
        graph.setScale(scale);
        // Enabling needs an inactive unit: 262 then takes the place of 263.
        graph.setShowInactiveInputs(menu.startsWith("Active-"));
        QVERIFY(model.show());
        graph.selectedId = 257;
        graph.selectedGroupId = 36865;
        QSignalSpy moved(&graph, &DSPNetGraph::selectedNodePositionChanged);

        QStringList shown;
        QTimer::singleShot(0, &graph, [&] {
            if (QMenu* popup = qobject_cast<QMenu*>(QApplication::activePopupWidget())) {
                for (QAction* item : popup->actions()) {
                    shown.append(item->text() + (item->isChecked() ? "+" : "-"));
                    if (item->text() == action)
                        item->trigger();
                }
                popup->close();
            }
        });
        QTest::mousePress(&graph, mouseButton, Qt::NoModifier, press);
        if (release != press) {
            QMouseEvent move(QEvent::MouseMove, release, graph.mapToGlobal(release), Qt::NoButton, mouseButton,
                             Qt::NoModifier);
            QApplication::sendEvent(&graph, &move);
        }
        QTest::mouseRelease(&graph, mouseButton, Qt::NoModifier, release);

        QCOMPARE(graph.selectedId, expectedId);
        QCOMPARE(moved.count(), 0);
        QRectF rect;
        if (expectedId == 259) {
            QCOMPARE(graph.selectedGroupId, 36866ULL);
            QVERIFY(graph.getSelectedNodeRect(rect));
            QCOMPARE(rect, QRectF(210, 85, 120, 45));
        }
        if (!command.isEmpty()) {
            QCOMPARE(shown.join(' '), menu);
            QVERIFY(model.target.waitForReceived(command.size()));
            QCOMPARE(model.target.received(), command);
        }
    }
};

QTEST_MAIN(TestDSPNetGraph)
#include "tst_dspnetgraph.moc"
