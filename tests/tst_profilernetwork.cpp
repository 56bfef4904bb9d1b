#include "loopbacktarget.h"
#include "packetbuilder.h"
#include "profilernetwork.h"

#include <QElapsedTimer>
#include <QSignalSpy>
#include <QTest>

namespace
{

QByteArray cpuPacket(float dsp)
{
    return PacketBuilder(3, 0, 1).f32(dsp).f32(0).f32(0).f32(0).finish();
}

QByteArray unknownPacket(quint8 type, int payload = 4)
{
    return PacketBuilder(type, 0, 0).zeros(payload).finish();
}

QStringList statuses(const QSignalSpy& spy)
{
    QStringList texts;
    for (const QList<QVariant>& arguments : spy)
        texts << arguments.at(0).toString();
    return texts;
}

} // namespace

class TestProfilerNetwork : public QObject
{
    Q_OBJECT

private slots:
    void dataRequestBytes();
    void framing();
    void headerSplitAcrossReads();
    void largePacketInPieces();
    void pausedBatchesAreThrownAway();
    void packetsAreTakenByTypeOldestFirst();
    void waitingPacketsAreBounded();
    void brokenSizeIsASocketError_data();
    void brokenSizeIsASocketError();
    void refusedConnection();
    void userDisconnect();
    void closedTargetReconnects();
    void silentTargetCountsAsClosed();

private:
    // Connects `network` to `target` and waits for both ends.
    static bool connectTo(ProfilerNetwork& network, LoopbackTarget& target);
};

bool TestProfilerNetwork::connectTo(ProfilerNetwork& network, LoopbackTarget& target)
{
    network.connectToHost(QStringLiteral("127.0.0.1"), target.port());
    return QTest::qWaitFor([&] { return network.isConnected(); }, 5000) && target.waitForClient();
}

void TestProfilerNetwork::dataRequestBytes()
{
    ProfilerNetwork network;
    LoopbackTarget target;

    // Unconnected: nothing goes anywhere and nothing breaks.
    network.requestDataType(3, 0, 200);
    QVERIFY(!network.isConnected());

    QVERIFY(connectTo(network, target));
    network.requestDataType(3, 0, 200);
    network.requestDataType(1, 0, 0);
    QVERIFY(target.waitForReceived(36));
    const QByteArray expected = QByteArray::fromHex("120000000000000000000000" "0300" "c8000000"
                                                    "120000000000000000000000" "0100" "00000000");
    QCOMPARE(target.received().toHex(), expected.toHex());
}

void TestProfilerNetwork::framing()
{
    ProfilerNetwork network;
    LoopbackTarget target;
    QVERIFY(connectTo(network, target));
    QSignalSpy ready(&network, &ProfilerNetwork::packetReady);

    const QByteArray third = cpuPacket(3.0f);
    target.send(cpuPacket(1.0f) + cpuPacket(2.0f) + third.left(10));
    QVERIFY(QTest::qWaitFor([&] { return network.getNumWaitingPackets(3, 0) == 2; }, 5000));
    QCOMPARE(ready.count(), 1);

    target.send(third.mid(10));
    QVERIFY(QTest::qWaitFor([&] { return network.getNumWaitingPackets(3, 0) == 3; }, 5000));
    QCOMPARE(ready.count(), 2);
    QCOMPARE(network.getPacket(3, 0), cpuPacket(1.0f));
    QCOMPARE(network.getPacket(3, 0), cpuPacket(2.0f));
    QCOMPARE(network.getPacket(3, 0), third);
}

void TestProfilerNetwork::headerSplitAcrossReads()
{
    ProfilerNetwork network;
    LoopbackTarget target;
    QVERIFY(connectTo(network, target));
    QSignalSpy ready(&network, &ProfilerNetwork::packetReady);

    const QByteArray packet = cpuPacket(5.0f);
    target.send(packet.left(7));
    QTest::qWait(100);
    QCOMPARE(network.getNumWaitingPackets(3, 0), 0);
    QCOMPARE(ready.count(), 0);

    target.send(packet.mid(7));
    QVERIFY(QTest::qWaitFor([&] { return network.getNumWaitingPackets(3, 0) == 1; }, 5000));
    QCOMPARE(network.getPacket(3, 0), packet);
}

void TestProfilerNetwork::largePacketInPieces()
{
    ProfilerNetwork network;
    LoopbackTarget target;
    QVERIFY(connectTo(network, target));
    QSignalSpy ready(&network, &ProfilerNetwork::packetReady);

    // Bigger than one pass of the receive loop, sent in uneven pieces with
    // a small packet right behind it.
    QByteArray payload(3 * 1024 * 1024 + 17, '\0');
    for (int i = 0; i < payload.size(); ++i)
        payload[i] = char(i * 7);
    const QByteArray large = PacketBuilder(1, 0, 6).raw(payload).finish();
    const QByteArray stream = large + cpuPacket(9.0f);
    const int cuts[] = { 5, 12, 70000, 1048576, 2500000, stream.size() - 3, stream.size() };
    int sent = 0;
    for (int cut : cuts) {
        target.send(stream.mid(sent, cut - sent));
        sent = cut;
        QTest::qWait(20);
    }
    QVERIFY(QTest::qWaitFor([&] { return network.getNumWaitingPackets(3, 0) == 1; }, 5000));
    QVERIFY(network.isConnected());
    QCOMPARE(network.getPacket(1, 0), large);
    QCOMPARE(network.getPacket(3, 0), cpuPacket(9.0f));
}

void TestProfilerNetwork::pausedBatchesAreThrownAway()
{
    ProfilerNetwork network;
    LoopbackTarget target;
    QVERIFY(connectTo(network, target));
    QSignalSpy ready(&network, &ProfilerNetwork::packetReady);

    // A type nobody takes stays queued and keeps announcing itself.
    target.send(unknownPacket(8));
    QVERIFY(ready.wait(5000));
    target.send(cpuPacket(1.0f));
    QVERIFY(QTest::qWaitFor([&] { return network.getNumWaitingPackets(3, 0) == 1; }, 5000));
    QCOMPARE(ready.count(), 2);
    QCOMPARE(network.getNumWaitingPackets(8, 0), 1);

    // Paused: the whole list goes, earlier packets of other types included.
    network.paused = true;
    target.send(cpuPacket(2.0f));
    QVERIFY(QTest::qWaitFor([&] { return network.getNumWaitingPackets(8, 0) == 0; }, 5000));
    QCOMPARE(network.getNumWaitingPackets(3, 0), 0);
    QCOMPARE(ready.count(), 2);
}

void TestProfilerNetwork::packetsAreTakenByTypeOldestFirst()
{
    ProfilerNetwork network;
    LoopbackTarget target;
    QVERIFY(connectTo(network, target));

    const QByteArray a = cpuPacket(1.0f), b = unknownPacket(6), c = cpuPacket(2.0f), d = unknownPacket(6, 8);
    target.send(a + b + c + d);
    QVERIFY(QTest::qWaitFor([&] { return network.getNumWaitingPackets(6, 0) == 2; }, 5000));

    QVERIFY(network.getPacket(5, 0).isNull());
    QCOMPARE(network.getNumWaitingPackets(3, 0), 2);
    QCOMPARE(network.getNumWaitingPackets(3, 1), 0);
    QCOMPARE(network.getPacket(3, 0), a);
    QCOMPARE(network.getPacket(6, 0), b);
    QCOMPARE(network.getPacket(6, 0), d);
    QCOMPARE(network.getPacket(3, 0), c);
    QVERIFY(network.getPacket(3, 0).isNull());
}

void TestProfilerNetwork::waitingPacketsAreBounded()
{
    ProfilerNetwork network;
    LoopbackTarget target;
    QVERIFY(connectTo(network, target));

    // Each packet carries its index so we can tell which ones were kept.
    const int sent = ProfilerNetwork::MaxWaitingPackets + 200;
    QByteArray stream;
    for (int i = 0; i < sent; ++i)
        stream += PacketBuilder(8, 0, 0).u32(quint32(i)).finish();
    target.send(stream);
    QVERIFY(QTest::qWaitFor([&] { return network.getNumWaitingPackets(8, 0) == ProfilerNetwork::MaxWaitingPackets; }, 5000));
    QTest::qWait(100);
    QCOMPARE(network.getNumWaitingPackets(8, 0), int(ProfilerNetwork::MaxWaitingPackets));

    // The newest packets survive; the oldest were dropped.
    const QByteArray oldestKept = network.getPacket(8, 0);
    QCOMPARE(qFromLittleEndian<quint32>(oldestKept.constData() + 12), quint32(sent - ProfilerNetwork::MaxWaitingPackets));
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
    ProfilerNetwork network;
    LoopbackTarget target;
    QVERIFY(connectTo(network, target));
    QSignalSpy status(&network, &ProfilerNetwork::statusChanged);
    QSignalSpy ready(&network, &ProfilerNetwork::packetReady);

    // A good packet first, in the same read: it stays queued but unannounced.
    target.send(cpuPacket(1.0f) + PacketBuilder(3, 0, 1).zeros(16).finishWithSize(size));
    QVERIFY(status.wait(5000));
    QCOMPARE(statuses(status), QStringList{ QStringLiteral("A socket error has occurred... Disconnected.") });
    QVERIFY(!network.isConnected());
    QVERIFY(!network.isConnecting());
    QCOMPARE(network.getNumWaitingPackets(3, 0), 1);
    QCOMPARE(ready.count(), 0);
}

void TestProfilerNetwork::refusedConnection()
{
    quint16 closedPort;
    {
        LoopbackTarget target;
        closedPort = target.port();
    }
    ProfilerNetwork network;
    QSignalSpy status(&network, &ProfilerNetwork::statusChanged);
    network.connectToHost(QStringLiteral("127.0.0.1"), closedPort);
    QVERIFY(network.isConnecting());
    QVERIFY(QTest::qWaitFor([&] { return status.count() == 2; }, 5000));
    QCOMPARE(statuses(status), (QStringList{ QStringLiteral("Attempting to connect..."),
                                            QStringLiteral("Connection failed... Disconnected.") }));
    QVERIFY(!network.isConnecting());
}

void TestProfilerNetwork::userDisconnect()
{
    ProfilerNetwork network;
    LoopbackTarget target;
    QSignalSpy status(&network, &ProfilerNetwork::statusChanged);
    QVERIFY(connectTo(network, target));
    network.disconnectFromHost();
    QCOMPARE(statuses(status), (QStringList{ QStringLiteral("Attempting to connect..."), QStringLiteral("Connected."),
                                            QStringLiteral("Disconnected.") }));
    QVERIFY(!network.isConnected());
    QVERIFY(!network.isConnecting());
}

void TestProfilerNetwork::closedTargetReconnects()
{
    ProfilerNetwork network;
    LoopbackTarget target;
    QVERIFY(connectTo(network, target));
    QSignalSpy status(&network, &ProfilerNetwork::statusChanged);

    target.closeClient();
    QVERIFY(status.wait(5000));
    QCOMPARE(statuses(status), QStringList{ QStringLiteral("Target closed... Attempting reconnection.") });
    QVERIFY(network.isConnecting());

    // The next attempt comes from the 5-second timer and is silent until it succeeds.
    QVERIFY(QTest::qWaitFor([&] { return network.isConnected(); }, 7000));
    QVERIFY(QTest::qWaitFor([&] { return status.count() == 2; }, 2000));
    QCOMPARE(status.last().at(0).toString(), QStringLiteral("Connected."));
    QVERIFY(!network.isConnecting());
}

void TestProfilerNetwork::silentTargetCountsAsClosed()
{
    ProfilerNetwork network;
    LoopbackTarget target;
    QVERIFY(connectTo(network, target));
    QSignalSpy status(&network, &ProfilerNetwork::statusChanged);

    // The idle watch starts with the first data.
    target.send(cpuPacket(1.0f));
    QElapsedTimer clock;
    clock.start();
    QVERIFY(QTest::qWaitFor([&] { return status.count() == 1; }, 5000));
    QVERIFY2(clock.elapsed() >= 2900, qPrintable(QString::number(clock.elapsed())));
    QCOMPARE(statuses(status), QStringList{ QStringLiteral("Target closed... Attempting reconnection.") });
    QVERIFY(!network.isConnected());
    QVERIFY(network.isConnecting());

    // A user disconnect ends the reconnection.
    network.disconnectFromHost();
    QVERIFY(!network.isConnecting());
    QCOMPARE(status.last().at(0).toString(), QStringLiteral("Disconnected."));
}

QTEST_GUILESS_MAIN(TestProfilerNetwork)
#include "tst_profilernetwork.moc"
