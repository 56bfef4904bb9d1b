// tarn-capture: recording the simulated game, and info and export of captures of known packets.
#include "capturefixture.h"
#include "captureinfo.h"
#include "profilepacket.h"
#include "targetserver.h"

#include <QTcpServer>
#include <QtTest>

#include <csignal>

namespace
{

// Cut short with a size that says so, as a target with a shorter layout sends it.
QByteArray statsPacket(float dsp, int fields = 60)
{
    PacketBuilder packet(TARN::PacketTypeStats, 0, 0);
    packet.f32(dsp).f32(0.5f).f32(0.25f).f32(0.125f);
    for (int i = 0; i < 18; ++i)
        packet.i16(qint16(i * 3));
    return cutPacket(packet.i32(123456789).i32(200000000).finish(), 12 + fields);
}

// Runs the built tool under a German locale while this test's event loop serves the target; the
// exit code, -1 if it did not exit. interruptAfterMs >= 0 sends SIGINT after that long.
int runTool(const QStringList& arguments, QString* err = nullptr, int interruptAfterMs = -1)
{
    QProcess process;
    // Files and messages use the C notation whatever the user's locale.
    qputenv("LC_ALL", "de_DE.UTF-8");
    process.start(QStringLiteral(TARN_CAPTURE_TOOL), arguments);
    if (!process.waitForStarted())
        return -1;
    if (interruptAfterMs >= 0) {
        QTest::qWait(interruptAfterMs);
        ::kill(pid_t(process.processId()), SIGINT);
    }
    if (!QTest::qWaitFor([&] { return process.state() == QProcess::NotRunning; }, 15000)
        || process.exitStatus() != QProcess::NormalExit)
        return -1;
    if (err)
        *err = QString::fromUtf8(process.readAllStandardError());
    return process.exitCode();
}

// Figures in every table, split packets and ones the collectors drop (too short, a CPU version they do not
// read); DSP networks at uneven gaps, a new one at 2 s; then a packet a disconnection cuts in half, not glued
// to the next connection's, and a size that breaks that stream. Costs are exact in binary: they print exactly.
Records exportRecords()
{
    const QByteArray splitStats = statsPacket(4.75f);
    const QByteArray mix = dspPacketV6({ { 7, 2, 256, 0x01, "Master" }, { 8, 1, 128, 0x03, "Bus, \"A\" \\ 1" },
                                         { 10, 0, 64, 0x09, "Key" }, { 9, 0, 512, 0x04, "Echo" } },
                                       1000000, 1024);
    return { at(0, RecordKind::Connected, "a:1"),
        received(0.1, cpuPacket(1.5f) + cpuPacket(2.25f, 0) + intsPacket(TARN::PacketTypeChannels, 6, -3)),
        received(0.125, statsPacket(3.5f) + splitStats.left(30)),
        received(0.2, splitStats.mid(30) + intsPacket(TARN::PacketTypeCodecs, 8, 100) + cpuPacket(9, 2)),
        received(0.25, statsPacket(1, 40) + cpuPacket(1e-7f) + intsPacket(TARN::PacketTypeCodecs, 3, 0)),
        received(0.3, mix), received(0.6, mix), received(0.9, mix), received(1.2, mix), received(1.5, mix),
        received(2.0, dspPacketV6({ { 5, 0, 128, 0x01, "Solo" } }, 1000000, 1024)),
        received(2.1, cpuPacket(7).left(5)), at(2.2, RecordKind::Disconnected),
        at(2.3, RecordKind::Connected, "a:1"),
        received(2.4, cpuPacket(3, 0) + PacketBuilder(3, 0, 1).finishWithSize(4)), received(2.5, cpuPacket(2)) };
}

// dsp-units.csv at the given times: the first network's units in tree order, at 2 s the second.
QString dspUnitRows(const QStringList& times)
{
    const QStringList first { ",7,Master,25,93.75,1,0\n", ",8,\"Bus, \"\"A\"\" \\ 1\",12.5,18.75,1,1\n",
                              ",10,Key,6.25,6.25,1,0\n", ",9,Echo,50,50,0,0\n" };
    QString text = QStringLiteral("time,id,name,exclusiveCPU%,inclusiveCPU%,active,bypass\n");
    for (const QString& time : times) {
        const QStringList units = time == "2.000000" ? QStringList { ",5,Solo,12.5,12.5,1,0\n" } : first;
        for (const QString& unit : units)
            text += time + unit;
    }
    return text;
}

} // namespace

class TestCaptureTool : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void recordsTheSimulatedGame_data();
    void recordsTheSimulatedGame();
    void exitCodes_data();
    void exitCodes();
    void exports_data();
    void exports();

private:
    QTemporaryDir dir;
    QString exportFile;
};

void TestCaptureTool::initTestCase()
{
    QVERIFY(dir.isValid());
    exportFile = dir.filePath(QStringLiteral("exports.tcap"));
    const QByteArray bytes = writeCapture(exportFile, exportRecords());
    QVERIFY(writeFile(dir.filePath("truncated.tcap"), bytes.chopped(3)));
    // A byte of the end marker changed.
    QVERIFY(writeFile(dir.filePath("damaged.tcap"), QByteArray(bytes).replace(bytes.size() - 2, 1, "Z")));
}

void TestCaptureTool::recordsTheSimulatedGame_data()
{
    QTest::addColumn<QStringList>("options");
    QTest::addColumn<int>("interruptAfterMs");
    QTest::addColumn<qint64>("minDurationUs");
    QTest::addColumn<qint64>("maxDurationUs");
    QTest::newRow("until SIGINT") << QStringList() << 2000 << qint64(1500000) << qint64(4000000);
    QTest::newRow("--duration 1") << QStringList { "--duration", "1" } << -1 << qint64(1000000) << qint64(3000000);
}

void TestCaptureTool::recordsTheSimulatedGame()
{
    QFETCH(QStringList, options);
    QFETCH(int, interruptAfterMs);
    QFETCH(qint64, minDurationUs);
    QFETCH(qint64, maxDurationUs);

    TargetServer target(TargetSettings {});
    QVERIFY(target.listen(QHostAddress::LocalHost, 0));
    const QString file = dir.filePath(QStringLiteral("game-%1.tcap").arg(QTest::currentDataTag()).replace(' ', '-'));
    const QStringList arguments { "record", "--port", QString::number(target.getPort()) };
    QCOMPARE(runTool(arguments + options + QStringList(file), nullptr, interruptAfterMs), 0);

    const ReadResult read = readCapture(file);
    const Records& records = read.records;
    QVERIFY(read.whole() && records.size() > 10);
    // The link's own records: the connection, once, the six requests as sent, and the end.
    QCOMPARE(records.first().bytes, QByteArray("127.0.0.1:") + QByteArray::number(target.getPort()));
    QCOMPARE(records.first().kind, RecordKind::Connected);
    QCOMPARE(records.last().kind, RecordKind::Disconnected);
    QVERIFY2(records.last().timeUs >= minDurationUs && records.last().timeUs <= maxDurationUs,
             qPrintable(QString::number(records.last().timeUs)));
    QByteArray sent;
    for (const Record& record : records)
        sent += record.kind == RecordKind::Sent ? record.bytes : QByteArray();
    QCOMPARE(sent, request(1, 100) + request(7, 100) + request(3, 200) + request(4, 200) + request(5, 200)
                       + request(9, 200));

    // What `info` sums up of it, read with the profiler's own decoder.
    const CaptureSummary summary = summarizeCapture(file);
    QCOMPARE(summary.receivedPackets.size(), 6);
    QVERIFY(summary.connections == 1 && summary.disconnections == 1 && summary.requests == 6);
    QVERIFY(summary.stopRequests == 0 && summary.textCommands == 0 && summary.brokenStreams == 0);
    QVERIFY(summary.dspUpdates > 0 && summary.minUnits > 10 && summary.durationUs == records.last().timeUs);
}

void TestCaptureTool::exitCodes_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<int>("exitCode");
    QTest::addColumn<QString>("message");
    const QString tcap = dir.filePath(QStringLiteral("unused.tcap"));
    const auto row = [](const char* name, const QStringList& arguments, int exitCode, const QString& message) {
        QTest::newRow(name) << arguments << exitCode << message;
    };
    // "%target" is replaced by a listening port, "%refused" by one nobody listens on.
    row("refused port", { "record", "--port", "%refused", tcap }, 1, "could not connect");
    row("unwritable file", { "record", "--port", "%target", "/dev/full" }, 1, "No space left on device");
    row("no command", {}, 2, "no command");
    row("unknown command", { "replay", tcap }, 2, "unknown command");
    row("unknown option", { "record", "--speed", "2", tcap }, 2, "speed");
    row("export without output", { "export", exportFile }, 2, "--csv");
    row("info of a missing file", { "info", tcap }, 1, tcap);
    row("info cut short", { "info", dir.filePath("truncated.tcap") }, 0, "file ends inside a frame (cut short)");
    row("info damaged", { "info", dir.filePath("damaged.tcap") }, 1, "offset");
    row("no network yet", { "export", exportFile, "--dot", "0.2", dir.filePath("early.dot") }, 1,
        "no DSP network at or before 0.200000 s");
}

void TestCaptureTool::exitCodes()
{
    QFETCH(QStringList, arguments);
    QFETCH(int, exitCode);
    QFETCH(QString, message);

    QTcpServer target, closed;
    QVERIFY(target.listen(QHostAddress::LocalHost, 0) && closed.listen(QHostAddress::LocalHost, 0));
    arguments.replaceInStrings(QStringLiteral("%target"), QString::number(target.serverPort()));
    arguments.replaceInStrings(QStringLiteral("%refused"), QString::number(closed.serverPort()));
    closed.close();

    QString err;
    QCOMPARE(runTool(arguments, &err), exitCode);
    QVERIFY2(err.contains(message), qPrintable(err));
    // One line, or a summary of what was read and then the one line.
    QCOMPARE(err.count('\n'), 1);
    // A file made for a target that never answered is not left behind.
    QVERIFY(!QFile::exists(dir.filePath(QStringLiteral("unused.tcap"))));
}

void TestCaptureTool::exports_data()
{
    QTest::addColumn<QStringList>("options"); // OUT stands for the row's output folder
    QTest::addColumn<QString>("output");
    QTest::addColumn<QString>("expected");
    const QStringList csv { "--csv", "OUT" };
    const auto row = [](const char* name, const QStringList& options, const char* output, const QString& expected) {
        QTest::newRow(name) << options << output << expected;
    };
    row("cpu", csv, "cpu.csv",
        "time,dsp,stream,geometry,update,total\n0.100000,1.5,0.1,0.33333334,2.5,4.4333334\n"
        "0.100000,2.25,0.1,0,2.5,4.85\n0.250000,1e-07,0.1,0.33333334,2.5,2.9333334\n2.400000,3,0.1,0,2.5,5.6\n");
    row("channels", csv, "channels.csv",
        "time,hardwareUsed,hardwareCapacity,softwareUsed,softwareCapacity,realUsed,realCapacity,virtualUsed,"
        "virtualCapacity,playingUsed,playingCapacity\n0.100000,-3,-2,-1,0,-4,-2,1,2,-3,2\n");
    row("codecs", csv, "codecs.csv",
        "time,mpegUsed,mpegCapacity,adpcmUsed,adpcmCapacity,xmaUsed,xmaCapacity,pcmUsed,pcmCapacity\n"
        "0.200000,100,101,102,103,104,105,106,107\n");
    row("stats", csv, "stats.csv",
        "time,dsp,stream,update,geometry,total,realChannels,virtualChannels,playingChannels,"
        "adpcm,tadpcm,mpeg,vorbis,xma,at9,pcm,memory\n"
        "0.125000,3.5,0.5,0.25,0.125,4.375,0,6,6,12,18,24,30,36,42,48,123.456795\n"
        "0.200000,4.75,0.5,0.25,0.125,5.625,0,6,6,12,18,24,30,36,42,48,123.456795\n");
    const auto units = [&](const char* name, const QStringList& every, const QStringList& times) {
        row(name, csv + every, "dsp-units.csv", dspUnitRows(times));
    };
    const QStringList all { "0.300000", "0.600000", "0.900000", "1.200000", "1.500000", "2.000000" };
    units("dsp units every 1 s", {}, { "0.300000", "1.500000" });
    units("dsp units every update", { "--dsp-every", "0" }, all);
    units("dsp units at gaps of exactly 0.3 s", { "--dsp-every", "0.3" }, all);
    units("dsp units every 0.5 s", { "--dsp-every", "0.5" }, { "0.300000", "0.900000", "1.500000", "2.000000" });
    const QString head = QStringLiteral("digraph dsp {\n    rankdir=RL;\n    node [shape=box];\n");
    row("dot of the first network", { "--dot", "1.9", "OUT/net.dot" }, "net.dot",
        head + "    7 [label=\"Master\\n25.00 %\"];\n    8 [label=\"Bus, \\\"A\\\" \\\\ 1\\n12.50 %\"];\n"
               "    10 [label=\"Key\\n6.25 %\"];\n    9 [label=\"Echo\\n50.00 %\"];\n"
               "    8 -> 7;\n    9 -> 7 [style=dashed];\n    10 -> 8 [style=dotted];\n}\n");
    row("dot at the second update", { "--dot", "2", "OUT/net.dot" }, "net.dot",
        head + "    5 [label=\"Solo\\n12.50 %\"];\n}\n");
}

// Under a German locale (runTool), every figure in the C notation as the collectors give it, at the time of
// the packet's last bytes; the DSP units at most as often as asked; the graph as of a time.
void TestCaptureTool::exports()
{
    QFETCH(QStringList, options);
    QFETCH(QString, output);
    QFETCH(QString, expected);
    const QString out = dir.filePath(QStringLiteral("export-%1").arg(QTest::currentDataTag()).replace(' ', '-'));
    QVERIFY(QDir().mkpath(out));
    QCOMPARE(runTool(QStringList { "export", exportFile } + options.replaceInStrings("OUT", out)), 0);
    QCOMPARE(QString::fromUtf8(fileBytes(out + '/' + output)), expected);
}

QTEST_GUILESS_MAIN(TestCaptureTool)
#include "tst_capturetool.moc"
