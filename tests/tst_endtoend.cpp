// The profiler's network link and collectors against the simulated target,
// in-process over loopback, exactly as the main form drives them.
#include "profilerchain.h"
#include "targetserver.h"

#include <QSignalSpy>
#include <QTest>

namespace
{

const QString OldVersion = QStringLiteral("Connected. (Old version detected, reduced functionality)");

struct Profiler : ProfilerChain
{
    bool connectTo(quint16 port)
    {
        network.connectToHost(QStringLiteral("127.0.0.1"), port);
        if (!QTest::qWaitFor([this] { return network.isConnected(); }, 5000))
            return false;
        // The streams the main form asks for, at its periods.
        const int streams[][2] = { { 1, 100 }, { 7, 100 }, { 3, 200 }, { 4, 200 }, { 5, 200 }, { 9, 200 } };
        for (const auto& stream : streams)
            network.requestDataType(quint8(stream[0]), 0, unsigned(stream[1]));
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
    void everyStreamArrives_data();
    void everyStreamArrives();
    void commandsChangeTheNextSnapshot();
};

void TestEndToEnd::everyStreamArrives_data()
{
    QTest::addColumn<int>("dspVersion");
    QTest::addColumn<int>("cpuVersion");
    for (int version = 0; version <= 6; ++version)
        QTest::addRow("dsp v%d", version) << version << (version == 0 ? 0 : 1);
}

void TestEndToEnd::everyStreamArrives()
{
    QFETCH(int, dspVersion);
    QFETCH(int, cpuVersion);

    TargetSettings settings;
    settings.dspVersion = dspVersion;
    settings.cpuVersion = cpuVersion;
    settings.seed = 7;
    TargetServer target(settings);
    QVERIFY(target.listen(QHostAddress::LocalHost, 0));

    Profiler profiler;
    QSignalSpy treeStatus(&profiler.dspTree, &DSPTree::statusChanged);
    QSignalSpy cpuStatus(&profiler.cpuHistory, &CPUHistory::statusChanged);
    QSignalSpy channelStatus(&profiler.channelHistory, &ChannelHistory::statusChanged);
    QVERIFY(profiler.connectTo(target.getPort()));
    QVERIFY(QTest::qWaitFor([&] { return profiler.hasEveryStream(); }, 5000));

    QCOMPARE(profiler.dspTree.dspVersion, dspVersion);
    QCOMPARE(profiler.dspTree.groupVersion, 0);
    // Old layouts say so on every packet; the current ones say nothing.
    QCOMPARE(treeStatus.isEmpty(), dspVersion == 6);
    if (dspVersion < 6)
        QCOMPARE(treeStatus.last().at(0).toString(), OldVersion);
    QCOMPARE(cpuStatus.isEmpty(), cpuVersion == 1);
    QVERIFY(channelStatus.isEmpty());

    // The model holds the target's network, unit for unit. The target may
    // have stepped since the packet went out, so compare with a packet we
    // can pin down: the newest one the profiler decoded is one of the
    // target's states, and its head is the target's head.
    const SimNetwork& simulated = target.getEngine().getNetwork();
    const quint64 headId = simulated.units.at(simulated.head).id;
    // The oldest layouts carry a signed 32-bit id.
    const quint64 wireHeadId = dspVersion <= 1 ? quint64(qint64(qint32(quint32(headId)))) : headId;
    QCOMPARE(profiler.dspTree.root.inputs.first().node->id, wireHeadId);
    QVERIFY(profiler.dspTree.nodesById.size() > 10);
    QCOMPARE(profiler.dspTree.groups.size(), simulated.groups.size());

    // Figures stay within their capacities after the profiler's arithmetic.
    const ChannelUsageSnapshot& channels = profiler.channelHistory.getHistoryList()->last();
    QVERIFY(channels.hardwareUsed <= channels.hardwareCapacity);
    QVERIFY(channels.softwareUsed <= channels.softwareCapacity);
    QCOMPARE(profiler.channelHistory.getMaximumValue(), channels.virtualCapacity);
    const CPUUsageSnapshot& cpu = profiler.cpuHistory.getHistoryList()->last();
    QVERIFY(cpu.total > 0.0f && cpu.total <= 100.0f);
    QCOMPARE(cpu.geometry == 0.0f, cpuVersion == 0);
    QVERIFY(profiler.statsHistory.values[StatsHistory::StatsMemory].capacity > 0.0f);
}

void TestEndToEnd::commandsChangeTheNextSnapshot()
{
    TargetSettings settings;
    settings.seed = 3;
    TargetServer target(settings);
    QVERIFY(target.listen(QHostAddress::LocalHost, 0));
    QSignalSpy commandStrings(&target, &TargetServer::commandStringReceived);

    Profiler profiler;
    QVERIFY(profiler.connectTo(target.getPort()));
    QVERIFY(QTest::qWaitFor([&] { return profiler.hasEveryStream(); }, 5000));

    // Pick an active, unbypassed unit that is not the head.
    const DSPNode* head = profiler.dspTree.root.inputs.first().node;
    quint64 id = 0;
    for (const DSPNode::InputRecord& input : head->inputs) {
        if (input.node->active && !input.node->bypass) {
            id = input.node->id;
            break;
        }
    }
    QVERIFY(id != 0);

    profiler.dspTree.sendDSPCommandBypass(id, true);
    QVERIFY(QTest::qWaitFor([&] {
        const DSPNode* node = profiler.dspTree.nodesById.value(id);
        return node && node->bypass;
    }, 3000));
    profiler.dspTree.sendDSPCommandEnable(id, false);
    QVERIFY(QTest::qWaitFor([&] {
        const DSPNode* node = profiler.dspTree.nodesById.value(id);
        return node && !node->active;
    }, 3000));

    profiler.dspTree.sendDSPCommandString(QStringLiteral("ShowVoices"));
    profiler.dspTree.sendGroupCommandString(QStringLiteral("ShowGroups"));
    QVERIFY(QTest::qWaitFor([&] { return commandStrings.size() == 2; }, 3000));
    QCOMPARE(commandStrings.at(0), (QList<QVariant> { 1, QStringLiteral("ShowVoices") }));
    QCOMPARE(commandStrings.at(1), (QList<QVariant> { 7, QStringLiteral("ShowGroups") }));
}

QTEST_GUILESS_MAIN(TestEndToEnd)
#include "tst_endtoend.moc"
