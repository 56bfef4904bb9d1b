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

#include <algorithm>
#include <cstring>
#include <limits>
#include <memory>
#include <vector>

namespace
{

const QString Incompatible = QStringLiteral("Connected. (Incompatible version detected, reduced functionality)");
const QString Malformed = QStringLiteral("Connected. (Malformed DSP data dropped)");
const float Inf = std::numeric_limits<float>::infinity();
const float NaN = std::numeric_limits<float>::quiet_NaN();

QString bitsOf(float value)
{
    quint32 bits;
    std::memcpy(&bits, &value, sizeof bits);
    return QStringLiteral("0x%1").arg(bits, 8, 16, QLatin1Char('0'));
}

// A unit as the test vectors write it; floats by their bits only.
QJsonObject unitAsJson(const DSPNode* node)
{
    QJsonArray levels, inputs;
    for (char level : node->levels)
        levels.append(int(level));
    for (const DSPNode::InputRecord& input : node->inputs)
        inputs.append(QJsonObject { { "id", double(input.node->id) }, { "send", input.send },
                                    { "sidechain", input.sidechain } });
    return QJsonObject { { "id", double(node->id) }, { "name", node->name }, { "groupId", double(node->groupId) },
                         { "sendTargetId", double(node->sendTargetId) }, { "active", node->active },
                         { "bypass", node->bypass }, { "exclusiveUsage", double(node->exclusiveUsage) },
                         { "inclusiveUsage", double(node->inclusiveUsage) }, { "depth", node->depth },
                         { "levels", levels }, { "inputs", inputs },
                         { "inclusiveCPU", QJsonObject { { "bits", bitsOf(node->inclusiveCPU) } } },
                         { "exclusiveCPU", QJsonObject { { "bits", bitsOf(node->exclusiveCPU) } } } };
}

QByteArray compact(QJsonObject object)
{
    for (const char* key : { "inclusiveCPU", "exclusiveCPU" })
        object[key] = QJsonObject { { "bits", object.value(key).toObject().value("bits") } };
    return QJsonDocument(object).toJson(QJsonDocument::Compact);
}

// One version-6 record; flags bit 0 active, 1 bypass, 2 send, 3 sidechain.
struct Unit
{
    quint64 id;
    quint16 children;
    quint16 usage = 1;
    quint8 flags = 0x01;
    QByteArray name = "unit";
};

QByteArray packetV6(const QVector<Unit>& units, qint32 rate = 48000, qint32 length = 1024)
{
    PacketBuilder packet(1, 0, 6);
    packet.i32(rate).i32(length);
    for (const Unit& unit : units) {
        packet.u64(unit.id).u64(0).u64(0).u16(unit.children).u16(unit.usage).u8(unit.flags).u8(0).zeros(32);
        packet.raw(unit.name.leftJustified(32, '\0', true));
    }
    return packet.finish();
}

// Version-5 records with float levels; `levelCount` may exceed the values given.
QByteArray packetV5(float cpu, const QVector<QVector<quint32>>& records, const QVector<float>& levels = {},
                    quint8 levelCount = 0)
{
    PacketBuilder packet(1, 0, 5);
    packet.f32(cpu).u8(0xee);
    for (const QVector<quint32>& record : records) { // id, child count, usage
        packet.u64(record.at(0)).u64(0x9001).fixedString("unit", 32).u32(record.at(1)).u8(1).u8(0).u16(0xeeee);
        packet.u16(quint16(record.at(2))).u8(levelCount);
        for (int slot = 0; slot < 32; ++slot)
            packet.f32BigEndian(slot < levels.size() ? levels.at(slot) : 0.0f);
        packet.u64(0);
    }
    return packet.finish();
}

// X(k-1) takes X(k) directly and through Y(k), so every unit feeds two
// consumers; ids are X(k) = k + 1, Y(k) = levels + 1 + k. A walk that
// renumbers a unit on each longer path takes about 1.5 * levels^2 steps.
QByteArray ladder(int levels, bool closed)
{
    QVector<Unit> records;
    for (int k = 0; k < levels; ++k)
        records.append({ quint64(k + 1), 2 });
    records.append({ quint64(levels + 1), quint16(closed ? 1 : 0) });
    if (closed)
        records.append({ 1, 0 });
    for (int k = levels; k >= 1; --k) {
        records.append({ quint64(levels + 1 + k), 1 });
        records.append({ quint64(k + 1), 0 });
    }
    return packetV6(records);
}

QVector<int> ladderDepths(int levels)
{
    QVector<int> depths;
    for (int k = 0; k <= levels; ++k)
        depths.append(2 * k);
    for (int k = 1; k <= levels; ++k)
        depths.append(2 * k - 1);
    return depths;
}

QByteArray groupPacket(quint8 version, const QByteArray& records)
{
    return PacketBuilder(7, 0, version).raw(records).finish();
}

QByteArray groupRecord(quint64 id, const QByteArray& name)
{
    return PacketBuilder(0, 0, 0).u64(id).u64(1).u32(0x01020304).u16(0x0506).u16(0x0708)
        .raw("\x09\x0a\x0b\x0c\x0d\x0e\x0f\x10").u32(0xdeadbeef).fixedString(name, 260).finish().mid(12);
}

// Everything the view reads, to show that a dropped packet changed nothing.
QByteArray describe(const DSPTree& tree)
{
    QByteArray text = QByteArray::number(tree.dspVersion) + " " + QByteArray::number(tree.root.inputs.size());
    QList<unsigned long long> ids = tree.nodesById.keys();
    std::sort(ids.begin(), ids.end());
    for (unsigned long long id : ids)
        text += "\n" + QJsonDocument(unitAsJson(tree.nodesById.value(id))).toJson(QJsonDocument::Compact);
    return text;
}

// The depth walk as first written, plain recursion: the model must agree
// with it wherever it finishes.
void referenceDepthWalk(QHash<DSPNode*, bool>* onPath, DSPNode* node)
{
    (*onPath)[node] = true;
    for (const DSPNode::InputRecord& input : node->inputs) {
        DSPNode* child = input.node;
        if (node->depth < child->depth || onPath->value(child))
            continue;
        child->depth = node->depth + 1;
        referenceDepthWalk(onPath, child);
    }
    (*onPath)[node] = false;
}

} // namespace

class TestDSPNetTree : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();
    void decodesTestVectors_data();
    void decodesTestVectors();
    void decodesGroups_data();
    void decodesGroups();
    void onlyNewestPacketIsDecoded();
    void incompatibleVersionKeepsGraph();
    void malformedPacketKeepsGraph_data();
    void malformedPacketKeepsGraph();
    void boundedFields_data();
    void boundedFields();
    void repeatedUnitIsLinkedOnce();
    void cpuShares_data();
    void cpuShares();
    void levelConversion_data();
    void levelConversion();
    void depths_data();
    void depths();
    void depthsMatchRecursiveWalk();
    void commandBytes();

private:
    bool feed(const QByteArray& bytes);

    LoopbackTarget* target = nullptr;
    ProfilerNetwork* network = nullptr;
    DSPTree* tree = nullptr;
    QSignalSpy* updated = nullptr;
    QSignalSpy* status = nullptr;
};

void TestDSPNetTree::init()
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

void TestDSPNetTree::cleanup()
{
    delete status;
    delete updated;
    delete tree;
    delete network;
    // Let the target see the close first, so it never holds a socket that
    // is being destroyed.
    const bool closed = QTest::qWaitFor([this] { return !target->hasClient(); }, 1000);
    delete target;
    QVERIFY(closed);
}

// Sends bytes from the target and waits until the tree reacted.
bool TestDSPNetTree::feed(const QByteArray& bytes)
{
    const int before = updated->count() + status->count();
    target->send(bytes);
    return QTest::qWaitFor([&] { return updated->count() + status->count() > before; }, 5000);
}

void TestDSPNetTree::decodesTestVectors_data()
{
    QTest::addColumn<QString>("name");
    for (int version = 0; version <= 6; ++version)
        QTest::newRow(qPrintable(QStringLiteral("dsp-v%1").arg(version))) << QStringLiteral("dsp-v%1").arg(version);
}

void TestDSPNetTree::decodesTestVectors()
{
    QFETCH(QString, name);
    const QJsonObject expected = QJsonDocument::fromJson(readTestData(name + ".json")).object();
    QVERIFY(feed(readTestData(name + ".bin")));

    QCOMPARE(updated->count(), 1);
    QCOMPARE(status->count(), expected.value("status").isNull() ? 0 : 1);
    QCOMPARE(status->value(0).value(0).toString(), expected.value("status").toString());
    QCOMPARE(tree->dspVersion, expected.value("packet").toObject().value("version").toInt());
    QCOMPARE(bitsOf(tree->cpuUsage), expected.value("cpuUsage").toObject().value("bits").toString());
    QCOMPARE(tree->timingRate, expected.value("timingRate").toInt());
    QCOMPARE(tree->timingLength, expected.value("timingLength").toInt());
    QCOMPARE(tree->root.inputs.size(), 1);
    QCOMPARE(double(tree->root.inputs.first().node->id), expected.value("head").toDouble());
    QCOMPARE(tree->root.inclusiveUsage, tree->root.inputs.first().node->inclusiveUsage);
    QCOMPARE(tree->root.depth, -1);

    const QJsonArray units = expected.value("units_in_first_occurrence_order").toArray();
    QCOMPARE(tree->nodesById.size(), units.size());
    for (const QJsonValue& unit : units) {
        const DSPNode* node = tree->nodesById.value(unit.toObject().value("id").toVariant().toULongLong());
        QVERIFY(node);
        QCOMPARE(compact(unitAsJson(node)), compact(unit.toObject()));
    }
}

void TestDSPNetTree::decodesGroups_data()
{
    QTest::addColumn<QByteArray>("packet");
    QTest::addColumn<QStringList>("groups");
    QTest::addColumn<QString>("text");

    QStringList vector;
    const QJsonObject expected = QJsonDocument::fromJson(readTestData("groups-v0.json")).object();
    for (const QJsonValue& group : expected.value("groups").toArray())
        vector << QJsonDocument(group.toObject()).toJson(QJsonDocument::Compact);
    const QByteArray two = groupRecord(1, "a") + groupRecord(2, "b");
    const QString a = R"({"guid":"{01020304-0506-0708-090a-0b0c0d0e0f10}","guidIsNull":false,"id":1,"name":"a","parentId":1})";
    const QString b = QString(a).replace("\"id\":1", "\"id\":2").replace("\"a\"", "\"b\"");

    QTest::newRow("test vector") << readTestData("groups-v0.bin") << vector << QString();
    QTest::newRow("two records") << groupPacket(0, two) << QStringList { a, b } << QString();
    QTest::newRow("12 + 300 bytes") << groupPacket(0, two.left(300)) << QStringList { a } << QString();
    QTest::newRow("12 + 295 bytes") << groupPacket(0, two.left(295)) << QStringList() << QString();
    QTest::newRow("version 1 keeps the list") << groupPacket(1, two) << vector << Incompatible;
}

void TestDSPNetTree::decodesGroups()
{
    QFETCH(QByteArray, packet);
    QFETCH(QStringList, groups);
    QFETCH(QString, text);
    QVERIFY(feed(readTestData("groups-v0.bin")));
    QVERIFY(feed(packet));

    QStringList decoded;
    for (const GroupNode* group : qAsConst(tree->groups)) {
        decoded << QJsonDocument(QJsonObject { { "id", double(group->id) }, { "parentId", double(group->parentId) },
                                               { "guid", group->guid.toString() },
                                               { "guidIsNull", group->guid.isNull() }, { "name", group->name } })
                       .toJson(QJsonDocument::Compact);
    }
    QCOMPARE(decoded, groups);
    QCOMPARE(updated->count(), text.isEmpty() ? 2 : 1);
    QCOMPARE(status->value(0).value(0).toString(), text);
    QVERIFY(tree->root.inputs.isEmpty());
}

void TestDSPNetTree::onlyNewestPacketIsDecoded()
{
    // Queue everything before the tree looks, so the packets wait together.
    disconnect(network, nullptr, tree, nullptr);
    target->send(packetV6({ { 1, 0 } }) + readTestData("groups-v0.bin") + packetV6({ { 2, 1 }, { 3, 0 } }));
    QVERIFY(QTest::qWaitFor([this] { return network->getNumWaitingPackets(1, 0) == 2; }, 5000));
    QVERIFY(QTest::qWaitFor([this] { return network->getNumWaitingPackets(7, 0) == 1; }, 5000));

    tree->slotPacketArrived();
    QCOMPARE(updated->count(), 1);
    QCOMPARE(tree->nodesById.size(), 2);
    QCOMPARE(tree->root.inputs.first().node->id, 2ull);
    QCOMPARE(tree->groups.size(), 3);
    QCOMPARE(network->getNumWaitingPackets(1, 0), 0);
}

void TestDSPNetTree::incompatibleVersionKeepsGraph()
{
    QVERIFY(feed(readTestData("dsp-v6.bin")));
    const QByteArray before = describe(*tree);
    QVERIFY(feed(PacketBuilder(1, 0, 7).i32(48000).i32(1024).finish()));
    QCOMPARE(status->last().first().toString(), Incompatible);
    QCOMPARE(updated->count(), 1);
    QCOMPARE(describe(*tree), before);
    QCOMPARE(tree->timingRate, 0);
    QCOMPARE(tree->timingLength, 0);
}

void TestDSPNetTree::malformedPacketKeepsGraph_data()
{
    QTest::addColumn<QByteArray>("packet");
    QTest::newRow("children past the end") << packetV6({ { 1, 2 }, { 2, 0 } });
    QTest::newRow("prologue cut short") << PacketBuilder(1, 0, 6).i32(48000).u16(0).finish();
    QTest::newRow("no records") << PacketBuilder(1, 0, 0).finish();
    QTest::newRow("last record one byte short")
        << PacketBuilder(1, 0, 2).f32(0.5f).u8(0).u64(1).fixedString("a", 32).u32(0).zeros(16).finish();
    QTest::newRow("child count 2^31-1") << packetV5(0.5f, { { 1, 0x7fffffff, 1 }, { 2, 0, 1 } });
    QVector<Unit> chain;
    for (int i = 1; i <= 100000; ++i)
        chain.append({ quint64(i), 1 });
    QTest::newRow("100000-unit chain cut short") << packetV6(chain);
}

void TestDSPNetTree::malformedPacketKeepsGraph()
{
    QFETCH(QByteArray, packet);
    QVERIFY(feed(readTestData("dsp-v5.bin")));
    const QByteArray before = describe(*tree);

    QVERIFY(feed(packet));
    QCOMPARE(status->last().first().toString(), Malformed);
    QCOMPARE(updated->count(), 1);
    QCOMPARE(describe(*tree), before);
    QCOMPARE(tree->cpuUsage, 0.0f);
    // The link stays in step: the next good packet is decoded.
    QVERIFY(feed(packetV6({ { 7, 0 } })));
    QCOMPARE(tree->root.inputs.first().node->id, 7ull);
}

void TestDSPNetTree::boundedFields_data()
{
    QTest::addColumn<QByteArray>("packet");
    QTest::addColumn<quint64>("headId");
    QTest::addColumn<QString>("headName");
    QTest::addColumn<QVector<char>>("headLevels");
    QTest::addColumn<int>("units");

    const QString unit = QStringLiteral("unit");
    QTest::newRow("unterminated name") << packetV6({ { 1, 1, 1, 1, QByteArray(32, 'N') }, { 2, 0, 1, 1, "next" } })
                                       << quint64(1) << QString(32, 'N') << QVector<char>() << 2;
    QTest::newRow("invalid UTF-8") << packetV6({ { 1, 0, 1, 1, "\xff\xfe" "ab" } }) << quint64(1)
                                   << QStringLiteral("\ufffd\ufffd" "ab") << QVector<char>() << 1;
    QTest::newRow("level count 255, floats") << packetV5(0.5f, { { 1, 0, 1 } }, QVector<float>(32, 1.0f), 255)
                                             << quint64(1) << unit << QVector<char>(32, 0) << 1;
    QTest::newRow("level count 255, version 2")
        << PacketBuilder(1, 0, 2).f32(0.5f).u8(0).u64(1).fixedString("unit", 32).u32(0).u8(1).u8(0).u16(0).u16(1)
               .u8(255).zeros(10).finish()
        << quint64(1) << unit << QVector<char>(32, -80) << 1;
    // Negative as signed counts: no children are read, the rest is ignored.
    QTest::newRow("child count 2^31") << packetV5(0.5f, { { 1, 0x80000000u, 1 }, { 2, 0, 1 } }) << quint64(1) << unit
                                      << QVector<char>() << 1;
    QTest::newRow("child count 2^32-1") << packetV5(0.5f, { { 1, 0xffffffffu, 1 }, { 2, 0, 1 } }) << quint64(1)
                                        << unit << QVector<char>() << 1;
    QTest::newRow("version 0 id -2") << PacketBuilder(1, 0, 0).i32(-2).fixedString("unit", 32).u32(0).u8(1).zeros(4)
                                            .finish()
                                     << quint64(0xfffffffffffffffeull) << unit << QVector<char>() << 1;
}

void TestDSPNetTree::boundedFields()
{
    QFETCH(QByteArray, packet);
    QFETCH(quint64, headId);
    QFETCH(QString, headName);
    QFETCH(QVector<char>, headLevels);
    QFETCH(int, units);
    QVERIFY(feed(packet));
    QCOMPARE(updated->count(), 1);
    const DSPNode* head = tree->root.inputs.first().node;
    QCOMPARE(head->id, headId);
    QCOMPARE(head->name, headName);
    QCOMPARE(head->levels, headLevels);
    QCOMPARE(tree->nodesById.size(), units);
}

void TestDSPNetTree::repeatedUnitIsLinkedOnce()
{
    // 1 <- {2 <- 4, 3 <- 4 again}; the repeat claims 5 children and sends
    // none, and its own name, usage and children are not taken.
    QVERIFY(feed(packetV6({ { 1, 2, 1 }, { 2, 1, 10 }, { 4, 0, 100, 0x01, "first" }, { 3, 1, 1000 },
                            { 4, 5, 7, 0x0c, "again" } })));
    QCOMPARE(tree->nodesById.size(), 4);
    const DSPNode* shared = tree->nodesById.value(4);
    const DSPNode* second = tree->nodesById.value(3);
    QCOMPARE(tree->nodesById.value(2)->inputs.first().node, shared);
    QCOMPARE(second->inputs.size(), 1);
    QCOMPARE(second->inputs.first().node, shared);
    QVERIFY(second->inputs.first().send && second->inputs.first().sidechain);
    QCOMPARE(shared->name, QStringLiteral("first"));
    QCOMPARE(second->inclusiveUsage, 1000u);
    QCOMPARE(tree->nodesById.value(1)->inclusiveUsage, 1111u);
}

void TestDSPNetTree::cpuShares_data()
{
    QTest::addColumn<QByteArray>("packet");
    QTest::addColumn<QStringList>("bits"); // head inclusive, head exclusive, child

    // (usage * cpu) * (1 / head) rounds differently from the other orders here,
    // and dividing by the span differently from multiplying by its inverse.
    QTest::newRow("cpu figure") << packetV5(0.3f, { { 1, 1, 3 }, { 2, 0, 7 } })
                                << QStringList { "0x3e99999a", "0x3db851ec", "0x3e570a3f" };
    QTest::newRow("timing") << packetV6({ { 1, 1, 20 }, { 2, 0, 11 } }, 44100, 512)
                            << QStringList { "0x3b2efd22", "0x3ae1cac0", "0x3a785f07" };
    QTest::newRow("no timing") << packetV6({ { 1, 1, 20 }, { 2, 0, 11 } }, 44100, 0) << QStringList { "0x00000000", "0x00000000", "0x00000000" };
    QTest::newRow("head usage 0") << packetV5(0.5f, { { 1, 1, 0 }, { 2, 0, 0 } }) << QStringList { "0x00000000", "0x00000000", "0x00000000" };
    QTest::newRow("NaN figure") << packetV5(NaN, { { 1, 1, 3 }, { 2, 0, 7 } }) << QStringList { bitsOf(NaN), bitsOf(NaN), bitsOf(NaN) };
}

void TestDSPNetTree::cpuShares()
{
    QFETCH(QByteArray, packet);
    QFETCH(QStringList, bits);
    QVERIFY(feed(packet));
    const DSPNode* head = tree->nodesById.value(1);
    const DSPNode* child = tree->nodesById.value(2);
    QVERIFY(head && child);
    QCOMPARE((QStringList { bitsOf(head->inclusiveCPU), bitsOf(head->exclusiveCPU), bitsOf(child->exclusiveCPU) }),
             bits);
    QCOMPARE(bitsOf(child->inclusiveCPU), bitsOf(child->exclusiveCPU));
}

void TestDSPNetTree::levelConversion_data()
{
    QTest::addColumn<float>("level");
    QTest::addColumn<int>("db");
    const QVector<QPair<float, int>> cases { { 1.0f, 0 }, { 0.5f, -6 }, { 0.99f, 0 }, { 3.16f, 9 }, { 3.17f, 10 },
                                             { 100.0f, 10 }, { 0.000102f, -79 }, { 0.00001f, -80 },
                                             { std::numeric_limits<float>::denorm_min(), -80 },
                                             { std::numeric_limits<float>::max(), 10 }, { 0.0f, -80 },
                                             { -1.0f, -80 }, { Inf, -80 }, { -Inf, -80 }, { NaN, -80 } };
    for (const auto& levelCase : cases)
        QTest::newRow(qPrintable(QString::number(double(levelCase.first)))) << levelCase.first << levelCase.second;
}

void TestDSPNetTree::levelConversion()
{
    QFETCH(float, level);
    QFETCH(int, db);
    QVERIFY(feed(packetV5(0.5f, { { 1, 0, 1 } }, { 1.0f, level, 1.0f }, 2)));
    QCOMPARE(tree->nodesById.value(1)->levels, (QVector<char> { 0, char(db) }));
}

void TestDSPNetTree::depths_data()
{
    QTest::addColumn<QByteArray>("packet");
    QTest::addColumn<QVector<int>>("depths"); // of units 1, 2, ...

    QTest::newRow("diamond") << packetV6({ { 1, 2 }, { 2, 1 }, { 4, 0 }, { 3, 1 }, { 4, 0 } })
                             << QVector<int> { 0, 1, 1, 2 };
    QTest::newRow("longer path renumbers") << packetV6({ { 1, 2 }, { 3, 1 }, { 4, 0 }, { 2, 1 }, { 3, 0 } })
                                           << QVector<int> { 0, 1, 2, 3 };
    QTest::newRow("cycle") << packetV6({ { 1, 1 }, { 2, 1 }, { 3, 1 }, { 1, 0 } }) << QVector<int> { 0, 1, 2 };
    QTest::newRow("self loop") << packetV6({ { 1, 1 }, { 1, 0 } }) << QVector<int> { 0 };
    // 3 is met in the cycle 2 -> 3 -> 2, then deeper from 6, and carries 2 along.
    QTest::newRow("cycle and longer path")
        << packetV6({ { 1, 2 }, { 2, 1 }, { 3, 1 }, { 2, 0 }, { 4, 1 }, { 5, 1 }, { 6, 1 }, { 3, 0 } })
        << QVector<int> { 0, 5, 4, 1, 2, 3 };
    QVector<Unit> chain;
    QVector<int> chainDepths;
    for (int i = 0; i < 100000; ++i) {
        chain.append({ quint64(i + 1), quint16(i + 1 < 100000 ? 1 : 0) });
        chainDepths.append(i);
    }
    QTest::newRow("100000-unit chain") << packetV6(chain) << chainDepths;
    QTest::newRow("ladder 20000 deep") << ladder(20000, false) << ladderDepths(20000);
    QTest::newRow("ladder whose bottom feeds the head") << ladder(20000, true) << ladderDepths(20000);
}

void TestDSPNetTree::depths()
{
    QFETCH(QByteArray, packet);
    QFETCH(QVector<int>, depths);
    QElapsedTimer timer;
    timer.start();
    QVERIFY(feed(packet));
    // The quadratic walk takes minutes on the big rows; the linear one well
    // under a second, and a few seconds under AddressSanitizer.
#if defined(__SANITIZE_ADDRESS__)
    QVERIFY(timer.elapsed() < 15000);
#else
    QVERIFY(timer.elapsed() < 3000);
#endif
    QCOMPARE(tree->nodesById.size(), depths.size());
    QVector<int> decoded;
    for (int id = 1; id <= depths.size(); ++id)
        decoded.append(tree->nodesById.value(id)->depth);
    QCOMPARE(decoded, depths);
}

void TestDSPNetTree::depthsMatchRecursiveWalk()
{
    QRandomGenerator random(20240611);
    for (int trial = 0; trial < 3000; ++trial) {
        // Acyclic graphs take the linear path, cyclic ones the walk itself;
        // some start from leftover depths and path marks.
        const bool acyclic = trial % 2 == 0;
        const bool leftovers = trial % 5 == 0;
        const int count = 1 + random.bounded(9);
        std::vector<std::unique_ptr<DSPNode>> units[2];
        DSPNode roots[2];
        QHash<DSPNode*, bool> onPath[2];
        for (int unit = 0; unit < count; ++unit) {
            const int depth = leftovers ? random.bounded(-2, 5) : -1;
            const bool marked = leftovers && random.bounded(4) == 0;
            for (int copy = 0; copy < 2; ++copy) {
                units[copy].emplace_back(new DSPNode);
                units[copy].back()->depth = depth;
                if (leftovers)
                    onPath[copy].insert(units[copy].back().get(), marked);
            }
        }
        for (int unit = 0; unit < count; ++unit) {
            const int first = acyclic ? unit + 1 : 0;
            for (int edge = random.bounded(4); edge > 0 && first < count; --edge) {
                const int input = first + random.bounded(count - first);
                for (int copy = 0; copy < 2; ++copy)
                    units[copy].at(unit)->inputs.append({ units[copy].at(input).get(), false, false });
            }
        }
        for (int copy = 0; copy < 2; ++copy)
            roots[copy].inputs.append({ units[copy].front().get(), false, false });

        referenceDepthWalk(&onPath[0], &roots[0]);
        tree->createDSPDepthRecurse(&onPath[1], &roots[1]);
        for (int unit = 0; unit < count; ++unit) {
            QCOMPARE(units[1].at(unit)->depth, units[0].at(unit)->depth);
            QCOMPARE(onPath[1].contains(units[1].at(unit).get()), onPath[0].contains(units[0].at(unit).get()));
            QCOMPARE(onPath[1].value(units[1].at(unit).get()), onPath[0].value(units[0].at(unit).get()));
        }
    }
}

void TestDSPNetTree::commandBytes()
{
    const auto hex = [](const char* text) { return QByteArray::fromHex(text); };
    const QByteArray groupCommand = (hex("8c0000000000000007010000") + "Show groups").leftJustified(140, '\0');

    // No DSP packet yet, then an old one: only the group command goes out.
    for (const QByteArray& packet : { QByteArray(), readTestData("dsp-v4.bin") }) {
        if (!packet.isEmpty())
            QVERIFY(feed(packet));
        target->clearReceived();
        tree->sendDSPCommandEnable(1, true);
        tree->sendDSPCommandBypass(1, true);
        tree->sendDSPCommandString(QStringLiteral("Show all"));
        tree->sendGroupCommandString(QStringLiteral("Show groups"));
        QVERIFY(target->waitForReceived(140));
        QCOMPARE(target->received().toHex(), groupCommand.toHex());
    }

    QVERIFY(feed(readTestData("dsp-v5.bin")));
    // A rejected packet leaves the version, and so the gate, as it was.
    QVERIFY(feed(PacketBuilder(1, 0, 9).finish()));
    target->clearReceived();
    tree->sendDSPCommandEnable(0x0102030405060708ull, true);
    tree->sendDSPCommandBypass(0x0102030405060708ull, false);
    tree->sendDSPCommandString(QStringLiteral("Show \u00e9"));
    tree->sendDSPCommandString(QString(200, 'x'));
    const QByteArray expected = hex("150000000000000001020600080706050403020101")
        + hex("150000000000000001030600080706050403020100")
        + (hex("8c0000000000000001010600") + "Show \xc3\xa9").leftJustified(140, '\0')
        + (hex("8c0000000000000001010600") + QByteArray(127, 'x')).leftJustified(140, '\0');
    QVERIFY(target->waitForReceived(expected.size()));
    QCOMPARE(target->received().toHex(), expected.toHex());
}

QTEST_MAIN(TestDSPNetTree)
#include "tst_dspnettree.moc"
