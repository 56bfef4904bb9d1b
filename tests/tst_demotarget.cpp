#include "dspshapes.h"
#include "packetbuilder.h"
#include "packetencoder.h"
#include "packetreader.h"
#include "simengine.h"
#include "targetserver.h"

#include <QElapsedTimer>
#include <QHash>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSet>
#include <QSignalSpy>
#include <QTcpSocket>
#include <QtTest>

#include <cmath>
#include <cstring>

// The decoding here is written from the layout tables, apart from the
// encoder, and is itself checked against the independent test vectors.
namespace
{

struct DecodedInput
{
    quint64 id = 0;
    bool send = false;
    bool sidechain = false;
};

struct DecodedUnit
{
    quint64 id = 0, groupId = 0, sendTargetId = 0;
    QString name;
    bool active = false, bypass = false;
    quint32 exclusiveUsage = 0;
    QVector<int> levels;
    QVector<DecodedInput> inputs;
    quint32 childCount = 0; // as read from the unit's record, with the link to it
    DecodedInput link;
};

struct DecodedDSP
{
    bool ok = false;
    int version = -1;
    float cpuUsage = 0.0f;
    qint32 timingRate = 0, timingLength = 0;
    QVector<quint64> order; // first occurrences
    QHash<quint64, DecodedUnit> units;
    int numRecords = 0;
    bool hasCycle = false; // a repeated record named a unit still open above it
};

quint32 floatBits(float value)
{
    quint32 bits;
    std::memcpy(&bits, &value, sizeof bits);
    return bits;
}

// Every field on one line, so a mismatch shows both units whole.
QString describe(const DecodedUnit& unit)
{
    QStringList fields{QString::number(unit.id), unit.name, QString::number(unit.groupId),
                       QString::number(unit.sendTargetId), QString::number(unit.active),
                       QString::number(unit.bypass), QString::number(unit.exclusiveUsage), "levels"};
    for (int level : unit.levels)
        fields << QString::number(level);
    fields << "inputs";
    for (const DecodedInput& input : unit.inputs)
        fields << QStringLiteral("%1/%2/%3").arg(input.id).arg(input.send).arg(input.sidechain);
    return fields.join(" | ");
}

// The profiler's conversion of a version 3 to 5 level float to whole dB.
int levelFromFloat(float x)
{
    if (!(x > 0.0f))
        return -80;
    const float t = 20.0f * std::log10(x);
    if (!(std::fabs(t) < 1000.0f))
        return -80;
    const int whole = static_cast<int>(t);
    return whole > 9 ? 10 : (whole < -79 ? -80 : whole);
}

QVector<int> readLevels(PacketReader& in, int count, bool floats)
{
    QVector<int> levels;
    for (int slot = 0; slot < 32; ++slot) {
        const int level = floats ? levelFromFloat(in.f32BigEndian()) : in.i8();
        if (slot < count)
            levels.append(level);
    }
    return levels;
}

DecodedUnit readRecord(PacketReader& in, int version)
{
    DecodedUnit unit;
    if (version <= 1) {
        unit.id = static_cast<quint64>(static_cast<qint64>(in.i32()));
        unit.name = in.fixedString(32);
        unit.childCount = in.u32();
        unit.active = in.u8() != 0;
        in.skip(4);
        if (version == 1)
            unit.exclusiveUsage = in.u32();
    } else if (version <= 5) {
        unit.id = in.u64();
        if (version >= 4)
            unit.groupId = in.u64();
        unit.name = in.fixedString(32);
        unit.childCount = in.u32();
        unit.active = in.u8() != 0;
        unit.bypass = in.u8() != 0;
        in.skip(2);
        unit.exclusiveUsage = in.u16();
        const int count = in.u8();
        if (version == 2) {
            in.skip(10);
            unit.levels.fill(-80, count);
        } else {
            unit.levels = readLevels(in, count, true);
        }
        if (version == 5)
            unit.sendTargetId = in.u64();
    } else {
        unit.id = in.u64();
        unit.groupId = in.u64();
        unit.sendTargetId = in.u64();
        unit.childCount = in.u16();
        unit.exclusiveUsage = in.u16();
        const quint8 flags = in.u8();
        unit.active = flags & 1;
        unit.bypass = flags & 2;
        unit.link.send = flags & 4;
        unit.link.sidechain = flags & 8;
        unit.levels = readLevels(in, in.u8(), false);
        unit.name = in.fixedString(32);
    }
    unit.link.id = unit.id;
    return unit;
}

// Walks the records depth-first, as the profiler does: a repeated id links
// the unit again and reads no children for it.
DecodedDSP decodeDSP(const QByteArray& packet)
{
    DecodedDSP dsp;
    PacketReader in(packet);
    const quint32 size = in.u32();
    in.skip(6);
    dsp.version = in.u8();
    in.skip(1);
    if (dsp.version >= 1 && dsp.version <= 5) {
        dsp.cpuUsage = in.f32();
        if (dsp.version >= 2)
            in.skip(1);
    } else if (dsp.version == 6) {
        dsp.timingRate = in.i32();
        dsp.timingLength = in.i32();
    }

    QVector<QPair<quint64, quint32>> path{{0, 1}}; // id, children left; 0 is the root over the head
    QSet<quint64> onPath;
    dsp.units.insert(0, DecodedUnit());
    while (!path.isEmpty() && in.ok()) {
        if (path.last().second == 0) {
            onPath.remove(path.takeLast().first);
            continue;
        }
        --path.last().second;
        const quint64 parent = path.last().first;
        const DecodedUnit unit = readRecord(in, dsp.version);
        if (!in.ok())
            break;
        ++dsp.numRecords;
        dsp.units[parent].inputs.append(unit.link);
        if (dsp.units.contains(unit.id)) {
            dsp.hasCycle = dsp.hasCycle || onPath.contains(unit.id);
            continue;
        }
        dsp.units.insert(unit.id, unit);
        dsp.order.append(unit.id);
        path.append({unit.id, unit.childCount});
        onPath.insert(unit.id);
    }
    dsp.ok = in.ok() && path.isEmpty() && size == static_cast<quint32>(packet.size())
             && in.position() == packet.size();
    return dsp;
}

quint64 wireId(quint64 id, int version)
{
    return version <= 1 ? static_cast<quint64>(static_cast<qint64>(static_cast<qint32>(id))) : id;
}

// Units the head reaches: what a packet must carry.
QVector<int> reachableUnits(const SimNetwork& network)
{
    QVector<bool> seen(network.units.size(), false);
    QVector<int> order{network.head};
    seen[network.head] = true;
    for (int i = 0; i < order.size(); ++i) {
        for (const SimInput& input : network.units[order[i]].inputs) {
            if (!seen[input.unit]) {
                seen[input.unit] = true;
                order.append(input.unit);
            }
        }
    }
    return order;
}

QSet<quint64> playingChannels(const SimNetwork& network)
{
    QSet<quint64> ids;
    for (int index : reachableUnits(network)) {
        if (network.units[index].name.startsWith("Channel "))
            ids.insert(network.units[index].id);
    }
    return ids;
}

QByteArray request(quint8 type, quint32 intervalMs)
{
    return PacketBuilder(0, 0, 0).u8(type).u8(0).u32(intervalMs).finish();
}

// A profiler stand-in on a real socket that frames what the target sends.
class TestClient
{
public:
    explicit TestClient(quint16 port) { socket.connectToHost(QHostAddress::LocalHost, port); }

    bool waitConnected() { return socket.waitForConnected(3000); }

    void send(const QByteArray& bytes)
    {
        socket.write(bytes);
        socket.flush();
    }

    int count(quint8 type)
    {
        incoming.append(socket.readAll());
        while (incoming.size() >= 12) {
            const quint32 size = qFromLittleEndian<quint32>(incoming.constData());
            if (size < 12 || static_cast<quint32>(incoming.size()) < size)
                break;
            packets.append(incoming.left(static_cast<int>(size)));
            incoming.remove(0, static_cast<int>(size));
        }
        int matching = 0;
        for (const QByteArray& packet : qAsConst(packets))
            matching += static_cast<quint8>(packet[8]) == type ? 1 : 0;
        return matching;
    }

    // Waits for the next packet of `type` and drops what came before it.
    QByteArray next(quint8 type, int timeoutMs = 3000)
    {
        if (!QTest::qWaitFor([&]() { return count(type) > 0; }, timeoutMs))
            return QByteArray();
        while (static_cast<quint8>(packets.first()[8]) != type)
            packets.removeFirst();
        return packets.takeFirst();
    }

    QTcpSocket socket;

private:
    QList<QByteArray> packets;
    QByteArray incoming;
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

// Where the profiler puts each unit, with every input shown: a unit is placed
// at its first visit, walking inputs in order; its first new input shares its
// row and each further new input opens a new one. Column is the longest path
// from the head.
struct MixPicture
{
    QVector<int> depth;
    QVector<int> row;
    QVector<int> branch; // which of the head's inputs the unit was placed under
    QVector<int> placedBy; // consumer whose input placed the unit
    QVector<SimInput> placedThrough;
};

void placeUnit(const SimNetwork& network, int unit, int branch, int* rowCounter, MixPicture* picture)
{
    picture->row[unit] = *rowCounter;
    picture->branch[unit] = branch;
    bool first = true;
    const QVector<SimInput>& inputs = network.units[unit].inputs;
    for (int i = 0; i < inputs.size(); ++i) {
        const int input = inputs[i].unit;
        if (picture->row[input] >= 0)
            continue;
        if (!first)
            ++*rowCounter;
        first = false;
        picture->placedBy[input] = unit;
        picture->placedThrough[input] = inputs[i];
        placeUnit(network, input, unit == network.head ? i : branch, rowCounter, picture);
    }
}

MixPicture drawMix(const SimNetwork& network)
{
    const int count = network.units.size();
    MixPicture picture;
    picture.depth.fill(-1, count);
    picture.row.fill(-1, count);
    picture.branch.fill(-1, count);
    picture.placedBy.fill(-1, count);
    picture.placedThrough.resize(count);

    // Longest paths: a unit is finished once every consumer above it is.
    const QVector<int> reachable = reachableUnits(network);
    QVector<int> waiting(count, 0);
    for (int unit : reachable) {
        for (const SimInput& input : network.units[unit].inputs)
            ++waiting[input.unit];
    }
    QVector<int> ready{network.head};
    picture.depth[network.head] = 0;
    while (!ready.isEmpty()) {
        const int unit = ready.takeLast();
        for (const SimInput& input : network.units[unit].inputs) {
            picture.depth[input.unit] = qMax(picture.depth[input.unit], picture.depth[unit] + 1);
            if (--waiting[input.unit] == 0)
                ready.append(input.unit);
        }
    }

    int rowCounter = 0;
    placeUnit(network, network.head, -1, &rowCounter, &picture);
    return picture;
}

} // namespace

class TestDemoTarget : public QObject
{
    Q_OBJECT

private slots:
    void referenceVectorsDecode_data();
    void referenceVectorsDecode();
    void dspPacketMatchesEngine_data();
    void dspPacketMatchesEngine();
    void figurePackets_data();
    void figurePackets();
    void networkFeatures_data();
    void networkFeatures();
    void mixReadsAsATree_data();
    void mixReadsAsATree();
    void simulationMovesDeterministically();
    void shapes_data();
    void shapes();
    void serverStreams_data();
    void serverStreams();
    void commandsChangeNextSnapshot_data();
    void commandsChangeNextSnapshot();
    void commandStringsAreReported_data();
    void commandStringsAreReported();
    void brokenInput_data();
    void brokenInput();
};

// Anchors the decoder above to an encoder written elsewhere, so a layout
// mistake cannot hide by being made the same way twice.
void TestDemoTarget::referenceVectorsDecode_data()
{
    QTest::addColumn<int>("version");
    for (int version = 0; version <= 6; ++version)
        QTest::addRow("dsp-v%d", version) << version;
}

void TestDemoTarget::referenceVectorsDecode()
{
    QFETCH(int, version);
    const DecodedDSP dsp = decodeDSP(readTestData(QStringLiteral("dsp-v%1.bin").arg(version)));
    const QJsonObject expected =
        QJsonDocument::fromJson(readTestData(QStringLiteral("dsp-v%1.json").arg(version))).object();
    auto id = [](const QJsonValue& value) { return static_cast<quint64>(value.toDouble()); };
    QVERIFY(dsp.ok);
    QCOMPARE(floatBits(dsp.cpuUsage), expected["cpuUsage"].toObject()["bits"].toString().toUInt(nullptr, 16));
    QCOMPARE(dsp.timingRate, expected["timingRate"].toInt());
    QCOMPARE(dsp.timingLength, expected["timingLength"].toInt());
    const QJsonArray units = expected["units_in_first_occurrence_order"].toArray();
    QCOMPARE(dsp.order.size(), units.size());
    for (int i = 0; i < units.size(); ++i) {
        const QJsonObject unit = units[i].toObject();
        DecodedUnit want;
        want.id = id(unit["id"]);
        want.name = unit["name"].toString();
        want.groupId = id(unit["groupId"]);
        want.sendTargetId = id(unit["sendTargetId"]);
        want.active = unit["active"].toBool();
        want.bypass = unit["bypass"].toBool();
        want.exclusiveUsage = static_cast<quint32>(unit["exclusiveUsage"].toInt());
        for (const QJsonValue& level : unit["levels"].toArray())
            want.levels.append(level.toInt());
        for (const QJsonValue& value : unit["inputs"].toArray()) {
            const QJsonObject input = value.toObject();
            want.inputs.append({id(input["id"]), input["send"].toBool(), input["sidechain"].toBool()});
        }
        QCOMPARE(describe(dsp.units[dsp.order[i]]), describe(want));
    }
}

void TestDemoTarget::dspPacketMatchesEngine_data()
{
    QTest::addColumn<int>("version");
    QTest::addColumn<int>("recordSize");
    QTest::addColumn<int>("prologueSize");
    QTest::newRow("v0") << 0 << 45 << 0;
    QTest::newRow("v1") << 1 << 49 << 4;
    QTest::newRow("v2") << 2 << 61 << 5;
    QTest::newRow("v3") << 3 << 179 << 5;
    QTest::newRow("v4") << 4 << 187 << 5;
    QTest::newRow("v5") << 5 << 195 << 5;
    QTest::newRow("v6") << 6 << 94 << 8;
}

void TestDemoTarget::dspPacketMatchesEngine()
{
    QFETCH(int, version);
    QFETCH(int, recordSize);
    QFETCH(int, prologueSize);
    SimEngine engine(3, 60);
    for (int i = 0; i < 40; ++i)
        engine.step();
    const SimNetwork& network = engine.getNetwork();
    const QByteArray packet = PacketEncoder::encodeDSP(network, version);
    const DecodedDSP dsp = decodeDSP(packet);

    QVERIFY(dsp.ok);
    QCOMPARE(packet.mid(8, 4), QByteArray::fromHex("0100").append(char(version)).append('\0'));
    const QVector<int> reachable = reachableUnits(network);
    int records = 1; // the head's, then one per input of every unit on the wire
    for (int unit : reachable)
        records += network.units[unit].inputs.size();
    QCOMPARE(dsp.numRecords, records);
    QCOMPARE(packet.size(), 12 + prologueSize + records * recordSize);
    QCOMPARE(dsp.order.size(), reachable.size());
    QCOMPARE(dsp.order.first(), wireId(network.units[network.head].id, version));
    QCOMPARE(floatBits(dsp.cpuUsage), version >= 1 && version <= 5 ? floatBits(network.cpuUsage) : 0u);
    QCOMPARE(dsp.timingRate, version == 6 ? 48000 : 0);
    QCOMPARE(dsp.timingLength, version == 6 ? 1024 : 0);

    for (int index : reachable) {
        const SimUnit& unit = network.units[index];
        DecodedUnit want;
        want.id = wireId(unit.id, version);
        want.name = QString::fromUtf8(unit.name);
        want.active = unit.active;
        want.bypass = version >= 2 && unit.bypass;
        want.exclusiveUsage = version >= 1 ? unit.exclusiveUsage : 0u;
        want.groupId = version >= 4 ? unit.groupId : 0u;
        want.sendTargetId = version >= 5 ? unit.sendTargetId : 0u;
        for (int i = 0; version >= 2 && i < unit.levels.size(); ++i)
            want.levels.append(version >= 3 ? unit.levels[i] : -80);
        for (const SimInput& input : unit.inputs)
            want.inputs.append({wireId(network.units[input.unit].id, version), version == 6 && input.send,
                                version == 6 && input.sidechain});
        QVERIFY(dsp.units.contains(want.id));
        QCOMPARE(describe(dsp.units[want.id]), describe(want));
    }
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
                              << PacketBuilder(4, 0, 0)
                                     .i32(f.hardwareUsed).i32(f.hardwareCapacity)
                                     .i32(f.softwareUsed).i32(f.softwareCapacity)
                                     .i32(f.virtualUsed).i32(f.virtualCapacity)
                                     .finish();
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

void TestDemoTarget::networkFeatures_data()
{
    QTest::addColumn<int>("units");
    QTest::newRow("default") << 60;
    QTest::newRow("thousand") << 1000;
    QTest::newRow("load test") << 100000;
}

void TestDemoTarget::networkFeatures()
{
    QFETCH(int, units);
    QElapsedTimer timer;
    timer.start();
    const SimEngine engine(2, units);
    const QByteArray packet = PacketEncoder::encodeDSP(engine.getNetwork(), 6);
    QVERIFY(timer.elapsed() < 10000); // a quadratic step would take minutes at 100000

    const SimNetwork& network = engine.getNetwork();
    const QVector<int> reachable = reachableUnits(network);
    QVERIFY(reachable.size() >= units * 3 / 4 && reachable.size() <= units);
    QCOMPARE(network.units[network.head].name, QByteArray("Master"));
    const DecodedDSP dsp = decodeDSP(packet);
    QVERIFY(dsp.ok && !dsp.hasCycle);

    QHash<quint64, quint64> parentOf{{0, 0}};
    for (const SimGroup& group : network.groups) {
        QVERIFY(!group.guid.isNull());
        parentOf.insert(group.id, group.parentId);
    }
    int deepestGroup = 0;
    for (const SimGroup& group : network.groups) {
        QVERIFY(parentOf.contains(group.parentId));
        int depth = 0;
        for (quint64 id = group.id; id != 0 && depth < 10; id = parentOf.value(id))
            ++depth;
        deepestGroup = qMax(deepestGroup, depth);
    }
    QVERIFY(deepestGroup >= 3 && deepestGroup <= 4);

    QHash<int, int> consumers, plainConsumers; // plain: through inputs that are neither sends nor sidechains
    int inactive = 0, bypassed = 0, sidechains = 0, channels = 0, sendsToReturns = 0;
    for (int index : reachable) {
        const SimUnit& unit = network.units[index];
        QVERIFY(parentOf.contains(unit.groupId) && unit.name.size() <= 31 && unit.inputs.size() <= 65535);
        inactive += unit.active ? 0 : 1;
        bypassed += unit.bypass ? 1 : 0;
        channels += unit.name.startsWith("Channel ") ? 1 : 0;
        for (const SimInput& input : unit.inputs) {
            ++consumers[input.unit];
            plainConsumers[input.unit] += input.send || input.sidechain ? 0 : 1;
            sidechains += input.sidechain && unit.name == "Compressor" ? 1 : 0;
            sendsToReturns += input.send && network.units[input.unit].sendTargetId == unit.id
                && unit.name.contains("Return");
        }
    }
    QVERIFY(inactive > 0 && bypassed > 0 && sidechains > 0 && sendsToReturns > 0 && channels > 0);
    int feedsTwo = 0, sharedPlainly = 0;
    for (int count : qAsConst(consumers))
        feedsTwo += count >= 2 ? 1 : 0;
    for (int count : qAsConst(plainConsumers))
        sharedPlainly += count >= 2 ? 1 : 0;
    QVERIFY(feedsTwo > sendsToReturns); // sidechain sources also feed two consumers
    QVERIFY(sharedPlainly > 0);

    // Version 6 shares come out as a few percent per unit at most, and the
    // older layouts' whole-network figure is what the head's share adds up to.
    if (units == 60) {
        const float blockMicroseconds = 1024 * 1000.0f * 1000.0f / 48000;
        quint32 total = 0;
        for (int index : reachable) {
            QVERIFY(network.units[index].exclusiveUsage / blockMicroseconds < 0.08f);
            total += network.units[index].exclusiveUsage;
        }
        QCOMPARE(floatBits(network.cpuUsage), floatBits(total / blockMicroseconds));
        QVERIFY2(network.cpuUsage > 0.05f && network.cpuUsage < 0.6f, qPrintable(QString::number(network.cpuUsage)));
    }
}

void TestDemoTarget::mixReadsAsATree_data()
{
    QTest::addColumn<int>("units");
    QTest::addColumn<quint64>("seed");
    QTest::addColumn<bool>("everyChannel");
    QTest::newRow("default, as first shown") << 60 << quint64(5) << false;
    QTest::newRow("default, seed 1") << 60 << quint64(1) << false;
    QTest::newRow("default, every channel") << 60 << quint64(5) << true;
    QTest::newRow("too small for a group") << 12 << quint64(1) << true;
    QTest::newRow("200 units") << 200 << quint64(5) << false;
    QTest::newRow("1000 units") << 1000 << quint64(3) << true;
    QTest::newRow("load test") << 100000 << quint64(2) << true;
}

// Connections the profiler has to draw across the picture are what made the
// old network unreadable, so every kind is held to a short line here.
void TestDemoTarget::mixReadsAsATree()
{
    QFETCH(int, units);
    QFETCH(quint64, seed);
    QFETCH(bool, everyChannel);
    SimEngine engine(seed, units);
    if (everyChannel)
        engine.playAllChannels();
    for (int i = 0; i < 40; ++i)
        engine.step();
    const SimNetwork& network = engine.getNetwork();
    const MixPicture picture = drawMix(network);
    QHash<quint64, quint64> parentOf;
    for (const SimGroup& group : network.groups)
        parentOf.insert(group.id, group.parentId);

    int deepest = 0;
    for (int consumer : reachableUnits(network)) {
        const SimUnit& unit = network.units[consumer];
        for (const SimInput& input : unit.inputs) {
            const int source = input.unit;
            const SimUnit& from = network.units[source];
            const QByteArray what = unit.name + " <- " + from.name;
            // One column per connection: a unit shared by consumers at
            // different depths would be pushed right of the nearer one.
            QVERIFY2(picture.depth[source] == picture.depth[consumer] + 1, what);
            deepest = qMax(deepest, picture.depth[source]);

            if (picture.placedBy[source] == consumer && picture.placedThrough[source].send == input.send
                && picture.placedThrough[source].sidechain == input.sidechain) {
                // A send or a key visited first would drag its whole subtree
                // under the return or the compressor.
                QVERIFY2(!input.send && !input.sidechain, what);
                // Group boxes stay nested along the tree.
                const bool sameGroup = from.groupId == unit.groupId;
                const bool childGroup = from.groupId != 0 && parentOf.value(from.groupId) == unit.groupId;
                const bool returnUnderHead = from.groupId == 0 && consumer == network.head;
                QVERIFY2(sameGroup || childGroup || returnUnderHead, what);
                continue;
            }
            // A connection to a unit placed elsewhere stays with a neighbour.
            QVERIFY2(consumer != network.head, what);
            QVERIFY2(qAbs(picture.branch[consumer] - picture.branch[source]) <= 1, what);
            if (!input.send && !input.sidechain)
                QVERIFY2(qAbs(picture.row[consumer] - picture.row[source]) <= 1, what);
        }
    }
    // Buses three deep with short chains, then the channels.
    QVERIFY2(deepest <= 9, qPrintable(QString::number(deepest)));

    const QVector<SimInput>& mix = network.units[network.head].inputs;
    for (const SimInput& input : mix) {
        const QByteArray& name = network.units[input.unit].name;
        QVERIFY2(name.endsWith(" Bus") || name.contains("Return"), name);
    }
    if (units == 60) {
        QVERIFY(mix.size() >= 4 && mix.size() <= 6);
        QVERIFY(deepest >= 5); // buses do nest
    }
}

void TestDemoTarget::simulationMovesDeterministically()
{
    SimEngine first(7, 60), same(7, 60), other(8, 60);
    const SimNetwork& network = first.getNetwork();
    const QVector<qint8> masterLevelsAtStart = network.units[network.head].levels;
    QSet<quint64> channels = playingChannels(network);
    int started = 0, stopped = 0;
    QSet<qint32> virtualCounts;
    for (int step = 0; step < 200; ++step) {
        first.step();
        same.step();
        other.step();
        const SimFigures& f = first.getFigures();
        QVERIFY(f.softwareUsed >= 0 && f.softwareUsed <= f.softwareCapacity);
        QVERIFY(f.hardwareUsed >= 0 && f.hardwareUsed <= f.hardwareCapacity);
        QVERIFY(f.virtualUsed >= f.hardwareUsed + f.softwareUsed && f.virtualUsed <= f.virtualCapacity);
        for (int codec = 0; codec < NumCodecs; ++codec)
            QVERIFY(f.codecUsed[codec] >= 0 && f.codecUsed[codec] <= f.codecCapacity[codec]);
        QVERIFY(f.memoryUsed > 0 && f.memoryUsed <= f.memoryCapacity);
        QVERIFY(f.dsp > 0.0f && f.dsp < 100.0f);
        virtualCounts.insert(f.virtualUsed);
        const QSet<quint64> now = playingChannels(network);
        started += QSet<quint64>(now).subtract(channels).size();
        stopped += QSet<quint64>(channels).subtract(now).size();
        channels = now;
    }
    QCOMPARE(PacketEncoder::encodeDSP(first.getNetwork(), 6), PacketEncoder::encodeDSP(same.getNetwork(), 6));
    QCOMPARE(PacketEncoder::encodeStats(first.getFigures()), PacketEncoder::encodeStats(same.getFigures()));
    QVERIFY(PacketEncoder::encodeDSP(first.getNetwork(), 6) != PacketEncoder::encodeDSP(other.getNetwork(), 6));
    QVERIFY2(started > 10 && stopped > 10, qPrintable(QStringLiteral("%1 %2").arg(started).arg(stopped)));
    QVERIFY(network.units[network.head].levels != masterLevelsAtStart);
    QVERIFY(virtualCounts.size() > 5);
}

void TestDemoTarget::shapes_data()
{
    QTest::addColumn<int>("shape");
    QTest::addColumn<int>("units");
    QTest::addColumn<bool>("cycle");
    QTest::addColumn<int>("feedingTwo"); // -1: not counted
    const int tree = int(DSPShapes::DSPShape::Tree), ladder = int(DSPShapes::DSPShape::DiamondLadder);
    QTest::newRow("tree") << tree << 500 << false << -1;
    QTest::newRow("tree of one") << tree << 1 << false << 0;
    QTest::newRow("ladder, whole rungs") << ladder << 1001 << false << 998;
    QTest::newRow("ladder, half rung") << ladder << 1000 << false << 997;
    QTest::newRow("deep ladder") << ladder << 20001 << false << 19998;
    QTest::newRow("cycles") << int(DSPShapes::DSPShape::Cycles) << 800 << true << -1;
}

void TestDemoTarget::shapes()
{
    QFETCH(int, shape);
    QFETCH(int, units);
    QFETCH(bool, cycle);
    QFETCH(int, feedingTwo);
    const DecodedDSP dsp = decodeDSP(DSPShapes::makeDSPPacket(static_cast<DSPShapes::DSPShape>(shape), units));
    QVERIFY(dsp.ok);
    QCOMPARE(dsp.version, 6);
    QCOMPARE(dsp.order.size(), units);
    QCOMPARE(dsp.hasCycle, cycle);
    QHash<quint64, int> consumers;
    for (const DecodedUnit& unit : dsp.units) {
        for (const DecodedInput& input : unit.inputs)
            ++consumers[input.id];
    }
    if (feedingTwo >= 0)
        QCOMPARE(consumers.values().count(2), feedingTwo);
}

void TestDemoTarget::serverStreams_data()
{
    QTest::addColumn<int>("type");
    QTest::addColumn<int>("dspVersion");
    QTest::addColumn<int>("cpuVersion");
    QTest::addColumn<int>("version");
    QTest::addColumn<int>("size"); // 0: checked by decoding
    QTest::addColumn<double>("rate");
    QTest::newRow("dsp v6") << 1 << 6 << 1 << 6 << 0 << 1.0;
    QTest::newRow("dsp v0") << 1 << 0 << 1 << 0 << 0 << 1.0;
    QTest::newRow("cpu v1") << 3 << 6 << 1 << 1 << 28 << 1.0;
    QTest::newRow("cpu v0") << 3 << 6 << 0 << 0 << 24 << 1.0;
    QTest::newRow("cpu, 20 times as often") << 3 << 6 << 1 << 1 << 28 << 20.0;
    QTest::newRow("channels") << 4 << 6 << 1 << 0 << 36 << 1.0;
    QTest::newRow("codecs") << 5 << 6 << 1 << 0 << 44 << 1.0;
    QTest::newRow("groups") << 7 << 6 << 1 << 0 << 0 << 1.0;
    QTest::newRow("stats") << 9 << 6 << 1 << 0 << 72 << 1.0;
}

// Six packets at 20 ms (after the rate multiplier), then interval 0 stops the
// stream: a request of another type acts as a marker, after which none may come.
void TestDemoTarget::serverStreams()
{
    QFETCH(int, type);
    QFETCH(int, dspVersion);
    QFETCH(int, cpuVersion);
    QFETCH(int, version);
    QFETCH(int, size);
    QFETCH(double, rate);
    TargetSettings settings;
    settings.dspVersion = dspVersion;
    settings.cpuVersion = cpuVersion;
    settings.rateMultiplier = rate;
    Session s(settings);
    QVERIFY(s.ready());
    QElapsedTimer timer;
    timer.start();
    s.client.send(request(static_cast<quint8>(type), static_cast<quint32>(20 * rate)));
    for (int i = 0; i < 6; ++i) {
        const QByteArray packet = s.client.next(static_cast<quint8>(type));
        QVERIFY(!packet.isEmpty());
        QCOMPARE(static_cast<int>(packet[9]), 0);
        QCOMPARE(static_cast<int>(packet[10]), version);
        if (size != 0)
            QCOMPARE(packet.size(), size);
        else if (type == 7)
            QCOMPARE(packet.size(), 12 + 296 * s.server.getEngine().getNetwork().groups.size());
        else
            QVERIFY(decodeDSP(packet).ok);
    }
    QVERIFY(timer.elapsed() < 1000);
    const quint8 marker = type == 4 ? 5 : 4;
    s.client.send(request(static_cast<quint8>(type), 0) + request(marker, 60000));
    QVERIFY(!s.client.next(marker).isEmpty());
    QTest::qWait(100);
    QCOMPARE(s.client.count(static_cast<quint8>(type)), 0);
}

void TestDemoTarget::commandsChangeNextSnapshot_data()
{
    QTest::addColumn<int>("subtype");
    QTest::newRow("enable") << 2;
    QTest::newRow("bypass") << 3;
}

// A stream answers each request at once, so re-requesting after a command
// yields the first snapshot taken after it.
void TestDemoTarget::commandsChangeNextSnapshot()
{
    QFETCH(int, subtype);
    Session s;
    QVERIFY(s.ready());
    auto snapshot = [&]() {
        s.client.send(request(1, 60000));
        return decodeDSP(s.client.next(1));
    };
    auto command = [&](quint64 id, bool state) {
        s.client.send(PacketBuilder(1, static_cast<quint8>(subtype), 6).u64(id).u8(state ? 1 : 0).finish());
    };
    auto state = [&](const DecodedDSP& dsp, quint64 id) {
        return subtype == 2 ? dsp.units[id].active : dsp.units[id].bypass;
    };

    const DecodedDSP before = snapshot();
    QVERIFY(before.ok);
    const quint64 bus = before.units[before.order.first()].inputs.first().id;
    const bool initial = state(before, bus);
    command(bus, !initial);
    const DecodedDSP changed = snapshot();
    QCOMPARE(state(changed, bus), !initial);
    if (subtype == 2)
        QCOMPARE(changed.units[bus].exclusiveUsage, 0u); // an inactive unit costs nothing
    command(0x1234, initial); // no such unit: ignored
    command(bus, initial);
    const DecodedDSP restored = snapshot();
    QCOMPARE(state(restored, bus), initial);
    QVERIFY(restored.units[bus].exclusiveUsage > 1u);
}

void TestDemoTarget::commandStringsAreReported_data()
{
    QTest::addColumn<QByteArray>("packet");
    QTest::addColumn<int>("type");
    QTest::addColumn<QString>("text");
    QTest::newRow("dsp") << PacketBuilder(1, 1, 6).fixedString("Show Reverb", 128).finish() << 1 << "Show Reverb";
    QTest::newRow("group utf-8") << PacketBuilder(7, 1, 0).fixedString("show m\xc3\xbcsic", 128).finish() << 7
                                 << QString::fromUtf8("show m\xc3\xbcsic");
    QTest::newRow("field without terminator")
        << PacketBuilder(7, 1, 0).fixedString(QByteArray(200, 'x'), 128).finish() << 7 << QString(128, 'x');
    QTest::newRow("short packet") << PacketBuilder(1, 1, 6).raw("Show").finish() << 1 << "Show";
}

void TestDemoTarget::commandStringsAreReported()
{
    QFETCH(QByteArray, packet);
    QFETCH(int, type);
    QFETCH(QString, text);
    Session s;
    QSignalSpy spy(&s.server, &TargetServer::commandStringReceived);
    QVERIFY(s.ready());
    s.client.send(packet);
    QVERIFY(spy.wait(3000));
    QCOMPARE(spy.count(), 1);
    QCOMPARE(spy.first().at(0).toInt(), type);
    QCOMPARE(spy.first().at(1).toString(), text);
}

void TestDemoTarget::brokenInput_data()
{
    QTest::addColumn<QByteArray>("bytes");
    QTest::addColumn<bool>("closes");
    for (quint32 size : {0u, 11u, 70000u, 0xffffffffu})
        QTest::addRow("size %u", size) << PacketBuilder(0, 0, 0).finishWithSize(size) << true;
    QTest::newRow("unknown type") << PacketBuilder(2, 0, 0).u32(1).finish() << false;
    QTest::newRow("unknown stream") << request(6, 10) << false;
    QTest::newRow("stream subtype 1") << PacketBuilder(0, 0, 0).u8(3).u8(1).u32(10).finish() << false;
    QTest::newRow("request cut short") << PacketBuilder(0, 0, 0).u8(3).u8(0).finish() << false;
    QTest::newRow("enable cut short") << PacketBuilder(1, 2, 6).u32(1).finish() << false;
    QTest::newRow("header only") << PacketBuilder(1, 3, 6).finish() << false;
    QTest::newRow("5000 empty packets") << PacketBuilder(2, 0, 0).finish().repeated(5000) << false;
}

// The server drops a connection whose framing makes no sense, ignores what
// it does not understand, and keeps serving everyone else either way.
void TestDemoTarget::brokenInput()
{
    QFETCH(QByteArray, bytes);
    QFETCH(bool, closes);
    Session s;
    TestClient bystander(s.server.getPort());
    QVERIFY(s.ready() && bystander.waitConnected());
    QVERIFY(QTest::qWaitFor([&]() { return s.server.getNumConnections() == 2; }, 3000));
    bystander.send(request(3, 10));

    s.client.send(bytes + request(4, 60000));
    if (closes) {
        QVERIFY(QTest::qWaitFor([&]() { return s.client.socket.state() == QAbstractSocket::UnconnectedState; }));
        QCOMPARE(s.client.count(4), 0);
        QVERIFY(QTest::qWaitFor([&]() { return s.server.getNumConnections() == 1; }, 3000));
    } else {
        QVERIFY(!s.client.next(4).isEmpty());
        QCOMPARE(s.server.getNumConnections(), 2);
    }
    const int before = bystander.count(3);
    QVERIFY(QTest::qWaitFor([&]() { return bystander.count(3) > before + 2; }, 3000));
}

QTEST_GUILESS_MAIN(TestDemoTarget)
#include "tst_demotarget.moc"
