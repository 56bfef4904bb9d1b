#include "dspfixture.h"
#include "packetbuilder.h"
#include "paintcounter.h"
#include "profilerdspnetgraph.h"

#include <QApplication>
#include <QCheckBox>
#include <QFileDialog>
#include <QGroupBox>
#include <QImageReader>
#include <QLayout>
#include <QLineEdit>
#include <QMenu>
#include <QPainter>
#include <QScrollArea>
#include <QScrollBar>
#include <QSpinBox>
#include <QTemporaryDir>
#include <QThread>
#include <QTimer>

#include <tuple>

typedef QList<QPoint> PointList;

namespace
{

// A model filled by hand, with the depths the model would compute, and its view.
struct Model : ModelAndView
{
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
        graph.slotProcessTree();
        return graph;
    }
};

void feed(DSPNode* consumer, std::initializer_list<DSPNode*> inputs)
{
    for (DSPNode* input : inputs)
        consumer->inputs.append({ input, false, false });
}

// "id@x,y" of every placed unit, in placement order.
QString placed(const DSPNetGraph& graph)
{
    QStringList units;
    for (const DSPNetGraphicalNode& node : graph.nodeList)
        units << QStringLiteral("%1@%2,%3").arg(node.id).arg(node.position.x()).arg(node.position.y());
    return units.join(' ');
}

// The panel on a live model, shown at 1000 by 500. By default the network is twenty chains of eight units
// under one head: 1880 by 1530 pixels at scale 1.0, larger than the view.
struct Panel : LiveTree
{
    Panel() : panel(&tree), graph(panel.findChild<DSPNetGraph*>()), scrollArea(panel.findChild<QScrollArea*>())
    {
        panel.resize(1000, 500);
        panel.show();
    }

    bool show(QByteArray packet = QByteArray())
    {
        return connected && QTest::qWaitForWindowExposed(&panel) && feed(packet.isEmpty() ? chains(20) : packet);
    }

    static QByteArray chains(quint16 count)
    {
        QVector<DSPUnitV6> units { { 1, count } };
        for (quint64 unit = 0; unit < 8u * count; ++unit) // row 1 + unit / 8, column unit % 8
            units.append({ 1000 * (1 + unit / 8) + unit % 8, quint16(unit % 8 < 7 ? 1 : 0) });
        return dspPacketV6(units);
    }

    QPoint scrolled() const
    {
        return QPoint(scrollArea->horizontalScrollBar()->value(), scrollArea->verticalScrollBar()->value());
    }

    QPoint scrollTo(int h, int v)
    {
        scrollArea->horizontalScrollBar()->setValue(h);
        scrollArea->verticalScrollBar()->setValue(v);
        return scrolled();
    }

    ProfilerDSPNetGraph panel;
    DSPNetGraph* graph;
    QScrollArea* scrollArea;
};

} // namespace

class TestDSPNetGraph : public QObject
{
    Q_OBJECT

private slots:
    // Unit 4 feeds both 2 and 3: placed once, linked twice. Every connection kind appears once, and 2 sends
    // to 3. Inactive unit 2 is skipped at first, not hidden: its input 4 still shows through unit 3.
    void smallTreeLayout()
    {
        Model model;
        DSPNode *a = model.unit(1, 0), *b = model.unit(2, 1, false), *c = model.unit(3, 1), *d = model.unit(4, 2);
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

        const PointList marker { { 410, 150 } };
        QTest::newRow("4 inputs, none hidden")
            << 4 << false << "1@10,10 2@210,10 11@410,10 12@410,85 13@410,160 30@610,160 14@410,235"
            << PointList();
        QTest::newRow("5 inputs, the middle one hidden")
            << 5 << false << "1@10,10 2@210,10 11@410,10 12@410,85 14@410,235 15@410,310" << marker;
        QTest::newRow("7 inputs, 3 to 5 hidden with their subtrees")
            << 7 << false << "1@10,10 2@210,10 11@410,10 12@410,85 16@410,235 17@410,310" << marker;
        QTest::newRow("7 inputs, one placed before: nothing hidden")
            << 7 << true
            << "1@10,10 3@210,10 11@410,10 2@210,85 12@410,85 13@410,160 30@610,160 14@410,235 15@410,310 "
               "16@410,385 17@410,460"
            << PointList();
    }

    // Head 1 feeds unit 2, whose inputs are 11 onwards; unit 30 feeds both the third and the last of them, so
    // hiding the third must hide it everywhere, and is fed by the third: neither placing nor hiding may loop.
    void hiddenInputs()
    {
        QFETCH(int, inputCount);
        QFETCH(bool, firstInputPlacedBefore);
        QFETCH(QString, expected);
        QFETCH(PointList, markers);

        Model model;
        DSPNode *head = model.unit(1, 0), *wide = model.unit(2, 1), *shared = model.unit(30, 3);
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

    // Units of 100 and 200 sit in 300, which sits in 400, which sits in 1100; 400 comes after 300 and gets
    // its box in the same pass, 1100 comes first and waits for the next one. 600 holds a unit and names 100
    // as its parent, but 100 owns units itself and is never grown. 700 is reached before its child 800, which
    // only gets a box in that same pass, so 700 encloses 500 alone. 1000, without units or children, has none.
    void groupBoxes()
    {
        Model model;
        DSPNode *a = model.unit(1, 0, true, 100), *b = model.unit(2, 1, true, 100);
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
        DSPNode *a = model.unit(1, 0, true, 100), *b = model.unit(2, 1, true, 7);
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

        // Without a head the old drawing stays; only the group boxes and the selection go, and the send lines
        // are added once more, up to a bound.
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

        // A smaller network does not shrink the widget; only a new scale, clamped to [0.2, 2], resizes it.
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
        // "active", "bypass", "cpu" (CPU usage shown), "inclusive", "volume" (meters shown), "selected" (unit
        // 2, in the head's group, is)
        QTest::addColumn<QString>("state");
        QTest::addColumn<float>("exclusiveCPU");
        QTest::addColumn<QString>("highlight");
        QTest::addColumn<QPoint>("at");
        QTest::addColumn<QRgb>("expected");

        // By default inside the head's fill, clear of its centred text; unit 2's is at (218, 18).
        const auto row = [](const char* name, const char* state, float cpu, const char* highlight,
                            QRgb expected, QPoint at = QPoint(18, 18)) {
            QTest::newRow(name) << QString(state) << cpu << QString(highlight) << at << expected;
        };
        const auto plate = [](const char* file) {
            QImageReader reader(QStringLiteral(":Profiler/") + file);
            reader.setScaledSize(QSize(120, 45));
            return reader.read().pixel(1, 30);
        };
        const QRgb normal = plate("node-faceplate.png");
        const QRgb highlighted = plate("node-faceplate-highlight.png");
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
        // Meter bars are 7.125 pixels wide from x = 13; the box's inner bottom is at y = 52. Levels 0, +10,
        // -80 and -128 dB: a clipped level shows in dark red, a silent one not at all.
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
        QImage image(graph.size(), QImage::Format_ARGB32);
        image.fill(Qt::transparent);
        QPainter painter(&image);
        graph.renderTree(&painter, false);
        QCOMPARE(image.pixel(at), expected);
    }

    // A unit's name is white with a shadow one pixel below it: the darkened pixels reach one row lower than
    // the letters, and no further left or right, give or take the antialiased edges of the glyphs.
    void nameShadow()
    {
        Model model;
        model.unit(1, 0)->name = QStringLiteral("Mixer");
        DSPNetGraph& graph = model.layout(model.tree.nodesById.value(1));
        QImage image(graph.size(), QImage::Format_ARGB32);
        image.fill(Qt::transparent);
        QPainter painter(&image);
        graph.renderTree(&painter, false);
        QRect letters, shadow;
        for (int y = 15; y < 50; ++y) {
            for (int x = 15; x < 125; ++x) {
                const QRgb pixel = image.pixel(x, y);
                letters |= qRed(pixel) > 200 ? QRect(x, y, 1, 1) : QRect();
                shadow |= qBlue(pixel) < 200 ? QRect(x, y, 1, 1) : QRect();
            }
        }
        QVERIFY(!letters.isEmpty() && !shadow.isEmpty());
        QCOMPARE(shadow.bottom(), letters.bottom() + 1);
        QVERIFY(qAbs(shadow.left() - letters.left()) <= 2 && qAbs(shadow.right() - letters.right()) <= 2);
    }

    void mouseGestures_data()
    {
        QTest::addColumn<float>("scale");
        QTest::addColumn<int>("buttonNumber");
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
        const int left = Qt::LeftButton, right = Qt::RightButton;
        const QPoint unit(300, 100), first(20, 20), bypassed(420, 90);
        row("left click on a unit", 1.0f, left, unit, unit, 259);
        row("left click on its corner", 1.0f, left, QPoint(210, 85), QPoint(210, 85), 259);
        row("at half scale", 0.5f, left, QPoint(150, 50), QPoint(150, 50), 259);
        row("click on empty space", 1.0f, left, QPoint(150, 100), QPoint(150, 100), DSPNetGraph::NoSelection);
        row("one pixel drag", 1.0f, left, unit, QPoint(301, 100), 257);
        row("middle button", 1.0f, Qt::MiddleButton, unit, unit, 257);
        row("disable an active unit", 1.0f, right, first, first, 257, "Active+ Bypass-", "Active",
            command(2, 257, 0));
        row("bypass a unit", 1.0f, right, first, first, 257, "Active+ Bypass-", "Bypass", command(3, 257, 1));
        row("unbypass a bypassed unit", 1.0f, right, bypassed, bypassed, 263, "Active+ Bypass+", "Bypass",
            command(3, 263, 0));
        row("enable an inactive unit", 1.0f, right, bypassed, bypassed, 262, "Active- Bypass-", "Active",
            command(2, 262, 1));
    }

    // On the version-6 test network with inactive inputs hidden, units sit at 257 (10, 10), 258 (210, 10),
    // 261 (410, 10), 259 (210, 85), 263 (410, 85, bypassed), 264 (410, 160) and 260 (410, 235). 257 is
    // selected before each gesture. The menu runs its own event loop; a zero timer reads it and picks.
    void mouseGestures()
    {
        QFETCH(float, scale);
        QFETCH(int, buttonNumber);
        const Qt::MouseButton button = static_cast<Qt::MouseButton>(buttonNumber);
        QFETCH(QPoint, press);
        QFETCH(QPoint, release);
        QFETCH(quint64, expectedId);
        QFETCH(QString, menu);
        QFETCH(QString, action);
        QFETCH(QByteArray, command);

        Panel view;
        DSPNetGraph& graph = *view.graph;
        graph.setScale(scale);
        graph.setShowExcessiveInputs(false);
        // Enabling needs an inactive unit: 262 then takes the place of 263.
        graph.setShowInactiveInputs(menu.startsWith("Active-"));
        QVERIFY(view.show(readTestData(QStringLiteral("dsp-v6.bin"))));
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
        QTest::mousePress(&graph, button, Qt::NoModifier, press);
        if (release != press) {
            QMouseEvent move(QEvent::MouseMove, release, graph.mapToGlobal(release), Qt::NoButton, button,
                             Qt::NoModifier);
            QApplication::sendEvent(&graph, &move);
        }
        QTest::mouseRelease(&graph, button, Qt::NoModifier, release);

        QCOMPARE(graph.selectedId, expectedId);
        QCOMPARE(moved.count(), 0);
        if (expectedId == 259) {
            QCOMPARE(graph.selectedGroupId, 36866ULL);
            QCOMPARE(graph.selectedPosition, QPoint(210, 85));
        }
        if (!command.isEmpty()) {
            QCOMPARE(shown.join(' '), menu);
            QVERIFY(view.target.waitForReceived(command.size()));
            QCOMPARE(view.target.received(), command);
        }
    }

    // The graph starts with every flag off: the boxes that start checked must reach it. A partly checked box
    // leaves its flag alone, except that sends and the legend take it as unchecked. Each CPU threshold bounds the
    // other, so the low one stays below the high one.
    void panelOptions()
    {
        Panel view;
        const QList<QCheckBox*> boxes = view.panel.findChildren<QCheckBox*>();
        DSPNetGraph* graph = view.graph;
        const auto flags = [graph] {
            return QVector<bool> { graph->getShowExcessiveInputs(), graph->getShowInactiveInputs(),
                                   graph->getShowCPUUsage(), graph->getShowVolumeLevels(),
                                   graph->getShowGroups(), graph->getShowGuids(), graph->getShowSends(),
                                   graph->getShowLegend(), graph->getInclusiveCPUUsage() };
        };
        QCOMPARE(flags(), QVector<bool>({ true, true, false, false, true, false, true, false, false }));
        QCOMPARE(graph->getMaxCPUUsage(), 0.2f);

        const Qt::CheckState states[] = { Qt::PartiallyChecked, Qt::Unchecked, Qt::Checked,
                                          Qt::PartiallyChecked, Qt::Unchecked, Qt::Checked,
                                          Qt::PartiallyChecked, Qt::Checked, Qt::Checked };
        QGroupBox* cpuBox = view.panel.findChildren<QGroupBox*>().value(1);
        for (int i = 0; i < boxes.size(); ++i) {
            QCOMPARE(cpuBox->isEnabled(), i > 2); // only once "CPU Usage" is checked
            boxes.at(i)->setCheckState(states[i]);
        }
        QCOMPARE(flags(), QVector<bool>({ true, false, true, false, false, true, false, true, true }));
        QVERIFY(cpuBox->isEnabled());

        QSpinBox* low = view.panel.findChildren<QSpinBox*>().value(0);
        QSpinBox* high = view.panel.findChildren<QSpinBox*>().value(1);
        low->setValue(10);
        high->setValue(50);
        QCOMPARE((QVector<float> { float(high->minimum()), float(low->maximum()), graph->getMinCPUUsage(),
                                   graph->getMaxCPUUsage() }), (QVector<float> { 11, 49, 0.1f, 0.5f }));
    }

    void highlightCommands_data()
    {
        QTest::addColumn<QString>("typed");
        QTest::addColumn<int>("sendingEdits");

        QTest::newRow("three letters only highlight") << "sho" << 0;
        QTest::newRow("every edit after it sends") << "SHOW x" << 3;
        QTest::newRow("not at the start") << "xShow" << 0;
    }

    // Typed a key at a time; a group command sent last marks the end of the stream.
    void highlightCommands()
    {
        QFETCH(QString, typed);
        QFETCH(int, sendingEdits);
        Panel view;
        QVERIFY(view.show());
        QTest::keyClicks(view.panel.findChild<QLineEdit*>(QString(), Qt::FindDirectChildrenOnly), typed);
        view.tree.sendGroupCommandString(QStringLiteral("end"));

        const auto command = [](quint8 type, quint8 version, const QString& text) {
            return PacketBuilder(type, 1, version).fixedString(text.toUtf8(), 128).finish();
        };
        const QByteArray end = command(7, 0, "end");
        QVERIFY(QTest::qWaitFor([&] { return view.target.received().endsWith(end); }, 5000));
        const QByteArray last = sendingEdits ? command(1, 6, typed) + command(7, 0, typed) : QByteArray();
        const QByteArray received = view.target.received();
        QCOMPARE(received, received.left((2 * sendingEdits - 2) * 140) + last + end);
        QCOMPARE(view.graph->getHighlightName(), typed);
    }

    void wheelZoom_data()
    {
        QTest::addColumn<float>("startScale");
        QTest::addColumn<QPoint>("angle");
        QTest::addColumn<bool>("selectUnit");
        QTest::addColumn<float>("expectedScale");
        QTest::addColumn<QPoint>("expectedScroll");

        // The middle of the 800 by 400 view, (700, 600), goes to (770, 660) or to (630, 540).
        QTest::newRow("one notch forward") << 1.0f << QPoint(0, 120) << false << 1.1f << QPoint(370, 460);
        QTest::newRow("one notch back") << 1.0f << QPoint(0, -120) << false << 0.9f << QPoint(230, 340);
        QTest::newRow("less than a notch") << 1.0f << QPoint(0, 60) << false << 1.0f << QPoint(300, 400);
        QTest::newRow("clamped at 2.0") << 2.0f << QPoint(0, 120) << false << 2.0f << QPoint(300, 400);
        QTest::newRow("horizontal is swallowed") << 1.0f << QPoint(120, 0) << false << 1.0f << QPoint(300, 400);
        QTest::newRow("a diagonal counts as vertical") << 1.0f << QPoint(120, 120) << false << 1.1f << QPoint(370, 460);
        // The unit's centre, (670, 407.5) at scale 1, moves by the change of scale
        // times that, truncated in float: (200.99997, 122.24999), (-67.00001, -40.75).
        QTest::newRow("3 notches, unit selected") << 1.0f << QPoint(0, 360) << true << 1.3f << QPoint(500, 522);
        QTest::newRow("back, unit selected") << 1.5f << QPoint(0, -120) << true << 1.4f << QPoint(233, 360);
    }

    // A wheel event through the window lands on the graph in the viewport; only the zoom may move the view, not the
    // scroll area's own wheel handling. The selected unit, or else the middle of the view, keeps its place on screen.
    void wheelZoom()
    {
        QFETCH(float, startScale);
        QFETCH(QPoint, angle);
        QFETCH(bool, selectUnit);
        QFETCH(float, expectedScale);
        QFETCH(QPoint, expectedScroll);
        Panel view;
        QVERIFY(view.show());
        view.scrollArea->setFixedSize(800, 400);
        view.panel.layout()->activate();
        view.graph->setScale(startScale);
        if (selectUnit) { // unit 6002, the third of the sixth row
            view.graph->selectedId = 6002;
            view.graph->selectedGroupId = 0;
            view.graph->selectedPosition = QPoint(610, 385);
        }
        QCOMPARE(view.scrollTo(300, 400), QPoint(300, 400));
        QWidget* viewport = view.scrollArea->viewport();
        const QPoint at = viewport->mapTo(&view.panel, viewport->rect().center());
        QWheelEvent wheel(at, view.panel.mapToGlobal(at), QPoint(), angle, Qt::NoButton, Qt::NoModifier,
                          Qt::NoScrollPhase, false);
        // Spontaneous, as from the window system: only such wheel events travel on to the parents when left
        // unaccepted (sendEvent would clear the mark).
        QSpontaneKeyEvent::setSpontaneous(&wheel);
        qApp->notify(view.panel.windowHandle(), &wheel);

        QCOMPARE(view.graph->getScale(), expectedScale);
        QCOMPARE(view.scrolled(), expectedScroll);
    }

    // The graph passes presses and drags on to the panel, which scrolls twice the distance against the movement. The
    // view also moves with the selected unit, by its movement times the scale rounded half away from zero.
    void panning()
    {
        Panel view;
        QVERIFY(view.show());
        DSPNetGraph* graph = view.graph;
        QCOMPARE(view.scrollTo(300, 400), QPoint(300, 400));
        const QPoint start(700, 600);
        QTest::mousePress(graph, Qt::LeftButton, Qt::NoModifier, start);
        QCOMPARE(graph->cursor().shape(), Qt::ClosedHandCursor);
        const QPoint end = start + QPoint(10, -5);
        QMouseEvent move(QEvent::MouseMove, end, graph->mapToGlobal(end), Qt::NoButton, Qt::LeftButton,
                         Qt::NoModifier);
        QApplication::sendEvent(graph, &move);
        QCOMPARE(view.scrolled(), QPoint(280, 410));
        QTest::mouseRelease(graph, Qt::LeftButton, Qt::NoModifier, end);
        QCOMPARE(graph->cursor().shape(), Qt::OpenHandCursor);

        const std::tuple<float, QPoint, QPoint> cases[] = { { 1.5f, QPoint(0, 75), QPoint(300, 513) },
                                                            { 1.5f, QPoint(0, -75), QPoint(300, 287) },
                                                            { 1.25f, QPoint(-40, 0), QPoint(250, 400) } };
        for (const auto& [scale, moveBy, expectedScroll] : cases) {
            graph->setScale(scale);
            QCOMPARE(view.scrollTo(300, 400), QPoint(300, 400));
            emit graph->selectedNodePositionChanged(QPoint(410, 160) + moveBy, QPoint(410, 160));
            QCOMPARE(view.scrolled(), expectedScroll);
        }
    }

    // Each update paints the view once, also when the network grows the widget, which the toolkit then
    // repaints whole.
    void onePaintPerUpdate()
    {
        Panel view;
        QVERIFY(view.show());
        PaintCounter paints(view.graph);
        QTest::qWait(50);
        for (const quint16 count : { 30, 40, 35 }) {
            const QSize before = view.graph->size();
            paints.setCount(0);
            QVERIFY(view.feed(Panel::chains(count)));
            QTRY_VERIFY(paints.getCount() > 0);
            QTest::qWait(50);
            QCOMPARE(paints.getCount(), 1);
            QCOMPARE(view.graph->size() != before, count != 35);
        }
    }

    // The picture is taken at scale 1.0 whatever the zoom, which comes back afterwards. The dialog is modal;
    // a zero timer answers it from its event loop.
    void saveImage()
    {
        Panel view;
        QVERIFY(view.show());
        view.graph->setScale(1.5f);
        QTemporaryDir dir;
        const QString fileName = dir.filePath(QStringLiteral("capture.png"));
        QTimer::singleShot(0, &view.panel, [&] {
            if (auto* dialog = qobject_cast<QFileDialog*>(QApplication::activeModalWidget())) {
                dialog->selectFile(fileName);
                static_cast<QDialog*>(dialog)->accept();
            }
        });
        QMetaObject::invokeMethod(&view.panel, "slotSaveImage");

        QCOMPARE(view.graph->getScale(), 1.5f);
        QCOMPARE(view.graph->size(), QSize(2820, 2295));
        const QImage saved(fileName);
        QCOMPARE(saved.size(), QSize(1880, 1530));
        QCOMPARE(saved.pixel(20, 20), qRgb(66, 186, 255));
        QCOMPARE(qAlpha(saved.pixel(180, 1500)), 0);
    }

    // A network this large is laid out in the event loop's next turn, not in the one that decoded it; updates
    // that come before then are laid out once, as the newest. A small one is laid out at once.
    void largeNetworkLaidOutNextTurn()
    {
        Model model;
        model.network.receiveBytes(dspChainV6(20000));
        model.network.receiveBytes(dspChainV6(20001));
        QVERIFY(model.graph.nodeList.isEmpty());
        QTRY_COMPARE(model.graph.nodeList.size(), 20001);
        model.network.receiveBytes(dspChainV6(3));
        QCOMPARE(placed(model.graph), QStringLiteral("1@10,10 2@210,10 3@410,10"));
        model.network.receiveBytes(dspChainV6(20002));
        QTRY_COMPARE(model.graph.nodeList.size(), 20002);
        // The turn that decoded it may run on after the decode; the layout still waits for a turn after
        // that one, which takes the input that came meanwhile first.
        model.network.receiveBytes(dspChainV6(20003));
        QThread::msleep(5);
        QCoreApplication::processEvents();
        QCOMPARE(model.graph.nodeList.size(), 20002);
        QTRY_COMPARE(model.graph.nodeList.size(), 20003);
    }
};

QTEST_MAIN(TestDSPNetGraph)
#include "tst_dspnetgraph.moc"
