#include "capturefile.h"
#include "packetbuilder.h"
#include "packetencoder.h"
#include "simengine.h"

#include <QElapsedTimer>
#include <QRandomGenerator>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QtEndian>
#include <QtTest>

#include <zstd.h>

using Capture::Record;
using Capture::RecordKind;
using Records = QVector<Record>;
Q_DECLARE_METATYPE(Capture::Record)

namespace Capture
{
bool operator==(const Record& a, const Record& b)
{
    return a.timeUs == b.timeUs && a.kind == b.kind && a.bytes == b.bytes;
}
} // namespace Capture

namespace
{

const qint64 HeaderSize = 8 + 2 + 8 + 2 + 2 + 10 + 2 + 11 + 32;
const QByteArray EndMarker(8, '\0');

Capture::Header testHeader()
{
    return Capture::Header { QDateTime(QDate(2024, 5, 6), QTime(7, 8, 9, 10), Qt::UTC), QStringLiteral("game.local"),
                             9264, QStringLiteral("0.1+gittest") };
}

QByteArray randomBytes(QRandomGenerator& random, int size)
{
    QByteArray bytes(size, '\0');
    for (char& byte : bytes)
        byte = char(random.bounded(256));
    return bytes;
}

struct ReadResult
{
    Records records;
    QVector<qint64> frameEnds; // the reader's offset after each record
    bool error = false;
    bool truncated = false;
    QString errorString;

    int recordsBefore(qint64 offset) const
    {
        return int(std::count_if(frameEnds.begin(), frameEnds.end(), [offset](qint64 end) { return end <= offset; }));
    }
};

ReadResult readAll(CaptureReader& reader)
{
    ReadResult result;
    Record record;
    while (reader.next(record)) {
        result.records.append(record);
        result.frameEnds.append(reader.offset());
    }
    result.error = reader.hasError();
    result.truncated = reader.truncated();
    result.errorString = reader.errorString();
    return result;
}

ReadResult readData(const QByteArray& bytes)
{
    CaptureReader reader;
    reader.openData(bytes, QStringLiteral("test.tcap"));
    return readAll(reader);
}

QByteArray fileBytes(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

QByteArray writeCapture(const QString& path, const Records& records)
{
    CaptureWriter writer;
    if (!writer.open(path, testHeader()))
        return QByteArray();
    for (const Record& record : records)
        writer.append(record);
    writer.close();
    return fileBytes(path);
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
    char bytes[4];
    qToLittleEndian<quint32>(value, bytes);
    return QByteArray(bytes, 4);
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

// Packets of delta-coded and plain types, each a repeat with a few bytes
// changed (the XOR path) or of a new size, cut into chunks that split
// headers and bodies; requests, empty records, reconnections and a stream
// broken by a bad size between them.
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

// The simulated game's streams at the rates the profiler asks for, in
// socket reads of at most 64 KiB.
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
    void writeErrorStopsRecording();
    void compressionGoal_data();
    void compressionGoal();

private:
    QTemporaryDir dir;
    Records framedRecords; // four seconds of record time: a frame each
    QByteArray framedFile;
};

void TestCaptureFile::initTestCase()
{
    QVERIFY(dir.isValid());
    framedRecords = demoSession(10, 4);
    framedFile = writeCapture(dir.filePath("framed.tcap"), framedRecords);
    // One frame a second of record time, more if the machine stalls.
    QVERIFY(frameOffsets(framedFile).size() >= 4);
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
        << Records { { 0, RecordKind::Received, QByteArray() },
                     { 1, RecordKind::Received, randomBytes(random, 9 << 20) },
                     { 1, RecordKind::Sent, QByteArray() },
                     { 2, RecordKind::Received, largest } };
}

void TestCaptureFile::roundTrip()
{
    QFETCH(Records, records);
    const QString path = dir.filePath("roundtrip.tcap");
    QVERIFY(!writeCapture(path, records).isEmpty());
    CaptureReader reader;
    QVERIFY(reader.open(path));
    const Capture::Header header = reader.header();
    QCOMPARE(header.startTime, testHeader().startTime);
    QCOMPARE(header.targetHost, testHeader().targetHost);
    QCOMPARE(header.targetPort, testHeader().targetPort);
    QCOMPARE(header.profilerVersion, testHeader().profilerVersion);
    const ReadResult result = readAll(reader);
    QCOMPARE(result.errorString, QString());
    QVERIFY(!result.truncated);
    QVERIFY(result.records == records);
    QCOMPARE(reader.offset(), reader.fileSize());
}

// An independent decoding of a small file: the header field by field, the
// records of its one frame, a repeated packet body stored XORed with the one
// before, a resized one stored as it is, and the end marker.
void TestCaptureFile::layoutByteByByte()
{
    const QByteArray first = QByteArray::fromHex("00112233445566778899aabbccddeeff");
    QByteArray second = first;
    second[15] = char(0xfe);
    const QByteArray file = writeCapture(dir.filePath("layout.tcap"),
                                         { { 5, RecordKind::Connected, "h:1" },
                                           { 7, RecordKind::Received, packet(3, first) + packet(3, second) },
                                           { 300, RecordKind::Received, packet(3, "four") },
                                           { 300, RecordKind::Sent, "abc" } });
    // Magic, version 1, 2024-05-06T07:08:09.010Z in ms, port 9264, the two
    // strings, and types 3, 4, 5, 7 and 9 delta coded.
    const QByteArray header = "TARNCAP" + QByteArray::fromHex("00" "0100" "b237bb4c8f010000" "3024" "0a00")
        + "game.local" + QByteArray::fromHex("0b00") + "0.1+gittest" + QByteArray::fromHex("b802")
        + QByteArray(30, '\0');
    QCOMPARE(file.left(int(HeaderSize)).toHex(), header.toHex());
    QVERIFY(file.endsWith(EndMarker));

    const quint32 stored = qFromLittleEndian<quint32>(file.constData() + HeaderSize);
    const quint32 rawSize = qFromLittleEndian<quint32>(file.constData() + HeaderSize + 4);
    QCOMPARE(HeaderSize + 8 + stored + 8, qint64(file.size()));
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
    const ReadResult whole = readData(framedFile);
    QVERIFY(whole.records == framedRecords);
    const QVector<qint64> frames = frameOffsets(framedFile);
    for (qint64 cut = frames.at(frames.size() - 2); cut < framedFile.size(); ++cut) {
        const ReadResult result = readData(framedFile.left(int(cut)));
        const QString where = QStringLiteral("cut at %1: %2").arg(cut).arg(result.errorString);
        QVERIFY2(!result.error && result.truncated, qPrintable(where));
        QVERIFY2(result.records == framedRecords.mid(0, whole.recordsBefore(cut)), qPrintable(QString::number(cut)));
    }
}

void TestCaptureFile::damageIsReportedWithItsOffset_data()
{
    QTest::addColumn<QByteArray>("file");
    QTest::addColumn<qint64>("offset");
    QTest::addColumn<QString>("what");
    QTest::addColumn<int>("recordsBefore");

    const ReadResult whole = readData(framedFile);
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
    const quint32 stored = qFromLittleEndian<quint32>(framedFile.constData() + frame);
    const quint32 raw = qFromLittleEndian<quint32>(framedFile.constData() + frame + 4);
    const int before = whole.recordsBefore(frame);
    const QString damaged = QStringLiteral("damaged frame: ");
    const QString pastEnd = QStringLiteral("the %1 runs past the end of the file");

    row("empty", QByteArray(), 0, "not a capture file", 0);
    row("garbage", QByteArray(5000, 'g'), 0, "not a capture file", 0);
    row("other version", changed(8, "\x02"), 8, "format version 2, this reader knows 1", 0);
    row("cut in the address", framedFile.left(26), 22, pastEnd.arg("target address"), 0);
    row("flipped content", flipped(frame + 8 + stored / 2), frame, damaged, before);
    row("flipped checksum", flipped(framedFile.size() - 9), frameOffsets(framedFile).last(),
        damaged + "Restored data doesn't match checksum", whole.recordsBefore(frameOffsets(framedFile).last()));
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
    const auto crafted = [this](const QByteArray& bad, bool checksum = true) {
        const QByteArray content = rawRecord(RecordKind::Sent, 1, "ok") + bad;
        return framedFile.left(int(HeaderSize)) + zstdFrame(content, checksum) + EndMarker;
    };
    const QByteArray sentHeader = rawRecord(RecordKind::Sent, 0, QByteArray()).left(2);
    row("unknown kind", crafted(rawRecord(RecordKind(4), 0, "a")), HeaderSize, "record of unknown kind 4", 1);
    row("record past its frame", crafted(rawRecord(RecordKind::Sent, 0, "abc").chopped(1)), HeaderSize,
        "record of 3 bytes runs past the end of its frame", 1);
    row("record over the bound", crafted(sentHeader + "\x81\x80\x80\x20"), HeaderSize,
        "record of 67108865 bytes (at most 67108864)", 1);
    row("cut record header", crafted(QByteArray("\x00\xff", 2)), HeaderSize,
        "record header runs past the end of its frame", 1);
    row("time past the range", crafted(rawRecord(RecordKind::Sent, quint64(1) << 63, QByteArray())), HeaderSize,
        "record time out of range", 1);
    row("no checksum", crafted(QByteArray(), false), HeaderSize, damaged + "not a zstd frame with a checksum", 0);
}

void TestCaptureFile::damageIsReportedWithItsOffset()
{
    QFETCH(QByteArray, file);
    QFETCH(qint64, offset);
    QFETCH(QString, what);
    QFETCH(int, recordsBefore);
    const ReadResult result = readData(file);
    QVERIFY(result.error && !result.truncated);
    const QString expected = QStringLiteral("test.tcap: offset %1: %2").arg(offset).arg(what);
    QVERIFY2(result.errorString.startsWith(expected), qPrintable(result.errorString));
    QVERIFY(!result.errorString.contains(QLatin1Char('\n')));
    QCOMPARE(result.records.size(), recordsBefore);
}

// A frame reaches the disk within a second while recording goes on, so the
// file reads, cut short, before close().
void TestCaptureFile::liveFileAndRecordTimes()
{
    const QString path = dir.filePath("live.tcap");
    CaptureWriter writer;
    QVERIFY(writer.open(path, testHeader()) && writer.isOpen());
    writer.appendConnected(QStringLiteral("10.1.2.3"), 9264);
    writer.appendReceived(packet(3, "cpu"));
    writer.appendSent("req");
    QTRY_VERIFY_WITH_TIMEOUT(writer.storedBytes() > HeaderSize, 3000);
    const ReadResult live = readData(fileBytes(path));
    QVERIFY(live.truncated && !live.error);
    QCOMPARE(live.records.size(), 3);
    QCOMPARE(live.records[0].bytes, QByteArray("10.1.2.3:9264"));
    QVERIFY(live.records[0].timeUs <= live.records[1].timeUs && live.records[1].timeUs <= live.records[2].timeUs);

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
    const ReadResult done = readData(fileBytes(path));
    QVERIFY(!done.truncated && !done.error);
    QCOMPARE(done.records.size(), 6);
    QCOMPARE(done.records[4].timeUs, later);
    QCOMPARE(done.records[5].kind, RecordKind::Disconnected);
    QVERIFY(done.records[5].timeUs >= later);
}

void TestCaptureFile::writeErrorStopsRecording()
{
    CaptureWriter missing;
    QSignalSpy missingFailed(&missing, &CaptureWriter::failed);
    QVERIFY(!missing.open(dir.filePath("no/such/folder.tcap"), testHeader()));
    QVERIFY(!missing.errorString().isEmpty() && !missing.isOpen());

    CaptureWriter writer;
    QSignalSpy failed(&writer, &CaptureWriter::failed);
    QVERIFY(writer.open(QStringLiteral("/dev/full"), testHeader()));
    writer.appendReceived(QByteArray(100000, 'x'));
    QVERIFY(failed.wait(3000));
    QVERIFY(!writer.isOpen());
    const QString message = writer.errorString();
    QVERIFY2(message.startsWith(QStringLiteral("/dev/full: cannot write: ")), qPrintable(message));
    QCOMPARE(failed.at(0).at(0).toString(), message);
    writer.appendReceived(QByteArray(100000, 'y'));
    writer.close();
    QTest::qWait(50);
    QCOMPARE(failed.size(), 1);
    QCOMPARE(missingFailed.size(), 0);
}

void TestCaptureFile::compressionGoal_data()
{
    QTest::addColumn<int>("units");
    QTest::newRow("60 units") << 60;
    QTest::newRow("10000 units") << 10000;
}

void TestCaptureFile::compressionGoal()
{
    QFETCH(int, units);
    const Records records = demoSession(units, 10);
    QElapsedTimer timer;
    timer.start();
    CaptureWriter writer;
    QVERIFY(writer.open(dir.filePath("goal.tcap"), testHeader()));
    for (const Record& record : records)
        writer.append(record);
    writer.close();
    const qint64 raw = writer.rawBytes();
    const qint64 stored = writer.storedBytes();
    qInfo("%d units, 10 s: raw %lld bytes, stored %lld bytes, ratio 1/%.1f, written in %lld ms", units, raw, stored,
          double(raw) / double(stored), timer.elapsed());
    QVERIFY(stored * 8 <= raw);
    QVERIFY(readData(fileBytes(dir.filePath("goal.tcap"))).records == records);
}

QTEST_GUILESS_MAIN(TestCaptureFile)
#include "tst_capturefile.moc"
