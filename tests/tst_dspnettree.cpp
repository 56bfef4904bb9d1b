#include "dspnettree.h"
#include "loopbacktarget.h"
#include "packetbuilder.h"
#include "profilernetwork.h"

#include <QElapsedTimer>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRandomGenerator>
#include <QSignalSpy>
#include <QTest>

#include <cstring>
#include <limits>
#include <memory>
#include <numeric>
#include <tuple>

namespace
{

const QString Incompatible = QStringLiteral("Connected. (Incompatible version detected, reduced functionality)");
const QString Malformed = QStringLiteral("Connected. (Malformed DSP data dropped)");
const float Inf = std::numeric_limits<float>::infinity();
const float NaN = std::numeric_limits<float>::quiet_NaN();
typedef QMap<QString, QString> Fields;

QString bitsOf(float value)
{
    quint32 bits;
    std::memcpy(&bits, &value, sizeof bits);
    return QStringLiteral("0x%1").arg(bits, 8, 16, QLatin1Char('0'));
}

// A JSON value as the test vectors write it: arrays and objects compact, anything else as its text.
QString text(const QJsonValue& value)
{
    if (value.isArray())
        return QJsonDocument(value.toArray()).toJson(QJsonDocument::Compact);
    if (value.isObject())
        return QJsonDocument(value.toObject()).toJson(QJsonDocument::Compact);
    return value.toVariant().toString();
}

// Everything the view reads of the network, as text: "version", "head" (the ids of the head list), "units" (how
// many) and "<id>.<field>" with the test vectors' names, floats by their bits.
Fields unitFields(const DSPTree& tree)
{
    QStringList heads;
    for (const DSPNode::InputRecord& head : tree.root.inputs)
        heads << QString::number(head.node->id);
    Fields fields { { "version", QString::number(tree.dspVersion) }, { "head", heads.join(' ') },
                    { "units", QString::number(tree.nodesById.size()) } };
    for (const DSPNode* node : tree.nodesById) {
        QJsonArray levels, inputs;
        for (char level : node->levels)
            levels.append(int(level));
        for (const DSPNode::InputRecord& input : node->inputs)
            inputs.append(QJsonObject { { "id", double(input.node->id) }, { "send", input.send },
                                        { "sidechain", input.sidechain } });
        const QJsonObject unit { { "id", double(node->id) }, { "name", node->name },
                                 { "groupId", double(node->groupId) }, { "sendTargetId", double(node->sendTargetId) },
                                 { "active", node->active }, { "bypass", node->bypass },
                                 { "exclusiveUsage", double(node->exclusiveUsage) },
                                 { "inclusiveUsage", double(node->inclusiveUsage) }, { "depth", node->depth },
                                 { "levels", levels }, { "inputs", inputs },
                                 { "inclusiveCPU", bitsOf(node->inclusiveCPU) },
                                 { "exclusiveCPU", bitsOf(node->exclusiveCPU) } };
        for (auto field = unit.begin(); field != unit.end(); ++field)
            fields.insert(QStringLiteral("%1.%2").arg(node->id).arg(field.key()), text(*field));
    }
    return fields;
}

// Version-5 records (id, child count, usage) with float levels; `levelCount` may exceed the values given.
QByteArray packetV5(float cpu, const QVector<QVector<quint32>>& records, const QVector<float>& levels = {},
                    quint8 levelCount = 0)
{
    PacketBuilder packet(1, 0, 5);
    packet.f32(cpu).u8(0xee);
    for (const QVector<quint32>& record : records) {
        packet.u64(record.at(0)).u64(0x9001).fixedString("unit", 32).u32(record.at(1)).u8(1).u8(0).u16(0xeeee);
        packet.u16(quint16(record.at(2))).u8(levelCount);
        for (int slot = 0; slot < 32; ++slot)
            packet.f32BigEndian(slot < levels.size() ? levels.at(slot) : 0.0f);
        packet.u64(0);
    }
    return packet.finish();
}

QByteArray chain(int length, quint16 lastChildren = 0)
{
    QVector<DSPUnitV6> units;
    for (int i = 1; i <= length; ++i)
        units.append({ quint64(i), quint16(i < length ? 1 : lastChildren) });
    return dspPacketV6(units);
}

// X(k-1) takes X(k) directly and through Y(k), so every unit feeds two consumers; ids are X(k) = k + 1,
// Y(k) = levels + 1 + k. A walk that renumbers a unit on each longer path takes about 1.5 * levels^2 steps.
void addLadderRow(const char* name, int levels, bool closed)
{
    QVector<DSPUnitV6> units;
    QVector<int> depths;
    for (int k = 0; k < levels; ++k)
        units.append({ quint64(k + 1), 2 });
    units.append({ quint64(levels + 1), quint16(closed ? 1 : 0) });
    if (closed)
        units.append({ 1, 0 });
    for (int k = levels; k >= 1; --k)
        units << DSPUnitV6 { quint64(levels + 1 + k), 1 } << DSPUnitV6 { quint64(k + 1), 0 };
    for (int k = 0; k <= 2 * levels; ++k)
        depths.append(k <= levels ? 2 * k : 2 * (k - levels) - 1);
    QTest::newRow(name) << dspPacketV6(units) << depths;
}

QByteArray groupRecord(quint64 id, const QByteArray& name)
{
    return PacketBuilder(0, 0, 0).u64(id).u64(1).u32(0x01020304).u16(0x0506).u16(0x0708)
        .raw("\x09\x0a\x0b\x0c\x0d\x0e\x0f\x10").u32(0xdeadbeef).fixedString(name, 260).finish().mid(12);
}

// The depth walk as first written, plain recursion: the model must agree with it.
void referenceDepthWalk(QHash<DSPNode*, bool>* onPath, DSPNode* node)
{
    (*onPath)[node] = true;
    for (const DSPNode::InputRecord& input : node->inputs) {
        if (node->depth < input.node->depth || onPath->value(input.node))
            continue;
        input.node->depth = node->depth + 1;
        referenceDepthWalk(onPath, input.node);
    }
    (*onPath)[node] = false;
}

} // namespace

class TestDSPNetTree : public QObject
{
    Q_OBJECT

    LoopbackTarget* target = nullptr;
    ProfilerNetwork* network = nullptr;
    DSPTree* tree = nullptr;
    QSignalSpy* updated = nullptr;
    QSignalSpy* status = nullptr;

    // Sends bytes from the target and waits until the tree reacted.
    bool feed(const QByteArray& bytes)
    {
        const int before = updated->count() + status->count();
        target->send(bytes);
        return QTest::qWaitFor([&] { return updated->count() + status->count() > before; }, 5000);
    }

private slots:
    void init()
    {
        target = new LoopbackTarget;
        network = new ProfilerNetwork;
        tree = new DSPTree(network);
        updated = new QSignalSpy(tree, &DSPTree::dspNetTreeUpdated);
        status = new QSignalSpy(tree, &DSPTree::statusChanged);
        network->connectToHost(QStringLiteral("127.0.0.1"), target->port());
        QVERIFY(QTest::qWaitFor([this] { return network->isConnected(); }, 5000));
        QVERIFY(target->waitForClient());
    }

    void cleanup()
    {
        delete status;
        delete updated;
        delete tree;
        delete network;
        const bool closed = QTest::qWaitFor([this] { return !target->hasClient(); }, 1000);
        delete target;
        QVERIFY(closed);
    }

    void decodesGroups_data()
    {
        QTest::addColumn<QByteArray>("packet");
        QTest::addColumn<QStringList>("groups");
        QTest::addColumn<QString>("message");

        QStringList vector;
        for (const QJsonValue& group :
             QJsonDocument::fromJson(readTestData("groups-v0.json")).object().value("groups").toArray())
            vector << text(group);
        const QByteArray two = groupRecord(1, "a") + groupRecord(2, "b");
        const auto packet = [](quint8 version, const QByteArray& records) {
            return PacketBuilder(7, 0, version).raw(records).finish();
        };
        const QString a = R"({"guid":"{01020304-0506-0708-090a-0b0c0d0e0f10}","guidIsNull":false,"id":1,)"
                          R"("name":"a","parentId":1})";
        const QString b = QString(a).replace("\"id\":1", "\"id\":2").replace("\"a\"", "\"b\"");

        QTest::newRow("test vector") << readTestData("groups-v0.bin") << vector << QString();
        QTest::newRow("two records") << packet(0, two) << QStringList { a, b } << QString();
        QTest::newRow("12 + 300 bytes") << packet(0, two.left(300)) << QStringList { a } << QString();
        QTest::newRow("12 + 295 bytes") << packet(0, two.left(295)) << QStringList() << QString();
        QTest::newRow("version 1 keeps the list") << packet(1, two) << vector << Incompatible;
    }

    void decodesGroups()
    {
        QFETCH(QByteArray, packet);
        QFETCH(QStringList, groups);
        QFETCH(QString, message);
        QVERIFY(feed(readTestData("groups-v0.bin")));
        QVERIFY(feed(packet));
        QStringList decoded;
        for (const GroupNode* group : qAsConst(tree->groups))
            decoded << text(QJsonObject { { "id", double(group->id) }, { "parentId", double(group->parentId) },
                                          { "guid", group->guid.toString() }, { "guidIsNull", group->guid.isNull() },
                                          { "name", group->name } });
        QCOMPARE(decoded, groups);
        QCOMPARE(updated->count(), message.isEmpty() ? 2 : 1);
        QCOMPARE(status->value(0).value(0).toString(), message);
        QVERIFY(tree->root.inputs.isEmpty());
    }

    void onlyNewestPacketIsDecoded()
    {
        disconnect(network, nullptr, tree, nullptr);
        target->send(dspPacketV6({ { 1, 0 } }) + readTestData("groups-v0.bin") + dspPacketV6({ { 2, 1 }, { 3, 0 } }));
        QVERIFY(QTest::qWaitFor([this] { return network->getNumWaitingPackets(1, 0) == 2; }, 5000));
        QVERIFY(QTest::qWaitFor([this] { return network->getNumWaitingPackets(7, 0) == 1; }, 5000));

        tree->slotPacketArrived();
        QCOMPARE(updated->count(), 1);
        QCOMPARE(tree->nodesById.size(), 2);
        QCOMPARE(tree->root.inputs.first().node->id, 2ull);
        QCOMPARE(tree->groups.size(), 3);
        QCOMPARE(network->getNumWaitingPackets(1, 0), 0);
    }

    void rejectedPacketKeepsGraph_data()
    {
        QTest::addColumn<QString>("before");
        QTest::addColumn<QByteArray>("packet");
        QTest::addColumn<QString>("message");

        const QString v5 = QStringLiteral("dsp-v5.bin");
        const QByteArray cutShort = PacketBuilder(1, 0, 2).f32(0.5f).u8(0).u64(1).fixedString("a", 32).u32(0)
                                        .zeros(16).finish();
        QTest::newRow("version 7") << "dsp-v6.bin" << PacketBuilder(1, 0, 7).i32(48000).i32(1024).finish()
                                   << Incompatible;
        QTest::newRow("children past the end") << v5 << dspPacketV6({ { 1, 2 }, { 2, 0 } }) << Malformed;
        QTest::newRow("prologue cut short") << v5 << PacketBuilder(1, 0, 6).i32(48000).u16(0).finish() << Malformed;
        QTest::newRow("no records") << v5 << PacketBuilder(1, 0, 0).finish() << Malformed;
        QTest::newRow("last record one byte short") << v5 << cutShort << Malformed;
        QTest::newRow("child count 2^31-1") << v5 << packetV5(0.5f, { { 1, 0x7fffffff, 1 }, { 2, 0, 1 } })
                                            << Malformed;
        QTest::newRow("100000-unit chain cut short") << v5 << chain(100000, 1) << Malformed;
    }

    void rejectedPacketKeepsGraph()
    {
        QFETCH(QString, before);
        QFETCH(QByteArray, packet);
        QFETCH(QString, message);
        QVERIFY(feed(readTestData(before)));
        const Fields graph = unitFields(*tree);

        QVERIFY(feed(packet));
        QCOMPARE(status->last().first().toString(), message);
        QCOMPARE(updated->count(), 1);
        QVERIFY(unitFields(*tree) == graph);
        QCOMPARE(std::make_tuple(tree->cpuUsage, tree->timingRate, tree->timingLength), std::make_tuple(0.0f, 0, 0));
        // The link stays in step: the next good packet is decoded.
        QVERIFY(feed(dspPacketV6({ { 7, 0 } })));
        QCOMPARE(tree->root.inputs.first().node->id, 7ull);
    }

    void decodesUnits_data()
    {
        QTest::addColumn<QByteArray>("packet");
        // "status" (all texts sent), "cpuUsage" (bits), "timingRate", "timingLength", "root.inclusiveUsage" and the
        // fields of unitFields(), as text.
        QTest::addColumn<Fields>("fields");

        for (int version = 0; version <= 6; ++version) {
            const QString name = QStringLiteral("dsp-v%1").arg(version);
            const QJsonObject vector = QJsonDocument::fromJson(readTestData(name + ".json")).object();
            const QJsonArray units = vector.value("units_in_first_occurrence_order").toArray();
            Fields fields { { "status", vector.value("status").toString() },
                            { "version", text(vector.value("packet")["version"]) },
                            { "cpuUsage", text(vector.value("cpuUsage")["bits"]) },
                            { "timingRate", text(vector.value("timingRate")) },
                            { "timingLength", text(vector.value("timingLength")) },
                            { "head", text(vector.value("head")) }, { "units", QString::number(units.size()) },
                            { "root.inclusiveUsage", text(units.first()["inclusiveUsage"]) } };
            for (const QJsonValue& value : units) {
                QJsonObject unit = value.toObject();
                for (const char* key : { "inclusiveCPU", "exclusiveCPU" })
                    unit[key] = unit.value(key)["bits"];
                for (auto field = unit.begin(); field != unit.end(); ++field)
                    fields.insert(text(unit.value("id")) + '.' + field.key(), text(*field));
            }
            QTest::newRow(qPrintable(name)) << readTestData(name + ".bin") << fields;
        }

        const auto levels = [](int count, int db) {
            return "[" + (QString::number(db) + ',').repeated(count).chopped(1) + "]";
        };
        const auto v5 = [](quint32 children) { return packetV5(0.5f, { { 1, children, 1 }, { 2, 0, 1 } }); };
        const QString input4 = R"([{"id":4,"send":%1,"sidechain":%1}])";
        QTest::newRow("unterminated name") << dspPacketV6({ { 1, 1, 1, 1, QByteArray(32, 'N') }, { 2, 0 } })
                                           << Fields { { "1.name", QString(32, 'N') }, { "units", "2" } };
        QTest::newRow("invalid UTF-8") << dspPacketV6({ { 1, 0, 1, 1, "\xff\xfe" "ab" } })
                                       << Fields { { "1.name", QStringLiteral("\ufffd\ufffd" "ab") } };
        QTest::newRow("level count 255, floats") << packetV5(0.5f, { { 1, 0, 1 } }, QVector<float>(32, 1.0f), 255)
                                                 << Fields { { "1.levels", levels(32, 0) } };
        QTest::newRow("level count 255, version 2")
            << PacketBuilder(1, 0, 2).f32(0.5f).u8(0).u64(1).fixedString("unit", 32).u32(0).u8(1).u8(0).u16(0)
                   .u16(1).u8(255).zeros(10).finish()
            << Fields { { "1.levels", levels(32, -80) } };
        // Negative as signed counts: no children are read, the rest is ignored.
        QTest::newRow("child count 2^31") << v5(0x80000000u) << Fields { { "head", "1" }, { "units", "1" } };
        QTest::newRow("child count 2^32-1") << v5(0xffffffffu) << Fields { { "head", "1" }, { "units", "1" } };
        QTest::newRow("version 0 id -2")
            << PacketBuilder(1, 0, 0).i32(-2).fixedString("unit", 32).u32(0).u8(1).zeros(4).finish()
            << Fields { { "head", "18446744073709551614" }, { "units", "1" } };
        // 1 <- {2 <- 4, 3 <- 4 again}; the repeat claims 5 children and sends none, and its own name, usage
        // and children are not taken.
        QTest::newRow("repeated unit")
            << dspPacketV6({ { 1, 2, 1 }, { 2, 1, 10 }, { 4, 0, 100, 0x01, "first" }, { 3, 1, 1000 },
                             { 4, 5, 7, 0x0c, "again" } })
            << Fields { { "units", "4" }, { "4.name", "first" }, { "2.inputs", input4.arg("false") },
                        { "3.inputs", input4.arg("true") }, { "3.inclusiveUsage", "1000" },
                        { "1.inclusiveUsage", "1111" } };

        // The second of two levels, in dB clamped to [-80, 10].
        const QVector<QPair<float, int>> conversions {
            { 1.0f, 0 }, { 0.5f, -6 }, { 0.99f, 0 }, { 3.16f, 9 }, { 3.17f, 10 }, { 100.0f, 10 }, { 0.000102f, -79 },
            { 0.00001f, -80 }, { std::numeric_limits<float>::denorm_min(), -80 }, { 0.0f, -80 }, { -1.0f, -80 },
            { std::numeric_limits<float>::max(), 10 }, { Inf, -80 }, { -Inf, -80 }, { NaN, -80 }
        };
        for (const auto& level : conversions)
            QTest::newRow(qPrintable("level " + QString::number(double(level.first))))
                << packetV5(0.5f, { { 1, 0, 1 } }, { 1.0f, level.first, 1.0f }, 2)
                << Fields { { "1.levels", QStringLiteral("[0,%1]").arg(level.second) } };

        // CPU shares: (usage * cpu) * (1 / head) rounds differently from the other orders here, and dividing
        // by the span differently from multiplying by its inverse.
        const auto cpu = [](const QString& headInclusive, const QString& headExclusive, const QString& child) {
            return Fields { { "1.inclusiveCPU", headInclusive }, { "1.exclusiveCPU", headExclusive },
                            { "2.inclusiveCPU", child }, { "2.exclusiveCPU", child } };
        };
        const QString zero = QStringLiteral("0x00000000");
        QTest::newRow("cpu figure") << packetV5(0.3f, { { 1, 1, 3 }, { 2, 0, 7 } })
                                    << cpu("0x3e99999a", "0x3db851ec", "0x3e570a3f");
        QTest::newRow("timing") << dspPacketV6({ { 1, 1, 20 }, { 2, 0, 11 } }, 44100, 512)
                                << cpu("0x3b2efd22", "0x3ae1cac0", "0x3a785f07");
        QTest::newRow("no timing") << dspPacketV6({ { 1, 1, 20 }, { 2, 0, 11 } }, 44100, 0) << cpu(zero, zero, zero);
        QTest::newRow("head usage 0") << packetV5(0.5f, { { 1, 1, 0 }, { 2, 0, 0 } }) << cpu(zero, zero, zero);
        QTest::newRow("NaN figure") << packetV5(NaN, { { 1, 1, 3 }, { 2, 0, 7 } })
                                    << cpu(bitsOf(NaN), bitsOf(NaN), bitsOf(NaN));
    }

    void decodesUnits()
    {
        QFETCH(QByteArray, packet);
        QFETCH(Fields, fields);
        QVERIFY(feed(packet));
        QCOMPARE(updated->count(), 1);
        QStringList statuses;
        for (const QList<QVariant>& signal : qAsConst(*status))
            statuses << signal.first().toString();
        Fields decoded = unitFields(*tree);
        decoded.insert({ { "status", statuses.join('\n') }, { "cpuUsage", bitsOf(tree->cpuUsage) },
                         { "timingRate", QString::number(tree->timingRate) },
                         { "timingLength", QString::number(tree->timingLength) },
                         { "root.inclusiveUsage", QString::number(tree->root.inclusiveUsage) } });
        for (const DSPNode* node : qAsConst(tree->nodesById)) {
            for (const DSPNode::InputRecord& input : node->inputs)
                QCOMPARE(input.node, tree->nodesById.value(input.node->id)); // linked, not copied
        }
        for (auto field = fields.cbegin(); field != fields.cend(); ++field)
            QVERIFY2(decoded.value(field.key()) == field.value(),
                     qPrintable(field.key() + " is " + decoded.value(field.key(), "missing")));
    }

    void depthsOfLargeNetworks_data()
    {
        QTest::addColumn<QByteArray>("packet");
        QTest::addColumn<QVector<int>>("depths"); // of units 1, 2, ...

        QVector<int> chainDepths(100000);
        std::iota(chainDepths.begin(), chainDepths.end(), 0);
        QTest::newRow("100000-unit chain") << chain(100000) << chainDepths;
        addLadderRow("ladder 20000 deep", 20000, false);
        addLadderRow("ladder whose bottom feeds the head", 20000, true);
    }

    void depthsOfLargeNetworks()
    {
        QFETCH(QByteArray, packet);
        QFETCH(QVector<int>, depths);
        QElapsedTimer timer;
        timer.start();
        QVERIFY(feed(packet));
        // A quadratic walk takes minutes on the big rows.
#if defined(__SANITIZE_ADDRESS__)
        QVERIFY(timer.elapsed() < 15000);
#else
        QVERIFY(timer.elapsed() < 3000);
#endif
        QVector<int> decoded;
        for (int id = 1; id <= depths.size(); ++id)
            decoded.append(tree->nodesById.value(id)->depth);
        QCOMPARE(tree->nodesById.size(), depths.size());
        QCOMPARE(decoded, depths);
    }

    void depthsMatchRecursiveWalk()
    {
        QRandomGenerator random(20240611);
        for (int trial = 0; trial < 3000; ++trial) {
            // Acyclic graphs take the linear path, cyclic ones the walk itself; some start from leftover depths
            // and path marks (-1: not in the table).
            const bool leftovers = trial % 5 == 0;
            const int count = 1 + random.bounded(9);
            QVector<int> depths, marks;
            QVector<QPair<int, int>> edges;
            for (int unit = 0; unit < count; ++unit) {
                depths << (leftovers ? random.bounded(-2, 5) : -1);
                marks << (leftovers ? int(random.bounded(4) == 0) : -1);
                const int first = trial % 2 == 0 ? unit + 1 : 0;
                for (int edge = random.bounded(4); edge > 0 && first < count; --edge)
                    edges.append({ unit, first + random.bounded(count - first) });
            }
            QVector<int> results[2];
            for (int copy = 0; copy < 2; ++copy) {
                std::unique_ptr<DSPNode[]> units(new DSPNode[count]);
                DSPNode root;
                QHash<DSPNode*, bool> onPath;
                for (int unit = 0; unit < count; ++unit) {
                    units[unit].depth = depths.at(unit);
                    if (marks.at(unit) >= 0)
                        onPath.insert(&units[unit], marks.at(unit));
                }
                for (const auto& edge : qAsConst(edges))
                    units[edge.first].inputs.append({ &units[edge.second], false, false });
                root.inputs.append({ &units[0], false, false });
                copy ? tree->createDSPDepthRecurse(&onPath, &root) : referenceDepthWalk(&onPath, &root);
                for (int unit = 0; unit < count; ++unit)
                    results[copy] << units[unit].depth << (onPath.contains(&units[unit]) ? onPath[&units[unit]] : -1);
            }
            QCOMPARE(results[1], results[0]);
        }
    }

    void commandBytes()
    {
        const auto command = [](const char* header, const QByteArray& text) {
            return (QByteArray::fromHex(header) + text).leftJustified(140, '\0');
        };
        const QByteArray group = command("8c0000000000000007010000", "Show groups");
        const QByteArray all = QByteArray::fromHex("150000000000000001020600080706050403020101"
                                                   "150000000000000001030600080706050403020100")
            + command("8c0000000000000001010600", "Show \xc3\xa9")
            + command("8c0000000000000001010600", QByteArray(127, 'x')) + group;
        // No DSP packet yet and an old one let only the group command out; a rejected packet leaves the gate
        // as it was.
        const QVector<QPair<QByteArrayList, QByteArray>> steps {
            { {}, group },
            { { readTestData("dsp-v4.bin") }, group },
            { { readTestData("dsp-v5.bin"), PacketBuilder(1, 0, 9).finish() }, all }
        };
        for (const auto& step : steps) {
            for (const QByteArray& packet : step.first)
                QVERIFY(feed(packet));
            target->clearReceived();
            tree->sendDSPCommandEnable(0x0102030405060708ull, true);
            tree->sendDSPCommandBypass(0x0102030405060708ull, false);
            tree->sendDSPCommandString(QStringLiteral("Show \u00e9"));
            tree->sendDSPCommandString(QString(200, 'x'));
            tree->sendGroupCommandString(QStringLiteral("Show groups"));
            QVERIFY(target->waitForReceived(step.second.size()));
            QCOMPARE(target->received().toHex(), step.second.toHex());
        }
    }
};

QTEST_MAIN(TestDSPNetTree)
#include "tst_dspnettree.moc"
