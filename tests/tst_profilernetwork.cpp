#include "loopbacktarget.h"
#include "packetbuilder.h"
#include "profilernetwork.h"

#include <QElapsedTimer>
#include <QSignalSpy>
#include <QThread>
#include <QTest>

namespace
{

const QString TargetClosed = QStringLiteral("Target closed... Attempting reconnection.");

// The link connected to a loopback target, with its signals recorded; the
// connection's own statuses are dropped unless `keepStatus`.
struct Link
{
    Link()
    {
        QObject::connect(&network, &ProfilerNetwork::statusChanged, [this](const QString& text) { status << text; });
    }

    bool connect(bool keepStatus = false)
    {
        network.connectToHost(QStringLiteral("127.0.0.1"), target.port());
        const bool connected = QTest::qWaitFor([&] { return network.isConnected(); }, 5000) && target.waitForClient();
        if (!keepStatus)
            status.clear();
        ready.clear();
        return connected;
    }

    ProfilerNetwork network;
    LoopbackTarget target;
    QStringList status;
    QSignalSpy ready{&network, &ProfilerNetwork::packetReady};
};

} // namespace

class TestProfilerNetwork : public QObject
{
    Q_OBJECT

private slots:
    void dataRequestsAndUserDisconnect();
    void largePacketInPieces();
    void packetsReadTogetherAreAnnouncedOnce();
    void brokenSizeIsASocketError_data();
    void brokenSizeIsASocketError();
    void closedOrSilentTargetReconnects();
};

void TestProfilerNetwork::dataRequestsAndUserDisconnect()
{
    Link link;
    link.network.requestDataType(3, 0, 200); // unconnected: goes nowhere, breaks nothing
    // A second connect while the first is under way must drop the first.
    LoopbackTarget elsewhere;
    link.network.connectToHost(QStringLiteral("127.0.0.1"), elsewhere.port());
    QVERIFY(link.connect(true));
    link.network.requestDataType(3, 0, 200);
    link.network.requestDataType(1, 0, 0);
    QVERIFY(link.target.waitForReceived(36));
    QCOMPARE(link.target.received().toHex(), QByteArray("120000000000000000000000" "0300" "c8000000"
                                                        "120000000000000000000000" "0100" "00000000"));

    link.network.disconnectFromHost();
    QCOMPARE(link.status,
             (QStringList{ "Attempting to connect...", "Attempting to connect...", "Connected.", "Disconnected." }));
    QVERIFY(!link.network.isConnected() && !link.network.isConnecting());
}

// Bigger than one pass of the receive loop, sent in uneven pieces with a small packet right behind it.
void TestProfilerNetwork::largePacketInPieces()
{
    Link link;
    QVERIFY(link.connect());
    QByteArray payload(3 * 1024 * 1024 + 17, '\0');
    for (int i = 0; i < payload.size(); ++i)
        payload[i] = char(i * 7);
    const QByteArray large = PacketBuilder(1, 0, 6).raw(payload).finish();
    const QByteArray stream = large + cpuPacket(9.0f);
    int sent = 0;
    for (int cut : { 5, 12, 70000, 1048576, 2500000, stream.size() - 3, stream.size() }) {
        link.target.send(stream.mid(sent, cut - sent));
        sent = cut;
        QTest::qWait(20);
    }
    QVERIFY(QTest::qWaitFor([&] { return link.network.getNumWaitingPackets(3, 0) == 1; }, 5000));
    QVERIFY(link.network.isConnected());
    QCOMPARE(link.network.getPacket(1, 0), large);
    QCOMPARE(link.network.getPacket(3, 0), cpuPacket(9.0f));

    // All of it at once, waiting in the socket before the loop runs: the
    // socket signals once, and what one read pass leaves must still come.
    link.target.send(stream);
    QThread::msleep(300);
    QVERIFY(QTest::qWaitFor([&] { return link.network.getNumWaitingPackets(3, 0) == 1; }, 5000));
    QCOMPARE(link.network.getPacket(1, 0), large);

    // The queue has room for a network and a group list of the largest size at once.
    ProfilerNetwork queue;
    const int zeros = int(ProfilerNetwork::MaxPacketSize) - 12;
    queue.receiveBytes(PacketBuilder(1, 0, 6).zeros(zeros).finish() + PacketBuilder(7, 0, 0).zeros(zeros).finish());
    QVERIFY(queue.getNumWaitingPackets(1, 0) == 1 && queue.getNumWaitingPackets(7, 0) == 1);
}

// The history packets of one update each reach the line graphs; an
// announcement per packet would repaint them once per packet.
void TestProfilerNetwork::packetsReadTogetherAreAnnouncedOnce()
{
    Link link;
    QVERIFY(link.connect());
    const QByteArray network = PacketBuilder(1, 0, 6).zeros(5000).finish();
    link.target.send(cpuPacket(1.0f) + network + cpuPacket(2.0f) + cpuPacket(3.0f) + network);
    QThread::msleep(300);
    QVERIFY(QTest::qWaitFor([&] { return link.network.getNumWaitingPackets(3, 0) == 3; }, 5000));
    QCOMPARE(link.ready.count(), 1);
    QCOMPARE(link.network.getNumWaitingPackets(1, 0), 2);
    for (float value : { 1.0f, 2.0f, 3.0f })
        QCOMPARE(link.network.getPacket(3, 0), cpuPacket(value));
    QCOMPARE(link.network.getPacket(1, 0), network);
}

void TestProfilerNetwork::brokenSizeIsASocketError_data()
{
    QTest::addColumn<quint32>("size");
    QTest::newRow("zero") << 0u;
    QTest::newRow("one") << 1u;
    QTest::newRow("eleven") << 11u;
    QTest::newRow("just over the bound") << ProfilerNetwork::MaxPacketSize + 1;
    QTest::newRow("all ones") << 0xFFFFFFFFu;
}

void TestProfilerNetwork::brokenSizeIsASocketError()
{
    QFETCH(quint32, size);
    Link link;
    QVERIFY(link.connect());
    // A good packet first, in the same read: it stays queued but unannounced.
    link.target.send(cpuPacket(1.0f) + PacketBuilder(3, 0, 1).zeros(16).finishWithSize(size));
    QTRY_COMPARE(link.status, QStringList{ "A socket error has occurred... Disconnected." });
    QVERIFY(!link.network.isConnected() && !link.network.isConnecting());
    QCOMPARE(link.network.getNumWaitingPackets(3, 0), 1);
    QCOMPARE(link.ready.count(), 0);
}

// A target that closes the link, or falls silent for three seconds, is tried again every five seconds; the
// retry is silent until it succeeds, and a user disconnect ends it.
void TestProfilerNetwork::closedOrSilentTargetReconnects()
{
    Link link;
    QVERIFY(link.connect());
    link.target.closeClient();
    QTRY_COMPARE(link.status, QStringList{ TargetClosed });
    QVERIFY(link.network.isConnecting());
    QVERIFY(QTest::qWaitFor([&] { return link.network.isConnected(); }, 7000));
    QTRY_COMPARE_WITH_TIMEOUT(link.status, (QStringList{ TargetClosed, "Connected." }), 2000);
    QVERIFY(!link.network.isConnecting());

    QVERIFY(link.target.waitForClient());
    link.target.send(cpuPacket(1.0f)); // the idle watch starts with the first data
    QElapsedTimer clock;
    clock.start();
    QVERIFY(QTest::qWaitFor([&] { return link.status.count() == 3; }, 5000));
    QVERIFY2(clock.elapsed() >= 2900, qPrintable(QString::number(clock.elapsed())));
    QCOMPARE(link.status.last(), TargetClosed);
    QVERIFY(!link.network.isConnected() && link.network.isConnecting());
    // A replay started now ends the retrying.
    link.network.startReplay(QStringLiteral("Replaying"));
    QVERIFY(!link.network.isConnecting());
    link.network.disconnectFromHost();
    QVERIFY(!link.network.isConnecting());
    QCOMPARE(link.status.last(), QStringLiteral("Disconnected."));
}

QTEST_GUILESS_MAIN(TestProfilerNetwork)
#include "tst_profilernetwork.moc"
