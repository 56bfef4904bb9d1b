#include "channelhistory.h"
#include "codechistory.h"
#include "cpuhistory.h"
#include "packetbuilder.h"
#include "profilernetwork.h"
#include "statshistory.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRandomGenerator>
#include <QSignalSpy>
#include <QTest>

#include <algorithm>
#include <cmath>
#include <memory>

namespace
{

enum Kind { Cpu, Channels, Codecs, Stats, KindCount };
const quint8 KindType[KindCount] = { 3, 4, 5, 9 };
const char* const KindName[KindCount] = { "cpu", "channels", "codecs", "stats" };

const QString OldVersion = QStringLiteral("Connected. (Old version detected, reduced functionality)");
const QString Incompatible = QStringLiteral("Connected. (Incompatible version detected, reduced functionality)");
const QString Truncated = QStringLiteral("Connected. (Truncated packet dropped)");

using Batches = QList<QByteArray>;

// Floats compare as their bits, written as in the test vectors.
QJsonObject json(float value)
{
    const QString bits = QStringLiteral("0x%1").arg(qFromUnaligned<quint32>(&value), 8, 16, QLatin1Char('0'));
    return { { "value", double(value) }, { "bits", bits } };
}

// The first argument of every emission.
QVariantList emitted(const QSignalSpy& spy)
{
    QVariantList arguments;
    for (const QList<QVariant>& emission : spy)
        arguments << emission.at(0);
    return arguments;
}

QJsonObject toJson(const CPUUsageSnapshot& s)
{
    return { { "dsp", json(s.dsp) }, { "stream", json(s.stream) }, { "geometry", json(s.geometry) },
             { "update", json(s.update) }, { "total", json(s.total) } };
}

QJsonObject toJson(const ChannelUsageSnapshot& s)
{
    return { { "hardwareUsed", s.hardwareUsed }, { "hardwareCapacity", s.hardwareCapacity },
             { "softwareUsed", s.softwareUsed }, { "softwareCapacity", s.softwareCapacity },
             { "realUsed", s.realUsed }, { "realCapacity", s.realCapacity }, { "virtualUsed", s.virtualUsed },
             { "virtualCapacity", s.virtualCapacity }, { "playingUsed", s.playingUsed },
             { "playingCapacity", s.playingCapacity } };
}

QJsonObject toJson(const CodecUsageSnapshot& s)
{
    return { { "mpegUsed", s.mpegUsed }, { "mpegCapacity", s.mpegCapacity }, { "adpcmUsed", s.adpcmUsed },
             { "adpcmCapacity", s.adpcmCapacity }, { "xmaUsed", s.xmaUsed }, { "xmaCapacity", s.xmaCapacity },
             { "pcmUsed", s.pcmUsed }, { "pcmCapacity", s.pcmCapacity } };
}

QJsonObject toJson(const StatsSnapshot& s)
{
    return { { "dsp", json(s.dsp) }, { "stream", json(s.stream) }, { "update", json(s.update) },
             { "geometry", json(s.geometry) }, { "total", json(s.total) }, { "memory", json(s.memory) },
             { "realChannels", s.realChannels }, { "virtualChannels", s.virtualChannels },
             { "playingChannels", s.playingChannels }, { "adpcm", s.adpcm }, { "tadpcm", s.tadpcm },
             { "mpeg", s.mpeg }, { "vorbis", s.vorbis }, { "xma", s.xma }, { "at9", s.at9 }, { "pcm", s.pcm } };
}

QJsonArray toJson(const StatsValues (&values)[StatsHistory::StatsValueCount])
{
    QJsonArray array;
    for (const StatsValues& v : values)
        array.append(QJsonObject{ { "minimum", json(v.minimum) }, { "maximum", json(v.maximum) },
                                  { "average", json(v.average) }, { "capacity", json(v.capacity) } });
    return array;
}

// All four collectors on one network, in the application's order; each batch is one socket read.
struct Collectors
{
    explicit Collectors(const Batches& batches = {})
    {
        for (HistoryCollector* collector : QList<HistoryCollector*>{ &cpu, &channels, &codecs, &stats }) {
            updated.emplace_back(new QSignalSpy(collector, &HistoryCollector::historyUpdated));
            status.emplace_back(new QSignalSpy(collector, &HistoryCollector::statusChanged));
        }
        for (const QByteArray& batch : batches)
            network.receiveBytes(batch);
    }

    // The newest snapshot and what is derived over the history, named as in the test vectors.
    QJsonObject collected(int kind) const
    {
        if (kind == Cpu)
            return { { "snapshot_in_record_order", toJson(cpu.getHistoryList()->last()) } };
        if (kind == Channels)
            return { { "snapshot", toJson(channels.getHistoryList()->last()) },
                     { "maximumValue", channels.getMaximumValue() } };
        if (kind == Codecs)
            return { { "snapshot", toJson(codecs.getHistoryList()->last()) },
                     { "maximumValue", codecs.getMaximumValue() } };
        return { { "snapshot", toJson(stats.history->last()) }, { "values_after_first_batch", toJson(stats.values) },
                 { "channelCapacity", stats.channelCapacity }, { "codecCapacity", stats.codecCapacity } };
    }

    ProfilerNetwork network;
    CPUHistory cpu{ &network };
    ChannelHistory channels{ &network };
    CodecHistory codecs{ &network };
    StatsHistory stats{ &network };
    std::vector<std::unique_ptr<QSignalSpy>> updated;
    std::vector<std::unique_ptr<QSignalSpy>> status;
};

void compareJson(const QJsonObject& got, const QJsonObject& expected)
{
    QCOMPARE(QString(QJsonDocument(got).toJson()).split('\n'), QString(QJsonDocument(expected).toJson()).split('\n'));
}

// Two's-complement sums the plain way: the conversion back wraps on every compiler used here.
qint32 wrap32(qint32 a, qint32 b)
{
    return qint32(quint32(a) + quint32(b));
}

// Random fields of each packet and what a correct collector derives from
// them, written from the wire layout rather than from the decoders.
struct Model
{
    // Mixed signs and magnitudes: a wrong sign or order of additions shows in the result's bits.
    float real()
    {
        return float((random.generateDouble() * 2 - 1) * std::pow(10.0, random.bounded(-2, 9)));
    }

    // Full-range counts wrap when added; small ones do not. Negative ones
    // are common enough that every capacity is sometimes below 0.
    qint32 count()
    {
        const int pick = random.bounded(3);
        return pick == 0 ? qint32(random.generate()) : pick == 1 ? random.bounded(2000) : -random.bounded(1, 50);
    }

    QJsonObject cpu(PacketBuilder& packet, int version)
    {
        const float dsp = real(), stream = real(), update = real(), geometry = version ? real() : 0.0f;
        packet.f32(dsp).f32(stream).f32(update);
        if (version)
            packet.f32(geometry);
        const CPUUsageSnapshot s{ dsp, stream, geometry, update, ((dsp + stream) + geometry) + update };
        return { { "snapshot_in_record_order", toJson(s) } };
    }

    // Wire: hardware, software and virtual (used, capacity) pairs.
    QJsonObject channels(PacketBuilder& packet)
    {
        qint32 in[6];
        for (qint32& field : in)
            packet.i32(field = count());
        const qint32 realUsed = wrap32(in[0], in[2]);
        const ChannelUsageSnapshot s{ in[0], in[1], in[2], in[3], realUsed, wrap32(in[1], in[3]), in[4], in[5],
                                      wrap32(realUsed, in[4]), in[5] };
        return { { "snapshot", toJson(s) }, { "maximumValue", in[5] } };
    }

    QJsonObject codecs(PacketBuilder& packet)
    {
        qint32 in[8];
        for (qint32& field : in)
            packet.i32(field = count());
        const CodecUsageSnapshot s{ in[0], in[1], in[2], in[3], in[4], in[5], in[6], in[7] };
        return { { "snapshot", toJson(s) }, { "maximumValue", std::max({ 0, in[1], in[3], in[5], in[7] }) } };
    }

    // Wire: dsp, stream, update, geometry; (used, capacity) for real,
    // virtual and seven codecs; memory and its capacity in bytes.
    QJsonObject stats(PacketBuilder& packet)
    {
        const float dsp = real(), stream = real(), update = real(), geometry = real();
        packet.f32(dsp).f32(stream).f32(update).f32(geometry);
        qint16 used[9], capacity[9];
        for (int i = 0; i < 9; ++i)
            packet.i16(used[i] = qint16(count())).i16(capacity[i] = qint16(count()));
        const qint32 memory = count(), memoryCapacity = count();
        packet.i32(memory).i32(memoryCapacity);

        const StatsSnapshot s{ dsp, stream, update, geometry, ((dsp + geometry) + stream) + update, used[0], used[1],
            qint16(quint16(used[0]) + quint16(used[1])), used[2], used[3], used[4], used[5], used[6], used[7],
            used[8], float(memory) / 1e6f };
        const QVector<float> row = { s.dsp, s.stream, s.update, s.geometry, s.total, float(s.realChannels),
            float(s.virtualChannels), float(s.playingChannels), float(s.adpcm), float(s.tadpcm), float(s.mpeg),
            float(s.vorbis), float(s.xma), float(s.at9), float(s.pcm), s.memory };
        stored << row;
        if (stored.size() > 100)
            stored.removeFirst();
        QVector<float> capacities(5, 100.0f);
        for (int i : { 0, 1, 1, 2, 3, 4, 5, 6, 7, 8 }) // playing channels: bounded by the virtual pool
            capacities << float(capacity[i]);
        capacities << float(memoryCapacity) / 1e6f;
        StatsValues values[StatsHistory::StatsValueCount];
        for (int v = 0; v < row.size(); ++v) {
            values[v] = { stored.first()[v], 0, 0, capacities[v] };
            for (const QVector<float>& old : qAsConst(stored)) {
                values[v].minimum = std::min(values[v].minimum, old[v]);
                values[v].maximum = std::max(values[v].maximum, old[v]);
                values[v].average += old[v];
            }
            values[v].average /= float(stored.size());
        }
        return { { "snapshot", toJson(s) }, { "values_after_first_batch", toJson(values) },
                 { "channelCapacity", capacity[1] },
                 { "codecCapacity", *std::max_element(capacity + 2, capacity + 9) } };
    }

    QRandomGenerator random;
    QList<QVector<float>> stored; // the stats history, as plotted values
};

} // namespace

class TestHistories : public QObject
{
    Q_OBJECT

private slots:
    void figures_data();
    void figures();
    void delivery_data();
    void delivery();
};

// The test vectors are named as the rows: kind, then layout version.
void TestHistories::figures_data()
{
    QTest::addColumn<int>("kind");
    QTest::addColumn<int>("version");
    for (int kind = Cpu; kind < KindCount; ++kind) {
        for (int version = 0; version <= (kind == Cpu ? 1 : 0); ++version)
            QTest::addRow("%s-v%d", KindName[kind], version) << kind << version;
    }
}

// Every derived figure (CPU total, channel sums, codec maximum, statistics sums and bounds)
// against the model, packet after packet, past the 100-snapshot limit; then the test vector.
void TestHistories::figures()
{
    QFETCH(int, kind);
    QFETCH(int, version);
    Model model{ QRandomGenerator(quint32(2024 + kind)), {} };
    Collectors m;
    for (int i = 0; i < 130; ++i) {
        PacketBuilder packet(KindType[kind], 0, quint8(version));
        const QJsonObject expected = kind == Cpu ? model.cpu(packet, version)
            : kind == Channels                   ? model.channels(packet)
            : kind == Codecs                     ? model.codecs(packet)
                                                 : model.stats(packet);
        m.network.receiveBytes(packet.finish());
        compareJson(m.collected(kind), expected);
        QVERIFY2(!QTest::currentTestFailed(), qPrintable(QStringLiteral("packet %1").arg(i)));
    }

    const QString name = QTest::currentDataTag();
    QJsonObject expected = QJsonDocument::fromJson(readTestData(name + ".json")).object();
    Collectors c({ readTestData(name + ".bin") });
    for (int k = 0; k < KindCount; ++k)
        QCOMPARE(emitted(*c.updated[k]), k == kind ? QVariantList{ 1 } : QVariantList());
    const QJsonValue status = expected.value("status");
    QCOMPARE(emitted(*c.status[kind]), status.isString() ? QVariantList{ status.toString() } : QVariantList());
    expected.remove("packet");
    expected.remove("status");
    compareJson(c.collected(kind), expected);
}

// Per batch list: the kind it is for, historyUpdated() counts and statuses.
// What the history keeps past 100 snapshots is figures()' business.
void TestHistories::delivery_data()
{
    QTest::addColumn<Batches>("batches");
    QTest::addColumn<int>("kind");
    QTest::addColumn<QVariantList>("updates");
    QTest::addColumn<QVariantList>("status");

    QByteArray packets;
    for (int i = 0; i < 150; ++i)
        packets += cpuPacket(float(i));
    const int size = cpuPacket(0).size();
    const QVariantList none, one{ 1 };
    const QByteArray cpu = cpuPacket(1), channels = intsPacket(KindType[Channels], 6);
    const QByteArray codecs = intsPacket(KindType[Codecs], 8);
    const QByteArray stats = PacketBuilder(KindType[Stats], 0, 0).zeros(60).finish();
    auto row = [](const char* name, const Batches& batches, Kind kind, const QVariantList& updates,
                  const QVariantList& status) {
        QTest::newRow(name) << batches << int(kind) << updates << status;
    };
    row("150 keep the newest 100", { packets }, Cpu, { 100 }, none);
    row("101st pushes the first out", { packets.left(100 * size), cpuPacket(100) }, Cpu, { 100, 1 }, none);
    row("only incompatible", { cpuPacket(0, 2) + cpuPacket(1, 255) }, Cpu, none, { Incompatible, Incompatible });
    row("cpu 0, every packet", { cpuPacket(0, 0) + cpuPacket(1, 0) }, Cpu, { 2 }, { OldVersion, OldVersion });
    row("channels 1", { intsPacket(KindType[Channels], 6, 1, 1) }, Channels, none, { Incompatible });
    row("codecs 1", { intsPacket(KindType[Codecs], 8, 1, 1) }, Codecs, none, { Incompatible });
    row("stats 255", { PacketBuilder(KindType[Stats], 0, 255).zeros(60).finish() }, Stats, none, { Incompatible });
    row("cpu 1 with a version-0 payload", { cutPacket(cpu, 24) }, Cpu, none, { Truncated });
    row("cpu 0 one byte short", { cutPacket(cpuPacket(1, 0), 23) }, Cpu, none, { Truncated });
    row("cpu 1 with trailing bytes", { cutPacket(cpu + "xyz", 31) }, Cpu, one, none);
    row("channels one byte short", { cutPacket(channels, 35) }, Channels, none, { Truncated });
    row("codecs one byte short", { cutPacket(codecs, 43) }, Codecs, none, { Truncated });
    row("stats one byte short", { cutPacket(stats, 71) }, Stats, none, { Truncated });
}

void TestHistories::delivery()
{
    QFETCH(Batches, batches);
    QFETCH(int, kind);
    QFETCH(QVariantList, updates);
    QFETCH(QVariantList, status);

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
    for (int type : { 1, 7, 6, 3 }) // the CPU packet among them has subtype 1
        QCOMPARE(c.network.getNumWaitingPackets(quint8(type), type == 3), 1);
    if (updates.isEmpty()) { // a dropped packet leaves no capacities behind either
        QCOMPARE(c.stats.values[StatsHistory::StatsDSP].capacity, 0.0f);
        QCOMPARE(c.channels.getMaximumValue(), 0);
    }
}

QTEST_GUILESS_MAIN(TestHistories)

#include "tst_histories.moc"
