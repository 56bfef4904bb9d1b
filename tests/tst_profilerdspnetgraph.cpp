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
#include <QLabel>
#include <QLayout>
#include <QLineEdit>
#include <QPushButton>
#include <QScrollArea>
#include <QScrollBar>
#include <QSpinBox>
#include <QTemporaryDir>
#include <QTimer>
#include <QtTest>

namespace
{

// Twenty chains of eight units under one head: 1880 by 1530 pixels at
// scale 1.0, larger than the view.
QByteArray gridPacket()
{
    QVector<DSPUnitV6> units{{1, 20}};
    for (quint64 row = 1; row <= 20; ++row) {
        for (quint64 column = 0; column < 8; ++column)
            units.append({1000 * row + column, quint16(column < 7 ? 1 : 0)});
    }
    return dspPacketV6(units);
}

} // namespace

class TestProfilerDSPNetGraph : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();
    void construction();
    void optionRules_data();
    void optionRules();
    void cpuThresholds();
    void highlightCommands_data();
    void highlightCommands();
    void wheelZoom_data();
    void wheelZoom();
    void dragPanning();
    void followSelectedNode_data();
    void followSelectedNode();
    void saveImage_data();
    void saveImage();

private:
    QCheckBox* checkBox(const QString& text) const;
    QSpinBox* spinBox(int layoutIndex) const;
    void scrollTo(int h, int v);

    LoopbackTarget* target = nullptr;
    ProfilerNetwork* network = nullptr;
    DSPTree* tree = nullptr;
    ProfilerDSPNetGraph* panel = nullptr;
    DSPNetGraph* graph = nullptr;
    QScrollArea* scrollArea = nullptr;
};

void TestProfilerDSPNetGraph::init()
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
    QSignalSpy updated(tree, &DSPTree::dspNetTreeUpdated);
    target->send(gridPacket());
    QVERIFY(updated.wait(5000));
}

void TestProfilerDSPNetGraph::cleanup()
{
    delete panel;
    delete tree;
    delete network;
    // Let the target see the close before it goes.
    const bool closed = QTest::qWaitFor([this] { return !target->hasClient(); }, 1000);
    delete target;
    QVERIFY(closed);
}

QCheckBox* TestProfilerDSPNetGraph::checkBox(const QString& text) const
{
    for (QCheckBox* box : panel->findChildren<QCheckBox*>()) {
        if (box->text() == text)
            return box;
    }
    return nullptr;
}

// 1 is "Low:", 3 is "High:" in the "CPU Usage" box.
QSpinBox* TestProfilerDSPNetGraph::spinBox(int layoutIndex) const
{
    QGroupBox* cpuBox = panel->findChildren<QGroupBox*>().value(1);
    return qobject_cast<QSpinBox*>(cpuBox->layout()->itemAt(layoutIndex)->widget());
}

void TestProfilerDSPNetGraph::scrollTo(int h, int v)
{
    scrollArea->horizontalScrollBar()->setValue(h);
    scrollArea->verticalScrollBar()->setValue(v);
    QCOMPARE(scrollArea->horizontalScrollBar()->value(), h);
    QCOMPARE(scrollArea->verticalScrollBar()->value(), v);
}

void TestProfilerDSPNetGraph::construction()
{
    QStringList boxes;
    for (QCheckBox* box : panel->findChildren<QCheckBox*>())
        boxes.append(box->text() + (box->isChecked() ? "+" : "-"));
    QCOMPARE(boxes, QStringList({ "Excessive Inputs+", "Inactive Inputs+", "CPU Usage-", "Volume-",
                                  "Groups+", "Guids-", "Sends+", "Legend-", "Inclusive-" }));
    QGroupBox* cpuBox = panel->findChildren<QGroupBox*>().value(1);
    QCOMPARE(cpuBox->title(), QStringLiteral("CPU Usage"));
    QVERIFY(!cpuBox->isEnabled());

    QVERIFY(graph->getShowExcessiveInputs() && graph->getShowInactiveInputs() && graph->getShowGroups());
    QVERIFY(graph->getShowSends() && !graph->getShowCPUUsage() && !graph->getShowLegend());
    QCOMPARE(graph->getMinCPUUsage(), 0.0f);
    QCOMPARE(graph->getMaxCPUUsage(), 0.2f);
    QCOMPARE(spinBox(1)->maximum(), 19);
    QCOMPARE(spinBox(3)->value(), 20);
    QCOMPARE(spinBox(3)->minimum(), 1);
    QCOMPARE(graph->size(), QSize(1880, 1530));
}

void TestProfilerDSPNetGraph::optionRules_data()
{
    QTest::addColumn<QString>("box");
    QTest::addColumn<int>("state");
    QTest::addColumn<bool>("expected");
    QTest::addColumn<bool>("cpuBoxEnabled");

    QTest::newRow("partly checked excessive is ignored") << "Excessive Inputs" << 1 << true << false;
    QTest::newRow("unchecked inactive") << "Inactive Inputs" << 0 << false << false;
    QTest::newRow("partly checked sends is off") << "Sends" << 1 << false << false;
    QTest::newRow("checked legend") << "Legend" << 2 << true << false;
    QTest::newRow("checked CPU usage enables its box") << "CPU Usage" << 2 << true << true;
    QTest::newRow("checked inclusive") << "Inclusive" << 2 << true << false;
}

void TestProfilerDSPNetGraph::optionRules()
{
    QFETCH(QString, box);
    QFETCH(int, state);
    QFETCH(bool, expected);
    QFETCH(bool, cpuBoxEnabled);

    const QHash<QString, bool (DSPNetGraph::*)() const> getters = {
        { "Excessive Inputs", &DSPNetGraph::getShowExcessiveInputs },
        { "Inactive Inputs", &DSPNetGraph::getShowInactiveInputs },
        { "Sends", &DSPNetGraph::getShowSends },
        { "Legend", &DSPNetGraph::getShowLegend },
        { "CPU Usage", &DSPNetGraph::getShowCPUUsage },
        { "Inclusive", &DSPNetGraph::getInclusiveCPUUsage },
    };
    checkBox(box)->setCheckState(static_cast<Qt::CheckState>(state));
    QCOMPARE((graph->*getters.value(box))(), expected);
    QCOMPARE(panel->findChildren<QGroupBox*>().value(1)->isEnabled(), cpuBoxEnabled);
}

void TestProfilerDSPNetGraph::cpuThresholds()
{
    spinBox(1)->setValue(10);
    QCOMPARE(spinBox(3)->minimum(), 11);
    QCOMPARE(spinBox(3)->maximum(), 100);
    QCOMPARE(graph->getMinCPUUsage(), 0.1f);
    spinBox(3)->setValue(50);
    QCOMPARE(spinBox(1)->maximum(), 49);
    QCOMPARE(graph->getMaxCPUUsage(), 0.5f);
}

void TestProfilerDSPNetGraph::highlightCommands_data()
{
    QTest::addColumn<QString>("typed");
    QTest::addColumn<int>("sendingEdits");

    QTest::newRow("three letters only highlight") << "sho" << 0;
    QTest::newRow("every edit after it sends") << "SHOW x" << 3;
    QTest::newRow("not at the start") << "xShow" << 0;
}

// Typed a key at a time; a group command sent last marks the end of the stream.
void TestProfilerDSPNetGraph::highlightCommands()
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

void TestProfilerDSPNetGraph::wheelZoom_data()
{
    QTest::addColumn<float>("startScale");
    QTest::addColumn<QPoint>("angle");
    QTest::addColumn<bool>("selectUnit");
    QTest::addColumn<float>("expectedScale");

    QTest::newRow("one notch forward") << 1.0f << QPoint(0, 120) << false << 1.1f;
    QTest::newRow("one notch back") << 1.0f << QPoint(0, -120) << false << 0.9f;
    QTest::newRow("less than a notch") << 1.0f << QPoint(0, 60) << false << 1.0f;
    QTest::newRow("clamped at 2.0") << 2.0f << QPoint(0, 120) << false << 2.0f;
    QTest::newRow("horizontal is swallowed") << 1.0f << QPoint(120, 0) << false << 1.0f;
    QTest::newRow("three notches, unit selected") << 1.0f << QPoint(0, 360) << true << 1.3f;
    QTest::newRow("one notch back, unit selected") << 1.5f << QPoint(0, -120) << true << 1.4f;
}

// A wheel event through the window lands on the graph in the viewport; only
// the zoom may move the view, not the scroll area's own wheel handling.
void TestProfilerDSPNetGraph::wheelZoom()
{
    QFETCH(float, startScale);
    QFETCH(QPoint, angle);
    QFETCH(bool, selectUnit);
    QFETCH(float, expectedScale);

    graph->setScale(startScale);
    // Unit 6002, the third of the sixth row, at (610, 385).
    const QPointF unitCentre(670, 407.5);
    if (selectUnit) {
        graph->selectedId = 6002;
        graph->selectedGroupId = 0;
        graph->selectedPosition = QPoint(610, 385);
    }
    scrollTo(300, 400);
    const QSize view = scrollArea->geometry().size();
    const QPointF anchor = selectUnit ? unitCentre * startScale
                                      : QPointF(300 + view.width() / 2, 400 + view.height() / 2);
    const QSizeF before = graph->size();

    QWidget* viewport = scrollArea->viewport();
    const QPoint at = viewport->mapTo(panel, viewport->rect().center());
    QWheelEvent wheel(at, panel->mapToGlobal(at), QPoint(), angle, Qt::NoButton, Qt::NoModifier,
                      Qt::NoScrollPhase, false);
    // Spontaneous, as from the window system: only such wheel events travel
    // on to the parents when left unaccepted (sendEvent would clear the mark).
    QSpontaneKeyEvent::setSpontaneous(&wheel);
    qApp->notify(panel->windowHandle(), &wheel);

    QCOMPARE(graph->getScale(), expectedScale);
    const int h = scrollArea->horizontalScrollBar()->value();
    const int v = scrollArea->verticalScrollBar()->value();
    if (expectedScale == startScale) {
        QCOMPARE(QPoint(h, v), QPoint(300, 400));
        return;
    }
    // The anchor keeps its place in the view, up to the truncation and the
    // ends of the scroll bars.
    const QPointF after = selectUnit ? unitCentre * expectedScale
                                     : QPointF(anchor.x() * graph->width() / before.width(),
                                               anchor.y() * graph->height() / before.height());
    const qreal wantH = qBound<qreal>(0, after.x() - (anchor.x() - 300),
                                      scrollArea->horizontalScrollBar()->maximum());
    const qreal wantV = qBound<qreal>(0, after.y() - (anchor.y() - 400),
                                      scrollArea->verticalScrollBar()->maximum());
    QVERIFY2(qAbs(wantH - h) <= 1.0, qPrintable(QStringLiteral("%1 %2").arg(wantH).arg(h)));
    QVERIFY2(qAbs(wantV - v) <= 1.0, qPrintable(QStringLiteral("%1 %2").arg(wantV).arg(v)));
}

// The graph passes presses and drags on to the panel, which scrolls twice
// the distance against the movement.
void TestProfilerDSPNetGraph::dragPanning()
{
    scrollTo(300, 400);
    const QPoint start(700, 600);
    QTest::mousePress(graph, Qt::LeftButton, Qt::NoModifier, start);
    QCOMPARE(graph->cursor().shape(), Qt::ClosedHandCursor);
    const QPoint end = start + QPoint(10, -5);
    QMouseEvent move(QEvent::MouseMove, end, graph->mapToGlobal(end), Qt::NoButton,
                     Qt::LeftButton, Qt::NoModifier);
    QApplication::sendEvent(graph, &move);
    QCOMPARE(scrollArea->horizontalScrollBar()->value(), 280);
    QCOMPARE(scrollArea->verticalScrollBar()->value(), 410);
    QTest::mouseRelease(graph, Qt::LeftButton, Qt::NoModifier, end);
    QCOMPARE(graph->cursor().shape(), Qt::OpenHandCursor);
}

void TestProfilerDSPNetGraph::followSelectedNode_data()
{
    QTest::addColumn<float>("scale");
    QTest::addColumn<QPoint>("moveBy");
    QTest::addColumn<QPoint>("expectedScroll");

    QTest::newRow("down a row at 1.5") << 1.5f << QPoint(0, 75) << QPoint(300, 513);
    QTest::newRow("up a row at 1.5, half away from zero") << 1.5f << QPoint(0, -75) << QPoint(300, 287);
    QTest::newRow("left at 1.25") << 1.25f << QPoint(-40, 0) << QPoint(250, 400);
}

void TestProfilerDSPNetGraph::followSelectedNode()
{
    QFETCH(float, scale);
    QFETCH(QPoint, moveBy);
    QFETCH(QPoint, expectedScroll);

    graph->setScale(scale);
    scrollTo(300, 400);
    emit graph->selectedNodePositionChanged(QPoint(410, 160) + moveBy, QPoint(410, 160));
    QCOMPARE(scrollArea->horizontalScrollBar()->value(), expectedScroll.x());
    QCOMPARE(scrollArea->verticalScrollBar()->value(), expectedScroll.y());
}

void TestProfilerDSPNetGraph::saveImage_data()
{
    QTest::addColumn<bool>("accept");
    QTest::newRow("saved") << true;
    QTest::newRow("cancelled") << false;
}

// The dialog is modal; a zero timer answers it from inside its event loop.
void TestProfilerDSPNetGraph::saveImage()
{
    QFETCH(bool, accept);
    graph->setScale(1.5f);
    QTemporaryDir dir;
    const QString fileName = dir.filePath(QStringLiteral("capture.png"));
    QString caption;
    QStringList filters;
    QString proposed;
    QTimer::singleShot(0, panel, [&] {
        QFileDialog* dialog = qobject_cast<QFileDialog*>(QApplication::activeModalWidget());
        if (!dialog)
            return;
        caption = dialog->windowTitle();
        filters = dialog->nameFilters();
        proposed = dialog->selectedFiles().value(0);
        if (!accept) {
            dialog->reject();
            return;
        }
        dialog->selectFile(fileName);
        static_cast<QDialog*>(dialog)->accept();
    });
    QMetaObject::invokeMethod(panel, "slotSaveImage");

    QCOMPARE(caption, QStringLiteral("Save Image"));
    QCOMPARE(filters, QStringList({ "Image Files (*.png *.jpg *.bmp)" }));
    QCOMPARE(proposed, QDir::homePath() + QStringLiteral("/dspnet_capture.png"));
    QCOMPARE(graph->getScale(), 1.5f);
    QCOMPARE(graph->size(), QSize(2820, 2295));
    QCOMPARE(QFile::exists(fileName), accept);
    if (accept) {
        const QImage saved(fileName);
        QCOMPARE(saved.size(), QSize(1880, 1530));
        QCOMPARE(saved.pixel(20, 20), qRgb(66, 186, 255));
        QCOMPARE(qAlpha(saved.pixel(180, 1500)), 0);
    }
}

QTEST_MAIN(TestProfilerDSPNetGraph)
#include "tst_profilerdspnetgraph.moc"
