#include "channelhistory.h"
#include "codechistory.h"
#include "cpuhistory.h"
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
// What the snapshots test reads besides a statistics record (index >= 0).
enum Probe { ChannelFields = -1, ChannelMax = -2, CodecMax = -3, StatsMax = -4 };

const QString OldVersion = QStringLiteral("Connected. (Old version detected, reduced functionality)");
const QString Incompatible = QStringLiteral("Connected. (Incompatible version detected, reduced functionality)");
const QString Truncated = QStringLiteral("Connected. (Truncated packet dropped)");

using Batches = QList<QByteArray>;

// Floats compare as their bits, written as in the test vectors.
QString bits(float value)
{
    quint32 raw;
    std::memcpy(&raw, &value, sizeof raw);
    return QStringLiteral("0x%1").arg(raw, 8, 16, QLatin1Char('0'));
}

QJsonObject json(float value)
{
    return { { "value", double(value) }, { "bits", bits(value) } };
}

QStringList floats(const QList<float>& values)
{
    QStringList list;
    for (float value : values)
        list << bits(value);
    return list;
}

QStringList ints(const QList<int>& values)
{
    QStringList list;
    for (int value : values)
        list << QString::number(value);
    return list;
}

QByteArray cpuPacket(float dsp, quint8 version = 1)
{
    PacketBuilder packet(KindType[Cpu], 0, version);
    packet.f32(dsp).f32(2).f32(3);
    return (version != 0 ? packet.f32(4) : packet).finish();
}

QByteArray intsPacket(Kind kind, const QList<int>& values, quint8 version = 0)
{
    PacketBuilder packet(KindType[kind], 0, version);
    for (int value : values)
        packet.i32(value);
    return packet.finish();
}

// CPU shares, (in use, capacity) pairs for real, virtual and the seven codec
// pools (ADPCM, TADPCM, MPEG, Vorbis, XMA, AT9, PCM), then memory.
QByteArray statsPacket(const QList<float>& cpu = {}, const QList<int>& pairs = {}, qint32 memory = 0,
                       qint32 memoryCapacity = 0, quint8 version = 0)
{
    PacketBuilder packet(KindType[Stats], 0, version);
    for (int i = 0; i < 4; ++i)
        packet.f32(cpu.value(i));
    for (int i = 0; i < 18; ++i)
        packet.i16(qint16(pairs.value(i)));
    return packet.i32(memory).i32(memoryCapacity).finish();
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

// All four collectors on one network, in the application's order. Each
// batch reaches the network as one read from the socket would.
struct Collectors
{
    explicit Collectors(const Batches& batches)
    {
        for (HistoryCollector* collector : std::initializer_list<HistoryCollector*>{ &cpu, &channels, &codecs, &stats }) {
            updated.emplace_back(new QSignalSpy(collector, &HistoryCollector::historyUpdated));
            status.emplace_back(new QSignalSpy(collector, &HistoryCollector::statusChanged));
        }
        for (const QByteArray& batch : batches)
            network.receiveBytes(batch);
    }

    ProfilerNetwork network;
    CPUHistory cpu{ &network };
    ChannelHistory channels{ &network };
    CodecHistory codecs{ &network };
    StatsHistory stats{ &network };
    std::vector<std::unique_ptr<QSignalSpy>> updated;
    std::vector<std::unique_ptr<QSignalSpy>> status;
};

} // namespace

class TestHistories : public QObject
{
    Q_OBJECT

private slots:
    void testVectors_data();
    void testVectors();
    void delivery_data();
    void delivery();
    void snapshots_data();
    void snapshots();
};

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
    QJsonObject expected = QJsonDocument::fromJson(readTestData(name + ".json")).object();
    Collectors c({ readTestData(name + ".bin") });
    for (int k = 0; k < KindCount; ++k)
        QCOMPARE(emitted(*c.updated[k]), k == kind ? QVariantList{ 1 } : QVariantList());
    const QJsonValue status = expected.value("status");
    QCOMPARE(emitted(*c.status[kind]), status.isString() ? QVariantList{ status.toString() } : QVariantList());

    // Everything the vector holds besides the packet and the status.
    QJsonObject got;
    if (kind == Cpu) {
        const CPUUsageSnapshot s = c.cpu.getHistoryList()->last();
        got["snapshot_in_record_order"] = QJsonObject{ { "dsp", json(s.dsp) }, { "stream", json(s.stream) },
            { "geometry", json(s.geometry) }, { "update", json(s.update) }, { "total", json(s.total) } };
    } else if (kind == Channels) {
        const ChannelUsageSnapshot s = c.channels.getHistoryList()->last();
        got["snapshot"] = QJsonObject{ { "hardwareUsed", s.hardwareUsed }, { "hardwareCapacity", s.hardwareCapacity },
            { "softwareUsed", s.softwareUsed }, { "softwareCapacity", s.softwareCapacity },
            { "realUsed", s.realUsed }, { "realCapacity", s.realCapacity }, { "virtualUsed", s.virtualUsed },
            { "virtualCapacity", s.virtualCapacity }, { "playingUsed", s.playingUsed },
            { "playingCapacity", s.playingCapacity } };
        got["maximumValue"] = c.channels.getMaximumValue();
    } else if (kind == Codecs) {
        const CodecUsageSnapshot s = c.codecs.getHistoryList()->last();
        got["snapshot"] = QJsonObject{ { "mpegUsed", s.mpegUsed }, { "mpegCapacity", s.mpegCapacity },
            { "adpcmUsed", s.adpcmUsed }, { "adpcmCapacity", s.adpcmCapacity }, { "xmaUsed", s.xmaUsed },
            { "xmaCapacity", s.xmaCapacity }, { "pcmUsed", s.pcmUsed }, { "pcmCapacity", s.pcmCapacity } };
        got["maximumValue"] = c.codecs.getMaximumValue();
    } else {
        const StatsSnapshot s = c.stats.history->last();
        got["snapshot"] = QJsonObject{ { "dsp", json(s.dsp) }, { "stream", json(s.stream) },
            { "update", json(s.update) }, { "geometry", json(s.geometry) }, { "total", json(s.total) },
            { "memory", json(s.memory) },
            { "realChannels", s.realChannels }, { "virtualChannels", s.virtualChannels },
            { "playingChannels", s.playingChannels }, { "adpcm", s.adpcm }, { "tadpcm", s.tadpcm }, { "mpeg", s.mpeg },
            { "vorbis", s.vorbis }, { "xma", s.xma }, { "at9", s.at9 }, { "pcm", s.pcm } };
        QJsonArray values;
        for (const StatsValues& v : c.stats.values)
            values.append(QJsonObject{ { "minimum", json(v.minimum) }, { "maximum", json(v.maximum) },
                                       { "average", json(v.average) }, { "capacity", json(v.capacity) } });
        got["values_after_first_batch"] = values;
        got["channelCapacity"] = c.stats.channelCapacity;
        got["codecCapacity"] = c.stats.codecCapacity;
    }
    expected.remove("packet");
    expected.remove("status");
    QCOMPARE(QString(QJsonDocument(got).toJson()).split('\n'), QString(QJsonDocument(expected).toJson()).split('\n'));
}

// Per batch list: the kind it is for, historyUpdated() counts, statuses and,
// for CPU, the dsp values left in the history.
void TestHistories::delivery_data()
{
    QTest::addColumn<Batches>("batches");
    QTest::addColumn<int>("kind");
    QTest::addColumn<QVariantList>("updates");
    QTest::addColumn<QVariantList>("status");
    QTest::addColumn<QList<float>>("dspInHistory");

    QByteArray packets;
    QList<float> dsp;
    for (int i = 0; i < 150; ++i) {
        packets += cpuPacket(float(i));
        dsp << float(i);
    }
    const int size = cpuPacket(0).size();
    const QVariantList none, one{ 1 };
    const QByteArray cpu = cpuPacket(1), channels = intsPacket(Channels, { 1, 2, 3, 4, 5, 6 });
    const QByteArray codecs = intsPacket(Codecs, { 1, 2, 3, 4, 5, 6, 7, 8 });
    auto row = [](const char* name, const Batches& batches, Kind kind, const QVariantList& updates,
                  const QVariantList& status, const QList<float>& dsp = {}) {
        QTest::newRow(name) << batches << int(kind) << updates << status << dsp;
    };
    row("150 keep the newest 100", { packets }, Cpu, { 100 }, none, dsp.mid(50));
    row("101st pushes the first out", { packets.left(100 * size), cpuPacket(100) }, Cpu, { 100, 1 }, none,
        dsp.mid(1, 100));
    row("only incompatible", { cpuPacket(0, 2) + cpuPacket(1, 255) }, Cpu, none, { Incompatible, Incompatible });
    row("cpu 0, every packet", { cpuPacket(0, 0) + cpuPacket(1, 0) }, Cpu, { 2 }, { OldVersion, OldVersion },
        dsp.mid(0, 2));
    row("channels 1", { intsPacket(Channels, { 1, 2, 3, 4, 5, 6 }, 1) }, Channels, none, { Incompatible });
    row("codecs 1", { intsPacket(Codecs, { 1, 2, 3, 4, 5, 6, 7, 8 }, 1) }, Codecs, none, { Incompatible });
    row("stats 255", { statsPacket({ 99 }, {}, 0, 0, 255) }, Stats, none, { Incompatible });
    row("cpu 1 with a version-0 payload", { cut(cpu, 24) }, Cpu, none, { Truncated });
    row("cpu 0 one byte short", { cut(cpuPacket(1, 0), 23) }, Cpu, none, { Truncated });
    row("cpu 1 with trailing bytes", { cut(cpu + "xyz", 31) }, Cpu, one, none, { 1 });
    row("channels one byte short", { cut(channels, 35) }, Channels, none, { Truncated });
    row("codecs one byte short", { cut(codecs, 43) }, Codecs, none, { Truncated });
    row("stats one byte short", { cut(statsPacket(), 71) }, Stats, none, { Truncated });
}

void TestHistories::delivery()
{
    QFETCH(Batches, batches);
    QFETCH(int, kind);
    QFETCH(QVariantList, updates);
    QFETCH(QVariantList, status);
    QFETCH(QList<float>, dspInHistory);

    // Packets no collector takes go first and must stay queued.
    batches.first().prepend(PacketBuilder(1, 0, 6).zeros(40).finish() + PacketBuilder(7, 0, 0).zeros(8).finish()
                            + PacketBuilder(6, 0, 0).finish() + PacketBuilder(3, 1, 1).zeros(16).finish());
    Collectors c(batches);
    for (int k = 0; k < KindCount; ++k) {
        QCOMPARE(emitted(*c.updated[k]), k == kind ? updates : QVariantList());
        QCOMPARE(emitted(*c.status[k]), k == kind ? status : QVariantList());
    }
    // Only CPU rows append anything.
    QCOMPARE(c.channels.getHistoryList()->size() + c.codecs.getHistoryList()->size() + c.stats.history->size(), 0);
    for (int type : { 1, 7, 6 })
        QCOMPARE(c.network.getNumWaitingPackets(quint8(type), 0), 1);
    QCOMPARE(c.network.getNumWaitingPackets(3, 1), 1);
    QList<float> dsp;
    for (const CPUUsageSnapshot& snapshot : *c.cpu.getHistoryList())
        dsp << snapshot.dsp;
    QCOMPARE(dsp, dspInHistory);
    if (updates.isEmpty()) { // a dropped packet leaves no capacities behind either
        QCOMPARE(c.stats.values[StatsHistory::StatsDSP].capacity, 0.0f);
        QCOMPARE(c.channels.getMaximumValue(), 0);
    }
}

void TestHistories::snapshots_data()
{
    QTest::addColumn<Batches>("batches");
    QTest::addColumn<int>("probe");
    QTest::addColumn<QStringList>("expected"); // statistics: minimum, maximum, average, capacity

    const int max = std::numeric_limits<qint32>::max(), min = std::numeric_limits<qint32>::min();
    const QByteArray codecs64 = intsPacket(Codecs, { 99, 32, 99, 16, 99, 0, 99, 64 });
    QByteArray hundred;
    for (int i = 0; i < 100; ++i)
        hundred += statsPacket({ float(i) });
    const QList<int> at9 = { 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, -3, 4 };
    auto row = [](const char* name, const Batches& batches, int probe, const QStringList& expected) {
        QTest::newRow(name) << batches << probe << expected;
    };
    row("channels wrap at 32 bits", { intsPacket(Channels, { max, min, 1, -1, 1, 7 }) }, ChannelFields,
        ints({ max, min, 1, -1, min, max, 1, 7, min + 1, 7 }));
    row("channel maximum goes down",
        { intsPacket(Channels, { 0, 0, 0, 0, 0, 1024 }) + intsPacket(Channels, { 0, 9999, 0, 9999, 0, 512 }) },
        ChannelMax, ints({ 512 }));
    row("codec maximum goes down", { codecs64, intsPacket(Codecs, { 0, 8, 0, 8, 0, 8, 0, 8 }) }, CodecMax,
        ints({ 8 }));
    row("codecs all negative", { codecs64 + intsPacket(Codecs, { 5, -2, 5, -3, 5, -4, 5, -5 }) }, CodecMax,
        ints({ 0 }));
    // Unlike CodecHistory's, this bound has no floor at 0.
    row("stats maxima go down",
        { readTestData("stats-v0.bin") + statsPacket({}, { 0, 0, 0, 512, 0, -3, 0, -4, 0, -5, 0, -6, 0, -7, 0, -8, 0, -9 }) },
        StatsMax, ints({ 512, -3 }));
    row("trimmed snapshots leave", { hundred, statsPacket({ 100 }) }, StatsHistory::StatsDSP,
        floats({ 1, 100, 50.5f, 100 }));
    // A sum in double would give an average of 1/3.
    row("single-precision sum", { statsPacket({ 1e8f }) + statsPacket({ 1 }) + statsPacket({ -1e8f }) },
        StatsHistory::StatsDSP, floats({ -1e8f, 1e8f, 0, 100 }));
    row("negative counts keep maximum 0", { statsPacket({}, at9) + statsPacket({}, at9.mid(0, 14) << -5 << 6) },
        StatsHistory::StatsAT9, floats({ -5, 0, -4, 6 }));
    // CPUUsageSnapshot's order or the wire order would give 2 or 0.
    row("total adds geometry second", { statsPacket({ 1e8f, 1, 2, -1e8f }) }, StatsHistory::StatsTotal,
        floats({ 3, 3, 3, 100 }));
    row("playing wraps, virtual capacity", { statsPacket({}, { -32768, 96, -1, 1024 }) },
        StatsHistory::StatsPlayingChannels, floats({ 32767, 32767, 32767, 1024 }));
    row("memory in MB", { statsPacket({}, {}, 5500000, -1000000) }, StatsHistory::StatsMemory,
        floats({ 5.5f, 5.5f, 5.5f, -1 }));
}

void TestHistories::snapshots()
{
    QFETCH(Batches, batches);
    QFETCH(int, probe);
    QFETCH(QStringList, expected);

    Collectors c(batches);
    const StatsValues& v = c.stats.values[qMax(probe, 0)];
    const QStringList got = probe == ChannelFields ? ints(channelFields(c.channels.getHistoryList()->last()))
        : probe == ChannelMax                      ? ints({ c.channels.getMaximumValue() })
        : probe == CodecMax                        ? ints({ c.codecs.getMaximumValue() })
        : probe == StatsMax ? ints({ c.stats.channelCapacity, c.stats.codecCapacity })
                            : floats({ v.minimum, v.maximum, v.average, v.capacity });
    QCOMPARE(got, expected);
}

QTEST_GUILESS_MAIN(TestHistories)

#include "tst_histories.moc"
