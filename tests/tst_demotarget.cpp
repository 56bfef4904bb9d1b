// The simulated target as the demo's user meets it. Its DSP packets are read back with the profiler's own
// decoder (held to the test vectors in tst_dspnettree); the figure packets are compared byte for byte.
#include "capturefixture.h"
#include "dspnettree.h"
#include "packetencoder.h"
#include "profilernetwork.h"
#include "simengine.h"
#include "targetserver.h"

#include <QTcpSocket>
#include <QtTest>

namespace
{

// Versions 0 and 1 carry a signed 32-bit id.
quint64 wireId(quint64 id, int version)
{
    return version <= 1 ? quint64(qint64(qint32(id))) : id;
}

} // namespace

class TestDemoTarget : public QObject
{
    Q_OBJECT

private slots:
    void dspPackets_data();
    void dspPackets();
    void defaultGameUnchanged();
    void commandsAndClients();
};

void TestDemoTarget::dspPackets_data()
{
    QTest::addColumn<int>("version");
    QTest::addColumn<int>("units");
    QTest::addColumn<bool>("everyChannel");
    QTest::addColumn<int>("maxDepth"); // the longest path from the head
    for (int version = 0; version <= 6; ++version)
        QTest::addRow("v%d", version) << version << 60 << false << 9;
    for (int units : { 1000, 10000, 54321, 100000 })
        QTest::addRow("%d units", units) << 6 << units << false << (units < 60000 ? 10 : 11);
    QTest::newRow("100000 units, every channel") << 6 << 100000 << true << 11;
}

// Every decoded unit is compared with the simulated one from the head on, so the decoded units are exactly
// those the head reaches. A large game still reads as a mix: no unit takes more than 64 inputs (the master of
// 100000 units once took 7000), the DSP load fits one mix block (it once read 42000 %), channel groups grow
// with the network, and every input sits one column right of its consumers (by the profiler's depths): no loop.
void TestDemoTarget::dspPackets()
{
    QFETCH(int, version);
    QFETCH(int, units);
    QFETCH(bool, everyChannel);
    QFETCH(int, maxDepth);
    QElapsedTimer timer;
    timer.start();
    SimEngine engine(1, units);
    if (everyChannel)
        engine.playAllChannels();
    const SimNetwork& network = engine.getNetwork();
    QCOMPARE(network.units.size(), units);
    QVERIFY(network.groups.size() * 5 >= units && network.groups.size() * 3 <= units);
    for (int step = 0; step < 20; ++step) {
        engine.step();
        const float load = engine.getFigures().dsp;
        QVERIFY2(load < 100.0f && (units < 1000 || load > 30.0f), qPrintable(QString::number(load)));
        for (const SimUnit& unit : network.units)
            QVERIFY2(unit.inputs.size() <= 64, unit.name.constData());
    }
    const QByteArray packet = PacketEncoder::encodeDSP(network, version);
    QCOMPARE(packet.mid(8, 4), QByteArray::fromHex("0100").append(char(version)).append('\0'));
    // The profiler's own link and DSP model read it.
    ProfilerNetwork link;
    DSPTree tree(&link);
    QStringList statuses;
    connect(&tree, &DSPTree::statusChanged, [&](const QString& text) { statuses << text; });
    link.receiveBytes(packet);
    QVERIFY(timer.elapsed() < 10000); // a quadratic step would take minutes at 100000
    QCOMPARE(statuses, version == 6 ? QStringList()
                                    : QStringList { "Connected. (Old version detected, reduced functionality)" });
    QCOMPARE(tree.dspVersion, version);
    const DSPNode* head = tree.root.inputs.first().node;
    QCOMPARE(head->id, wireId(network.units[network.head].id, version));
    QCOMPARE(head->name, QStringLiteral("Master"));
    for (const DSPNode::InputRecord& input : head->inputs)
        QVERIFY2(input.node->name.endsWith(" Bus") || input.node->name.contains("Return"),
                 qPrintable(input.node->name));
    QVERIFY(tree.cpuUsage == (version >= 1 && version <= 5 ? network.cpuUsage : 0.0f));
    QCOMPARE(qMakePair(tree.timingRate, tree.timingLength), version == 6 ? qMakePair(48000, 1024) : qMakePair(0, 0));
    // The profiler sums the units' own costs at the head.
    QVERIFY(version < 6 || qAbs(head->inclusiveCPU * 100.0f - engine.getFigures().dsp) < 0.01f);
    QHash<quint64, const SimUnit*> unitByWireId;
    for (const SimUnit& unit : network.units)
        unitByWireId.insert(wireId(unit.id, version), &unit);
    int records = 1, deepest = 0; // the head's record, then one per input of every unit on the wire
    for (const DSPNode* node : tree.nodesById) {
        const SimUnit* unit = unitByWireId.value(node->id);
        QVERIFY(unit);
        records += unit->inputs.size();
        deepest = qMax(deepest, node->depth - head->depth);
        QCOMPARE(node->name, QString::fromUtf8(unit->name));
        QCOMPARE(node->groupId, version >= 4 ? unit->groupId : 0);
        QCOMPARE(node->sendTargetId, version >= 5 ? unit->sendTargetId : 0);
        QVERIFY(node->active == unit->active && node->bypass == (version >= 2 && unit->bypass));
        QCOMPARE(node->exclusiveUsage, version >= 1 ? unit->exclusiveUsage : 0u);
        QVector<char> levels;
        for (int i = 0; version >= 2 && i < unit->levels.size(); ++i)
            levels.append(char(version >= 3 ? unit->levels[i] : -80));
        QCOMPARE(node->levels, levels);
        QCOMPARE(node->inputs.size(), unit->inputs.size());
        for (int i = 0; i < unit->inputs.size(); ++i) {
            const SimInput& input = unit->inputs[i];
            const DSPNode::InputRecord& decoded = node->inputs[i];
            QCOMPARE(decoded.node->id, wireId(network.units[input.unit].id, version));
            QCOMPARE(decoded.send, version == 6 && input.send);
            QCOMPARE(decoded.sidechain, version == 6 && input.sidechain);
            QVERIFY2(decoded.node->depth == node->depth + 1, qPrintable(node->name + " <- " + decoded.node->name));
        }
    }
    QCOMPARE(deepest, maxDepth);
    const int recordSizes[] = { 45, 49, 61, 179, 187, 195, 94 };
    const int prologueSizes[] = { 0, 4, 5, 5, 5, 5, 8 };
    QCOMPARE(packet.size(), 12 + prologueSizes[version] + records * recordSizes[version]);
}

// The default game is the one the README pictures and the other tests read: its packets over 50 steps, hashed
// before large networks got submixes and a cost budget, must not change. Another seed gives another game, and
// the game keeps changing: channels start and stop, levels and figures move, all within their capacities.
void TestDemoTarget::defaultGameUnchanged()
{
    SimEngine engine(1, 60);
    SimEngine other(2, 60);
    const SimNetwork& network = engine.getNetwork();
    const QVector<qint8> masterLevelsAtStart = network.units[network.head].levels;
    QCryptographicHash hash(QCryptographicHash::Sha1);
    int rises = 0, falls = 0;
    QSet<qint32> virtualCounts;
    for (int step = 0; step < 200; ++step) {
        const int playing = engine.getNumPlayingChannels();
        engine.step();
        other.step();
        rises += engine.getNumPlayingChannels() > playing ? 1 : 0;
        falls += engine.getNumPlayingChannels() < playing ? 1 : 0;
        const SimFigures& f = engine.getFigures();
        QVERIFY(f.softwareUsed >= 0 && f.softwareUsed <= f.softwareCapacity);
        QVERIFY(f.hardwareUsed >= 0 && f.hardwareUsed <= f.hardwareCapacity);
        QVERIFY(f.virtualUsed >= f.hardwareUsed + f.softwareUsed && f.virtualUsed <= f.virtualCapacity);
        for (int codec = 0; codec < NumCodecs; ++codec)
            QVERIFY(f.codecUsed[codec] >= 0 && f.codecUsed[codec] <= f.codecCapacity[codec]);
        QVERIFY(f.memoryUsed > 0 && f.memoryUsed <= f.memoryCapacity);
        QVERIFY(f.dsp > 0.0f && f.dsp < 100.0f);
        virtualCounts.insert(f.virtualUsed);
        if (step >= 50)
            continue;
        hash.addData(PacketEncoder::encodeDSP(network, 6) + PacketEncoder::encodeGroups(network)
                     + PacketEncoder::encodeCPU(f, 1) + PacketEncoder::encodeStats(f));
        // The other figure packets, built field by field from the layout tables.
        PacketBuilder cpu(3, 0, 0), channels(4, 0, 0), codecs(5, 0, 0);
        QCOMPARE(PacketEncoder::encodeCPU(f, 0), cpu.f32(f.dsp).f32(f.stream).f32(f.update).finish());
        channels.i32(f.hardwareUsed).i32(f.hardwareCapacity).i32(f.softwareUsed).i32(f.softwareCapacity);
        QCOMPARE(PacketEncoder::encodeChannels(f), channels.i32(f.virtualUsed).i32(f.virtualCapacity).finish());
        for (int codec : { CodecMPEG, CodecADPCM, CodecXMA, CodecPCM })
            codecs.i32(f.codecUsed[codec]).i32(f.codecCapacity[codec]);
        QCOMPARE(PacketEncoder::encodeCodecs(f), codecs.finish());
    }
    QCOMPARE(hash.result().toHex(), QByteArray("eb4249e493634077042733e6777dcd08a1a6b8a6"));
    QVERIFY(PacketEncoder::encodeDSP(network, 6) != PacketEncoder::encodeDSP(other.getNetwork(), 6));
    QVERIFY2(rises > 5 && falls > 5, qPrintable(QStringLiteral("%1 %2").arg(rises).arg(falls)));
    QVERIFY(network.units[network.head].levels != masterLevelsAtStart);
    QVERIFY(virtualCounts.size() > 5);
}

// The game takes the profiler's commands: a unit switched off and bypassed says so in the next snapshots, and
// text commands are reported. It drops a client whose framing makes no sense and keeps serving the others; a
// period of 0 stops a stream.
void TestDemoTarget::commandsAndClients()
{
    TargetServer server { TargetSettings() };
    QSignalSpy commands(&server, &TargetServer::commandStringReceived);
    QVERIFY(server.listen(QHostAddress::LocalHost, 0));
    // Raw sockets to the target; the profiler's link frames what comes back and queues it by type.
    ProfilerNetwork frames;
    DSPTree tree(&frames);
    QTcpSocket client, broken;
    connect(&client, &QTcpSocket::readyRead, [&]() { frames.receiveBytes(client.readAll()); });
    client.connectToHost(QHostAddress::LocalHost, server.getPort());
    broken.connectToHost(QHostAddress::LocalHost, server.getPort());
    QVERIFY(client.waitForConnected(3000) && broken.waitForConnected(3000));
    broken.write(PacketBuilder(0, 0, 0).finishWithSize(0xffffffffu));
    QVERIFY(QTest::qWaitFor([&]() { return broken.state() == QAbstractSocket::UnconnectedState; }));

    const SimNetwork& network = server.getEngine().getNetwork();
    const quint64 id = network.units[network.units[network.head].inputs.first().unit].id;
    client.write(request(1, 50) + PacketBuilder(1, 2, 6).u64(id).u8(0).finish()
                 + PacketBuilder(1, 3, 6).u64(id).u8(1).finish()
                 + PacketBuilder(1, 1, 6).fixedString("ShowVoices", 128).finish()
                 + PacketBuilder(7, 1, 0).fixedString("show m\xc3\xbcsic", 128).finish());
    QVERIFY(QTest::qWaitFor([&]() {
        const DSPNode* unit = tree.nodesById.value(id);
        return unit && !unit->active && unit->bypass;
    }, 3000));
    const QList<QVariantList> reported = commands;
    QCOMPARE(reported, (QList<QVariantList> { { 1, "ShowVoices" }, { 7, QString::fromUtf8("show m\xc3\xbcsic") } }));
    QCOMPARE(server.getNumConnections(), 1);

    client.write(request(1, 0) + request(5, 60000));
    QVERIFY(QTest::qWaitFor([&]() { return frames.getNumWaitingPackets(5, 0) > 0; }, 3000));
    QSignalSpy later(&tree, &DSPTree::dspNetTreeUpdated);
    QTest::qWait(150);
    QCOMPARE(later.count(), 0);
}

QTEST_GUILESS_MAIN(TestDemoTarget)
#include "tst_demotarget.moc"
