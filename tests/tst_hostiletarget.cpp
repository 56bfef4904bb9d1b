// A broken or hostile target, over a real loopback socket, against the
// profiler's whole receive chain: network link, every collector and the
// DSP network view inside a scroll area. Whatever the target sends, the
// profiler must keep turning its event loop, keep its memory bounded, say
// what happened, keep what it showed and decode the next good packet.
#include "dspnetgraph.h"
#include "loopbacktarget.h"
#include "packetbuilder.h"
#include "profilerchain.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QScrollArea>
#include <QTest>
#include <QTimer>

namespace
{

const QString SocketError = QStringLiteral("A socket error has occurred... Disconnected.");
const QString TargetClosed = QStringLiteral("Target closed... Attempting reconnection.");
const QString MalformedDSP = QStringLiteral("Connected. (Malformed DSP data dropped)");

// AddressSanitizer slows everything down and keeps freed memory in
// quarantine, so under it only crashes and leaks are checked, not time or
// resident memory.
#if defined(__SANITIZE_ADDRESS__)
const bool MeasuringIsMeaningful = false;
#else
const bool MeasuringIsMeaningful = true;
#endif

DSPUnitV6 unit(quint64 id, quint16 children, const QByteArray& name, quint8 levelCount = 0)
{
    return { id, children, 10, 0x01, name, levelCount };
}

// The good networks sent before and after every hostile episode.
QByteArray shownNetwork()
{
    return dspPacketV6({ unit(1, 2, "Master"), unit(2, 0, "Music"), unit(3, 0, "Voice") });
}

QByteArray nextNetwork()
{
    return dspPacketV6({ unit(10, 3, "Master"), unit(11, 0, "Reverb"), unit(12, 0, "Lowpass"), unit(13, 0, "Channel 1") });
}

QByteArray cpuPacket(float dsp)
{
    return PacketBuilder(3, 0, 1).f32(dsp).f32(1).f32(2).f32(3).finish();
}

QByteArray chain(int units)
{
    QVector<DSPUnitV6> records;
    records.reserve(units);
    for (int i = 0; i < units; ++i)
        records.append(unit(quint64(i + 1), quint16(i + 1 < units ? 1 : 0), "link"));
    return dspPacketV6(records);
}

// Every unit below the head feeds both units of the rung above it; a
// walk that follows every path visits 2^rungs of them.
QByteArray diamondLadder(int rungs)
{
    auto a = [](int rung) { return quint64(2 * rung); };
    auto b = [](int rung) { return quint64(2 * rung + 1); };
    QVector<DSPUnitV6> records { unit(1, 2, "Head") };
    for (int rung = 1; rung <= rungs; ++rung)
        records.append(unit(a(rung), quint16(rung < rungs ? 2 : 0), "A"));
    records.append(unit(b(rungs), 0, "B"));
    for (int rung = rungs - 1; rung >= 1; --rung) {
        records.append(unit(b(rung), 2, "B"));
        records.append(unit(a(rung + 1), 0, "A"));
        records.append(unit(b(rung + 1), 0, "B"));
    }
    return dspPacketV6(records);
}

qint64 residentKiB()
{
    QFile status(QStringLiteral("/proc/self/status"));
    if (!status.open(QIODevice::ReadOnly))
        return 0;
    for (const QByteArray& line : status.readAll().split('\n')) {
        if (line.startsWith("VmRSS:"))
            return line.mid(6).trimmed().split(' ').first().toLongLong();
    }
    return 0;
}

int openFileDescriptors()
{
    return QDir(QStringLiteral("/proc/self/fd")).entryList(QDir::NoDotAndDotDot | QDir::AllEntries).size();
}

// Measures the longest stretch during which the event loop did not turn.
class StallWatch : public QObject
{
public:
    StallWatch()
    {
        clock.start();
        connect(&tick, &QTimer::timeout, this, [this] {
            longest = qMax(longest, clock.restart());
        });
        tick.start(10);
    }

    qint64 longestStallMs() const { return qMax(longest, clock.elapsed()); }

private:
    QTimer tick;
    QElapsedTimer clock;
    qint64 longest = 0;
};

// The receive chain with the DSP network view in a scroll area, as the
// main form shows it.
struct Profiler : ProfilerChain
{
    Profiler()
        : graph(new DSPNetGraph(&dspTree))
    {
        view.setWidget(graph);
        view.resize(800, 400);
        view.show();
        graph->setShowExcessiveInputs(true);
        graph->setShowInactiveInputs(true);
    }

    QStringList unitNames() const
    {
        QStringList names;
        for (const DSPNetGraphicalNode& node : graph->nodeList)
            names << node.name;
        return names;
    }

    QScrollArea view;
    DSPNetGraph* graph;
};

enum class Episode
{
    Bytes,            // send the bytes; the link may drop
    BytesThenClose,   // send the bytes, then close the connection
    BytesThenReset,   // send the bytes, then reset the connection
    CPUFlood,         // half a gigabyte of good CPU packets at full speed
    UnknownTypeFlood  // a long stream of packets of a type nobody takes
};

} // namespace

Q_DECLARE_METATYPE(Episode)

class TestHostileTarget : public QObject
{
    Q_OBJECT

private slots:
    void profilerSurvives_data();
    void profilerSurvives();
    void connectCloseCyclesLeakNothing();

private:
    static bool connectTo(Profiler& profiler, LoopbackTarget& target);
    static void runEpisode(Episode episode, const QByteArray& bytes, LoopbackTarget& target);
    static void flood(LoopbackTarget& target, const QByteArray& packet, qint64 totalBytes);
};

// Connects, or reconnects a link the episode dropped once the target has let
// the old one go. Coming back by itself after a close is tst_profilernetwork's
// business; waiting here for the five-second timer would only be slow.
bool TestHostileTarget::connectTo(Profiler& profiler, LoopbackTarget& target)
{
    if (!profiler.network.isConnected()) {
        if (!QTest::qWaitFor([&] { return !target.hasClient(); }, 5000))
            return false;
        profiler.network.connectToHost(QStringLiteral("127.0.0.1"), target.port());
    }
    return QTest::qWaitFor([&] { return profiler.network.isConnected() && target.hasClient(); }, 8000);
}

// Sends `packet` over and over, never more than a few megabytes ahead of
// what the profiler has taken, until `totalBytes` have gone out.
void TestHostileTarget::flood(LoopbackTarget& target, const QByteArray& packet, qint64 totalBytes)
{
    const int perChunk = qMax(1, (256 * 1024) / packet.size());
    const QByteArray chunk = packet.repeated(perChunk);
    qint64 sent = 0;
    QElapsedTimer guard;
    guard.start();
    while (sent < totalBytes && guard.elapsed() < 60000) {
        if (target.pendingBytes() < 4 * 1024 * 1024) {
            target.sendWithoutFlush(chunk);
            sent += chunk.size();
        }
        QCoreApplication::processEvents(QEventLoop::AllEvents, 5);
    }
    QVERIFY2(sent >= totalBytes, "the flood did not get through in a minute");
}

void TestHostileTarget::runEpisode(Episode episode, const QByteArray& bytes, LoopbackTarget& target)
{
    switch (episode) {
    case Episode::Bytes:
        target.send(bytes);
        break;
    case Episode::BytesThenClose:
        target.send(bytes);
        QTest::qWait(50);
        target.closeClient();
        break;
    case Episode::BytesThenReset:
        target.send(bytes);
        QTest::qWait(50);
        target.resetClient();
        break;
    case Episode::CPUFlood:
        // Under AddressSanitizer a tenth: the run looks for crashes and
        // leaks there, not for throughput.
        flood(target, cpuPacket(42.0f), (MeasuringIsMeaningful ? 500LL : 50LL) * 1000 * 1000);
        target.send(cpuPacket(7.0f));
        break;
    case Episode::UnknownTypeFlood:
        flood(target, PacketBuilder(8, 0, 0).zeros(100).finish(), 50LL * 1000 * 1000);
        break;
    }
}

void TestHostileTarget::profilerSurvives_data()
{
    QTest::addColumn<Episode>("episode");
    QTest::addColumn<QByteArray>("bytes");
    QTest::addColumn<QString>("status");
    QTest::addColumn<QStringList>("unitsAfter");

    const QStringList kept { "Master", "Music", "Voice" };
    auto withSize = [&](quint32 size) { return PacketBuilder(1, 0, 6).zeros(20).finishWithSize(size); };

    QTest::newRow("size 0") << Episode::Bytes << withSize(0) << SocketError << kept;
    QTest::newRow("size 1") << Episode::Bytes << withSize(1) << SocketError << kept;
    QTest::newRow("size 11") << Episode::Bytes << withSize(11) << SocketError << kept;
    QTest::newRow("size 0xFFFFFFFF") << Episode::Bytes << withSize(0xFFFFFFFFu) << SocketError << kept;
    QTest::newRow("header whose body never arrives") << Episode::Bytes << withSize(5000).left(12) << TargetClosed << kept;

    QTest::newRow("child counts past the end")
        << Episode::Bytes << dspPacketV6({ unit(1, 5, "Cut"), unit(2, 0, "Short") }) << MalformedDSP << kept;
    QTest::newRow("child count 2^31 - 1")
        << Episode::Bytes << dspPacketV6({ unit(1, 0xFFFF, "Cut") }) << MalformedDSP << kept;
    PacketBuilder hugeCount(1, 0, 5);
    hugeCount.f32(0.5f).u8(0).u64(7).u64(0).fixedString("Huge", 32).u32(0x7FFFFFFF).u8(1).u8(0).u16(0).u16(1)
        .u8(0).zeros(128).u64(0);
    QTest::newRow("32-bit child count 2^31 - 1") << Episode::Bytes << hugeCount.finish() << MalformedDSP << kept;

    QTest::newRow("level count 255")
        << Episode::Bytes << dspPacketV6({ unit(5, 0, "Loud", 255) }) << QString() << QStringList { "Loud" };
    QTest::newRow("name without a terminator")
        << Episode::Bytes << dspPacketV6({ unit(5, 0, QByteArray(40, 'N')) }) << QString()
        << QStringList { QString(32, 'N') };
    QTest::newRow("cyclic network")
        << Episode::Bytes << dspPacketV6({ unit(1, 1, "A"), unit(2, 1, "B"), unit(3, 1, "C"), unit(1, 0, "A") }) << QString()
        << QStringList { "A", "B", "C" };
    QTest::newRow("chain 100000 deep") << Episode::Bytes << chain(100000) << QString() << QStringList();
    QTest::newRow("diamond ladder 60 deep") << Episode::Bytes << diamondLadder(60) << QString() << QStringList();
    QTest::newRow("group packet of 12 + 295 bytes")
        << Episode::Bytes << PacketBuilder(7, 0, 0).u64(0x9001).zeros(287).finish() << QString() << kept;

    QTest::newRow("500 MB of CPU packets") << Episode::CPUFlood << QByteArray() << QString() << kept;
    QTest::newRow("packets of an unknown type") << Episode::UnknownTypeFlood << QByteArray() << QString() << kept;
    QTest::newRow("closes mid-packet")
        << Episode::BytesThenClose << nextNetwork().left(100) << TargetClosed << kept;
    QTest::newRow("resets the connection") << Episode::BytesThenReset << QByteArray() << QString() << kept;
    QTest::newRow("goes silent") << Episode::Bytes << QByteArray() << TargetClosed << kept;
}

void TestHostileTarget::profilerSurvives()
{
    QFETCH(Episode, episode);
    QFETCH(QByteArray, bytes);
    QFETCH(QString, status);
    QFETCH(QStringList, unitsAfter);

    LoopbackTarget target;
    Profiler profiler;
    QVERIFY(connectTo(profiler, target));

    target.send(shownNetwork() + cpuPacket(1.0f));
    QVERIFY(QTest::qWaitFor([&] { return profiler.graph->nodeList.size() == 3; }, 5000));
    QVERIFY(QTest::qWaitFor([&] { return profiler.cpuHistory.getHistoryList()->size() == 1; }, 5000));

    QStringList statuses;
    QObject recording; // disconnects before `statuses` goes
    auto record = [&statuses](const QString& text) { statuses << text; };
    connect(&profiler.network, &ProfilerNetwork::statusChanged, &recording, record);
    connect(&profiler.dspTree, &DSPTree::statusChanged, &recording, record);
    const qint64 memoryBefore = residentKiB();
    StallWatch stalls;

    runEpisode(episode, bytes, target);
    if (!status.isEmpty())
        QVERIFY2(QTest::qWaitFor([&] { return statuses.contains(status); }, 5000), qPrintable(statuses.join(", ")));
    else
        QTest::qWait(300);

    const qint64 growthKiB = residentKiB() - memoryBefore;
    qInfo("longest stall %lld ms, memory growth %lld KiB", stalls.longestStallMs(), growthKiB);
    if (MeasuringIsMeaningful) {
        QVERIFY2(stalls.longestStallMs() < 200,
                 qPrintable(QStringLiteral("event loop stalled for %1 ms").arg(stalls.longestStallMs())));
        // A big network that is valid is shown, and takes memory in
        // proportion to its packet; nothing else may make memory grow.
        const qint64 boundKiB = 32 * 1024 + 8 * bytes.size() / 1024;
        QVERIFY2(growthKiB < boundKiB, qPrintable(QStringLiteral("memory grew by %1 KiB").arg(growthKiB)));
    }
    QVERIFY(profiler.network.getNumWaitingPackets(8, 0) <= ProfilerNetwork::MaxWaitingPackets);

    // What was shown stays shown unless a good packet replaced it.
    if (!unitsAfter.isEmpty())
        QCOMPARE(profiler.unitNames(), unitsAfter);
    QVERIFY(!profiler.cpuHistory.getHistoryList()->isEmpty());
    if (episode == Episode::CPUFlood) {
        QVERIFY(QTest::qWaitFor([&] { return profiler.cpuHistory.getHistoryList()->last().dsp == 7.0f; }, 5000));
        QCOMPARE(profiler.cpuHistory.getHistoryList()->size(), 100);
    }

    // The next good packet, on this link or on the one the profiler
    // makes again, is decoded exactly.
    QVERIFY(connectTo(profiler, target));
    target.send(nextNetwork());
    QVERIFY(QTest::qWaitFor([&] { return profiler.graph->nodeList.size() == 4; }, 5000));
    QCOMPARE(profiler.unitNames(), (QStringList { "Master", "Reverb", "Lowpass", "Channel 1" }));
    QCOMPARE(profiler.dspTree.nodesById.value(13)->depth, 1);
}

void TestHostileTarget::connectCloseCyclesLeakNothing()
{
    LoopbackTarget target;
    Profiler profiler;

    // The first cycle warms up what Qt allocates once.
    QVERIFY(connectTo(profiler, target));
    target.send(shownNetwork());
    QVERIFY(QTest::qWaitFor([&] { return profiler.graph->nodeList.size() == 3; }, 5000));
    profiler.network.disconnectFromHost();
    QVERIFY(QTest::qWaitFor([&] { return !target.hasClient(); }, 5000));

    const int descriptorsBefore = openFileDescriptors();
    const qint64 memoryBefore = residentKiB();
    for (int cycle = 0; cycle < 50; ++cycle) {
        QVERIFY(connectTo(profiler, target));
        target.send(shownNetwork() + cpuPacket(float(cycle)));
        const QList<CPUUsageSnapshot>* history = profiler.cpuHistory.getHistoryList();
        QVERIFY(QTest::qWaitFor([&] { return !history->isEmpty() && history->last().dsp == float(cycle); }, 5000));
        if (cycle % 2)
            profiler.network.disconnectFromHost();
        else
            target.closeClient();
        QVERIFY(QTest::qWaitFor([&] { return !target.hasClient() && !profiler.network.isConnected(); }, 5000));
        profiler.network.disconnectFromHost();
    }
    QTest::qWait(50);
    QCOMPARE(openFileDescriptors(), descriptorsBefore);
    const qint64 growthKiB = residentKiB() - memoryBefore;
    if (MeasuringIsMeaningful)
        QVERIFY2(growthKiB < 4 * 1024, qPrintable(QStringLiteral("memory grew by %1 KiB").arg(growthKiB)));
}

QTEST_MAIN(TestHostileTarget)
#include "tst_hostiletarget.moc"
