// The profiler's network link and collectors against the simulated target,
// in-process over loopback, exactly as the main form drives them.
#include "dspnetgraph.h"
#include "profilerchain.h"
#include "targetserver.h"

#include <QApplication>
#include <QImage>
#include <QMenu>
#include <QPainter>
#include <QSignalSpy>
#include <QTest>
#include <QTimer>

namespace
{

struct Profiler : ProfilerChain
{
    bool connectTo(quint16 port)
    {
        network.connectToHost(QStringLiteral("127.0.0.1"), port);
        if (!QTest::qWaitFor([this] { return network.isConnected(); }, 5000))
            return false;
        network.requestProfileStreams(true); // as the main form does; tst_profilerform checks the bytes
        return true;
    }

    bool hasEveryStream() const
    {
        return !dspTree.root.inputs.isEmpty() && !dspTree.groups.isEmpty() && cpuHistory.getHistoryList()->size() >= 2
            && channelHistory.getHistoryList()->size() >= 2 && codecHistory.getHistoryList()->size() >= 2
            && statsHistory.history->size() >= 2;
    }
};

} // namespace

class TestEndToEnd : public QObject
{
    Q_OBJECT

private slots:
    void commandsChangeTheNextSnapshot();
};

// What a user does: right-click a unit, choose "Bypass"; the target gets the
// command and its next snapshot draws the unit white. The other commands
// change the next snapshots too, and text commands reach the target.
void TestEndToEnd::commandsChangeTheNextSnapshot()
{
    TargetSettings settings;
    settings.seed = 5;
    TargetServer target(settings);
    QVERIFY(target.listen(QHostAddress::LocalHost, 0));
    QSignalSpy commandStrings(&target, &TargetServer::commandStringReceived);

    Profiler profiler;
    DSPNetGraph graph(&profiler.dspTree);
    graph.setShowExcessiveInputs(true);
    graph.setShowInactiveInputs(true);
    graph.show();
    QVERIFY(QTest::qWaitForWindowExposed(&graph));
    QVERIFY(profiler.connectTo(target.getPort()));
    // Every stream arrives and is taken by its collector.
    QVERIFY(QTest::qWaitFor([&] { return profiler.hasEveryStream() && graph.nodeList.size() > 10; }, 5000));

    // The second unit in placement order is an input of the head: it is
    // active, not bypassed, and stays in the network from one step to the next.
    const DSPNetGraphicalNode unit = graph.nodeList.at(1);
    QVERIFY(unit.active && !unit.bypass);
    const QPoint inside = unit.position + QPoint(20, 20);
    QTimer::singleShot(0, &graph, [] {
        auto* menu = qobject_cast<QMenu*>(QApplication::activePopupWidget());
        if (!menu)
            return;
        for (QAction* action : menu->actions()) {
            if (action->text() == QLatin1String("Bypass"))
                action->trigger();
        }
        menu->close();
    });
    QTest::mousePress(&graph, Qt::RightButton, Qt::NoModifier, inside);
    QTest::mouseRelease(&graph, Qt::RightButton, Qt::NoModifier, inside);
    auto placedUnit = [&]() -> const DSPNetGraphicalNode* {
        for (const DSPNetGraphicalNode& node : graph.nodeList) {
            if (node.id == unit.id)
                return &node;
        }
        return nullptr;
    };
    QVERIFY(QTest::qWaitFor([&] { return placedUnit() && placedUnit()->bypass; }, 3000));

    // Deselect, so the unit wears the plain faceplate, and look at its fill.
    QTest::mouseClick(&graph, Qt::LeftButton, Qt::NoModifier, QPoint(graph.width() - 2, graph.height() - 2));
    QImage image(graph.size(), QImage::Format_ARGB32);
    image.fill(Qt::transparent);
    QPainter painter(&image);
    graph.renderTree(&painter, true);
    painter.end();
    const QPoint fill = placedUnit()->position + QPoint(60, 40); // below the name
    QCOMPARE(QColor(image.pixel(fill)), QColor(Qt::white));

    auto becomes = [&](bool active, bool bypass) {
        return QTest::qWaitFor([&] {
            const DSPNode* node = profiler.dspTree.nodesById.value(unit.id);
            return node && node->active == active && node->bypass == bypass;
        }, 3000);
    };
    profiler.dspTree.sendDSPCommandEnable(unit.id, false);
    QVERIFY(becomes(false, true));
    profiler.dspTree.sendDSPCommandEnable(unit.id, true);
    profiler.dspTree.sendDSPCommandBypass(unit.id, false);
    QVERIFY(becomes(true, false));

    profiler.dspTree.sendDSPCommandString(QStringLiteral("ShowVoices"));
    profiler.dspTree.sendGroupCommandString(QStringLiteral("ShowGroups"));
    QVERIFY(QTest::qWaitFor([&] { return commandStrings.size() == 2; }, 3000));
    QCOMPARE(commandStrings.at(0), (QList<QVariant> { 1, QStringLiteral("ShowVoices") }));
    QCOMPARE(commandStrings.at(1), (QList<QVariant> { 7, QStringLiteral("ShowGroups") }));
}

QTEST_MAIN(TestEndToEnd)
#include "tst_endtoend.moc"
