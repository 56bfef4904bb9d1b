#include "cpuhistory.h"
#include "dspnetgraph.h"
#include "dspshapes.h"
#include "packetbuilder.h"
#include "profilerchain.h"
#include "profilernetwork.h"

#include <QImage>
#include <QPainter>
#include <QRandomGenerator>
#include <QSignalSpy>
#include <QTest>

namespace
{

// The packet queue as it was before it was indexed by type: one list in
// arrival order, scanned from the front on every count and every take. The
// indexed queue must answer every question exactly as this does.
class ScanningQueue
{
public:
    // Frames like the network, returns whether packetReady() would follow.
    bool receive(const QByteArray& bytes, bool paused)
    {
        received += bytes;
        while (received.size() >= 12) {
            const int size = int(qFromLittleEndian<quint32>(received.constData()));
            if (received.size() < size)
                break;
            append(received.left(size));
            received.remove(0, size);
        }
        if (packets.isEmpty())
            return false;
        if (paused) {
            packets.clear();
            waitingBytes = 0;
            return false;
        }
        return true;
    }

    int count(quint8 type, quint8 subtype) const
    {
        int matching = 0;
        for (const QByteArray& packet : packets) {
            if (matches(packet, type, subtype))
                ++matching;
        }
        return matching;
    }

    QByteArray take(quint8 type, quint8 subtype)
    {
        for (int i = 0; i < packets.size(); ++i) {
            if (matches(packets.at(i), type, subtype)) {
                waitingBytes -= packets.at(i).size();
                return packets.takeAt(i);
            }
        }
        return QByteArray();
    }

private:
    static bool matches(const QByteArray& packet, quint8 type, quint8 subtype)
    {
        return quint8(packet.at(8)) == type && quint8(packet.at(9)) == subtype;
    }

    void append(const QByteArray& packet)
    {
        packets.append(packet);
        waitingBytes += packet.size();
        while (packets.size() > ProfilerNetwork::MaxWaitingPackets
               || waitingBytes > ProfilerNetwork::MaxWaitingBytes) {
            waitingBytes -= packets.first().size();
            packets.removeFirst();
        }
    }

    QList<QByteArray> packets;
    QByteArray received;
    qint64 waitingBytes = 0;
};

struct PacketKind
{
    quint8 type;
    quint8 subtype;
};

// The streams the collectors take, commands echoed back, and types nobody
// takes, which stay queued in front of everything else. CPU data (3, 0) is
// last: only randomPacket's numbered packets have it.
const PacketKind Kinds[] = {
    { 1, 0 }, { 4, 0 }, { 5, 0 }, { 7, 0 }, { 9, 0 }, { 1, 1 }, { 3, 2 }, { 2, 0 }, { 6, 0 }, { 8, 0 }, { 3, 0 },
};
const int NumKinds = int(sizeof Kinds / sizeof Kinds[0]);
const int NumRandomKinds = NumKinds - 1;

// A CPU packet's first field is a running number, so the history shows
// exactly which packets were taken and in what order.
QByteArray randomPacket(QRandomGenerator& random, int cpuShare, float* serial)
{
    if (int(random.bounded(100)) < cpuShare) {
        *serial += 1.0f;
        return PacketBuilder(3, 0, 1).f32(*serial).f32(0).f32(0).f32(0).f32(0).finish();
    }
    const PacketKind kind = Kinds[random.bounded(NumRandomKinds)];
    PacketBuilder builder(kind.type, kind.subtype, 0);
    const int payload = int(random.bounded(40));
    for (int i = 0; i < payload; ++i)
        builder.u8(quint8(random.bounded(256)));
    return builder.finish();
}

// Qt cuts a line to the clip before it draws it, which can move the
// antialiasing of a long line's edge pixels by a few levels. What the test
// looks for is anything missing or extra, which differs by far more.
int largestDifference(const QImage& a, const QImage& b)
{
    const int tolerance = 16;
    int largest = 0;
    for (int y = 0; y < a.height(); ++y) {
        for (int x = 0; x < a.width(); ++x) {
            const QRgb p = a.pixel(x, y);
            const QRgb q = b.pixel(x, y);
            const int difference = qMax(qMax(qAbs(qRed(p) - qRed(q)), qAbs(qGreen(p) - qGreen(q))),
                                        qMax(qAbs(qBlue(p) - qBlue(q)), qAbs(qAlpha(p) - qAlpha(q))));
            largest = qMax(largest, difference);
        }
    }
    return largest <= tolerance ? 0 : largest;
}

} // namespace

class TestPerformanceEquivalence : public QObject
{
    Q_OBJECT

private slots:
    void indexedQueueMatchesScanningQueue_data();
    void indexedQueueMatchesScanningQueue();
    void exposedPaintMatchesWholePaint_data();
    void exposedPaintMatchesWholePaint();
};

void TestPerformanceEquivalence::indexedQueueMatchesScanningQueue_data()
{
    QTest::addColumn<quint32>("seed");
    QTest::addColumn<int>("steps");
    // Packets per receive: above the queue's bound, the oldest are dropped.
    QTest::addColumn<int>("maxBurst");
    QTest::addColumn<int>("cpuShare");
    QTest::addColumn<int>("pausePercent");

    QTest::newRow("light traffic") << 1u << 3000 << 4 << 30 << 0;
    QTest::newRow("light traffic, other seed") << 2u << 3000 << 4 << 30 << 0;
    QTest::newRow("bursts past the bound") << 3u << 400 << 1500 << 20 << 0;
    QTest::newRow("mostly untaken types") << 4u << 2000 << 40 << 5 << 0;
    QTest::newRow("pause toggling") << 5u << 3000 << 20 << 30 << 10;
    QTest::newRow("only CPU packets") << 6u << 1000 << 30 << 100 << 0;
}

// Random streams cut at random points (packet boundaries included), with
// random counts and takes in between, and a CPU history draining its own
// packets on every packetReady(): every answer must be the scanning one.
void TestPerformanceEquivalence::indexedQueueMatchesScanningQueue()
{
    QFETCH(quint32, seed);
    QFETCH(int, steps);
    QFETCH(int, maxBurst);
    QFETCH(int, cpuShare);
    QFETCH(int, pausePercent);

    QRandomGenerator random(seed);
    ProfilerNetwork network;
    CPUHistory history(&network);
    QSignalSpy ready(&network, &ProfilerNetwork::packetReady);
    ScanningQueue reference;
    QList<float> referenceHistory;
    int referenceReady = 0;
    float serial = 0.0f;
    QByteArray pending;

    for (int step = 0; step < steps; ++step) {
        const int action = int(random.bounded(10));
        if (action < 5) {
            const int burst = 1 + int(random.bounded(quint32(maxBurst)));
            for (int i = 0; i < burst; ++i)
                pending += randomPacket(random, cpuShare, &serial);
            // Half the reads end on a packet boundary, the rest anywhere.
            const int cut = random.bounded(2) ? pending.size() : int(random.bounded(pending.size() + 1));
            const QByteArray chunk = pending.left(cut);
            pending.remove(0, cut);

            network.paused = int(random.bounded(100)) < pausePercent;
            network.receiveBytes(chunk);
            if (reference.receive(chunk, network.paused)) {
                ++referenceReady;
                while (reference.count(3, 0) != 0)
                    referenceHistory.append(qFromLittleEndian<float>(reference.take(3, 0).constData() + 12));
                while (referenceHistory.size() > HistoryCollector::MaxHistorySize)
                    referenceHistory.removeFirst();
            }
        } else if (action < 8) {
            const PacketKind kind = Kinds[random.bounded(NumKinds)];
            QCOMPARE(network.getNumWaitingPackets(kind.type, kind.subtype), reference.count(kind.type, kind.subtype));
        } else {
            const PacketKind kind = Kinds[random.bounded(NumKinds)];
            const QByteArray expected = reference.take(kind.type, kind.subtype);
            const QByteArray taken = network.getPacket(kind.type, kind.subtype);
            QCOMPARE(taken.isNull(), expected.isNull());
            QCOMPARE(taken, expected);
        }
        QCOMPARE(ready.count(), referenceReady);
    }

    QList<float> taken;
    for (const CPUUsageSnapshot& snapshot : qAsConst(*history.getHistoryList()))
        taken.append(snapshot.dsp);
    QCOMPARE(taken, referenceHistory);

    // What is left must come out in the same order, type by type.
    for (const PacketKind& kind : Kinds) {
        QCOMPARE(network.getNumWaitingPackets(kind.type, kind.subtype), reference.count(kind.type, kind.subtype));
        for (;;) {
            const QByteArray expected = reference.take(kind.type, kind.subtype);
            QCOMPARE(network.getPacket(kind.type, kind.subtype), expected);
            if (expected.isNull())
                break;
        }
    }
}

void TestPerformanceEquivalence::exposedPaintMatchesWholePaint_data()
{
    QTest::addColumn<int>("shape");
    QTest::addColumn<float>("scale");
    QTest::newRow("tree at 1.0") << int(DSPShapes::DSPShape::Tree) << 1.0f;
    QTest::newRow("tree at 0.5") << int(DSPShapes::DSPShape::Tree) << 0.5f;
    QTest::newRow("cycles at 2.0") << int(DSPShapes::DSPShape::Cycles) << 2.0f;
    QTest::newRow("ladder at 1.0") << int(DSPShapes::DSPShape::DiamondLadder) << 1.0f;
}

// Painting only what an exposed area can show must give that area the
// same pixels as painting everything.
void TestPerformanceEquivalence::exposedPaintMatchesWholePaint()
{
    QFETCH(int, shape);
    QFETCH(float, scale);

    ProfilerChain profiler;
    DSPNetGraph graph(&profiler.dspTree);
    graph.setShowCPUUsage(true);
    graph.setShowVolumeLevels(true);
    graph.setShowGroups(true);
    graph.setShowGuids(true);
    graph.setShowSends(true);
    graph.setShowLegend(true);
    graph.setShowExcessiveInputs(true);
    graph.setScale(scale);
    profiler.network.receiveBytes(DSPShapes::makeDSPPacket(DSPShapes::DSPShape(shape), 300, 4));
    QVERIFY(graph.nodeList.size() > 100);

    const QSize size = graph.minimumSize().boundedTo(QSize(3000, 3000));
    auto render = [&](const QRect& clip) {
        // Opaque, as on screen: nearly transparent pixels have no stable colour.
        QImage image(size, QImage::Format_RGB32);
        image.fill(QColor(49, 56, 64));
        QPainter painter(&image);
        if (!clip.isNull())
            painter.setClipRect(clip);
        graph.renderTree(&painter, false);
        return image;
    };
    const QImage whole = render(QRect());

    QRandomGenerator random(17);
    for (int view = 0; view < 12; ++view) {
        const QRect exposed(random.bounded(size.width()), random.bounded(size.height()), 100 + random.bounded(700),
                            100 + random.bounded(500));
        const QRect area = exposed & QRect(QPoint(0, 0), size);
        const QImage part = render(area);
        QCOMPARE(largestDifference(part.copy(area), whole.copy(area)), 0);
    }
}

QTEST_MAIN(TestPerformanceEquivalence)

#include "tst_performance_equivalence.moc"
