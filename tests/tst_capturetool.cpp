// tarn-capture: recording from the simulated game through the built tool,
// and info and export of captures written here from known packets, checked
// against the profiler's own collectors.
#include "captureexport.h"
#include "captureinfo.h"
#include "capturefile.h"
#include "packetbuilder.h"
#include "profilerchain.h"
#include "targetserver.h"

#include <QLocale>
#include <QProcess>
#include <QTcpServer>
#include <QTemporaryDir>
#include <QTest>

#include <csignal>
#include <cstring>
#include <utility>

using Capture::Record;
using Capture::RecordKind;
using Records = QVector<Record>;
Q_DECLARE_METATYPE(Capture::Record)

namespace
{

Record at(double seconds, RecordKind kind, const QByteArray& bytes = QByteArray())
{
    return { qint64(seconds * 1e6 + 0.5), kind, bytes };
}

Record received(double seconds, const QByteArray& bytes)
{
    return at(seconds, RecordKind::Received, bytes);
}

QByteArray request(quint8 type, quint32 period)
{
    TARN::ProfilePacketDataRequest packet = {};
    packet.header = TARN::makeHeader(sizeof packet, TARN::PacketTypeRequest, TARN::PacketSubtypeData, 0);
    packet.requestedType = type;
    packet.updateInterval = period;
    return QByteArray(reinterpret_cast<const char*>(&packet), sizeof packet);
}

QByteArray cpuPacket(float dsp, quint8 version = 1)
{
    PacketBuilder packet(TARN::PacketTypeCPU, 0, version);
    packet.f32(dsp).f32(0.1f).f32(2.5f);
    return (version == 0 ? packet : packet.f32(1.0f / 3)).finish();
}

QByteArray intsPacket(quint8 type, int count, int first)
{
    PacketBuilder packet(type, 0, 0);
    for (int i = 0; i < count; ++i)
        packet.i32(first + i);
    return packet.finish();
}

QByteArray statsPacket(float dsp, int fields = 60)
{
    PacketBuilder packet(TARN::PacketTypeStats, 0, 0);
    packet.f32(dsp).f32(0.5f).f32(0.25f).f32(0.125f);
    for (int i = 0; i < 18; ++i)
        packet.i16(qint16(i * 3));
    packet.i32(123456789).i32(200000000);
    // Cut short with a size that says so, as a target with a shorter layout sends it.
    QByteArray bytes = packet.finish().left(12 + fields);
    qToLittleEndian<quint32>(quint32(bytes.size()), bytes.data());
    return bytes;
}

// A network of `units` units: the head with the others as its inputs.
QByteArray starNetwork(int units)
{
    QVector<DSPUnitV6> records;
    records.append({ 1, quint16(units - 1), 40, 0x01, "Head" });
    for (int i = 2; i <= units; ++i)
        records.append({ quint64(i), 0, quint16(i * 10), 0x01, "Unit" });
    return dspPacketV6(records, 1000000, 1000);
}

void writeCapture(const QString& fileName, const Records& records)
{
    Capture::Header header;
    header.startTime = QDateTime(QDate(2024, 5, 6), QTime(7, 8, 9, 10), Qt::UTC);
    header.targetHost = QStringLiteral("127.0.0.1");
    header.targetPort = 9264;
    header.profilerVersion = QStringLiteral("0.1+gittest");
    CaptureWriter writer;
    QVERIFY(writer.open(fileName, header));
    for (const Record& record : records)
        writer.append(record);
    writer.close();
}

Records readCapture(const QString& fileName, bool* whole)
{
    CaptureReader reader;
    Records records;
    Record record;
    if (reader.open(fileName)) {
        while (reader.next(record))
            records.append(record);
    }
    *whole = !reader.hasError() && !reader.truncated() && reader.offset() == reader.fileSize();
    return records;
}

QList<QStringList> readCsv(const QString& fileName)
{
    QFile file(fileName);
    if (!file.open(QIODevice::ReadOnly))
        return {};
    QList<QStringList> rows;
    QStringList row(QString{});
    bool quoted = false;
    const QString text = QString::fromUtf8(file.readAll());
    for (int i = 0; i < text.size(); ++i) {
        const QChar c = text.at(i);
        if (quoted && c == '"' && i + 1 < text.size() && text.at(i + 1) == '"')
            row.last() += text.at(++i);
        else if (c == '"')
            quoted = !quoted;
        else if (!quoted && c == ',')
            row.append(QString());
        else if (!quoted && c == '\n')
            rows.append(std::exchange(row, QStringList(QString())));
        else
            row.last() += c;
    }
    return rows;
}

struct ToolRun
{
    int exitCode = -1;
    QString err;
};

// Runs the built tool while this test's event loop serves the target;
// interruptAfterMs >= 0 sends SIGINT after that long.
ToolRun runTool(const QStringList& arguments, int interruptAfterMs = -1)
{
    QProcess process;
    process.start(QStringLiteral(TARN_CAPTURE_TOOL), arguments);
    if (!process.waitForStarted())
        return {};
    if (interruptAfterMs >= 0) {
        QTest::qWait(interruptAfterMs);
        ::kill(pid_t(process.processId()), SIGINT);
    }
    if (!QTest::qWaitFor([&] { return process.state() == QProcess::NotRunning; }, 15000)
        || process.exitStatus() != QProcess::NormalExit)
        return {};
    return { process.exitCode(), QString::fromUtf8(process.readAllStandardError()) };
}

QString describe(const CaptureSummary& summary)
{
    QStringList packets;
    for (auto it = summary.receivedPackets.constBegin(); it != summary.receivedPackets.constEnd(); ++it)
        packets << QStringLiteral("%1v%2:%3").arg(it.key().first).arg(it.key().second).arg(it.value());
    return QStringLiteral("packets %1; requests %2 stopping %3; text %4; connections %5/%6; units %7..%8 in %9; "
                          "broken %10; unfinished %11; duration %12")
        .arg(packets.join(' '))
        .arg(summary.requests)
        .arg(summary.stopRequests)
        .arg(summary.textCommands)
        .arg(summary.connections)
        .arg(summary.disconnections)
        .arg(summary.minUnits)
        .arg(summary.maxUnits)
        .arg(summary.dspUpdates)
        .arg(summary.brokenStreams)
        .arg(summary.unfinishedBytes)
        .arg(summary.durationUs);
}

// One row per snapshot the collectors give for the packets, each with the
// time of the packet and the figures in the order of the table's columns.
struct ExpectedRows
{
    QList<QPair<qint64, QVector<float>>> rows[4];
};

ExpectedRows collectDirectly(const Records& records)
{
    ProfilerChain chain;
    ExpectedRows expected;
    qint64 time = 0;
    auto take = [&](int table, QVector<float> figures) { expected.rows[table].append({ time, figures }); };
    QObject::connect(&chain.cpuHistory, &CPUHistory::historyUpdated, [&] {
        const CPUUsageSnapshot& s = chain.cpuHistory.getHistoryList()->last();
        take(0, { s.dsp, s.stream, s.geometry, s.update, s.total });
    });
    QObject::connect(&chain.channelHistory, &ChannelHistory::historyUpdated, [&] {
        const ChannelUsageSnapshot& s = chain.channelHistory.getHistoryList()->last();
        take(1, { float(s.hardwareUsed), float(s.hardwareCapacity), float(s.softwareUsed), float(s.softwareCapacity),
                  float(s.realUsed), float(s.realCapacity), float(s.virtualUsed), float(s.virtualCapacity),
                  float(s.playingUsed), float(s.playingCapacity) });
    });
    QObject::connect(&chain.codecHistory, &CodecHistory::historyUpdated, [&] {
        const CodecUsageSnapshot& s = chain.codecHistory.getHistoryList()->last();
        take(2, { float(s.mpegUsed), float(s.mpegCapacity), float(s.adpcmUsed), float(s.adpcmCapacity),
                  float(s.xmaUsed), float(s.xmaCapacity), float(s.pcmUsed), float(s.pcmCapacity) });
    });
    QObject::connect(&chain.statsHistory, &StatsHistory::historyUpdated, [&] {
        const StatsSnapshot& s = chain.statsHistory.history->last();
        take(3, { s.dsp, s.stream, s.update, s.geometry, s.total, float(s.realChannels), float(s.virtualChannels),
                  float(s.playingChannels), float(s.adpcm), float(s.tadpcm), float(s.mpeg), float(s.vorbis),
                  float(s.xma), float(s.at9), float(s.pcm), s.memory });
    });
    // Packets whole, one at a time, each at the time of its last bytes.
    QByteArray pending;
    for (const Record& record : records) {
        if (record.kind != RecordKind::Received)
            continue;
        pending += record.bytes;
        time = record.timeUs;
        while (pending.size() >= 12 && pending.size() >= qFromLittleEndian<qint32>(pending.constData())) {
            const int size = qFromLittleEndian<qint32>(pending.constData());
            chain.network.receiveBytes(pending.left(size));
            pending.remove(0, size);
        }
    }
    return expected;
}

QString seconds(qint64 us)
{
    return QString::number(us / 1000000) + '.' + QString::number(us % 1000000).rightJustified(6, '0');
}

int runExport(const ExportOptions& options)
{
    QString messages;
    QTextStream err(&messages);
    CaptureExport exporter(options);
    return exporter.run(err);
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
    void infoFigures_data();
    void infoFigures();
    void csvEqualsTheCollectors();
    void dspUnitsAtMostEvery_data();
    void dspUnitsAtMostEvery();
    void dotGraphAsOfATime_data();
    void dotGraphAsOfATime();

private:
    QTemporaryDir dir;
    QString known;
};

void TestCaptureTool::initTestCase()
{
    QVERIFY(dir.isValid());
    known = dir.filePath(QStringLiteral("known.tcap"));
    // Two frames: the writer closes one after a second of record time.
    writeCapture(known, { at(0, RecordKind::Connected, "127.0.0.1:9264"), received(0.5, cpuPacket(1)),
                          received(1.5, starNetwork(3)), received(1.6, cpuPacket(2)) });
    QFile file(known);
    QVERIFY(file.open(QIODevice::ReadOnly));
    const QByteArray bytes = file.readAll();
    auto save = [this](const char* name, const QByteArray& contents) {
        QFile out(dir.filePath(QLatin1String(name)));
        return out.open(QIODevice::WriteOnly) && out.write(contents) == contents.size();
    };
    QVERIFY(save("truncated.tcap", bytes.left(bytes.size() - 3)));
    QByteArray damaged = bytes;
    damaged[damaged.size() - 2] = char(damaged.at(damaged.size() - 2) ^ 0x5a);
    QVERIFY(save("damaged.tcap", damaged));
}

void TestCaptureTool::recordsTheSimulatedGame_data()
{
    QTest::addColumn<QStringList>("options");
    QTest::addColumn<int>("interruptAfterMs");
    QTest::addColumn<qint64>("minDurationUs");
    QTest::addColumn<qint64>("maxDurationUs");
    QTest::newRow("until SIGINT") << QStringList() << 2000 << qint64(1500000) << qint64(4000000);
    QTest::newRow("--duration 1") << QStringList{ "--duration", "1" } << -1 << qint64(1000000) << qint64(3000000);
}

void TestCaptureTool::recordsTheSimulatedGame()
{
    QFETCH(QStringList, options);
    QFETCH(int, interruptAfterMs);
    QFETCH(qint64, minDurationUs);
    QFETCH(qint64, maxDurationUs);

    TargetServer target(TargetSettings{});
    QVERIFY(target.listen(QHostAddress::LocalHost, 0));
    const QString file = dir.filePath(QStringLiteral("game-%1.tcap").arg(QTest::currentDataTag()).replace(' ', '-'));
    const ToolRun run =
        runTool(QStringList{ "record", "--port", QString::number(target.getPort()) } + options + QStringList(file),
                interruptAfterMs);
    QCOMPARE(run.exitCode, 0);

    bool whole = false;
    const Records records = readCapture(file, &whole);
    QVERIFY(whole);
    QVERIFY(records.size() > 10);
    QCOMPARE(records.first().kind, RecordKind::Connected);
    QCOMPARE(records.first().bytes, QByteArray("127.0.0.1:") + QByteArray::number(target.getPort()));
    QCOMPARE(records.last().kind, RecordKind::Disconnected);
    QVERIFY2(records.last().timeUs >= minDurationUs && records.last().timeUs <= maxDurationUs,
             qPrintable(QString::number(records.last().timeUs)));
    QByteArray sent;
    for (const Record& record : records)
        sent += record.kind == RecordKind::Sent ? record.bytes : QByteArray();
    // The window's six requests at its periods, once.
    QCOMPARE(sent, request(1, 100) + request(7, 100) + request(3, 200) + request(4, 200) + request(5, 200)
                       + request(9, 200));

    const CaptureSummary summary = summarizeCapture(file);
    QCOMPARE(summary.receivedPackets.size(), 6);
    QCOMPARE(summary.brokenStreams, 0);
    QVERIFY(summary.dspUpdates > 0 && summary.minUnits > 10);
}

void TestCaptureTool::exitCodes_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<int>("exitCode");
    QTest::addColumn<QString>("message");
    const QString tcap = dir.filePath(QStringLiteral("unused.tcap"));
    // "%target" is replaced by a listening port, "%refused" by one nobody listens on.
    QTest::newRow("refused port") << QStringList{ "record", "--port", "%refused", tcap } << 1 << "could not connect";
    QTest::newRow("unwritable file") << QStringList{ "record", "--port", "%target", "/dev/full" } << 1
                                     << "No space left on device";
    QTest::newRow("no command") << QStringList() << 2 << "no command";
    QTest::newRow("unknown command") << QStringList{ "replay", tcap } << 2 << "unknown command";
    QTest::newRow("unknown option") << QStringList{ "record", "--speed", "2", tcap } << 2 << "speed";
    QTest::newRow("port out of range") << QStringList{ "record", "--port", "70000", tcap } << 2 << "--port";
    QTest::newRow("negative duration") << QStringList{ "record", "--duration", "-1", tcap } << 2 << "--duration";
    QTest::newRow("export without output") << QStringList{ "export", known } << 2 << "--csv";
    QTest::newRow("dot without OUT") << QStringList{ "export", known, "--dot", "1" } << 2 << "OUT.dot";
    QTest::newRow("info of a missing file") << QStringList{ "info", tcap } << 1 << tcap;
    QTest::newRow("info cut short") << QStringList{ "info", dir.filePath("truncated.tcap") } << 0
                                    << "file ends inside a frame (cut short)";
    QTest::newRow("info damaged") << QStringList{ "info", dir.filePath("damaged.tcap") } << 1 << "offset";
    QTest::newRow("no network yet") << QStringList{ "export", known, "--dot", "1", dir.filePath("early.dot") } << 1
                                    << "no DSP network at or before 1.000000 s";
}

void TestCaptureTool::exitCodes()
{
    QFETCH(QStringList, arguments);
    QFETCH(int, exitCode);
    QFETCH(QString, message);

    QTcpServer target;
    QVERIFY(target.listen(QHostAddress::LocalHost, 0));
    QTcpServer closed;
    QVERIFY(closed.listen(QHostAddress::LocalHost, 0));
    arguments.replaceInStrings(QStringLiteral("%target"), QString::number(target.serverPort()));
    arguments.replaceInStrings(QStringLiteral("%refused"), QString::number(closed.serverPort()));
    closed.close();

    const ToolRun run = runTool(arguments);
    QCOMPARE(run.exitCode, exitCode);
    QVERIFY2(run.err.contains(message), qPrintable(run.err));
    // One line, or a summary of what was read and then the one line.
    QCOMPARE(run.err.count('\n'), 1);
    // A file made for a target that never answered is not left behind.
    QVERIFY(!QFile::exists(dir.filePath(QStringLiteral("unused.tcap"))));
}

void TestCaptureTool::infoFigures_data()
{
    QTest::addColumn<Records>("records");
    QTest::addColumn<QString>("expected");
    const QByteArray channels = intsPacket(TARN::PacketTypeChannels, 6, 1);
    const QByteArray split = cpuPacket(7);
    QTest::newRow("one connection")
        << Records{ at(0, RecordKind::Connected, "127.0.0.1:9264"), at(0.001, RecordKind::Sent, request(3, 200)),
                    at(0.002, RecordKind::Sent, request(1, 100)),
                    received(0.2, cpuPacket(1) + cpuPacket(2) + starNetwork(3)),
                    received(0.4, starNetwork(5) + channels), at(0.5, RecordKind::Sent, PacketBuilder(1, 1, 6).zeros(128).finish()),
                    at(0.6, RecordKind::Disconnected) }
        << "packets 1v6:2 3v1:2 4v0:1; requests 2 stopping 0; text 1; connections 1/1; units 3..5 in 2; broken 0; "
           "unfinished 0; duration 600000";
    // The half packet a connection ended with is not glued to the next one.
    QTest::newRow("packets split across records and connections")
        << Records{ at(0, RecordKind::Connected, "a:1"), received(0.1, split.left(5)),
                    received(0.2, split.mid(5) + channels.left(20)), at(0.3, RecordKind::Disconnected),
                    at(0.4, RecordKind::Connected, "a:1"), at(0.4, RecordKind::Sent, request(3, 0)),
                    received(0.5, cpuPacket(3, 0)) }
        << "packets 3v0:1 3v1:1; requests 1 stopping 1; text 0; connections 2/1; units 0..0 in 0; broken 0; "
           "unfinished 20; duration 500000";
    QTest::newRow("impossible size breaks the connection's stream")
        << Records{ at(0, RecordKind::Connected, "a:1"), received(0.1, cpuPacket(1) + PacketBuilder(3, 0, 1).finishWithSize(4)),
                    received(0.2, cpuPacket(2)), at(0.3, RecordKind::Connected, "a:1"), received(0.4, cpuPacket(3)) }
        << "packets 3v1:2; requests 0 stopping 0; text 0; connections 2/0; units 0..0 in 0; broken 1; "
           "unfinished 0; duration 400000";
}

void TestCaptureTool::infoFigures()
{
    QFETCH(Records, records);
    QFETCH(QString, expected);

    const QString file = dir.filePath(QStringLiteral("info.tcap"));
    writeCapture(file, records);
    const CaptureSummary summary = summarizeCapture(file);
    QCOMPARE(describe(summary), expected);
    qint64 raw = 0;
    for (const Record& record : records)
        raw += record.bytes.size();
    QCOMPARE(summary.rawBytes, raw);
    QCOMPARE(summary.fileSize, QFileInfo(file).size());

    QString out;
    QString err;
    QTextStream outStream(&out);
    QTextStream errStream(&err);
    QCOMPARE(printCaptureInfo(file, outStream, errStream), 0);
    QVERIFY(err.isEmpty());
    QVERIFY(out.contains("Started         2024-05-06T07:08:09.010Z\nTarget          127.0.0.1:9264\n"));
    QVERIFY(out.contains(QStringLiteral("  CPU (type 3) version 1              %1\n").arg(summary.receivedPackets.value({ 3, 1 }))));
}

void TestCaptureTool::csvEqualsTheCollectors()
{
    const QByteArray splitStats = statsPacket(4.75f);
    const Records records = {
        at(0, RecordKind::Connected, "a:1"),
        received(0.125, cpuPacket(1.5f) + cpuPacket(2.25f, 0) + intsPacket(TARN::PacketTypeChannels, 6, -3)),
        received(0.25, statsPacket(3.5f) + splitStats.left(30)),
        received(0.375, splitStats.mid(30) + intsPacket(TARN::PacketTypeCodecs, 8, 100) + cpuPacket(9, 2)),
        // Dropped by the collectors: too short, and a version they do not read.
        received(0.5, statsPacket(1, 40) + cpuPacket(1e-7f) + intsPacket(TARN::PacketTypeCodecs, 3, 0)),
    };
    const QString file = dir.filePath(QStringLiteral("csv.tcap"));
    writeCapture(file, records);

    const QLocale previous;
    QLocale::setDefault(QLocale(QLocale::German, QLocale::Germany));
    ExportOptions options;
    options.fileName = file;
    options.csvDir = dir.filePath(QStringLiteral("csv/new"));
    const int exitCode = runExport(options);
    QLocale::setDefault(previous);
    QCOMPARE(exitCode, 0);

    const ExpectedRows expected = collectDirectly(records);
    const char* names[] = { "cpu.csv", "channels.csv", "codecs.csv", "stats.csv" };
    const int columns[] = { 5, 10, 8, 16 };
    const int rowCounts[] = { 3, 1, 1, 2 };
    for (int table = 0; table < 4; ++table) {
        const QList<QStringList> rows = readCsv(options.csvDir + '/' + names[table]);
        QCOMPARE(expected.rows[table].size(), rowCounts[table]);
        QCOMPARE(rows.size(), rowCounts[table] + 1);
        QCOMPARE(rows.first().first(), QStringLiteral("time"));
        QCOMPARE(rows.first().size(), columns[table] + 1);
        for (int r = 0; r < rowCounts[table]; ++r) {
            const QStringList& row = rows.at(r + 1);
            QCOMPARE(row.size(), columns[table] + 1);
            QCOMPARE(row.first(), seconds(expected.rows[table].at(r).first));
            for (int c = 0; c < columns[table]; ++c) {
                bool ok = false;
                const float value = QLocale::c().toFloat(row.at(c + 1), &ok);
                QVERIFY2(ok, qPrintable(row.at(c + 1)));
                QCOMPARE(value, expected.rows[table].at(r).second.at(c));
            }
        }
    }
    QCOMPARE(readCsv(options.csvDir + "/cpu.csv").first().join(','), QStringLiteral("time,dsp,stream,geometry,update,total"));
    QCOMPARE(readCsv(options.csvDir + "/stats.csv").at(2).first(), QStringLiteral("0.375000"));
}

void TestCaptureTool::dspUnitsAtMostEvery_data()
{
    QTest::addColumn<QString>("every");
    QTest::addColumn<QStringList>("times");
    QTest::newRow("every update") << "0" << QStringList{ "0.000000", "0.300000", "0.600000", "0.900000", "1.200000", "1.500000", "2.000000" };
    QTest::newRow("gaps of exactly 0.3 s") << "0.3" << QStringList{ "0.000000", "0.300000", "0.600000", "0.900000", "1.200000", "1.500000", "2.000000" };
    QTest::newRow("0.5 s") << "0.5" << QStringList{ "0.000000", "0.600000", "1.200000", "2.000000" };
    QTest::newRow("default 1 s") << "" << QStringList{ "0.000000", "1.200000" };
}

void TestCaptureTool::dspUnitsAtMostEvery()
{
    QFETCH(QString, every);
    QFETCH(QStringList, times);

    // Costs that are exact in binary: the figures print exactly too.
    const QVector<DSPUnitV6> units = { { 7, 2, 256, 0x01, "Master" }, { 8, 0, 128, 0x03, "Bus, \"A\"" },
                                       { 9, 0, 64, 0x00, "Echo" } };
    Records records = { at(0, RecordKind::Connected, "a:1") };
    for (double time : { 0.0, 0.3, 0.6, 0.9, 1.2, 1.5, 2.0 })
        records.append(received(time, dspPacketV6(units, 1000000, 1024)));
    const QString file = dir.filePath(QStringLiteral("dsp.tcap"));
    writeCapture(file, records);
    const QString csv = dir.filePath(QStringLiteral("dsp-") + QTest::currentDataTag());
    const ToolRun run = runTool(QStringList{ "export", file, "--csv", csv }
                                + (every.isEmpty() ? QStringList() : QStringList{ "--dsp-every", every }));
    QCOMPARE(run.exitCode, 0);

    const QList<QStringList> rows = readCsv(csv + "/dsp-units.csv");
    QCOMPARE(rows.size(), 1 + 3 * times.size());
    QCOMPARE(rows.first().join('|'), QStringLiteral("time|id|name|exclusiveCPU%|inclusiveCPU%|active|bypass"));
    for (int i = 0; i < times.size(); ++i) {
        QCOMPARE(rows.at(1 + 3 * i).join('|'), times.at(i) + QStringLiteral("|7|Master|25|43.75|1|0"));
        QCOMPARE(rows.at(2 + 3 * i).join('|'), times.at(i) + QStringLiteral("|8|Bus, \"A\"|12.5|12.5|1|1"));
        QCOMPARE(rows.at(3 + 3 * i).join('|'), times.at(i) + QStringLiteral("|9|Echo|6.25|6.25|0|0"));
    }
    QFile raw(csv + "/dsp-units.csv");
    QVERIFY(raw.open(QIODevice::ReadOnly));
    QVERIFY(raw.readAll().contains("\n0.000000,8,\"Bus, \"\"A\"\"\",12.5,12.5,1,1\n"));
}

void TestCaptureTool::dotGraphAsOfATime_data()
{
    QTest::addColumn<double>("time");
    QTest::addColumn<QString>("expected");
    const QString head = QStringLiteral("digraph dsp {\n    rankdir=RL;\n    node [shape=box];\n");
    QTest::newRow("first network") << 1.0
                                   << head + "    1 [label=\"Master\\n10.00 %\"];\n"
                                             "    2 [label=\"Mix \\\"1\\\" \\\\ A\\n20.00 %\"];\n"
                                             "    4 [label=\"Key\\n5.00 %\"];\n"
                                             "    3 [label=\"Reverb\\n2.50 %\"];\n"
                                             "    2 -> 1;\n    3 -> 1 [style=dashed];\n    4 -> 2 [style=dotted];\n}\n";
    QTest::newRow("at the second update") << 1.5 << head + "    5 [label=\"Solo\\n12.50 %\"];\n}\n";
}

void TestCaptureTool::dotGraphAsOfATime()
{
    QFETCH(double, time);
    QFETCH(QString, expected);

    const QByteArray first = dspPacketV6({ { 1, 2, 100, 0x01, "Master" }, { 2, 1, 200, 0x01, "Mix \"1\" \\ A" },
                                           { 4, 0, 50, 0x09, "Key" }, { 3, 0, 25, 0x05, "Reverb" } },
                                         1000000, 1000);
    const QByteArray second = dspPacketV6({ { 5, 0, 125, 0x01, "Solo" } }, 1000000, 1000);
    const QString file = dir.filePath(QStringLiteral("dot.tcap"));
    writeCapture(file, { at(0, RecordKind::Connected, "a:1"), received(0.5, first), received(1.5, second) });

    ExportOptions options;
    options.fileName = file;
    options.dot = true;
    options.dotTimeUs = qint64(time * 1e6);
    options.dotFile = dir.filePath(QStringLiteral("net.dot"));
    QCOMPARE(runExport(options), 0);
    QFile dot(options.dotFile);
    QVERIFY(dot.open(QIODevice::ReadOnly));
    QCOMPARE(QString::fromUtf8(dot.readAll()), expected);
}

QTEST_GUILESS_MAIN(TestCaptureTool)
#include "tst_capturetool.moc"
