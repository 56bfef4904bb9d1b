#include "profilerdspnetgraph.h"

#include "dspnetgraph.h"
#include "dspnettree.h"
#include "loopbacktarget.h"
#include "packetbuilder.h"
#include "profilernetwork.h"

#include <QApplication>
#include <QCheckBox>
#include <QFileDialog>
#include <QGroupBox>
#include <QLayout>
#include <QLineEdit>
#include <QScrollArea>
#include <QScrollBar>
#include <QSpinBox>
#include <QTemporaryDir>
#include <QTimer>
#include <QtTest>

#include <tuple>

class TestProfilerDSPNetGraph : public QObject
{
    Q_OBJECT

    LoopbackTarget* target = nullptr;
    ProfilerNetwork* network = nullptr;
    DSPTree* tree = nullptr;
    ProfilerDSPNetGraph* panel = nullptr;
    DSPNetGraph* graph = nullptr;
    QScrollArea* scrollArea = nullptr;

    void scrollTo(int h, int v)
    {
        scrollArea->horizontalScrollBar()->setValue(h);
        scrollArea->verticalScrollBar()->setValue(v);
        QCOMPARE(scrolled(), QPoint(h, v));
    }

    QPoint scrolled() const
    {
        return QPoint(scrollArea->horizontalScrollBar()->value(), scrollArea->verticalScrollBar()->value());
    }

private slots:
    // The panel shows twenty chains of eight units under one head: 1880 by 1530 pixels at scale 1.0, larger than
    // the view.
    void init()
    {
        target = new LoopbackTarget;
        network = new ProfilerNetwork;
        tree = new DSPTree(network);
        panel = new ProfilerDSPNetGraph(tree);
        graph = panel->findChild<DSPNetGraph*>();
        scrollArea = panel->findChild<QScrollArea*>();
        panel->resize(1000, 500);
        panel->show();
        QVERIFY(QTest::qWaitForWindowExposed(panel));

        network->connectToHost(QStringLiteral("127.0.0.1"), target->port());
        QVERIFY(QTest::qWaitFor([this] { return network->isConnected(); }, 5000));
        QVERIFY(target->waitForClient());
        QVector<DSPUnitV6> units { { 1, 20 } };
        for (quint64 row = 1; row <= 20; ++row) {
            for (quint64 column = 0; column < 8; ++column)
                units.append({ 1000 * row + column, quint16(column < 7 ? 1 : 0) });
        }
        QSignalSpy updated(tree, &DSPTree::dspNetTreeUpdated);
        target->send(dspPacketV6(units));
        QVERIFY(updated.wait(5000));
    }

    void cleanup()
    {
        delete panel;
        delete tree;
        delete network;
        // Let the target see the close before it goes.
        const bool closed = QTest::qWaitFor([this] { return !target->hasClient(); }, 1000);
        delete target;
        QVERIFY(closed);
    }

    // The graph starts with every flag off: the boxes that start checked must reach it. A partly checked box leaves
    // its flag alone, except that sends and the legend take it as unchecked. Each CPU threshold bounds the other, so
    // the low one stays below the high one.
    void options()
    {
        const QList<QCheckBox*> boxes = panel->findChildren<QCheckBox*>();
        QStringList texts;
        for (QCheckBox* box : boxes)
            texts.append(box->text() + (box->isChecked() ? "+" : "-"));
        QCOMPARE(texts, QStringList({ "Excessive Inputs+", "Inactive Inputs+", "CPU Usage-", "Volume-", "Groups+",
                                      "Guids-", "Sends+", "Legend-", "Inclusive-" }));
        const auto flags = [this] {
            return QVector<bool> { graph->getShowExcessiveInputs(), graph->getShowInactiveInputs(),
                                   graph->getShowCPUUsage(), graph->getShowVolumeLevels(), graph->getShowGroups(),
                                   graph->getShowGuids(), graph->getShowSends(), graph->getShowLegend(),
                                   graph->getInclusiveCPUUsage() };
        };
        QCOMPARE(flags(), QVector<bool>({ true, true, false, false, true, false, true, false, false }));
        QCOMPARE(graph->getMaxCPUUsage(), 0.2f);

        const Qt::CheckState states[] = { Qt::PartiallyChecked, Qt::Unchecked, Qt::Checked,
                                          Qt::PartiallyChecked, Qt::Unchecked, Qt::Checked,
                                          Qt::PartiallyChecked, Qt::Checked, Qt::Checked };
        QGroupBox* cpuBox = panel->findChildren<QGroupBox*>().value(1);
        for (int i = 0; i < boxes.size(); ++i) {
            QCOMPARE(cpuBox->isEnabled(), i > 2); // only once "CPU Usage" is checked
            boxes.at(i)->setCheckState(states[i]);
        }
        QCOMPARE(flags(), QVector<bool>({ true, false, true, false, false, true, false, true, true }));
        QVERIFY(cpuBox->isEnabled());

        QSpinBox* low = panel->findChildren<QSpinBox*>().value(0);
        QSpinBox* high = panel->findChildren<QSpinBox*>().value(1);
        low->setValue(10);
        QCOMPARE(high->minimum(), 11);
        QCOMPARE(graph->getMinCPUUsage(), 0.1f);
        high->setValue(50);
        QCOMPARE(low->maximum(), 49);
        QCOMPARE(graph->getMaxCPUUsage(), 0.5f);
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

        QTest::keyClicks(panel->findChild<QLineEdit*>(QString(), Qt::FindDirectChildrenOnly), typed);
        tree->sendGroupCommandString(QStringLiteral("end"));

        const auto command = [](quint8 type, quint8 version, const QString& text) {
            return PacketBuilder(type, 1, version).fixedString(text.toUtf8(), 128).finish();
        };
        const QByteArray end = command(7, 0, "end");
        QVERIFY(QTest::qWaitFor([&] { return target->received().endsWith(end); }, 5000));
        const QByteArray last = sendingEdits ? command(1, 6, typed) + command(7, 0, typed) : QByteArray();
        QCOMPARE(target->received(), target->received().left((2 * sendingEdits - 2) * 140) + last + end);
        QCOMPARE(graph->getHighlightName(), typed);
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
        // The unit's centre, (670, 407.5) at scale 1, moves by the change of scale
        // times that, truncated in float: (200.99997, 122.24999), (-67.00001, -40.75).
        QTest::newRow("three notches, unit selected") << 1.0f << QPoint(0, 360) << true << 1.3f << QPoint(500, 522);
        QTest::newRow("one notch back, unit selected") << 1.5f << QPoint(0, -120) << true << 1.4f << QPoint(233, 360);
    }

    // A wheel event through the window lands on the graph in the viewport; only the zoom may move the view, not
    // the scroll area's own wheel handling. The selected unit, or else the middle of the view, keeps its place on
    // screen.
    void wheelZoom()
    {
        QFETCH(float, startScale);
        QFETCH(QPoint, angle);
        QFETCH(bool, selectUnit);
        QFETCH(float, expectedScale);
        QFETCH(QPoint, expectedScroll);

        scrollArea->setFixedSize(800, 400);
        panel->layout()->activate();
        graph->setScale(startScale);
        if (selectUnit) { // unit 6002, the third of the sixth row
            graph->selectedId = 6002;
            graph->selectedGroupId = 0;
            graph->selectedPosition = QPoint(610, 385);
        }
        scrollTo(300, 400);
        QWidget* viewport = scrollArea->viewport();
        const QPoint at = viewport->mapTo(panel, viewport->rect().center());
        QWheelEvent wheel(at, panel->mapToGlobal(at), QPoint(), angle, Qt::NoButton, Qt::NoModifier,
                          Qt::NoScrollPhase, false);
        // Spontaneous, as from the window system: only such wheel events travel on to the parents when left
        // unaccepted (sendEvent would clear the mark).
        QSpontaneKeyEvent::setSpontaneous(&wheel);
        qApp->notify(panel->windowHandle(), &wheel);

        QCOMPARE(graph->getScale(), expectedScale);
        QCOMPARE(scrolled(), expectedScroll);
    }

    // The graph passes presses and drags on to the panel, which scrolls twice the distance against the movement.
    // The view also moves with the selected unit, by its movement times the scale rounded half away from zero.
    void panning()
    {
        scrollTo(300, 400);
        const QPoint start(700, 600);
        QTest::mousePress(graph, Qt::LeftButton, Qt::NoModifier, start);
        QCOMPARE(graph->cursor().shape(), Qt::ClosedHandCursor);
        const QPoint end = start + QPoint(10, -5);
        QMouseEvent move(QEvent::MouseMove, end, graph->mapToGlobal(end), Qt::NoButton, Qt::LeftButton,
                         Qt::NoModifier);
        QApplication::sendEvent(graph, &move);
        QCOMPARE(scrolled(), QPoint(280, 410));
        QTest::mouseRelease(graph, Qt::LeftButton, Qt::NoModifier, end);
        QCOMPARE(graph->cursor().shape(), Qt::OpenHandCursor);

        const std::tuple<float, QPoint, QPoint> cases[] = { { 1.5f, QPoint(0, 75), QPoint(300, 513) },
                                                            { 1.5f, QPoint(0, -75), QPoint(300, 287) },
                                                            { 1.25f, QPoint(-40, 0), QPoint(250, 400) } };
        for (const auto& [scale, moveBy, expectedScroll] : cases) {
            graph->setScale(scale);
            scrollTo(300, 400);
            emit graph->selectedNodePositionChanged(QPoint(410, 160) + moveBy, QPoint(410, 160));
            QCOMPARE(scrolled(), expectedScroll);
        }
    }

    // The picture is taken at scale 1.0 whatever the zoom, which comes back afterwards. The dialog is modal; a
    // zero timer answers it from its event loop.
    void saveImage()
    {
        graph->setScale(1.5f);
        QTemporaryDir dir;
        const QString fileName = dir.filePath(QStringLiteral("capture.png"));
        QTimer::singleShot(0, panel, [&] {
            if (auto* dialog = qobject_cast<QFileDialog*>(QApplication::activeModalWidget())) {
                dialog->selectFile(fileName);
                static_cast<QDialog*>(dialog)->accept();
            }
        });
        QMetaObject::invokeMethod(panel, "slotSaveImage");

        QCOMPARE(graph->getScale(), 1.5f);
        QCOMPARE(graph->size(), QSize(2820, 2295));
        const QImage saved(fileName);
        QCOMPARE(saved.size(), QSize(1880, 1530));
        QCOMPARE(saved.pixel(20, 20), qRgb(66, 186, 255));
        QCOMPARE(qAlpha(saved.pixel(180, 1500)), 0);
    }
};

QTEST_MAIN(TestProfilerDSPNetGraph)
#include "tst_profilerdspnetgraph.moc"
