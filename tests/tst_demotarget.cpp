// The simulated target as a user of the demo meets it. Its DSP packets are
// read back with the profiler's own decoder, which is held to the test
// vectors in tst_dspnettree; the figure packets are compared byte for byte.
#include "dspnettree.h"
#include "dspshapes.h"
#include "packetbuilder.h"
#include "packetencoder.h"
#include "profilernetwork.h"
#include "simengine.h"
#include "targetserver.h"

#include <QCryptographicHash>
#include <QElapsedTimer>
#include <QSet>
#include <QSignalSpy>
#include <QTcpSocket>
#include <QtTest>

#include <algorithm>
#include <cstring>
#include <functional>

namespace
{

quint32 floatBits(float value)
{
    quint32 bits;
    std::memcpy(&bits, &value, sizeof bits);
    return bits;
}

// The profiler's network link and DSP model, fed one packet without a socket.
struct Decoder
{
    explicit Decoder(const QByteArray& packet)
    {
        QObject::connect(&tree, &DSPTree::statusChanged, [this](const QString& text) { statuses << text; });
        network.receiveBytes(packet);
    }

    QStringList statuses;
    ProfilerNetwork network;
    DSPTree tree{&network};
};

// Versions 0 and 1 carry a signed 32-bit id.
quint64 wireId(quint64 id, int version)
{
    return version <= 1 ? static_cast<quint64>(static_cast<qint64>(static_cast<qint32>(id))) : id;
}

QByteArray request(quint8 type, quint32 intervalMs)
{
    return PacketBuilder(0, 0, 0).u8(type).u8(0).u32(intervalMs).finish();
}

// A raw socket to the target; the profiler's link frames what comes back
// and queues it by type.
struct TestClient
{
    explicit TestClient(quint16 port)
    {
        QObject::connect(&socket, &QTcpSocket::readyRead, [this]() { frames.receiveBytes(socket.readAll()); });
        socket.connectToHost(QHostAddress::LocalHost, port);
    }

    bool waitConnected() { return socket.waitForConnected(3000); }
    int count(quint8 type) { return frames.getNumWaitingPackets(type, 0); }

    void send(const QByteArray& bytes)
    {
        socket.write(bytes);
        socket.flush();
    }

    QByteArray next(quint8 type)
    {
        return QTest::qWaitFor([&]() { return count(type) > 0; }, 3000) ? frames.getPacket(type, 0) : QByteArray();
    }

    ProfilerNetwork frames;
    QTcpSocket socket;
};

// A target on an OS-chosen port with one client connected to it.
struct Session
{
    explicit Session(const TargetSettings& settings = TargetSettings())
        : server(settings), listening(server.listen(QHostAddress::LocalHost, 0)), client(server.getPort())
    {
    }

    bool ready() { return listening && client.waitConnected(); }

    TargetServer server;
    bool listening;
    TestClient client;
};

} // namespace

class TestDemoTarget : public QObject
{
    Q_OBJECT

private slots:
    void dspPacketsOfEveryVersion_data();
    void dspPacketsOfEveryVersion();
    void figurePackets_data();
    void figurePackets();
    void networkReadsAsAMix_data();
    void networkReadsAsAMix();
    void simulationMovesDeterministically();
    void largeNetworksStayBelievable_data();
    void largeNetworksStayBelievable();
    void defaultGameUnchanged();
    void commandsChangeTheUnitAtOnce();
    void shapes_data();
    void shapes();
    void serverStreams_data();
    void serverStreams();
    void clientInput_data();
    void clientInput();
};

void TestDemoTarget::dspPacketsOfEveryVersion_data()
{
    QTest::addColumn<int>("version");
    QTest::addColumn<int>("recordSize");
    QTest::addColumn<int>("prologueSize");
    const int records[] = {45, 49, 61, 179, 187, 195, 94}, prologues[] = {0, 4, 5, 5, 5, 5, 8};
    for (int version = 0; version <= 6; ++version)
        QTest::addRow("v%d", version) << version << records[version] << prologues[version];
}

// Every decoded unit's inputs are compared with the simulated ones, starting
// at the head, so the decoded units are exactly those the head reaches.
void TestDemoTarget::dspPacketsOfEveryVersion()
{
    QFETCH(int, version);
    QFETCH(int, recordSize);
    QFETCH(int, prologueSize);
    SimEngine engine(3, 60);
    for (int i = 0; i < 40; ++i)
        engine.step();
    const SimNetwork& network = engine.getNetwork();
    const QByteArray packet = PacketEncoder::encodeDSP(network, version);
    QCOMPARE(packet.mid(8, 4), QByteArray::fromHex("0100").append(char(version)).append('\0'));

    Decoder decoder(packet);
    const DSPTree& tree = decoder.tree;
    QCOMPARE(decoder.statuses, version == 6 ? QStringList()
                                            : QStringList{"Connected. (Old version detected, reduced functionality)"});
    QCOMPARE(tree.dspVersion, version);
    QCOMPARE(tree.root.inputs.first().node->id, wireId(network.units[network.head].id, version));
    QCOMPARE(floatBits(tree.cpuUsage), version >= 1 && version <= 5 ? floatBits(network.cpuUsage) : 0u);
    QCOMPARE(tree.timingRate, version == 6 ? 48000 : 0);
    QCOMPARE(tree.timingLength, version == 6 ? 1024 : 0);
    QHash<quint64, const SimUnit*> unitByWireId;
    for (const SimUnit& unit : network.units)
        unitByWireId.insert(wireId(unit.id, version), &unit);
    int records = 1; // the head's, then one per input of every unit on the wire
    for (const DSPNode* node : tree.nodesById) {
        const SimUnit* unit = unitByWireId.value(node->id);
        QVERIFY(unit);
        records += unit->inputs.size();
        QCOMPARE(node->name, QString::fromUtf8(unit->name));
        QCOMPARE(node->groupId, version >= 4 ? unit->groupId : 0);
        QCOMPARE(node->sendTargetId, version >= 5 ? unit->sendTargetId : 0);
        QCOMPARE(node->active, unit->active);
        QCOMPARE(node->bypass, version >= 2 && unit->bypass);
        QCOMPARE(node->exclusiveUsage, version >= 1 ? unit->exclusiveUsage : 0u);
        QVector<char> levels;
        for (int i = 0; version >= 2 && i < unit->levels.size(); ++i)
            levels.append(char(version >= 3 ? unit->levels[i] : -80));
        QCOMPARE(node->levels, levels);
        QCOMPARE(node->inputs.size(), unit->inputs.size());
        for (int i = 0; i < unit->inputs.size(); ++i) {
            const SimInput& input = unit->inputs[i];
            QCOMPARE(node->inputs[i].node->id, wireId(network.units[input.unit].id, version));
            QCOMPARE(node->inputs[i].send, version == 6 && input.send);
            QCOMPARE(node->inputs[i].sidechain, version == 6 && input.sidechain);
        }
    }
    QCOMPARE(packet.size(), 12 + prologueSize + records * recordSize);
}

// The expected bytes are built field by field from the layout tables.
void TestDemoTarget::figurePackets_data()
{
    QTest::addColumn<QByteArray>("packet");
    QTest::addColumn<QByteArray>("expected");
    SimEngine engine(11, 60);
    for (int i = 0; i < 25; ++i)
        engine.step();
    const SimFigures& f = engine.getFigures();
    QTest::newRow("cpu v0") << PacketEncoder::encodeCPU(f, 0)
                            << PacketBuilder(3, 0, 0).f32(f.dsp).f32(f.stream).f32(f.update).finish();
    QTest::newRow("cpu v1") << PacketEncoder::encodeCPU(f, 1)
                            << PacketBuilder(3, 0, 1).f32(f.dsp).f32(f.stream).f32(f.update).f32(f.geometry).finish();
    QTest::newRow("channels") << PacketEncoder::encodeChannels(f)
                              << PacketBuilder(4, 0, 0).i32(f.hardwareUsed).i32(f.hardwareCapacity).i32(f.softwareUsed)
                                     .i32(f.softwareCapacity).i32(f.virtualUsed).i32(f.virtualCapacity).finish();
    PacketBuilder codecs(5, 0, 0);
    for (int codec : {CodecMPEG, CodecADPCM, CodecXMA, CodecPCM})
        codecs.i32(f.codecUsed[codec]).i32(f.codecCapacity[codec]);
    QTest::newRow("codecs") << PacketEncoder::encodeCodecs(f) << codecs.finish();
    PacketBuilder stats(9, 0, 0);
    stats.f32(f.dsp).f32(f.stream).f32(f.update).f32(f.geometry);
    stats.i16(f.hardwareUsed + f.softwareUsed).i16(f.hardwareCapacity + f.softwareCapacity);
    stats.i16(f.virtualUsed).i16(f.virtualCapacity);
    for (int codec = 0; codec < NumCodecs; ++codec)
        stats.i16(f.codecUsed[codec]).i16(f.codecCapacity[codec]);
    QTest::newRow("stats") << PacketEncoder::encodeStats(f) << stats.i32(f.memoryUsed).i32(f.memoryCapacity).finish();
    PacketBuilder groups(7, 0, 0); // 296-byte records
    for (const SimGroup& group : engine.getNetwork().groups) {
        const QByteArray guid = group.guid.toRfc4122(); // big-endian fields
        groups.u64(group.id).u64(group.parentId);
        groups.u32(qFromBigEndian<quint32>(guid.constData())).u16(qFromBigEndian<quint16>(guid.constData() + 4));
        groups.u16(qFromBigEndian<quint16>(guid.constData() + 6)).raw(guid.mid(8)).zeros(4);
        groups.fixedString(group.name, 260);
    }
    QTest::newRow("groups") << PacketEncoder::encodeGroups(engine.getNetwork()) << groups.finish();
}

void TestDemoTarget::figurePackets()
{
    QFETCH(QByteArray, packet);
    QFETCH(QByteArray, expected);
    QCOMPARE(packet.toHex(' '), expected.toHex(' '));
}

void TestDemoTarget::networkReadsAsAMix_data()
{
    QTest::addColumn<int>("units");
    QTest::addColumn<quint64>("seed");
    QTest::addColumn<bool>("everyChannel");
    QTest::newRow("default") << 60 << quint64(5) << false;
    QTest::newRow("default, seed 1") << 60 << quint64(1) << false;
    QTest::newRow("default, every channel") << 60 << quint64(5) << true;
    QTest::newRow("too small for a group") << 12 << quint64(1) << true;
    QTest::newRow("1000 units") << 1000 << quint64(3) << false;
    QTest::newRow("load test") << 100000 << quint64(2) << true;
}

// The features the profiler has to show are there, and every connection is
// a short line: an input sits one column right of each of its consumers, in
// the columns the profiler works out itself.
void TestDemoTarget::networkReadsAsAMix()
{
    QFETCH(int, units);
    QFETCH(quint64, seed);
    QFETCH(bool, everyChannel);
    QElapsedTimer timer;
    timer.start();
    SimEngine engine(seed, units);
    if (everyChannel)
        engine.playAllChannels();
    const SimNetwork& network = engine.getNetwork();
    Decoder decoder(PacketEncoder::encodeDSP(network, 6));
    QVERIFY(timer.elapsed() < 10000); // a quadratic step would take minutes at 100000
    const DSPTree& tree = decoder.tree;
    QVERIFY(decoder.statuses.isEmpty());
    QVERIFY(tree.nodesById.size() >= units * 3 / 4);

    const DSPNode* head = tree.root.inputs.first().node;
    QCOMPARE(head->name, QStringLiteral("Master"));
    for (const DSPNode::InputRecord& input : head->inputs)
        QVERIFY2(input.node->name.endsWith(" Bus") || input.node->name.contains("Return"), qPrintable(input.node->name));
    QHash<quint64, quint64> parentOf{{0, 0}};
    for (const SimGroup& group : network.groups)
        parentOf.insert(group.id, group.parentId);
    int deepest = 0, inactive = 0, bypassed = 0, sidechains = 0, sendsToReturns = 0, channels = 0, shared = 0;
    QHash<const DSPNode*, int> plainConsumers;
    for (const DSPNode* unit : tree.nodesById) {
        QVERIFY(parentOf.contains(unit->groupId));
        inactive += unit->active ? 0 : 1;
        bypassed += unit->bypass ? 1 : 0;
        channels += unit->name.startsWith("Channel ") ? 1 : 0;
        deepest = qMax(deepest, unit->depth);
        for (const DSPNode::InputRecord& input : unit->inputs) {
            QVERIFY2(input.node->depth == unit->depth + 1, qPrintable(unit->name + " <- " + input.node->name));
            const bool plain = !input.send && !input.sidechain;
            shared += plain && ++plainConsumers[input.node] == 2 ? 1 : 0;
            sidechains += input.sidechain && unit->name == "Compressor" ? 1 : 0;
            sendsToReturns += input.send && input.node->sendTargetId == unit->id && unit->name.contains("Return");
        }
    }
    // Buses three deep with short chains, then the channels; large networks
    // put submixes between the head and the buses.
    int submixLevels = 0;
    for (const DSPNode* unit = head; !unit->inputs.isEmpty() && unit->inputs.first().node->name.startsWith("Submix");
         unit = unit->inputs.first().node)
        ++submixLevels;
    QVERIFY2(deepest <= 9 + submixLevels, qPrintable(QString::number(deepest)));

    // The profiler places a unit where it first meets it, walking inputs in
    // order. Placed through a send or a key, a whole subtree would hang under
    // the return or the compressor; placed across groups, the boxes would not nest.
    QSet<const DSPNode*> placed{head};
    std::function<void(const DSPNode*)> place = [&](const DSPNode* unit) {
        for (const DSPNode::InputRecord& input : unit->inputs) {
            const quint64 group = input.node->groupId;
            if (placed.contains(input.node))
                continue;
            placed.insert(input.node);
            const QByteArray what = (unit->name + " <- " + input.node->name).toUtf8();
            QVERIFY2(!input.send && !input.sidechain, what);
            QVERIFY2(group == unit->groupId || (group != 0 && parentOf.value(group) == unit->groupId)
                         || (group == 0 && unit == head), what);
            place(input.node);
        }
    };
    place(head);
    if (units == 60)
        QVERIFY(head->inputs.size() >= 4 && head->inputs.size() <= 6 && deepest >= 5);
    if (units < 60)
        return;
    QVERIFY(inactive > 0 && bypassed > 0 && sidechains > 0 && sendsToReturns > 0 && channels > 0 && shared > 0);
    int deepestGroup = 0;
    for (const SimGroup& group : network.groups) {
        QVERIFY(!group.guid.isNull() && parentOf.contains(group.parentId));
        int depth = 0;
        for (quint64 id = group.id; id != 0 && depth < 10; id = parentOf.value(id))
            ++depth;
        deepestGroup = qMax(deepestGroup, depth);
    }
    QVERIFY(deepestGroup >= 3 && deepestGroup <= 4 + submixLevels);
}

// Same seed, same game; and the game keeps changing: channels start and
// stop, levels and figures move, all within their capacities.
void TestDemoTarget::simulationMovesDeterministically()
{
    SimEngine first(7, 60), same(7, 60), other(8, 60);
    const SimNetwork& network = first.getNetwork();
    const QVector<qint8> masterLevelsAtStart = network.units[network.head].levels;
    int rises = 0, falls = 0;
    QSet<qint32> virtualCounts;
    for (int step = 0; step < 200; ++step) {
        const int playing = first.getNumPlayingChannels();
        first.step();
        same.step();
        other.step();
        rises += first.getNumPlayingChannels() > playing ? 1 : 0;
        falls += first.getNumPlayingChannels() < playing ? 1 : 0;
        const SimFigures& f = first.getFigures();
        QVERIFY(f.softwareUsed >= 0 && f.softwareUsed <= f.softwareCapacity);
        QVERIFY(f.hardwareUsed >= 0 && f.hardwareUsed <= f.hardwareCapacity);
        QVERIFY(f.virtualUsed >= f.hardwareUsed + f.softwareUsed && f.virtualUsed <= f.virtualCapacity);
        for (int codec = 0; codec < NumCodecs; ++codec)
            QVERIFY(f.codecUsed[codec] >= 0 && f.codecUsed[codec] <= f.codecCapacity[codec]);
        QVERIFY(f.memoryUsed > 0 && f.memoryUsed <= f.memoryCapacity);
        QVERIFY(f.dsp > 0.0f && f.dsp < 100.0f);
        virtualCounts.insert(f.virtualUsed);
    }
    QCOMPARE(PacketEncoder::encodeDSP(first.getNetwork(), 6), PacketEncoder::encodeDSP(same.getNetwork(), 6));
    QCOMPARE(PacketEncoder::encodeStats(first.getFigures()), PacketEncoder::encodeStats(same.getFigures()));
    QVERIFY(PacketEncoder::encodeDSP(first.getNetwork(), 6) != PacketEncoder::encodeDSP(other.getNetwork(), 6));
    QVERIFY2(rises > 5 && falls > 5, qPrintable(QStringLiteral("%1 %2").arg(rises).arg(falls)));
    QVERIFY(network.units[network.head].levels != masterLevelsAtStart);
    QVERIFY(virtualCounts.size() > 5);
}

void TestDemoTarget::largeNetworksStayBelievable_data()
{
    QTest::addColumn<int>("units");
    QTest::addColumn<bool>("everyChannel");
    QTest::addColumn<int>("maxDepth"); // longest path from the head
    for (int units : {60, 1000, 10000, 54321, 100000})
        QTest::addRow("%d units", units) << units << false << (units < 1000 ? 9 : units < 60000 ? 10 : 11);
    QTest::newRow("100000 units, every channel") << 100000 << true << 11;
}

// A large game still reads as a mix: no unit takes more than 64 inputs (the
// master of 100000 units once took 7000), the DSP load fits one mix block
// (it once read 42000 %), channel groups grow with the network, and every
// unit is built exactly once with no loop.
void TestDemoTarget::largeNetworksStayBelievable()
{
    QFETCH(int, units);
    QFETCH(bool, everyChannel);
    QFETCH(int, maxDepth);
    SimEngine engine(1, units);
    if (everyChannel)
        engine.playAllChannels();
    const SimNetwork& network = engine.getNetwork();
    QCOMPARE(network.units.size(), units);
    QVERIFY2(network.groups.size() * 5 >= units && network.groups.size() * 3 <= units,
             qPrintable(QString::number(network.groups.size())));
    for (int step = 0; step < 20; ++step) {
        engine.step();
        int widest = 0;
        for (const SimUnit& unit : network.units)
            widest = qMax(widest, unit.inputs.size());
        QVERIFY2(widest <= 64, qPrintable(QString::number(widest)));
        QVERIFY2(engine.getFigures().dsp < 100.0f, qPrintable(QString::number(engine.getFigures().dsp)));
        QVERIFY(units < 1000 || engine.getFigures().dsp > 30.0f);
    }

    // Peeling off units nobody consumes reaches every unit only if there is no cycle;
    // in that order each unit's longest path from the head is final before its inputs are met.
    QVector<int> consumers(units), depth(units);
    for (const SimUnit& unit : network.units) {
        for (const SimInput& input : unit.inputs)
            ++consumers[input.unit];
    }
    QVector<int> ready;
    for (int unit = 0; unit < units; ++unit) {
        if (consumers[unit] == 0)
            ready.append(unit);
    }
    int peeled = 0;
    while (!ready.isEmpty()) {
        const int unit = ready.takeLast();
        ++peeled;
        for (const SimInput& input : network.units[unit].inputs) {
            depth[input.unit] = qMax(depth[input.unit], depth[unit] + 1);
            if (--consumers[input.unit] == 0)
                ready.append(input.unit);
        }
    }
    QCOMPARE(peeled, units);
    QCOMPARE(*std::max_element(depth.cbegin(), depth.cend()), maxDepth);

    // The profiler sums the units' own costs at the head.
    Decoder decoder(PacketEncoder::encodeDSP(network, 6));
    const float headLoad = decoder.tree.root.inputs.first().node->inclusiveCPU * 100.0f;
    QVERIFY2(qAbs(headLoad - engine.getFigures().dsp) < 0.01f, qPrintable(QString::number(headLoad)));
}

// The default game is the one the README pictures and the other tests
// read; its packets over 50 steps were hashed before large networks got
// their submixes and cost budget, which must leave it alone.
void TestDemoTarget::defaultGameUnchanged()
{
    SimEngine engine(1, 60);
    QCryptographicHash hash(QCryptographicHash::Sha1);
    for (int step = 0; step < 50; ++step) {
        engine.step();
        hash.addData(PacketEncoder::encodeDSP(engine.getNetwork(), 6));
        hash.addData(PacketEncoder::encodeGroups(engine.getNetwork()));
        hash.addData(PacketEncoder::encodeCPU(engine.getFigures(), 1));
        hash.addData(PacketEncoder::encodeStats(engine.getFigures()));
    }
    QCOMPARE(hash.result().toHex(), QByteArray("eb4249e493634077042733e6777dcd08a1a6b8a6"));
}

// Enable and bypass change the unit at once, so the very next snapshot
// shows them; an unknown id changes nothing. tst_endtoend sends them from
// the profiler.
void TestDemoTarget::commandsChangeTheUnitAtOnce()
{
    SimEngine engine(3, 60);
    const SimNetwork& network = engine.getNetwork();
    const SimUnit& bus = network.units[network.units[network.head].inputs.first().unit];
    const QByteArray before = PacketEncoder::encodeDSP(network, 6);
    QVERIFY(!engine.setUnitActive(0x1234, false) && !engine.setUnitBypass(0x1234, true));
    QCOMPARE(PacketEncoder::encodeDSP(network, 6), before);

    quint64 revision = engine.getRevision(); // what the server's packet cache keys on
    QVERIFY(engine.setUnitBypass(bus.id, true));
    QVERIFY(bus.bypass && bus.exclusiveUsage == 1); // a bypassed unit only passes its buffer on
    QVERIFY(engine.getRevision() != revision);
    revision = engine.getRevision();
    QVERIFY(engine.setUnitActive(bus.id, false));
    QVERIFY(!bus.active && bus.exclusiveUsage == 0);
    QCOMPARE(bus.levels, QVector<qint8>(bus.levels.size(), -80));
    QVERIFY(engine.getRevision() != revision);
    QVERIFY(engine.setUnitActive(bus.id, true) && engine.setUnitBypass(bus.id, false));
    QVERIFY(bus.active && !bus.bypass && bus.exclusiveUsage > 1 && bus.levels.first() > -80);
}

void TestDemoTarget::shapes_data()
{
    QTest::addColumn<int>("shape");
    QTest::addColumn<int>("units");
    QTest::addColumn<int>("feedingTwo"); // -1: not counted
    const int tree = int(DSPShapes::DSPShape::Tree), ladder = int(DSPShapes::DSPShape::DiamondLadder);
    QTest::newRow("tree") << tree << 500 << -1;
    QTest::newRow("tree of one") << tree << 1 << 0;
    QTest::newRow("ladder, whole rungs") << ladder << 1001 << 998;
    QTest::newRow("ladder, half rung") << ladder << 1000 << 997;
    QTest::newRow("deep ladder") << ladder << 20001 << 19998;
    QTest::newRow("cycles") << int(DSPShapes::DSPShape::Cycles) << 800 << -1;
}

void TestDemoTarget::shapes()
{
    QFETCH(int, shape);
    QFETCH(int, units);
    QFETCH(int, feedingTwo);
    const auto kind = static_cast<DSPShapes::DSPShape>(shape);
    Decoder decoder(DSPShapes::makeDSPPacket(kind, units));
    const DSPTree& tree = decoder.tree;
    QVERIFY(decoder.statuses.isEmpty());
    QCOMPARE(tree.nodesById.size(), units);
    // A cycle is cut where it meets itself: the input leading back does not
    // sit right of its consumer.
    QHash<const DSPNode*, int> consumers;
    int backwards = 0;
    for (const DSPNode* unit : tree.nodesById) {
        for (const DSPNode::InputRecord& input : unit->inputs) {
            ++consumers[input.node];
            backwards += input.node->depth <= unit->depth ? 1 : 0;
        }
    }
    QCOMPARE(backwards > 0, kind == DSPShapes::DSPShape::Cycles);
    if (feedingTwo >= 0)
        QCOMPARE(consumers.values().count(2), feedingTwo);
}

void TestDemoTarget::serverStreams_data()
{
    QTest::addColumn<int>("type");
    QTest::addColumn<double>("rate");
    for (int type : {1, 3, 4, 5, 7, 9})
        QTest::addRow("type %d", type) << type << 1.0;
    QTest::newRow("cpu, 20 times as often") << 3 << 20.0;
}

// Six packets at 20 ms (after the rate multiplier), then interval 0 stops the
// stream: a request of another type acts as a marker, after which none may
// come. What the packets hold is the encoders' part, above and in
// tst_endtoend.
void TestDemoTarget::serverStreams()
{
    QFETCH(int, type);
    QFETCH(double, rate);
    TargetSettings settings;
    settings.rateMultiplier = rate;
    Session s(settings);
    QVERIFY(s.ready());
    QElapsedTimer timer;
    timer.start();
    const quint8 stream = static_cast<quint8>(type);
    s.client.send(request(stream, static_cast<quint32>(20 * rate)));
    QVERIFY(QTest::qWaitFor([&]() { return s.client.count(stream) >= 6; }, 3000));
    QVERIFY(timer.elapsed() < 1000);
    const quint8 marker = type == 4 ? 5 : 4;
    s.client.send(request(stream, 0) + request(marker, 60000));
    QVERIFY(!s.client.next(marker).isEmpty());
    while (s.client.count(stream) > 0) // sent before the stop
        s.client.frames.getPacket(stream, 0);
    QTest::qWait(100);
    QCOMPARE(s.client.count(stream), 0);
}

void TestDemoTarget::clientInput_data()
{
    QTest::addColumn<QByteArray>("bytes");
    QTest::addColumn<bool>("closes");
    QTest::addColumn<QVariantList>("command"); // the text command reported, if any
    const QVariantList none;
    for (quint32 size : {0u, 11u, 70000u, 0xffffffffu})
        QTest::addRow("size %u", size) << PacketBuilder(0, 0, 0).finishWithSize(size) << true << none;
    QTest::newRow("unknown type") << PacketBuilder(2, 0, 0).u32(1).finish() << false << none;
    QTest::newRow("unknown stream") << request(6, 10) << false << none;
    QTest::newRow("stream subtype 1") << PacketBuilder(0, 0, 0).u8(3).u8(1).u32(10).finish() << false << none;
    QTest::newRow("request cut short") << PacketBuilder(0, 0, 0).u8(3).u8(0).finish() << false << none;
    QTest::newRow("enable cut short") << PacketBuilder(1, 2, 6).u32(1).finish() << false << none;
    QTest::newRow("header only") << PacketBuilder(1, 3, 6).finish() << false << none;
    QTest::newRow("5000 empty packets") << PacketBuilder(2, 0, 0).finish().repeated(5000) << false << none;
    QTest::newRow("group command, utf-8") << PacketBuilder(7, 1, 0).fixedString("show m\xc3\xbcsic", 128).finish()
                                          << false << QVariantList{7, QString::fromUtf8("show m\xc3\xbcsic")};
    QTest::newRow("command without terminator")
        << PacketBuilder(7, 1, 0).fixedString(QByteArray(200, 'x'), 128).raw("tail").finish() << false
        << QVariantList{7, QString(128, 'x')};
    QTest::newRow("command cut short") << PacketBuilder(1, 1, 6).raw("Show").finish() << false << QVariantList{1, "Show"};
}

// The server drops a connection whose framing makes no sense, ignores what
// it does not understand and reports text commands; a client that goes away
// mid-stream is let go. It keeps serving everyone else either way.
void TestDemoTarget::clientInput()
{
    QFETCH(QByteArray, bytes);
    QFETCH(bool, closes);
    QFETCH(QVariantList, command);
    Session s;
    QSignalSpy commands(&s.server, &TargetServer::commandStringReceived);
    TestClient bystander(s.server.getPort());
    QVERIFY(s.ready() && bystander.waitConnected());
    QVERIFY(QTest::qWaitFor([&]() { return s.server.getNumConnections() == 2; }, 3000));
    bystander.send(request(3, 10));

    s.client.send(bytes + request(4, 10));
    if (closes) {
        QVERIFY(QTest::qWaitFor([&]() { return s.client.socket.state() == QAbstractSocket::UnconnectedState; }));
        QCOMPARE(s.client.count(4), 0);
    } else {
        QVERIFY(!s.client.next(4).isEmpty());
        QCOMPARE(s.client.count(3), 0); // a stream would have answered before the marker
        QCOMPARE(s.server.getNumConnections(), 2);
        s.client.socket.abort();
    }
    const QList<QVariantList> reported = commands;
    QCOMPARE(reported, command.isEmpty() ? QList<QVariantList>() : QList<QVariantList>{command});
    QVERIFY(QTest::qWaitFor([&]() { return s.server.getNumConnections() == 1; }, 3000));
    const int before = bystander.count(3);
    QVERIFY(QTest::qWaitFor([&]() { return bystander.count(3) > before + 2; }, 3000));
}

QTEST_GUILESS_MAIN(TestDemoTarget)
#include "tst_demotarget.moc"
