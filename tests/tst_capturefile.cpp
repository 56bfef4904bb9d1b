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

namespace
{

const qint64 HeaderSize = 8 + 2 + 8 + 2 + 2 + 10 + 2 + 11 + 32;
const QByteArray EndMarker(8, '\0');

Capture::Header testHeader()
{
    Capture::Header header;
    header.startTime = QDateTime(QDate(2024, 5, 6), QTime(7, 8, 9, 10), Qt::UTC);
    header.targetHost = QStringLiteral("game.local");
    header.targetPort = 9264;
    header.profilerVersion = QStringLiteral("0.1+gittest");
    return header;
}

QByteArray randomBytes(QRandomGenerator& random, int size)
{
    QByteArray bytes(size, '\0');
    for (char& byte : bytes)
        byte = char(random.bounded(256));
    return bytes;
}

QString firstDifference(const Records& got, const Records& expected)
{
    for (int i = 0; i < qMin(got.size(), expected.size()); ++i)
        if (got[i].timeUs != expected[i].timeUs || got[i].kind != expected[i].kind || got[i].bytes != expected[i].bytes)
            return QStringLiteral("record %1 differs").arg(i);
    return got.size() == expected.size() ? QString() : QStringLiteral("%1 records, not %2").arg(got.size()).arg(expected.size());
}

struct ReadResult
{
    Records records;
    QVector<qint64> frameEnds; // the reader's offset after each record
    bool error = false;
    bool truncated = false;
    QString errorString;
};

ReadResult readAll(CaptureReader& reader, bool opened)
{
    ReadResult result;
    Record record;
    while (opened && reader.next(record)) {
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
    const bool opened = reader.openData(bytes, QStringLiteral("test.tcap"));
    return readAll(reader, opened);
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
    for (qint64 offset = HeaderSize; offset + 8 <= file.size();) {
        const quint32 stored = qFromLittleEndian<quint32>(file.constData() + offset);
        if (stored == 0)
            break;
        offsets.append(offset);
        offset += 8 + stored;
    }
    return offsets;
}

QByteArray le32(quint32 value)
{
    char bytes[4];
    qToLittleEndian<quint32>(value, bytes);
    return QByteArray(bytes, 4);
}

QByteArray zstdFrame(const QByteArray& raw, bool checksum = true)
{
    ZSTD_CCtx* context = ZSTD_createCCtx();
    ZSTD_CCtx_setParameter(context, ZSTD_c_checksumFlag, checksum ? 1 : 0);
    QByteArray frame(int(ZSTD_compressBound(size_t(raw.size()))), '\0');
    frame.resize(int(ZSTD_compress2(context, frame.data(), size_t(frame.size()), raw.constData(), size_t(raw.size()))));
    ZSTD_freeCCtx(context);
    return le32(quint32(frame.size())) + le32(quint32(raw.size())) + frame;
}

QByteArray varint(quint64 value)
{
    QByteArray bytes;
    for (; value >= 0x80; value >>= 7)
        bytes.append(char(value | 0x80));
    return bytes + char(value);
}

QByteArray rawRecord(RecordKind kind, quint64 timeDelta, const QByteArray& bytes)
{
    return char(kind) + varint(timeDelta) + varint(quint64(bytes.size())) + bytes;
}

QByteArray packet(quint8 type, quint8 subtype, const QByteArray& body)
{
    return PacketBuilder(type, subtype, 1).raw(body).finish();
}

// Packets of a few (type, subtype) keys, each either a repeat with a few
// bytes changed (the XOR path) or of a new size (the plain path), cut into
// chunks that split headers and bodies; requests, reconnections, empty
// records and a stream broken by a bad size between them.
Records randomRecords(quint32 seed)
{
    QRandomGenerator random(seed);
    Records records;
    qint64 time = 0;
    const auto add = [&](RecordKind kind, const QByteArray& bytes) {
        time += random.bounded(3000);
        records.append(Record { time, kind, bytes });
    };
    QHash<int, QByteArray> bodies;
    // Delta coded and large, not coded, delta coded and small, not coded.
    const quint8 types[] = { 7, 2, 3, 1 };
    for (int connection = 0; connection < 3; ++connection) {
        add(RecordKind::Connected, "127.0.0.1:9264");
        QByteArray stream;
        for (int i = 0; i < 80; ++i) {
            const int key = random.bounded(4);
            QByteArray& body = bodies[key];
            if (body.isEmpty() || random.bounded(4) == 0)
                body = randomBytes(random, random.bounded(key == 0 ? 9000 : 60));
            for (int j = 0; j < 3 && !body.isEmpty(); ++j)
                body[random.bounded(body.size())] = char(random.bounded(256));
            stream += packet(types[key], quint8(key == 1), body);
        }
        if (connection == 1)
            stream += PacketBuilder(1, 0, 1).finishWithSize(5) + packet(1, 0, bodies[0]);
        for (int offset = 0; offset < stream.size();) {
            const int length = 1 + random.bounded(qMin(stream.size() - offset, random.bounded(2) ? 13 : 4000));
            add(RecordKind::Received, stream.mid(offset, length));
            offset += length;
            if (random.bounded(10) == 0)
                add(random.bounded(2) ? RecordKind::Sent : RecordKind::Received, randomBytes(random, random.bounded(2) * 18));
        }
        add(RecordKind::Disconnected, QByteArray());
    }
    add(RecordKind::Received, randomBytes(random, 100));
    return records;
}

// Ten seconds of the simulated game's streams at the rates the profiler asks for.
Records demoSession(int units, int seconds)
{
    SimEngine engine(7, units);
    Records records { Record { 0, RecordKind::Connected, "127.0.0.1:9264" } };
    for (int step = 0; step < seconds * 1000 / SimEngine::StepMs; ++step) {
        engine.step();
        QByteArray tick;
        if (step % 2 == 0)
            tick += PacketEncoder::encodeDSP(engine.getNetwork(), 6) + PacketEncoder::encodeGroups(engine.getNetwork());
        if (step % 4 == 0)
            tick += PacketEncoder::encodeCPU(engine.getFigures(), 1) + PacketEncoder::encodeChannels(engine.getFigures())
                + PacketEncoder::encodeCodecs(engine.getFigures()) + PacketEncoder::encodeStats(engine.getFigures());
        // One socket read takes at most 64 KiB.
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
    QCOMPARE(frameOffsets(framedFile).size(), 4);
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
        << Records { { 0, RecordKind::Received, QByteArray() }, { 1, RecordKind::Received, randomBytes(random, 9 << 20) },
                     { 1, RecordKind::Sent, QByteArray() }, { 2, RecordKind::Received, largest },
                     { 3, RecordKind::Received, "x" } };
}

void TestCaptureFile::roundTrip()
{
    QFETCH(Records, records);
    const QString path = dir.filePath("roundtrip.tcap");
    QVERIFY(!writeCapture(path, records).isEmpty());
    CaptureReader reader;
    QVERIFY(reader.open(path));
    QCOMPARE(reader.header().startTime, testHeader().startTime);
    QCOMPARE(reader.header().targetHost, testHeader().targetHost);
    QCOMPARE(reader.header().targetPort, testHeader().targetPort);
    QCOMPARE(reader.header().profilerVersion, testHeader().profilerVersion);
    const ReadResult result = readAll(reader, true);
    QCOMPARE(result.errorString, QString());
    QVERIFY(!result.truncated);
    QCOMPARE(firstDifference(result.records, records), QString());
    QCOMPARE(reader.offset(), reader.fileSize());
}

// An independent decoding of a small file: the header field by field, the
// records of the one frame, a repeated packet body stored XORed with the
// one before, a resized one stored as it is, and the end marker.
void TestCaptureFile::layoutByteByByte()
{
    const QByteArray first = QByteArray::fromHex("00112233445566778899aabbccddeeff");
    const QByteArray second = QByteArray::fromHex("00112233445566778899aabbccddeefe");
    const QByteArray resized = QByteArray::fromHex("01020304");
    const QByteArray file = writeCapture(dir.filePath("layout.tcap"),
                                         { { 5, RecordKind::Connected, "h:1" },
                                           { 7, RecordKind::Received, packet(3, 0, first) + packet(3, 0, second) },
                                           { 300, RecordKind::Received, packet(3, 0, resized) },
                                           { 300, RecordKind::Sent, "abc" } });
    const QByteArray header = QByteArray("TARNCAP\0", 8) + QByteArray::fromHex("0100") + QByteArray::fromHex("b237bb4c8f010000")
        + QByteArray::fromHex("3024") + QByteArray::fromHex("0a00") + "game.local" + QByteArray::fromHex("0b00") + "0.1+gittest"
        + QByteArray::fromHex("b802000000000000000000000000000000000000000000000000000000000000");
    QCOMPARE(file.left(int(HeaderSize)).toHex(), header.toHex());
    QVERIFY(file.endsWith(EndMarker));

    const quint32 stored = qFromLittleEndian<quint32>(file.constData() + HeaderSize);
    const quint32 rawSize = qFromLittleEndian<quint32>(file.constData() + HeaderSize + 4);
    QCOMPARE(HeaderSize + 8 + stored + 8, qint64(file.size()));
    QByteArray raw(int(rawSize), '\0');
    QCOMPARE(ZSTD_decompress(raw.data(), rawSize, file.constData() + HeaderSize + 8, stored), size_t(rawSize));
    QByteArray xored(16, '\0');
    xored[15] = 1;
    const QByteArray expected = rawRecord(RecordKind::Connected, 5, "h:1")
        + rawRecord(RecordKind::Received, 2, packet(3, 0, first) + packet(3, 0, second).left(12) + xored)
        + rawRecord(RecordKind::Received, 293, packet(3, 0, resized)) + rawRecord(RecordKind::Sent, 0, "abc");
    QCOMPARE(raw.toHex(), expected.toHex());
}

void TestCaptureFile::cutAtEveryOffsetReadsWholeFrames()
{
    const ReadResult whole = readData(framedFile);
    QCOMPARE(firstDifference(whole.records, framedRecords), QString());
    const QVector<qint64> frames = frameOffsets(framedFile);
    for (qint64 cut = frames[frames.size() - 2]; cut < framedFile.size(); ++cut) {
        const ReadResult result = readData(framedFile.left(int(cut)));
        const int wholeRecords = int(std::count_if(whole.frameEnds.begin(), whole.frameEnds.end(),
                                                   [cut](qint64 end) { return end <= cut; }));
        QVERIFY2(!result.error && result.truncated, qPrintable(QStringLiteral("cut at %1: %2").arg(cut).arg(result.errorString)));
        QCOMPARE(firstDifference(result.records, framedRecords.mid(0, wholeRecords)), QString());
    }
}

void TestCaptureFile::damageIsReportedWithItsOffset_data()
{
    QTest::addColumn<QByteArray>("file");
    QTest::addColumn<qint64>("offset");
    QTest::addColumn<QString>("what");
    QTest::addColumn<int>("recordsBefore");

    const QVector<qint64> frames = frameOffsets(framedFile);
    const ReadResult whole = readData(framedFile);
    const auto recordsBefore = [&](qint64 frame) {
        return int(std::count_if(whole.frameEnds.begin(), whole.frameEnds.end(), [frame](qint64 end) { return end <= frame; }));
    };
    const auto changed = [&](qint64 offset, const QByteArray& bytes) {
        QByteArray file = framedFile;
        return file.replace(int(offset), bytes.size(), bytes);
    };
    const auto flipped = [&](qint64 offset) { return changed(offset, QByteArray(1, char(framedFile.at(int(offset)) ^ 0x10))); };
    const qint64 second = frames[1];
    const qint64 last = frames[3];
    const quint32 secondStored = qFromLittleEndian<quint32>(framedFile.constData() + second);
    const quint32 secondRaw = qFromLittleEndian<quint32>(framedFile.constData() + second + 4);

    QTest::newRow("empty") << QByteArray() << 0LL << "not a capture file" << 0;
    QTest::newRow("garbage") << QByteArray(5000, 'g') << 0LL << "not a capture file" << 0;
    QTest::newRow("other version") << changed(8, QByteArray::fromHex("0200")) << 8LL << "format version 2, this reader knows 1" << 0;
    QTest::newRow("cut in the address") << framedFile.left(26) << 22LL << "the target address runs past the end of the file" << 0;
    QTest::newRow("cut in the type set") << framedFile.left(int(HeaderSize) - 1) << HeaderSize - 32
                                         << "the delta-coded type set runs past the end of the file" << 0;
    QTest::newRow("flipped content") << flipped(second + 8 + secondStored / 2) << second << "damaged frame:" << recordsBefore(second);
    QTest::newRow("flipped checksum") << flipped(framedFile.size() - 9) << last
                                      << "damaged frame: Restored data doesn't match checksum" << recordsBefore(last);
    QTest::newRow("flipped magic") << flipped(second + 9) << second << "damaged frame: not a zstd frame with a checksum"
                                   << recordsBefore(second);
    QTest::newRow("raw size past the bound") << changed(second + 4, le32(Capture::MaxRecordSize + 17)) << second
                                             << "frame of 67108881 raw bytes (at most 67108880)" << recordsBefore(second);
    QTest::newRow("raw size one more") << changed(second + 4, le32(secondRaw + 1)) << second
                                       << "damaged frame: its content size disagrees with the frame prefix" << recordsBefore(second);
    QTest::newRow("stored size one less") << changed(second, le32(secondStored - 1)) << second
                                          << "damaged frame: its length disagrees with the frame prefix" << recordsBefore(second);
    QTest::newRow("stored size past the bound") << changed(second, le32(0x7fffffff)) << second
                                                << QStringLiteral("frame of 2147483647 stored bytes for %1 raw bytes").arg(secondRaw)
                                                << recordsBefore(second);
    QTest::newRow("bytes after the end") << framedFile + "x" << qint64(framedFile.size()) << "1 bytes after the end of the capture"
                                         << framedRecords.size();

    // Frames that decompress but hold bad records, after one good record.
    const QByteArray header = framedFile.left(int(HeaderSize));
    const QByteArray good = rawRecord(RecordKind::Sent, 1, "ok");
    const auto crafted = [&](const QByteArray& raw, bool checksum = true) { return header + zstdFrame(good + raw, checksum) + EndMarker; };
    QTest::newRow("unknown kind") << crafted(rawRecord(RecordKind(4), 0, "a")) << HeaderSize << "record of unknown kind 4" << 1;
    QTest::newRow("record past its frame") << crafted(rawRecord(RecordKind::Sent, 0, "abc").chopped(1)) << HeaderSize
                                           << "record of 3 bytes runs past the end of its frame" << 1;
    QTest::newRow("record over the bound") << crafted(char(0) + varint(0) + varint(Capture::MaxRecordSize + 1)) << HeaderSize
                                           << "record of 67108865 bytes (at most 67108864)" << 1;
    QTest::newRow("cut record header") << crafted(char(0) + QByteArray::fromHex("ff")) << HeaderSize
                                       << "record header runs past the end of its frame" << 1;
    QTest::newRow("time past the range") << crafted(rawRecord(RecordKind::Sent, quint64(1) << 63, QByteArray())) << HeaderSize
                                         << "record time out of range" << 1;
    QTest::newRow("no checksum") << crafted(QByteArray(), false) << HeaderSize << "damaged frame: not a zstd frame with a checksum" << 0;
}

void TestCaptureFile::damageIsReportedWithItsOffset()
{
    QFETCH(QByteArray, file);
    QFETCH(qint64, offset);
    QFETCH(QString, what);
    QFETCH(int, recordsBefore);
    const ReadResult result = readData(file);
    QVERIFY(result.error);
    QVERIFY(!result.truncated);
    QVERIFY2(result.errorString.startsWith(QStringLiteral("test.tcap: offset %1: %2").arg(offset).arg(what)),
             qPrintable(result.errorString));
    QVERIFY(!result.errorString.contains(QLatin1Char('\n')));
    QCOMPARE(result.records.size(), recordsBefore);
}

// A frame reaches the disk within a second even while recording goes on,
// so the file is readable, cut short, before close().
void TestCaptureFile::liveFileAndRecordTimes()
{
    const QString path = dir.filePath("live.tcap");
    CaptureWriter writer;
    QVERIFY(writer.open(path, testHeader()));
    QVERIFY(writer.isOpen());
    writer.appendConnected(QStringLiteral("10.1.2.3"), 9264);
    writer.appendReceived(packet(3, 0, "cpu"));
    writer.appendSent("req");
    QTRY_VERIFY_WITH_TIMEOUT(writer.storedBytes() > HeaderSize, 3000);
    ReadResult live = readData(fileBytes(path));
    QVERIFY(live.truncated && !live.error);
    QCOMPARE(live.records.size(), 3);
    QCOMPARE(live.records[0].bytes, QByteArray("10.1.2.3:9264"));
    QVERIFY(live.records[0].timeUs <= live.records[1].timeUs && live.records[1].timeUs <= live.records[2].timeUs);

    // Times of the caller's own must not go backwards: a late one is clamped.
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
    QVERIFY(!missing.errorString().isEmpty());
    QVERIFY(!missing.isOpen());

    CaptureWriter writer;
    QSignalSpy failed(&writer, &CaptureWriter::failed);
    QVERIFY(writer.open(QStringLiteral("/dev/full"), testHeader()));
    writer.appendReceived(QByteArray(100000, 'x'));
    QVERIFY(failed.wait(3000));
    QVERIFY(!writer.isOpen());
    QVERIFY2(failed.at(0).at(0).toString().startsWith(QStringLiteral("/dev/full: cannot write: ")), qPrintable(writer.errorString()));
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
    const QString path = dir.filePath("goal.tcap");
    CaptureWriter writer;
    QVERIFY(writer.open(path, testHeader()));
    for (const Record& record : records)
        writer.append(record);
    writer.close();
    const qint64 writeMs = timer.elapsed();
    const qint64 raw = writer.rawBytes();
    const qint64 stored = writer.storedBytes();
    qInfo("%d units, 10 s: raw %lld bytes, stored %lld bytes, ratio 1/%.1f, written in %lld ms", units, raw, stored,
          double(raw) / double(stored), writeMs);
    QVERIFY(stored * 8 <= raw);
    QCOMPARE(firstDifference(readData(fileBytes(path)).records, records), QString());
}

QTEST_GUILESS_MAIN(TestCaptureFile)
#include "tst_capturefile.moc"
