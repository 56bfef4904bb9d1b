// Recording a session and playing it back: the link records what crosses
// the socket, the replay feeds it through the same framing at the recorded
// pace, and a recording that fails leaves the live view alone.
#include "capturefile.h"
#include "capturereplay.h"
#include "packetbuilder.h"
#include "profilerform.h"
#include "profilernetwork.h"
#include "profilersession.h"
#include "targetserver.h"

#include <QElapsedTimer>
#include <QFile>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QtTest>

namespace
{

// Takes every packet a link holds in one fixed order, so two links fed the
// same chunks give the same list.
void takePackets(ProfilerNetwork& network, QList<QByteArray>* packets)
{
    for (int type = 0; type < 256; ++type) {
        for (int subtype = 0; subtype < 256; ++subtype) {
            while (network.getNumWaitingPackets(quint8(type), quint8(subtype)) > 0)
                *packets << network.getPacket(quint8(type), quint8(subtype));
        }
    }
}

// A link fed by a replay, with what it announced.
struct ReplayedLink
{
    ReplayedLink()
        : replay(&network)
        , finished(&replay, &CaptureReplay::finished)
    {
        QObject::connect(&network, &ProfilerNetwork::packetReady, [this] { takePackets(network, &packets); });
        QObject::connect(&network, &ProfilerNetwork::statusChanged, [this](const QString& text) { statuses << text; });
    }

    bool start(const QString& fileName, double speed)
    {
        replay.setSpeed(speed);
        if (!replay.open(fileName))
            return false;
        replay.start();
        return true;
    }

    ProfilerNetwork network;
    CaptureReplay replay;
    QSignalSpy finished;
    QList<QByteArray> packets;
    QStringList statuses;
};

// A connection that ends inside a packet, then one with seven CPU packets,
// one every 100 ms; all recorded a second after the capture started.
QString writePacedCapture(const QTemporaryDir& dir)
{
    const QString fileName = dir.filePath(QStringLiteral("paced.tarncap"));
    CaptureWriter writer;
    writer.open(fileName, Capture::Header());
    writer.append({ 1000000, Capture::RecordKind::Connected, "127.0.0.1:9264" });
    writer.append({ 1000000, Capture::RecordKind::Received, PacketBuilder(3, 0, 1).u32(99).finish().left(6) });
    writer.append({ 1000000, Capture::RecordKind::Disconnected, QByteArray() });
    writer.append({ 1000000, Capture::RecordKind::Connected, "127.0.0.1:9264" });
    for (int i = 0; i < 7; ++i)
        writer.append({ 1000000 + i * 100000, Capture::RecordKind::Received, PacketBuilder(3, 0, 1).u32(quint32(i)).finish() });
    writer.append({ 1600000, Capture::RecordKind::Disconnected, QByteArray() });
    writer.close();
    return fileName;
}

const QString Done = QStringLiteral("Replay of paced.tarncap finished.");

} // namespace

class TestCaptureReplay : public QObject
{
    Q_OBJECT

private slots:
    void replayGivesTheRecordedPackets();
    void replay_data();
    void replay();
    void recordingToAFullDiskKeepsTheLinkUp();
};

void TestCaptureReplay::replayGivesTheRecordedPackets()
{
    TargetServer target(TargetSettings{});
    QVERIFY(target.listen(QHostAddress::LocalHost, 0));
    QTemporaryDir dir;
    const QString fileName = dir.filePath(QStringLiteral("session.tarncap"));
    CaptureWriter writer;
    QVERIFY(writer.open(fileName, Capture::Header()));
    ProfilerNetwork live;
    QList<QByteArray> livePackets;
    connect(&live, &ProfilerNetwork::packetReady, [&] { takePackets(live, &livePackets); });
    live.setRecorder(&writer);
    live.connectToHost(QStringLiteral("127.0.0.1"), target.getPort());
    QVERIFY(QTest::qWaitFor([&] { return live.isConnected(); }, 5000));
    live.requestProfileStreams(true);
    QTest::qWait(1500);
    live.disconnectFromHost();
    writer.close();
    QVERIFY(livePackets.size() > 30);

    // The link's own records: the connection, the six requests as the
    // target got them, and the end.
    CaptureReader reader;
    QVERIFY(reader.open(fileName));
    QByteArray kinds;
    QByteArray notReceived;
    for (Capture::Record record; reader.next(record);) {
        kinds += char('0' + int(record.kind));
        notReceived += record.kind != Capture::RecordKind::Received ? record.bytes : QByteArray();
    }
    QVERIFY2(!reader.hasError() && !reader.truncated(), qPrintable(reader.errorString()));
    QVERIFY2(kinds.startsWith('2') && kinds.endsWith('3') && kinds.count('2') == 1, kinds.constData());
    QByteArray requests = QStringLiteral("127.0.0.1:%1").arg(target.getPort()).toUtf8();
    const int streams[][2] = { { 1, 100 }, { 7, 100 }, { 3, 200 }, { 4, 200 }, { 5, 200 }, { 9, 200 } };
    for (const auto& stream : streams)
        requests += QByteArray::fromHex("120000000000000000000000") + char(stream[0]) + '\0' + char(stream[1]) + QByteArray(3, '\0');
    QCOMPARE(notReceived.toHex(), requests.toHex());

    ReplayedLink replayed;
    QVERIFY(replayed.start(fileName, 0));
    QVERIFY(replayed.network.isConnected());
    QVERIFY(replayed.finished.wait(5000));
    QCOMPARE(replayed.packets, livePackets);
    QVERIFY(!replayed.network.isReplaying());
    QCOMPARE(replayed.statuses, QStringList({ "Replaying session.tarncap as fast as possible...",
                                              "Replay of session.tarncap finished." }));
}

void TestCaptureReplay::replay_data()
{
    QTest::addColumn<double>("speed");
    QTest::addColumn<QString>("action");
    QTest::addColumn<int>("cutBytes");
    QTest::addColumn<QByteArray>("junk");
    QTest::addColumn<int>("minMs");
    QTest::addColumn<int>("maxMs");
    QTest::addColumn<QStringList>("statuses"); // the last one as a prefix
    const QString at1 = QStringLiteral("Replaying paced.tarncap at 1x...");
    const QString fast = QStringLiteral("Replaying paced.tarncap as fast as possible...");
    const QByteArray none;
    QTest::newRow("as recorded") << 1.0 << "" << 0 << none << 570 << 1100 << QStringList({ at1, Done });
    QTest::newRow("twice as fast") << 2.0 << "" << 0 << none << 270 << 600
                                   << QStringList({ "Replaying paced.tarncap at 2x...", Done });
    QTest::newRow("as fast as possible") << 0.0 << "" << 0 << none << 0 << 150 << QStringList({ fast, Done });
    QTest::newRow("paused for 400 ms") << 1.0 << "pause" << 0 << none << 920 << 1500 << QStringList({ at1, Done });
    QTest::newRow("command") << 1.0 << "command" << 0 << none << 570 << 1100
                             << QStringList({ at1, "Replay: commands are not sent to a target.", Done });
    QTest::newRow("request") << 1.0 << "request" << 0 << none << 570 << 1100 << QStringList({ at1, Done });
    QTest::newRow("disconnect") << 1.0 << "disconnect" << 0 << none << 150 << 400 << QStringList({ at1, "Disconnected." });
    QTest::newRow("cut short") << 0.0 << "" << 3 << none << 0 << 150
                               << QStringList({ fast, "Replay of paced.tarncap finished; the file was cut short." });
    QTest::newRow("junk after the end") << 0.0 << "" << 0 << QByteArray("junk") << 0 << 150
                                        << QStringList({ fast, "Replay of paced.tarncap stopped at damage: " });
}

// The link is connected to a target before the replay: writing to it would
// now fail and end the replay, so a replay that runs to its end wrote
// nothing. The first record is due at once, whatever its recorded time.
void TestCaptureReplay::replay()
{
    QFETCH(double, speed);
    QFETCH(QString, action);
    QFETCH(int, cutBytes);
    QFETCH(QByteArray, junk);
    QFETCH(int, minMs);
    QFETCH(int, maxMs);
    QFETCH(QStringList, statuses);
    QTemporaryDir dir;
    QFile file(writePacedCapture(dir));
    QVERIFY(file.open(QIODevice::ReadWrite) && file.resize(file.size() - cutBytes) && file.seek(file.size()));
    file.write(junk);
    file.close();
    TargetServer target(TargetSettings{});
    QVERIFY(target.listen(QHostAddress::LocalHost, 0));
    ReplayedLink replayed;
    ProfilerNetwork& network = replayed.network;
    network.connectToHost(QStringLiteral("127.0.0.1"), target.getPort());
    QVERIFY(QTest::qWaitFor([&] { return network.isConnected(); }, 5000));
    replayed.statuses.clear();

    QElapsedTimer clock;
    clock.start();
    QVERIFY(replayed.start(file.fileName(), speed));
    QTest::qWait(action.isEmpty() ? 0 : 150);
    const int before = replayed.packets.size();
    TARN::ProfilePacketHeader command = TARN::makeHeader(12, 1, 1, 0);
    if (action == QLatin1String("pause")) {
        network.paused = true;
        QTest::qWait(400);
        QCOMPARE(replayed.packets.size(), before);
        network.paused = false;
    } else if (action == QLatin1String("command")) {
        network.sendCommand(&command);
    } else if (action == QLatin1String("request")) {
        network.requestDataType(1, 0, 100);
    } else if (action == QLatin1String("disconnect")) {
        network.disconnectFromHost();
        QVERIFY(!network.isConnected());
    }
    QVERIFY(replayed.finished.count() == 1 || replayed.finished.wait(5000));
    QVERIFY2(clock.elapsed() >= minMs && clock.elapsed() <= maxMs, qPrintable(QString::number(clock.elapsed())));
    QTest::qWait(action == QLatin1String("disconnect") ? 200 : 0);
    QCOMPARE(replayed.packets.size(), action == QLatin1String("disconnect") ? before : 7);
    QCOMPARE(replayed.packets.last(), PacketBuilder(3, 0, 1).u32(quint32(replayed.packets.size() - 1)).finish());
    QCOMPARE(replayed.statuses.size(), statuses.size());
    QCOMPARE(replayed.statuses.mid(0, statuses.size() - 1), statuses.mid(0, statuses.size() - 1));
    QVERIFY2(replayed.statuses.last().startsWith(statuses.last()), qPrintable(replayed.statuses.last()));
    QVERIFY(!network.isConnected());
}

void TestCaptureReplay::recordingToAFullDiskKeepsTheLinkUp()
{
    TargetServer target(TargetSettings{});
    QVERIFY(target.listen(QHostAddress::LocalHost, 0));
    ProfilerForm form;
    form.findChild<QLineEdit*>(QStringLiteral("portEdit"))->setText(QString::number(target.getPort()));
    form.findChild<QPushButton*>(QStringLiteral("connectButton"))->click();
    QVERIFY(QTest::qWaitFor([&] { return form.getNetwork()->isConnected(); }, 5000));

    // Started on a live link, so the failure cannot come before "Connected.".
    ProfilerOptions options;
    options.recordFile = QStringLiteral("/dev/full");
    ProfilerSession session(options, &form);
    QString error;
    QVERIFY2(session.start(&error), qPrintable(error));
    QCOMPARE(form.windowTitle(), QStringLiteral("TARN Profiler - Recording to /dev/full"));
    auto* status = form.findChild<QLabel*>(QStringLiteral("statusLabel"));
    QVERIFY(QTest::qWaitFor([&] { return status->text().startsWith(QLatin1String("Recording stopped: ")); }, 5000));
    QCOMPARE(form.windowTitle(), QStringLiteral("TARN Profiler - Recording to /dev/full stopped"));
    QSignalSpy packets(form.getNetwork(), &ProfilerNetwork::packetReady);
    QVERIFY(packets.wait(2000));
    QVERIFY(form.getNetwork()->isConnected());
    QVERIFY(form.findChild<QPushButton*>(QStringLiteral("pauseButton"))->isEnabled());
}

QTEST_MAIN(TestCaptureReplay)
#include "tst_capturereplay.moc"
