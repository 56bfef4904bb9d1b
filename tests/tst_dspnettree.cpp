#include "dspfixture.h"
#include "packetbuilder.h"

#include <QElapsedTimer>

#include <limits>
#include <numeric>

namespace
{

const float Inf = std::numeric_limits<float>::infinity();
const float NaN = std::numeric_limits<float>::quiet_NaN();

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

} // namespace

class TestDSPNetTree : public QObject
{
    Q_OBJECT

private slots:
    void decodes_data()
    {
        // Decoded first; an empty packet stands for every depth set to 7 by hand, "+" for a unit 99 added
        // by hand, which the next packet must drop.
        QTest::addColumn<QByteArrayList>("before");
        QTest::addColumn<QByteArray>("packet");
        // Fields of unitFields() as text, and "status" (all texts the packet caused), "updates" (how many
        // updates it caused, 1 if not given) and "inPlace" (1 if it updated the network in place). A packet
        // that causes no update must leave the model as it was but for its own figures.
        QTest::addColumn<Fields>("fields");
        const auto row = [](const char* name, const QByteArray& packet, const Fields& fields,
                            const QByteArrayList& before = {}) {
            QTest::newRow(name) << before << packet << fields;
        };
        const Fields incompatible { { "status", "Connected. (Incompatible version detected, reduced functionality)" },
                                    { "updates", "0" } };
        const Fields malformed { { "status", "Connected. (Malformed DSP data dropped)" }, { "updates", "0" } };

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
            row(qPrintable(name), readTestData(name + ".bin"), fields);
        }
        // The group count comes from the bytes received; a partial record at the end is ignored.
        const QByteArray groups = readTestData("groups-v0.bin");
        const QString vector = text(QJsonDocument::fromJson(readTestData("groups-v0.json"))["groups"]);
        row("groups test vector", groups, { { "groups", vector }, { "head", "" } }, { groups });
        row("12 + 295 bytes of groups", PacketBuilder(7, 0, 0).zeros(295).finish(), { { "groups", "[]" } },
            { groups });
        row("groups version 1", PacketBuilder(7, 0, 1).zeros(296).finish(), incompatible, { groups });

        // Dropped whole: the old graph stays.
        const QByteArray v5 = readTestData("dsp-v5.bin");
        row("version 7", PacketBuilder(1, 0, 7).i32(48000).i32(1024).finish(), incompatible,
            { readTestData("dsp-v6.bin") });
        row("children past the end", dspPacketV6({ { 1, 2 }, { 2, 0 } }), malformed, { v5 });
        row("prologue cut short", PacketBuilder(1, 0, 6).i32(48000).u16(0).finish(), malformed, { v5 });
        row("no records", PacketBuilder(1, 0, 0).finish(), malformed, { v5 });
        row("last record one byte short",
            PacketBuilder(1, 0, 2).f32(0.5f).u8(0).u64(1).fixedString("a", 32).u32(0).zeros(16).finish(),
            malformed, { v5 });
        row("child count 2^31-1", packetV5(0.5f, { { 1, 0x7fffffff, 1 }, { 2, 0, 1 } }), malformed, { v5 });
        row("100000-unit chain cut short", dspChainV6(100000, 1), malformed, { v5 });

        const auto levels = [](int count, int db) {
            return "[" + (QString::number(db) + ',').repeated(count).chopped(1) + "]";
        };
        row("unterminated name", dspPacketV6({ { 1, 1, 1, 1, QByteArray(32, 'N') }, { 2, 0 } }),
            { { "1.name", QString(32, 'N') }, { "units", "2" } });
        row("invalid UTF-8", dspPacketV6({ { 1, 0, 1, 1, "\xff\xfe" "ab" } }),
            { { "1.name", QStringLiteral("\ufffd\ufffd" "ab") } });
        row("level count 255, floats", packetV5(0.5f, { { 1, 0, 1 } }, QVector<float>(32, 1.0f), 255),
            { { "1.levels", levels(32, 0) } });
        row("level count 255, version 2",
            PacketBuilder(1, 0, 2).f32(0.5f).u8(0).u64(1).fixedString("unit", 32).u32(0).u8(1).u8(0).u16(0)
                .u16(1).u8(255).zeros(10).finish(),
            { { "1.levels", levels(32, -80) } });
        // Negative as a signed count: no children are read, the rest is ignored.
        row("child count 2^31", packetV5(0.5f, { { 1, 0x80000000u, 1 }, { 2, 0, 1 } }),
            { { "head", "1" }, { "units", "1" } });
        row("version 0 id -2",
            PacketBuilder(1, 0, 0).i32(-2).fixedString("unit", 32).u32(0).u8(1).zeros(4).finish(),
            { { "head", "18446744073709551614" }, { "units", "1" } });
        // 1 <- {2 <- 4, 3 <- 4 again}; the repeat claims 5 children and sends none, and its own name, usage
        // and children are not taken.
        const QString input4 = R"([{"id":4,"send":%1,"sidechain":%1}])";
        row("repeated unit",
            dspPacketV6({ { 1, 2, 1 }, { 2, 1, 10 }, { 4, 0, 100, 0x01, "first" }, { 3, 1, 1000 },
                          { 4, 5, 7, 0x0c, "again" } }),
            { { "units", "4" }, { "4.name", "first" }, { "2.inputs", input4.arg("false") },
              { "3.inputs", input4.arg("true") }, { "3.inclusiveUsage", "1000" },
              { "1.inclusiveUsage", "1111" } });
        // The repeat of 3 under 4 claims two children; the record after it is still the second input of 4,
        // also when the same network is updated in place.
        const auto repeated = [](quint16 usage) {
            return dspPacketV6(
                { { 1, 2, usage }, { 2, 1, 2 }, { 3, 0, 3 }, { 4, 2, 4 }, { 3, 2, 3 }, { 5, 0, 25 } });
        };
        row("repeated unit's child count", repeated(1),
            { { "4.inclusiveUsage", "29" }, { "1.inclusiveUsage", "35" } });
        row("repeated unit's child count in place", repeated(2),
            { { "inPlace", "1" }, { "4.inclusiveUsage", "29" }, { "1.inclusiveUsage", "36" } },
            { repeated(1) });

        // Rebuilds (a flag differs) whose links stay, move or go: depths the last network's links gave may be
        // kept, but must end as this network's.
        const QByteArray chain4 = dspPacketV6({ { 1, 1 }, { 2, 1 }, { 3, 1 }, { 4, 0 } });
        const QByteArray fan = dspPacketV6({ { 1, 2 }, { 2, 0 }, { 3, 0 } });
        const QByteArray nested = dspPacketV6({ { 1, 1 }, { 2, 1 }, { 3, 0 } });
        const QByteArray nestedOff = dspPacketV6({ { 1, 1 }, { 2, 1 }, { 3, 0, 1, 0 } });
        const QByteArray cycle = dspPacketV6({ { 1, 1 }, { 2, 2 }, { 3, 0 }, { 1, 0 } });
        const QByteArray cycleOff = dspPacketV6({ { 1, 1 }, { 2, 2 }, { 3, 0, 1, 0 }, { 1, 0 } });
        const Fields depths { { "units", "3" }, { "1.depth", "0" }, { "2.depth", "1" }, { "3.depth", "2" } };
        row("repeated unit's child count, rebuilt", repeated(1),
            { { "4.inclusiveUsage", "29" }, { "1.inclusiveUsage", "35" } }, { chain4 });
        row("same links", nestedOff, depths, { nested });
        row("same order, other nesting", nestedOff, depths, { fan });
        row("other nesting and back", nestedOff, depths, { nested, fan });
        row("last unit gone", nestedOff, depths, { chain4 });
        row("repeat gone", fan, { { "2.depth", "1" } },
            { dspPacketV6({ { 1, 2 }, { 2, 0 }, { 3, 1, 1, 0 }, { 2, 0 } }) });
        row("cycle kept", cycle, depths, { cycle, cycleOff });
        row("depths set by hand", nestedOff, depths, { nested, QByteArray() });
        row("unit added by hand", nested, depths, { nested, "+" });

        // The second of two levels, in dB clamped to [-80, 10].
        const QVector<QPair<float, int>> conversions {
            { 1.0f, 0 }, { 0.5f, -6 }, { 0.99f, 0 }, { 3.16f, 9 }, { 3.17f, 10 }, { 100.0f, 10 },
            { 0.000102f, -79 }, { 0.00001f, -80 }, { std::numeric_limits<float>::denorm_min(), -80 },
            { 0.0f, -80 }, { -1.0f, -80 }, { std::numeric_limits<float>::max(), 10 }, { Inf, -80 },
            { -Inf, -80 }, { NaN, -80 }
        };
        for (const auto& level : conversions)
            row(qPrintable("level " + QString::number(double(level.first))),
                packetV5(0.5f, { { 1, 0, 1 } }, { 1.0f, level.first, 1.0f }, 2),
                { { "1.levels", QStringLiteral("[0,%1]").arg(level.second) } });

        // CPU shares: (usage * cpu) * (1 / head) rounds differently from the other orders here, and dividing
        // by the span differently from multiplying by its inverse.
        const auto cpu = [](const QString& headInclusive, const QString& headExclusive, const QString& child) {
            return Fields { { "1.inclusiveCPU", headInclusive }, { "1.exclusiveCPU", headExclusive },
                            { "2.inclusiveCPU", child }, { "2.exclusiveCPU", child } };
        };
        const QString zero = QStringLiteral("0x00000000");
        row("cpu figure", packetV5(0.3f, { { 1, 1, 3 }, { 2, 0, 7 } }),
            cpu("0x3e99999a", "0x3db851ec", "0x3e570a3f"));
        row("timing", dspPacketV6({ { 1, 1, 20 }, { 2, 0, 11 } }, 44100, 512),
            cpu("0x3b2efd22", "0x3ae1cac0", "0x3a785f07"));
        row("no timing", dspPacketV6({ { 1, 1, 20 }, { 2, 0, 11 } }, 44100, 0), cpu(zero, zero, zero));
        row("head usage 0", packetV5(0.5f, { { 1, 1, 0 }, { 2, 0, 0 } }), cpu(zero, zero, zero));
        row("NaN figure", packetV5(NaN, { { 1, 1, 3 }, { 2, 0, 7 } }),
            cpu(bitsOf(NaN), bitsOf(NaN), bitsOf(NaN)));
    }

    void decodes()
    {
        LiveTree live;
        QVERIFY(live.connected);
        QFETCH(QByteArrayList, before);
        QFETCH(QByteArray, packet);
        QFETCH(Fields, fields);
        for (const QByteArray& earlier : qAsConst(before)) {
            for (DSPNode* node : qAsConst(live.tree.nodesById))
                node->depth = earlier.isEmpty() ? 7 : node->depth;
            if (earlier == "+")
                (*live.tree.nodesById.insert(99, new DSPNode))->id = 99;
            QVERIFY(earlier.isEmpty() || earlier == "+" || live.feed(earlier));
        }
        const Fields old = unitFields(live.tree);
        const int updatesBefore = live.updated.count();
        const quint64 valueSerial = live.tree.getValueSerial();
        live.status.clear();
        QVERIFY(live.feed(packet));

        const Fields after = unitFields(live.tree);
        Fields decoded = after;
        QStringList statuses;
        for (const QList<QVariant>& signal : qAsConst(live.status))
            statuses << signal.first().toString();
        decoded.insert({ { "status", statuses.join('\n') },
                         { "updates", QString::number(live.updated.count() - updatesBefore) },
                         { "inPlace", QString::number(live.tree.getValueSerial() != valueSerial) } });
        fields.insert("updates", fields.value("updates", "1"));
        for (auto field = fields.cbegin(); field != fields.cend(); ++field)
            QVERIFY2(decoded.value(field.key()) == field.value(),
                     qPrintable(field.key() + " is " + decoded.value(field.key(), "missing")));
        for (const DSPNode* node : qAsConst(live.tree.nodesById)) {
            for (const DSPNode::InputRecord& input : node->inputs)
                QCOMPARE(input.node, live.tree.nodesById.value(input.node->id)); // linked, not copied
        }
        if (fields.value("updates") != "0")
            return;
        Fields kept = old;
        kept.insert({ { "cpuUsage", bitsOf(0.0f) }, { "timingRate", "0" }, { "timingLength", "0" } });
        QVERIFY(after == kept);
        // The link stays in step: the next good packet is decoded.
        QVERIFY(live.feed(dspPacketV6({ { 7, 0 } })));
        QCOMPARE(live.tree.root.inputs.first().node->id, 7ull);
    }

    void largeNetworks_data()
    {
        QTest::addColumn<QByteArray>("packet");
        QTest::addColumn<QVector<int>>("depths"); // of units 1, 2, ...

        QVector<int> chainDepths(100000);
        std::iota(chainDepths.begin(), chainDepths.end(), 0);
        QTest::newRow("100000-unit chain") << dspChainV6(100000) << chainDepths;
        addLadderRow("ladder 20000 deep", 20000, false);
        addLadderRow("ladder whose bottom feeds the head", 20000, true);
    }

    // A quadratic walk takes minutes on these, and a recursive one exhausts the stack.
    void largeNetworks()
    {
        LiveTree live;
        QVERIFY(live.connected);
        QFETCH(QByteArray, packet);
        QFETCH(QVector<int>, depths);
#if defined(__SANITIZE_ADDRESS__)
        const int limit = 15000;
#else
        const int limit = 3000;
#endif
        QElapsedTimer timer;
        timer.start();
        QVERIFY(live.feed(packet));
        QVERIFY(timer.restart() < limit);
        QVector<int> decoded;
        for (int id = 1; id <= depths.size(); ++id)
            decoded.append(live.tree.nodesById.value(id)->depth);
        QCOMPARE(live.tree.nodesById.size(), depths.size());
        QCOMPARE(decoded, depths);

        // Every unit is placed once, in the column of its depth.
        DSPNetGraph graph(&live.tree);
        graph.slotProcessTree();
        QVERIFY(timer.elapsed() < limit);
        QCOMPARE(graph.nodeList.size(), depths.size());
        for (const DSPNetGraphicalNode& node : qAsConst(graph.nodeList))
            QCOMPARE(node.position.x(), depths.at(int(node.id) - 1) * 200 + 10);
    }

    void commandBytes()
    {
        LiveTree live;
        QVERIFY(live.connected);
        const auto command = [](const char* header, const QByteArray& text) {
            return (QByteArray::fromHex(header) + text).leftJustified(140, '\0');
        };
        const QByteArray group = command("8c0000000000000007010000", "Show groups");
        const QByteArray all = QByteArray::fromHex("150000000000000001020600080706050403020101"
                                                   "150000000000000001030600080706050403020100")
            + command("8c0000000000000001010600", "Show \xc3\xa9")
            + command("8c0000000000000001010600", QByteArray(127, 'x')) + group;
        // No DSP packet yet and an old one let only the group command out; a rejected packet leaves the gate as it was.
        const QVector<QPair<QByteArrayList, QByteArray>> steps {
            { {}, group },
            { { readTestData("dsp-v4.bin") }, group },
            { { readTestData("dsp-v5.bin"), PacketBuilder(1, 0, 9).finish() }, all }
        };
        for (const auto& step : steps) {
            for (const QByteArray& packet : step.first)
                QVERIFY(live.feed(packet));
            live.target.clearReceived();
            live.tree.sendDSPCommandEnable(0x0102030405060708ull, true);
            live.tree.sendDSPCommandBypass(0x0102030405060708ull, false);
            live.tree.sendDSPCommandString(QStringLiteral("Show \u00e9"));
            live.tree.sendDSPCommandString(QString(200, 'x'));
            live.tree.sendGroupCommandString(QStringLiteral("Show groups"));
            QVERIFY(live.target.waitForReceived(step.second.size()));
            QCOMPARE(live.target.received().toHex(), step.second.toHex());
        }
    }
};

QTEST_MAIN(TestDSPNetTree)
#include "tst_dspnettree.moc"
