// Capture files: the writer; the reader, which treats the file as hostile; a replay through the link's own
// framing at the recorded pace; a failed recording leaves the live view alone (tst_capturetool records a link).
#include "capturefixture.h"
#include "capturereplay.h"
#include "packetencoder.h"
#include "profilerform.h"
#include "profilernetwork.h"
#include "profilersession.h"
#include "simengine.h"
#include "targetserver.h"

#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QtTest>

#include <zstd.h>

namespace
{

const qint64 HeaderSize = 8 + 2 + 8 + 2 + 2 + 9 + 2 + 11 + 32;
const QByteArray EndMarker(8, '\0');

QByteArray randomBytes(QRandomGenerator& random, int size)
{
    QByteArray bytes(size, '\0');
    std::generate(bytes.begin(), bytes.end(), [&random] { return char(random.bounded(256)); });
    return bytes;
}

// The frames found by walking their prefixes, past the header.
QVector<qint64> frameOffsets(const QByteArray& file)
{
    QVector<qint64> offsets;
    for (qint64 offset = HeaderSize; offset + 8 <= file.size() && file.at(int(offset)) != 0;) {
        offsets.append(offset);
        offset += 8 + qFromLittleEndian<quint32>(file.constData() + offset);
    }
    return offsets;
}

QByteArray le32(quint32 value)
{
    return PacketBuilder(0, 0, 0).u32(value).finish().mid(12);
}

QByteArray zstdFrame(const QByteArray& raw, bool checksum)
{
    ZSTD_CCtx* context = ZSTD_createCCtx();
    ZSTD_CCtx_setParameter(context, ZSTD_c_checksumFlag, checksum ? 1 : 0);
    QByteArray frame(int(ZSTD_compressBound(size_t(raw.size()))), '\0');
    frame.resize(int(ZSTD_compress2(context, frame.data(), size_t(frame.size()), raw.constData(), size_t(raw.size()))));
    ZSTD_freeCCtx(context);
    return le32(quint32(frame.size())) + le32(quint32(raw.size())) + frame;
}

// A record as the frame holds it, encoded here independently of the writer.
QByteArray rawRecord(RecordKind kind, quint64 timeDelta, const QByteArray& bytes)
{
    QByteArray record(1, char(kind));
    for (quint64 value : { timeDelta, quint64(bytes.size()) }) {
        for (; value >= 0x80; value >>= 7)
            record.append(char(value | 0x80));
        record.append(char(value));
    }
    return record + bytes;
}

QByteArray packet(quint8 type, const QByteArray& body)
{
    return PacketBuilder(type, type == 2, 1).raw(body).finish();
}

// Delta-coded and plain packets, each a repeat with a few bytes changed (the XOR path) or of a
// new size, in chunks that split headers and bodies; between them requests, empty records,
// reconnections and a stream broken by a bad size.
Records randomRecords(quint32 seed)
{
    QRandomGenerator random(seed);
    Records records;
    qint64 time = 0;
    const auto add = [&](RecordKind kind, const QByteArray& bytes) {
        records.append(Record { time += random.bounded(3000), kind, bytes });
    };
    QByteArray bodies[4];
    const quint8 types[] = { 7, 2, 3, 1 };
    for (int connection = 0; connection < 3; ++connection) {
        add(RecordKind::Connected, "127.0.0.1:9264");
        QByteArray stream;
        for (int i = 0; i < 80; ++i) {
            const int key = random.bounded(4);
            if (bodies[key].isEmpty() || random.bounded(4) == 0)
                bodies[key] = randomBytes(random, random.bounded(key == 0 ? 9000 : 60));
            for (int j = 0; j < 3 && !bodies[key].isEmpty(); ++j)
                bodies[key][random.bounded(bodies[key].size())] = char(random.bounded(256));
            stream += packet(types[key], bodies[key]);
        }
        if (connection == 1)
            stream += PacketBuilder(7, 0, 1).finishWithSize(5) + packet(7, bodies[0]);
        for (int offset = 0; offset < stream.size();) {
            const int length = 1 + random.bounded(qMin(stream.size() - offset, random.bounded(2) ? 13 : 4000));
            add(RecordKind::Received, stream.mid(offset, length));
            offset += length;
            if (random.bounded(10) == 0)
                add(RecordKind(random.bounded(2)), randomBytes(random, random.bounded(2) * 18));
        }
        add(RecordKind::Disconnected, QByteArray());
    }
    add(RecordKind::Received, randomBytes(random, 100));
    return records;
}

// The simulated game's streams at the rates the profiler asks for, in socket reads of 64 KiB.
Records demoSession(int units, int seconds)
{
    SimEngine engine(7, units);
    Records records { Record { 0, RecordKind::Connected, "127.0.0.1:9264" } };
    for (int step = 0; step < seconds * 1000 / SimEngine::StepMs; ++step) {
        engine.step();
        const SimFigures& figures = engine.getFigures();
        QByteArray tick;
        if (step % 2 == 0)
            tick += PacketEncoder::encodeDSP(engine.getNetwork(), 6) + PacketEncoder::encodeGroups(engine.getNetwork());
        if (step % 4 == 0)
            tick += PacketEncoder::encodeCPU(figures, 1) + PacketEncoder::encodeChannels(figures)
                + PacketEncoder::encodeCodecs(figures) + PacketEncoder::encodeStats(figures);
        for (int offset = 0; offset < tick.size(); offset += 65536)
            records.append(Record { step * SimEngine::StepMs * 1000LL, RecordKind::Received, tick.mid(offset, 65536) });
    }
    return records;
}

} // namespace

class TestCaptureFile : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void roundTrip_data();
    void roundTrip();
    void layoutByteByByte();
    void cutAtEveryOffsetReadsWholeFrames();
    void damageIsReportedWithItsOffset_data();
    void damageIsReportedWithItsOffset();
    void liveFileAndRecordTimes();
    void replay_data();
    void replay();
    void recordingToAFullDiskKeepsTheLinkUp();
    void commandLine_data();
    void commandLine();

private:
    QTemporaryDir dir;
    Records framedRecords; // four seconds of the simulated game: a frame a second
    QByteArray framedFile;
    ReadResult framedRead;
};

void TestCaptureFile::initTestCase()
{
    QVERIFY(dir.isValid());
    framedRecords = demoSession(60, 4);
    framedFile = writeCapture(dir.filePath("framed.tcap"), framedRecords);
    // One frame a second of record time, more if the machine stalls.
    QVERIFY(frameOffsets(framedFile).size() >= 4);
    framedRead = readCapture(dir.filePath("framed.tcap"));
    QVERIFY(framedRead.whole() && framedRead.records == framedRecords);
    // The size goal of docs/capture-format.md, an eighth of the raw stream, for two game sizes.
    for (int units : { 60, 10000 }) {
        const Records records = units == 60 ? framedRecords : demoSession(units, 4);
        qint64 raw = 0;
        for (const Record& record : records)
            raw += record.bytes.size();
        const qint64 stored = writeCapture(dir.filePath("goal.tcap"), records).size();
        qInfo("%d units, 4 s: raw %lld bytes, stored %lld bytes", units, raw, stored);
        QVERIFY(stored * 8 <= raw);
        QVERIFY(readCapture(dir.filePath("goal.tcap")).records == records);
    }
}

void TestCaptureFile::roundTrip_data()
{
    QTest::addColumn<Records>("records");
    for (quint32 seed : { 1u, 2u, 3u })
        QTest::addRow("random mix %u", seed) << randomRecords(seed);
    QRandomGenerator random(9);
    QByteArray largest(int(Capture::MaxRecordSize), '\0');
    largest.replace(1000, 4096, randomBytes(random, 4096));
    QTest::newRow("large and empty records")
        << Records { { 0, RecordKind::Received, {} }, { 1, RecordKind::Received, randomBytes(random, 9 << 20) },
                     { 1, RecordKind::Sent, {} }, { 2, RecordKind::Received, largest } };
}

void TestCaptureFile::roundTrip()
{
    QFETCH(Records, records);
    const QByteArray file = writeCapture(dir.filePath("roundtrip.tcap"), records);
    const ReadResult result = readCapture(QStringLiteral("roundtrip.tcap"), &file);
    const Capture::Header& header = result.header;
    QVERIFY(header.startTime == TestHeader.startTime && header.targetHost == TestHeader.targetHost);
    QVERIFY(header.targetPort == 9264 && header.profilerVersion == TestHeader.profilerVersion);
    QVERIFY2(result.whole(), qPrintable(result.errorString));
    QVERIFY(result.records == records);
}

// An independent decoding of a small file: the header field by field, its one frame's records
// (a repeated packet body XORed with the one before, a resized one as it is), the end marker.
void TestCaptureFile::layoutByteByByte()
{
    const QByteArray first = QByteArray::fromHex("00112233445566778899aabbccddeeff");
    const QByteArray second = first.left(15) + '\xfe';
    const QByteArray file = writeCapture(dir.filePath("layout.tcap"),
                                         { { 5, RecordKind::Connected, "h:1" },
                                           { 7, RecordKind::Received, packet(3, first) + packet(3, second) },
                                           { 300, RecordKind::Received, packet(3, "four") },
                                           { 300, RecordKind::Sent, "abc" } });
    // Magic, version 1, 2024-05-06T07:08:09.010Z in ms, port 9264, the two
    // strings, and types 3, 4, 5, 7 and 9 delta coded.
    const QByteArray header = "TARNCAP" + QByteArray::fromHex("00" "0100" "b237bb4c8f010000" "3024" "0900")
        + "127.0.0.1" + QByteArray::fromHex("0b00") + "0.1+gittest" + QByteArray::fromHex("b802")
        + QByteArray(30, '\0');
    QCOMPARE(file.left(int(HeaderSize)).toHex(), header.toHex());

    const quint32 stored = qFromLittleEndian<quint32>(file.constData() + HeaderSize);
    const quint32 rawSize = qFromLittleEndian<quint32>(file.constData() + HeaderSize + 4);
    QVERIFY(HeaderSize + 8 + stored + 8 == file.size() && file.endsWith(EndMarker));
    QByteArray raw(int(rawSize), '\0');
    QCOMPARE(ZSTD_decompress(raw.data(), rawSize, file.constData() + HeaderSize + 8, stored), size_t(rawSize));
    const QByteArray xored = QByteArray(15, '\0') + '\x01';
    const QByteArray expected = rawRecord(RecordKind::Connected, 5, "h:1")
        + rawRecord(RecordKind::Received, 2, packet(3, first) + packet(3, second).left(12) + xored)
        + rawRecord(RecordKind::Received, 293, packet(3, "four")) + rawRecord(RecordKind::Sent, 0, "abc");
    QCOMPARE(raw.toHex(), expected.toHex());
}

void TestCaptureFile::cutAtEveryOffsetReadsWholeFrames()
{
    const QVector<qint64> frames = frameOffsets(framedFile);
    for (qint64 cut = frames.at(frames.size() - 2); cut < framedFile.size(); ++cut) {
        const QByteArray part = framedFile.left(int(cut));
        const ReadResult result = readCapture(QStringLiteral("test.tcap"), &part);
        const QString where = QStringLiteral("cut at %1: %2").arg(cut).arg(result.errorString);
        QVERIFY2(result.errorString.isEmpty() && result.truncated, qPrintable(where));
        QVERIFY2(result.records == framedRecords.mid(0, framedRead.recordsBefore(cut)), qPrintable(where));
    }
}

void TestCaptureFile::damageIsReportedWithItsOffset_data()
{
    QTest::addColumn<QByteArray>("file");
    QTest::addColumn<qint64>("offset");
    QTest::addColumn<QString>("what");
    QTest::addColumn<int>("recordsBefore");

    const auto row = [](const char* name, const QByteArray& file, qint64 offset, const QString& what, int before) {
        QTest::newRow(name) << file << offset << what << before;
    };
    const auto changed = [this](qint64 offset, const QByteArray& bytes) {
        return QByteArray(framedFile).replace(int(offset), bytes.size(), bytes);
    };
    const auto flipped = [&](qint64 offset) {
        return changed(offset, QByteArray(1, char(framedFile.at(int(offset)) ^ 16)));
    };
    const qint64 frame = frameOffsets(framedFile).at(1);
    const qint64 last = frameOffsets(framedFile).last();
    const quint32 stored = qFromLittleEndian<quint32>(framedFile.constData() + frame);
    const quint32 raw = qFromLittleEndian<quint32>(framedFile.constData() + frame + 4);
    const int before = framedRead.recordsBefore(frame);
    const QString damaged = QStringLiteral("damaged frame: ");

    row("empty", QByteArray(), 0, "not a capture file", 0);
    row("garbage", QByteArray(5000, 'g'), 0, "not a capture file", 0);
    row("magic only", framedFile.left(8), 8, "the format version runs past the end of the file", 0);
    row("other version", changed(8, "\x02"), 8, "format version 2, this reader knows 1", 0);
    row("cut in the address", framedFile.left(26), 22, "the target address runs past the end of the file", 0);
    row("flipped content", flipped(frame + 8 + stored / 2), frame, damaged, before);
    row("flipped checksum", flipped(framedFile.size() - 9), last,
        damaged + "Restored data doesn't match checksum", framedRead.recordsBefore(last));
    row("raw size past the bound", changed(frame + 4, le32(Capture::MaxRecordSize + 17)), frame,
        "frame of 67108881 raw bytes (at most 67108880)", before);
    row("raw size one more", changed(frame + 4, le32(raw + 1)), frame,
        damaged + "its content size disagrees with the frame prefix", before);
    row("stored size one less", changed(frame, le32(stored - 1)), frame,
        damaged + "its length disagrees with the frame prefix", before);
    row("stored size past the bound", changed(frame, le32(0x7fffffff)), frame,
        QStringLiteral("frame of 2147483647 stored bytes for %1 raw bytes").arg(raw), before);
    row("bytes after the end", framedFile + "x", framedFile.size(), "1 bytes after the end of the capture",
        framedRecords.size());

    // Frames that decompress but hold a bad record after a good one.
    const auto crafted = [&](const char* name, const QByteArray& bad, const QString& what, bool checksum = true) {
        const QByteArray content = rawRecord(RecordKind::Sent, 1, "ok") + bad;
        row(name, framedFile.left(int(HeaderSize)) + zstdFrame(content, checksum) + EndMarker, HeaderSize, what,
            checksum ? 1 : 0);
    };
    crafted("unknown kind", rawRecord(RecordKind(4), 0, "a"), "record of unknown kind 4");
    crafted("record past its frame", rawRecord(RecordKind::Sent, 0, "abc").chopped(1),
            "record of 3 bytes runs past the end of its frame");
    crafted("record over the bound", rawRecord(RecordKind::Sent, 0, {}).left(2) + "\x81\x80\x80\x20",
            "record of 67108865 bytes (at most 67108864)");
    crafted("cut record header", QByteArray("\x00\xff", 2), "record header runs past the end of its frame");
    crafted("time past the range", rawRecord(RecordKind::Sent, quint64(1) << 63, {}), "record time out of range");
    crafted("no checksum", QByteArray(), damaged + "not a zstd frame with a checksum", false);
    // The shortest frame that can say it has a checksum, and nothing more.
    const QByteArray bareFrame = le32(5) + le32(1) + QByteArray("\x28\xb5\x2f\xfd\x04", 5);
    row("bare frame header", framedFile.left(int(HeaderSize)) + bareFrame + EndMarker, HeaderSize,
        damaged + "its content size disagrees with the frame prefix", 0);
}

void TestCaptureFile::damageIsReportedWithItsOffset()
{
    QFETCH(QByteArray, file);
    QFETCH(qint64, offset);
    QFETCH(QString, what);
    QFETCH(int, recordsBefore);
    const ReadResult result = readCapture(QStringLiteral("test.tcap"), &file);
    const QString expected = QStringLiteral("test.tcap: offset %1: %2").arg(offset).arg(what);
    QVERIFY2(result.errorString.startsWith(expected) && !result.truncated, qPrintable(result.errorString));
    QVERIFY(!result.errorString.contains(QLatin1Char('\n')));
    QCOMPARE(result.records.size(), recordsBefore);
}

// A frame reaches the disk within a second, so the file reads, cut short, before close().
void TestCaptureFile::liveFileAndRecordTimes()
{
    const QString path = dir.filePath("live.tcap");
    CaptureWriter writer;
    QVERIFY(writer.open(path, TestHeader) && writer.isOpen());
    writer.appendConnected(QStringLiteral("10.1.2.3"), 9264);
    writer.appendReceived(packet(3, "cpu"));
    writer.appendSent("req");
    QTRY_VERIFY_WITH_TIMEOUT(writer.storedBytes() > HeaderSize, 3000);
    const ReadResult live = readCapture(path);
    QVERIFY(live.truncated && live.errorString.isEmpty() && live.records.size() == 3);

    // A time of the caller's that goes backwards is clamped.
    const qint64 later = live.records[2].timeUs + 5000000;
    writer.append(Record { later, RecordKind::Received, "a" });
    writer.append(Record { later - 1000, RecordKind::Received, "b" });
    writer.appendDisconnected();
    writer.close();
    writer.close();
    QVERIFY(!writer.isOpen());
    QCOMPARE(writer.rawBytes(), qint64(13 + 15 + 3 + 2));
    QCOMPARE(writer.storedBytes(), QFileInfo(path).size());
    const ReadResult done = readCapture(path);
    QVERIFY(done.whole() && done.records.size() == 6 && done.records[4].timeUs == later);
    QVERIFY(done.records[5].kind == RecordKind::Disconnected && done.records[5].timeUs >= later);
}

void TestCaptureFile::replay_data()
{
    QTest::addColumn<double>("speed");
    QTest::addColumn<QString>("action"); // "cut" and "junk" change the file's end
    QTest::addColumn<int>("ms"); // the replay's length: 95 % of it to half as much again and 150 ms more
    QTest::addColumn<QStringList>("statuses"); // the last one as a prefix
    const QString at1 = QStringLiteral("Replaying paced.tarncap at 1x...");
    const QString fast = QStringLiteral("Replaying paced.tarncap as fast as possible...");
    const QString done = QStringLiteral("Replay of paced.tarncap finished.");
    const auto row = [](const char* name, double speed, const char* action, int ms, const QStringList& statuses) {
        QTest::newRow(name) << speed << action << ms << statuses;
    };
    row("twice as fast", 2, "", 300, { "Replaying paced.tarncap at 2x...", done });
    row("paused for 400 ms", 1, "pause", 1000, { at1, done });
    row("command and request", 1, "command", 600, { at1, "Replay: commands are not sent to a target.", done });
    row("disconnect", 1, "disconnect", 150, { at1, "Disconnected." });
    row("cut short", 0, "cut", 0, { fast, "Replay of paced.tarncap finished; the file was cut short." });
    row("junk after the end", 0, "junk", 0, { fast, "Replay of paced.tarncap stopped at damage: " });
}

// The link is connected to a target before the replay: writing to it would now fail and end the
// replay, so one that runs to its end wrote nothing. The first record is due at once.
void TestCaptureFile::replay()
{
    QFETCH(double, speed);
    QFETCH(QString, action);
    QFETCH(int, ms);
    QFETCH(QStringList, statuses);
    const QString fileName = dir.filePath(QStringLiteral("paced.tarncap"));
    // A connection that ends inside a packet, then one with seven CPU packets,
    // one every 100 ms; all recorded a second after the capture started.
    Records paced { at(1, RecordKind::Connected, "127.0.0.1:9264"), received(1, packet(3, le32(99)).left(6)),
                    at(1, RecordKind::Disconnected), at(1, RecordKind::Connected, "127.0.0.1:9264") };
    for (int i = 0; i < 7; ++i)
        paced << received(1 + i * 0.1, packet(3, le32(quint32(i))));
    const QByteArray file = writeCapture(fileName, paced << at(1.6, RecordKind::Disconnected));
    QVERIFY(writeFile(fileName, action == "cut" ? file.chopped(3) : action == "junk" ? file + "junk" : file));
    TargetServer target(TargetSettings {});
    QVERIFY(target.listen(QHostAddress::LocalHost, 0));
    // Every packet the link framed, whatever its type, and what it announced.
    QList<QByteArray> packets;
    QStringList announced;
    ProfilerNetwork network;
    CaptureReplay replay(&network);
    QSignalSpy finished(&replay, &CaptureReplay::finished);
    connect(&network, &ProfilerNetwork::packetReady, [&] {
        for (int key = 0; key < 0x10000; ++key) {
            while (network.getNumWaitingPackets(quint8(key >> 8), quint8(key)) > 0)
                packets << network.getPacket(quint8(key >> 8), quint8(key));
        }
    });
    connect(&network, &ProfilerNetwork::statusChanged, [&](const QString& text) { announced << text; });
    network.connectToHost(QStringLiteral("127.0.0.1"), target.getPort());
    QVERIFY(QTest::qWaitFor([&] { return network.isConnected(); }, 5000));
    announced.clear();

    QElapsedTimer clock;
    clock.start();
    replay.setSpeed(speed);
    QVERIFY(replay.open(fileName));
    replay.start();
    QTest::qWait(QStringList { "pause", "command", "disconnect" }.contains(action) ? 150 : 0);
    const int before = packets.size();
    TARN::ProfilePacketHeader command = TARN::makeHeader(12, 1, 1, 0);
    if (action == QLatin1String("pause")) {
        network.paused = true;
        QTest::qWait(400);
        QCOMPARE(packets.size(), before);
        network.paused = false;
    } else if (action == QLatin1String("command")) {
        network.sendCommand(&command);
        network.requestDataType(1, 0, 100);
    } else if (action == QLatin1String("disconnect")) {
        network.disconnectFromHost();
    }
    QVERIFY(finished.count() == 1 || finished.wait(5000));
    const qint64 elapsed = clock.elapsed();
    QVERIFY2(elapsed >= ms * 0.95 && elapsed <= ms * 1.5 + 150, qPrintable(QString::number(elapsed)));
    QTest::qWait(action == QLatin1String("disconnect") ? 200 : 0);
    QCOMPARE(packets.size(), action == QLatin1String("disconnect") ? before : 7);
    QCOMPARE(packets.last(), packet(3, le32(quint32(packets.size() - 1))));
    QCOMPARE(announced.size(), statuses.size());
    QVERIFY2(announced.join('\n').startsWith(statuses.join('\n')), qPrintable(announced.join(", ")));
    QVERIFY(!network.isConnected());
}

void TestCaptureFile::recordingToAFullDiskKeepsTheLinkUp()
{
    TargetServer target(TargetSettings {});
    QVERIFY(target.listen(QHostAddress::LocalHost, 0));
    ProfilerForm form;
    form.findChild<QLineEdit*>(QStringLiteral("portEdit"))->setText(QString::number(target.getPort()));
    form.findChild<QPushButton*>(QStringLiteral("connectButton"))->click();
    QVERIFY(QTest::qWaitFor([&] { return form.getNetwork()->isConnected(); }, 5000));

    // Started on a live link, so the failure cannot come before "Connected.".
    ProfilerSession session(ProfilerOptions { QStringLiteral("/dev/full"), QString(), 1.0 }, &form);
    QString error;
    QVERIFY2(session.start(&error), qPrintable(error));
    QCOMPARE(form.windowTitle(), QStringLiteral("TARN Profiler - Recording to /dev/full"));
    auto* writer = session.findChild<CaptureWriter*>();
    QSignalSpy failed(writer, &CaptureWriter::failed);
    auto* status = form.findChild<QLabel*>(QStringLiteral("statusLabel"));
    QTRY_COMPARE_WITH_TIMEOUT(status->text(), QStringLiteral("Recording stopped: ") + writer->errorString(),
                              5000);
    QCOMPARE(form.windowTitle(), QStringLiteral("TARN Profiler - Recording to /dev/full stopped"));
    const QString message = writer->errorString();
    QVERIFY2(message.startsWith("/dev/full: cannot write: ") && !writer->isOpen(), qPrintable(message));
    // The writer stops for good: what comes later is dropped without a word.
    writer->appendReceived(QByteArray(100000, 'y'));
    QSignalSpy packets(form.getNetwork(), &ProfilerNetwork::packetReady);
    QVERIFY(packets.wait(2000));
    QCOMPARE(failed.size(), 1);
    QVERIFY(form.getNetwork()->isConnected());
    QVERIFY(form.findChild<QPushButton*>(QStringLiteral("pauseButton"))->isEnabled());
}

void TestCaptureFile::commandLine_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<QString>("message"); // a run's window title, or a usage error's text after "tarn-profiler: "

    const auto row = [](const char* name, const QStringList& arguments, const QString& message) {
        QTest::newRow(name) << (QStringList { "tarn-profiler" } + arguments) << message;
    };
    row("plain", {}, "TARN Profiler");
    row("record", { "--record", "a.tcap" }, "TARN Profiler - Recording to a.tcap");
    row("replay at a speed", { "--replay", "a.tcap", "--speed", "2.5" }, "TARN Profiler - Replay of a.tcap");
    row("replay at full speed", { "--replay", "a.tcap", "--speed", "0" }, "TARN Profiler - Replay of a.tcap");
    row("both files", { "--record", "a", "--replay", "b" }, "--record and --replay cannot be used together.");
    row("speed without replay", { "--speed", "2" }, "--speed only applies to --replay.");
    row("negative speed", { "--replay", "a", "--speed", "-1" }, "--speed takes a number of 0 or more, not '-1'.");
    row("stray argument", { "a.tcap" }, "unexpected argument 'a.tcap'.");
}

void TestCaptureFile::commandLine()
{
    QFETCH(QStringList, arguments);
    QFETCH(QString, message);
    ProfilerOptions options;
    QString text;
    const bool run = message.startsWith("TARN Profiler");
    QCOMPARE(ProfilerSession::parse(arguments, &options, &text),
             run ? ProfilerSession::Run : ProfilerSession::UsageError);
    if (!run) {
        QVERIFY2(text.startsWith("tarn-profiler: " + message + "\n"), qPrintable(text));
        return;
    }
    // The title shows the file to replay in preference to the one to record to.
    QCOMPARE(options.recordFile, arguments.contains("--record") ? QStringLiteral("a.tcap") : QString());
    QCOMPARE(options.speed, arguments.contains("--speed") ? arguments.last().toDouble() : 1.0);
    ProfilerForm form;
    QCOMPARE(ProfilerSession(options, &form).windowTitle(), message);
}

QTEST_MAIN(TestCaptureFile)
#include "tst_capturefile.moc"
