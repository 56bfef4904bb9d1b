#include "channelhistory.h"
#include "codechistory.h"
#include "cpuhistory.h"
#include "loopbacktarget.h"
#include "packetbuilder.h"
#include "profilernetwork.h"
#include "statshistory.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSignalSpy>
#include <QTest>

#include <cstring>
#include <limits>
#include <memory>

namespace
{

enum Kind { Cpu, Channels, Codecs, Stats, KindCount };
const quint8 KindType[KindCount] = { 3, 4, 5, 9 };
// No collector takes this type: it stays queued and marks the end of a send.
const quint8 MarkerType = 8;

const QString OldVersion = QStringLiteral("Connected. (Old version detected, reduced functionality)");
const QString Incompatible = QStringLiteral("Connected. (Incompatible version detected, reduced functionality)");
const QString Truncated = QStringLiteral("Connected. (Truncated packet dropped)");

using Batches = QList<QByteArray>;

QString bits(float value)
{
    quint32 raw;
    std::memcpy(&raw, &value, sizeof raw);
    return QStringLiteral("0x%1").arg(raw, 8, 16, QLatin1Char('0'));
}

QString jsonBits(const QJsonValue& value)
{
    const quint32 raw = value.toObject().value("bits").toString().toUInt(nullptr, 0);
    return QStringLiteral("0x%1").arg(raw, 8, 16, QLatin1Char('0'));
}

QByteArray cpuPacket(float dsp, quint8 version = 1, float stream = 0, float update = 0, float geometry = 0)
{
    PacketBuilder packet(KindType[Cpu], 0, version);
    packet.f32(dsp).f32(stream).f32(update);
    if (version != 0)
        packet.f32(geometry);
    return packet.finish();
}

QByteArray intsPacket(Kind kind, const QList<int>& ints, quint8 version = 0)
{
    PacketBuilder packet(KindType[kind], 0, version);
    for (int value : ints)
        packet.i32(value);
    return packet.finish();
}

// The statistics payload: CPU shares in wire order, (in use, capacity) pairs
// for real, virtual and the seven codec pools, then memory.
struct StatsFields
{
    enum Pair { Real, Virtual, ADPCM, TADPCM, MPEG, Vorbis, XMA, AT9, PCM, PairCount };

    float dsp = 0, stream = 0, update = 0, geometry = 0;
    qint16 used[PairCount] = {};
    qint16 capacity[PairCount] = {};
    qint32 memory = 0, memoryCapacity = 0;

    QByteArray packet(quint8 version = 0) const
    {
        PacketBuilder builder(KindType[Stats], 0, version);
        builder.f32(dsp).f32(stream).f32(update).f32(geometry);
        for (int i = 0; i < PairCount; ++i)
            builder.i16(used[i]).i16(capacity[i]);
        return builder.i32(memory).i32(memoryCapacity).finish();
    }
};

QByteArray statsPair(StatsFields::Pair pair, qint16 used, qint16 capacity)
{
    StatsFields fields;
    fields.used[pair] = used;
    fields.capacity[pair] = capacity;
    return fields.packet();
}

QByteArray statsDsp(float dsp, quint8 version = 0)
{
    StatsFields fields;
    fields.dsp = dsp;
    return fields.packet(version);
}

// The first `size` bytes of a packet, with the size field saying so.
QByteArray cut(const QByteArray& packet, int size)
{
    QByteArray part = packet.left(size);
    qToLittleEndian(quint32(size), part.data());
    return part;
}

QList<int> channelFields(const ChannelUsageSnapshot& s)
{
    return { s.hardwareUsed, s.hardwareCapacity, s.softwareUsed, s.softwareCapacity, s.realUsed,
             s.realCapacity, s.virtualUsed,  s.virtualCapacity,  s.playingUsed, s.playingCapacity };
}

// The first argument of every emission.
QVariantList emitted(const QSignalSpy& spy)
{
    QVariantList arguments;
    for (const QList<QVariant>& emission : spy)
        arguments << emission.at(0);
    return arguments;
}

// All four collectors on one network, in the application's order.
struct Collectors
{
    explicit Collectors(ProfilerNetwork* network) : cpu(network), channels(network), codecs(network), stats(network)
    {
        for (HistoryCollector* collector : std::initializer_list<HistoryCollector*>{ &cpu, &channels, &codecs, &stats }) {
            updated.emplace_back(new QSignalSpy(collector, &HistoryCollector::historyUpdated));
            status.emplace_back(new QSignalSpy(collector, &HistoryCollector::statusChanged));
        }
    }

    int historySize(int kind) const
    {
        const int sizes[KindCount] = { cpu.getHistoryList()->size(), channels.getHistoryList()->size(),
                                       codecs.getHistoryList()->size(), stats.history->size() };
        return sizes[kind];
    }

    CPUHistory cpu;
    ChannelHistory channels;
    CodecHistory codecs;
    StatsHistory stats;
    std::vector<std::unique_ptr<QSignalSpy>> updated;
    std::vector<std::unique_ptr<QSignalSpy>> status;
};

} // namespace

class TestHistories : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();
    void testVectors_data();
    void testVectors();
    void batches_data();
    void batches();
    void rejectedPackets_data();
    void rejectedPackets();
    void otherPacketsStayQueued();
    void channelSums_data();
    void channelSums();
    void maximumFollowsNewestPacket_data();
    void maximumFollowsNewestPacket();
    void statistics_data();
    void statistics();

private:
    // Returns once the network has queued a marker sent after `bytes`, so
    // everything before it has been handed out.
    bool sendThrough(const QByteArray& bytes);
    // The first batch is queued before the collectors exist, so it reaches
    // them in one packetReady() however the socket splits it.
    std::unique_ptr<Collectors> deliver(const Batches& batches);

    LoopbackTarget* target = nullptr;
    ProfilerNetwork* network = nullptr;
};

void TestHistories::init()
{
    target = new LoopbackTarget;
    network = new ProfilerNetwork;
    network->connectToHost(QStringLiteral("127.0.0.1"), target->port());
    QVERIFY(QTest::qWaitFor([this] { return network->isConnected(); }, 5000));
    QVERIFY(target->waitForClient());
}

void TestHistories::cleanup()
{
    delete network;
    // Let the target see the close first: its client socket must not
    // report the disconnect while the target is being destroyed.
    const bool closed = QTest::qWaitFor([this] { return !target->hasClient(); }, 1000);
    delete target;
    QVERIFY(closed);
}

bool TestHistories::sendThrough(const QByteArray& bytes)
{
    const int markers = network->getNumWaitingPackets(MarkerType, 0);
    target->send(bytes + PacketBuilder(MarkerType, 0, 0).finish());
    return QTest::qWaitFor([&] { return network->getNumWaitingPackets(MarkerType, 0) > markers; }, 5000);
}

std::unique_ptr<Collectors> TestHistories::deliver(const Batches& batches)
{
    std::unique_ptr<Collectors> collectors;
    for (const QByteArray& batch : batches) {
        if (!sendThrough(batch))
            return nullptr;
        if (!collectors) {
            collectors.reset(new Collectors(network));
            if (!sendThrough(QByteArray()))
                return nullptr;
        }
    }
    return collectors;
}

void TestHistories::testVectors_data()
{
    QTest::addColumn<int>("kind");
    QTest::newRow("cpu-v0") << int(Cpu);
    QTest::newRow("cpu-v1") << int(Cpu);
    QTest::newRow("channels-v0") << int(Channels);
    QTest::newRow("codecs-v0") << int(Codecs);
    QTest::newRow("stats-v0") << int(Stats);
}

void TestHistories::testVectors()
{
    QFETCH(int, kind);
    const QString name = QTest::currentDataTag();
    const QJsonObject expected = QJsonDocument::fromJson(readTestData(name + ".json")).object();

    const auto c = deliver({ readTestData(name + ".bin") });
    QVERIFY(c);
    for (int k = 0; k < KindCount; ++k)
        QCOMPARE(emitted(*c->updated[k]), k == kind ? QVariantList{ 1 } : QVariantList());
    const QJsonValue status = expected.value("status");
    QCOMPARE(emitted(*c->status[kind]), status.isString() ? QVariantList{ status.toString() } : QVariantList());

    QVariantMap got;
    if (kind == Cpu) {
        const CPUUsageSnapshot s = c->cpu.getHistoryList()->last();
        got = { { "dsp", bits(s.dsp) }, { "stream", bits(s.stream) }, { "geometry", bits(s.geometry) },
                { "update", bits(s.update) }, { "total", bits(s.total) } };
    } else if (kind == Channels) {
        const QList<int> values = channelFields(c->channels.getHistoryList()->last());
        const char* names[] = { "hardwareUsed", "hardwareCapacity", "softwareUsed", "softwareCapacity", "realUsed",
                                "realCapacity", "virtualUsed",  "virtualCapacity",  "playingUsed", "playingCapacity" };
        for (int i = 0; i < values.size(); ++i)
            got.insert(names[i], values[i]);
        QCOMPARE(c->channels.getMaximumValue(), expected.value("maximumValue").toInt());
    } else if (kind == Codecs) {
        const CodecUsageSnapshot s = c->codecs.getHistoryList()->last();
        got = { { "mpegUsed", s.mpegUsed }, { "mpegCapacity", s.mpegCapacity }, { "adpcmUsed", s.adpcmUsed },
                { "adpcmCapacity", s.adpcmCapacity }, { "xmaUsed", s.xmaUsed }, { "xmaCapacity", s.xmaCapacity },
                { "pcmUsed", s.pcmUsed }, { "pcmCapacity", s.pcmCapacity } };
        QCOMPARE(c->codecs.getMaximumValue(), expected.value("maximumValue").toInt());
    } else {
        const StatsSnapshot s = c->stats.history->last();
        got = { { "dsp", bits(s.dsp) }, { "stream", bits(s.stream) }, { "update", bits(s.update) },
                { "geometry", bits(s.geometry) }, { "total", bits(s.total) }, { "memory", bits(s.memory) },
                { "realChannels", s.realChannels }, { "virtualChannels", s.virtualChannels },
                { "playingChannels", s.playingChannels }, { "adpcm", s.adpcm }, { "tadpcm", s.tadpcm },
                { "mpeg", s.mpeg }, { "vorbis", s.vorbis }, { "xma", s.xma }, { "at9", s.at9 }, { "pcm", s.pcm } };
        QCOMPARE(int(c->stats.channelCapacity), expected.value("channelCapacity").toInt());
        QCOMPARE(int(c->stats.codecCapacity), expected.value("codecCapacity").toInt());
        QStringList gotValues, expectedValues;
        for (const StatsValues& v : c->stats.values)
            gotValues << bits(v.minimum) << bits(v.maximum) << bits(v.average) << bits(v.capacity);
        for (const QJsonValue& value : expected.value("values_after_first_batch").toArray()) {
            for (const char* field : { "minimum", "maximum", "average", "capacity" })
                expectedValues << jsonBits(value.toObject().value(field));
        }
        QCOMPARE(gotValues, expectedValues);
    }

    QVariantMap want;
    const QJsonObject snapshot = expected.value(kind == Cpu ? "snapshot_in_record_order" : "snapshot").toObject();
    for (auto it = snapshot.constBegin(); it != snapshot.constEnd(); ++it)
        want.insert(it.key(), it.value().isObject() ? QVariant(jsonBits(it.value())) : QVariant(it.value().toInt()));
    QCOMPARE(got, want);
}

void TestHistories::batches_data()
{
    QTest::addColumn<Batches>("batches");
    QTest::addColumn<QVariantList>("updates");
    QTest::addColumn<QList<float>>("dspInHistory");
    QTest::addColumn<QVariantList>("status");

    auto range = [](int first, int count, QByteArray* packets = nullptr) {
        QList<float> dsp;
        for (int i = first; i < first + count; ++i) {
            dsp << float(i);
            if (packets)
                packets->append(cpuPacket(float(i)));
        }
        return dsp;
    };
    QByteArray hundredFifty, hundred;
    range(0, 150, &hundredFifty);
    range(0, 100, &hundred);
    const QVariantList none;

    QTest::newRow("three waiting") << Batches{ cpuPacket(0) + cpuPacket(1) + cpuPacket(2) } << QVariantList{ 3 }
                                   << QList<float>{ 0, 1, 2 } << none;
    QTest::newRow("150 keep the newest 100") << Batches{ hundredFifty } << QVariantList{ 100 } << range(50, 100)
                                             << none;
    QTest::newRow("101st pushes the first out") << Batches{ hundred, cpuPacket(100) } << QVariantList{ 100, 1 }
                                                << range(1, 100) << none;
    QTest::newRow("incompatible between good") << Batches{ cpuPacket(0) + cpuPacket(1, 2) + cpuPacket(2) }
                                               << QVariantList{ 2 } << QList<float>{ 0, 2 }
                                               << QVariantList{ Incompatible };
    QTest::newRow("only incompatible") << Batches{ cpuPacket(0, 2) + cpuPacket(1, 255) } << none << QList<float>()
                                       << QVariantList{ Incompatible, Incompatible };
    QTest::newRow("old version, every packet") << Batches{ cpuPacket(0, 0) + cpuPacket(1, 0) } << QVariantList{ 2 }
                                               << QList<float>{ 0, 1 } << QVariantList{ OldVersion, OldVersion };
}

void TestHistories::batches()
{
    QFETCH(Batches, batches);
    QFETCH(QVariantList, updates);
    QFETCH(QList<float>, dspInHistory);
    QFETCH(QVariantList, status);

    const auto c = deliver(batches);
    QVERIFY(c);
    QCOMPARE(emitted(*c->updated[Cpu]), updates);
    QList<float> dsp;
    for (const CPUUsageSnapshot& snapshot : *c->cpu.getHistoryList())
        dsp << snapshot.dsp;
    QCOMPARE(dsp, dspInHistory);
    QCOMPARE(emitted(*c->status[Cpu]), status);
}

void TestHistories::rejectedPackets_data()
{
    QTest::addColumn<int>("kind");
    QTest::addColumn<QByteArray>("packet");
    QTest::addColumn<bool>("appended");
    QTest::addColumn<QString>("status");

    const QList<int> ints = { 1, 2, 3, 4, 5, 6, 7, 8 };
    const QByteArray cpu = cpuPacket(1, 1, 2, 3, 4);
    QTest::newRow("cpu 0 is old") << int(Cpu) << cpuPacket(1, 0) << true << OldVersion;
    QTest::newRow("cpu 2") << int(Cpu) << cpuPacket(1, 2) << false << Incompatible;
    QTest::newRow("channels 1") << int(Channels) << intsPacket(Channels, ints.mid(2), 1) << false << Incompatible;
    QTest::newRow("codecs 1") << int(Codecs) << intsPacket(Codecs, ints, 1) << false << Incompatible;
    QTest::newRow("stats 255") << int(Stats) << StatsFields().packet(255) << false << Incompatible;
    QTest::newRow("cpu header only") << int(Cpu) << cut(cpu, 12) << false << Truncated;
    QTest::newRow("cpu 1 with a version-0 payload") << int(Cpu) << cut(cpu, 24) << false << Truncated;
    QTest::newRow("cpu 0 one byte short") << int(Cpu) << cut(cpuPacket(1, 0), 23) << false << Truncated;
    QTest::newRow("cpu 1 with trailing bytes") << int(Cpu) << cut(cpu + "xyz", 31) << true << QString();
    QTest::newRow("channels one byte short") << int(Channels) << cut(intsPacket(Channels, ints.mid(2)), 35) << false
                                             << Truncated;
    QTest::newRow("codecs one byte short") << int(Codecs) << cut(intsPacket(Codecs, ints), 43) << false << Truncated;
    QTest::newRow("stats one byte short") << int(Stats) << cut(StatsFields().packet(), 71) << false << Truncated;
}

void TestHistories::rejectedPackets()
{
    QFETCH(int, kind);
    QFETCH(QByteArray, packet);
    QFETCH(bool, appended);
    QFETCH(QString, status);

    const auto c = deliver({ packet });
    QVERIFY(c);
    for (int k = 0; k < KindCount; ++k) {
        const bool mine = k == kind;
        QCOMPARE(c->historySize(k), mine && appended ? 1 : 0);
        QCOMPARE(emitted(*c->updated[k]), mine && appended ? QVariantList{ 1 } : QVariantList());
        QCOMPARE(emitted(*c->status[k]), mine && !status.isEmpty() ? QVariantList{ status } : QVariantList());
    }
    // A dropped packet leaves no capacities behind either.
    QCOMPARE(c->stats.values[StatsHistory::StatsDSP].capacity, 0.0f);
    QCOMPARE(c->channels.getMaximumValue(), 0);
}

void TestHistories::otherPacketsStayQueued()
{
    const QByteArray others = PacketBuilder(1, 0, 6).zeros(40).finish() + PacketBuilder(7, 0, 0).zeros(8).finish()
        + PacketBuilder(6, 0, 0).finish() + PacketBuilder(3, 1, 1).zeros(16).finish();
    const auto c = deliver({ others + cpuPacket(1) + intsPacket(Channels, { 1, 2, 3, 4, 5, 6 })
                             + intsPacket(Codecs, { 1, 2, 3, 4, 5, 6, 7, 8 }) + StatsFields().packet() });
    QVERIFY(c);
    for (int k = 0; k < KindCount; ++k)
        QCOMPARE(emitted(*c->updated[k]), QVariantList{ 1 });
    for (int type : { 1, 7, 6 })
        QCOMPARE(network->getNumWaitingPackets(quint8(type), 0), 1);
    QCOMPARE(network->getNumWaitingPackets(3, 1), 1);
}

void TestHistories::channelSums_data()
{
    QTest::addColumn<QList<int>>("payload");
    QTest::addColumn<QList<int>>("snapshot");

    const int max = std::numeric_limits<qint32>::max();
    const int min = std::numeric_limits<qint32>::min();
    QTest::newRow("wraps at 32 bits") << QList<int>{ max, min, 1, -1, 1, 7 }
                                      << QList<int>{ max, min, 1, -1, min, max, 1, 7, min + 1, 7 };
    QTest::newRow("negative") << QList<int>{ -3, 4, -5, 0, 2, -9 } << QList<int>{ -3, 4, -5, 0, -8, 4, 2, -9, -6, -9 };
}

void TestHistories::channelSums()
{
    QFETCH(QList<int>, payload);
    QFETCH(QList<int>, snapshot);

    const auto c = deliver({ intsPacket(Channels, payload) });
    QVERIFY(c);
    QCOMPARE(channelFields(c->channels.getHistoryList()->last()), snapshot);
}

void TestHistories::maximumFollowsNewestPacket_data()
{
    QTest::addColumn<Batches>("batches");
    QTest::addColumn<int>("kind");
    QTest::addColumn<QList<int>>("maxima");

    const QByteArray channels1024 = intsPacket(Channels, { 0, 0, 0, 0, 0, 1024 });
    const QByteArray channels512 = intsPacket(Channels, { 0, 9999, 0, 9999, 0, 512 });
    const QByteArray codecs64 = intsPacket(Codecs, { 99, 32, 99, 16, 99, 0, 99, 64 });
    QTest::newRow("channels go down") << Batches{ channels1024 + channels512 } << int(Channels) << QList<int>{ 512 };
    QTest::newRow("channels, rejected packet")
        << Batches{ channels1024, intsPacket(Channels, { 0, 0, 0, 0, 0, 4096 }, 1) } << int(Channels)
        << QList<int>{ 1024 };
    QTest::newRow("codecs go down") << Batches{ codecs64, intsPacket(Codecs, { 0, 8, 0, 8, 0, 8, 0, 8 }) }
                                    << int(Codecs) << QList<int>{ 8 };
    QTest::newRow("codecs all negative") << Batches{ codecs64 + intsPacket(Codecs, { 5, -2, 5, -3, 5, -4, 5, -5 }) }
                                         << int(Codecs) << QList<int>{ 0 };

    // Unlike CodecHistory's, this bound has no floor at 0.
    StatsFields smaller;
    for (int i = 0; i < 7; ++i)
        smaller.capacity[StatsFields::ADPCM + i] = qint16(-3 - i);
    smaller.capacity[StatsFields::Virtual] = 512;
    QTest::newRow("stats go down") << Batches{ readTestData("stats-v0.bin") + smaller.packet() } << int(Stats)
                                   << QList<int>{ 512, -3 };
}

void TestHistories::maximumFollowsNewestPacket()
{
    QFETCH(Batches, batches);
    QFETCH(int, kind);
    QFETCH(QList<int>, maxima);

    const auto c = deliver(batches);
    QVERIFY(c);
    if (kind == Channels)
        QCOMPARE(QList<int>{ c->channels.getMaximumValue() }, maxima);
    else if (kind == Codecs)
        QCOMPARE(QList<int>{ c->codecs.getMaximumValue() }, maxima);
    else
        QCOMPARE((QList<int>{ c->stats.channelCapacity, c->stats.codecCapacity }), maxima);
}

void TestHistories::statistics_data()
{
    QTest::addColumn<Batches>("batches");
    QTest::addColumn<int>("index");
    // minimum, maximum, average, capacity
    QTest::addColumn<QList<float>>("values");

    QByteArray hundred;
    for (int i = 0; i < 100; ++i)
        hundred += statsDsp(float(i));
    StatsFields order;
    order.dsp = 1e8f;
    order.stream = 1.0f;
    order.update = 2.0f;
    order.geometry = -1e8f;
    StatsFields wrap;
    wrap.used[StatsFields::Real] = -32768;
    wrap.used[StatsFields::Virtual] = -1;
    wrap.capacity[StatsFields::Real] = 96;
    wrap.capacity[StatsFields::Virtual] = 1024;
    StatsFields memory;
    memory.memory = 5500000;
    memory.memoryCapacity = -1000000;

    QTest::newRow("over the whole history") << Batches{ statsDsp(10), statsDsp(30) } << int(StatsHistory::StatsDSP)
                                            << QList<float>{ 10, 30, 20, 100 };
    QTest::newRow("trimmed snapshots leave") << Batches{ hundred, statsDsp(100) } << int(StatsHistory::StatsDSP)
                                             << QList<float>{ 1, 100, 50.5f, 100 };
    QTest::newRow("rejected batch changes nothing") << Batches{ statsDsp(10), statsDsp(99, 1) }
                                                    << int(StatsHistory::StatsDSP) << QList<float>{ 10, 10, 10, 100 };
    // A sum in double would give an average of 1/3.
    QTest::newRow("single-precision sum") << Batches{ statsDsp(1e8f) + statsDsp(1.0f) + statsDsp(-1e8f) }
                                          << int(StatsHistory::StatsDSP) << QList<float>{ -1e8f, 1e8f, 0, 100 };
    QTest::newRow("negative counts keep maximum 0")
        << Batches{ statsPair(StatsFields::AT9, -3, 4) + statsPair(StatsFields::AT9, -5, 6) }
        << int(StatsHistory::StatsAT9) << QList<float>{ -5, 0, -4, 6 };
    QTest::newRow("pools in wire order") << Batches{ statsPair(StatsFields::Vorbis, 7, 12) }
                                         << int(StatsHistory::StatsVorbis) << QList<float>{ 7, 7, 7, 12 };
    // CPUUsageSnapshot's order or the wire order would give 2 or 0.
    QTest::newRow("total adds geometry second") << Batches{ order.packet() } << int(StatsHistory::StatsTotal)
                                                << QList<float>{ 3, 3, 3, 100 };
    QTest::newRow("playing wraps, virtual capacity") << Batches{ wrap.packet() }
                                                     << int(StatsHistory::StatsPlayingChannels)
                                                     << QList<float>{ 32767, 32767, 32767, 1024 };
    QTest::newRow("memory in MB") << Batches{ memory.packet() } << int(StatsHistory::StatsMemory)
                                  << QList<float>{ 5.5f, 5.5f, 5.5f, -1 };
}

void TestHistories::statistics()
{
    QFETCH(Batches, batches);
    QFETCH(int, index);
    QFETCH(QList<float>, values);

    const auto c = deliver(batches);
    QVERIFY(c);
    const StatsValues& got = c->stats.values[index];
    QCOMPARE((QStringList{ bits(got.minimum), bits(got.maximum), bits(got.average), bits(got.capacity) }),
             (QStringList{ bits(values[0]), bits(values[1]), bits(values[2]), bits(values[3]) }));
}

QTEST_GUILESS_MAIN(TestHistories)

#include "tst_histories.moc"
