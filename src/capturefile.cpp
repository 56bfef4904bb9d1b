#include "capturefile.h"

#include "captureformat.h"
#include "packetreader.h"

#include <QBuffer>
#include <QElapsedTimer>
#include <QFile>
#include <QtEndian>

#include <zstd.h>

#include <atomic>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <limits>
#include <mutex>
#include <thread>

using namespace CaptureFormat;
using Capture::MaxRecordSize;

namespace
{

// A frame is closed before its raw content would pass this, and once it
// spans a second of record or wall time; a crash loses at most that much.
const qint64 FrameRawTarget = 8 * 1024 * 1024;
const qint64 FrameSpanUs = 1000000;
const qint64 FrameSpanMs = 1000;
// Beyond this much waiting to be written the disk is not keeping up.
const qint64 MaxQueuedBytes = 256 * 1024 * 1024;
// What a queued record costs besides its bytes, so a flood of empty records
// is bounded too.
const qint64 RecordOverhead = 64;
const int CompressionLevel = 3;
// A window as large as a frame's usual content lets a large snapshot packet
// match the one before it anywhere in the frame.
const int CompressionWindowLog = 23;

void appendLittleEndian16(QByteArray& out, quint16 value)
{
    char bytes[2];
    qToLittleEndian<quint16>(value, bytes);
    out.append(bytes, 2);
}

void appendString(QByteArray& out, const QString& text)
{
    const QByteArray utf8 = text.toUtf8().left(0xffff);
    appendLittleEndian16(out, quint16(utf8.size()));
    out.append(utf8);
}

} // namespace

// ---------------------------------------------------------------------------
// Writing

class CaptureWriterWorker
{
public:
    explicit CaptureWriterWorker(CaptureWriter* owner)
        : owner(owner)
        , context(ZSTD_createCCtx())
    {
        ZSTD_CCtx_setParameter(context, ZSTD_c_compressionLevel, CompressionLevel);
        ZSTD_CCtx_setParameter(context, ZSTD_c_windowLog, CompressionWindowLog);
        ZSTD_CCtx_setParameter(context, ZSTD_c_checksumFlag, 1);
        ZSTD_CCtx_setParameter(context, ZSTD_c_contentSizeFlag, 1);
    }

    ~CaptureWriterWorker()
    {
        close();
        ZSTD_freeCCtx(context);
    }

    bool open(const QString& name, const Capture::Header& header);
    void append(Capture::RecordKind kind, const QByteArray& bytes, qint64 timeUs, bool ownClock);
    void close();

    std::atomic<bool> recording { false };
    std::atomic<qint64> rawBytes { 0 };
    std::atomic<qint64> storedBytes { 0 };
    mutable std::mutex mutex;
    QString fileName;
    QString errorString;

private:
    void run();
    bool writeBatch(std::deque<Capture::Record>& batch);
    bool writeRecord(Capture::Record& record);
    bool finishFrame();
    bool writeOut(const char* data, qint64 size);
    void stopWithError(const QString& message);
    void reportFailure(const QString& message);

    CaptureWriter* owner;
    std::condition_variable wake;
    std::deque<Capture::Record> queue;
    qint64 queuedBytes = 0;
    bool accepting = false;
    bool stopping = false;
    bool failureReported = false;
    QElapsedTimer clock;
    qint64 lastTimeUs = 0;
    std::thread thread;

    // Only the writer thread touches these once it runs.
    QByteArray headerBytes;
    QFile file;
    ZSTD_CCtx* context;
    StreamDelta delta;
    QByteArray frame;
    QByteArray compressed;
    qint64 frameFirstUs = 0;
    qint64 previousRecordUs = 0;
    QElapsedTimer frameAge;
};

bool CaptureWriterWorker::open(const QString& name, const Capture::Header& header)
{
    close();
    QByteArray bytes(Magic, sizeof Magic);
    appendLittleEndian16(bytes, Version);
    char time[8];
    qToLittleEndian<qint64>(header.startTime.toMSecsSinceEpoch(), time);
    bytes.append(time, 8);
    appendLittleEndian16(bytes, header.targetPort);
    appendString(bytes, header.targetHost);
    appendString(bytes, header.profilerVersion);
    const TypeSet types = defaultDeltaTypes();
    bytes.append(deltaMask(types));

    file.setFileName(name);
    // The header is written by the writer thread, so a full disk is
    // reported like any later write error.
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate)) {
        std::lock_guard<std::mutex> lock(mutex);
        fileName = name;
        errorString = QStringLiteral("%1: %2").arg(name, file.errorString());
        file.close();
        return false;
    }
    std::lock_guard<std::mutex> lock(mutex);
    fileName = name;
    errorString.clear();
    delta = StreamDelta(types);
    headerBytes = bytes;
    frame.clear();
    queue.clear();
    queuedBytes = 0;
    lastTimeUs = 0;
    previousRecordUs = 0;
    rawBytes = 0;
    storedBytes = 0;
    accepting = true;
    stopping = false;
    failureReported = false;
    recording = true;
    clock.start();
    thread = std::thread([this] { run(); });
    return true;
}

void CaptureWriterWorker::append(Capture::RecordKind kind, const QByteArray& bytes, qint64 timeUs, bool ownClock)
{
    // One socket read may pass the largest record; its bytes go in several.
    if (bytes.size() > int(Capture::MaxRecordSize)) {
        for (int offset = 0; offset < bytes.size(); offset += int(Capture::MaxRecordSize))
            append(kind, bytes.mid(offset, int(Capture::MaxRecordSize)), timeUs, ownClock);
        return;
    }
    std::unique_lock<std::mutex> lock(mutex);
    if (!accepting)
        return;
    if (ownClock)
        timeUs = clock.nsecsElapsed() / 1000;
    lastTimeUs = qMax(lastTimeUs, timeUs);
    const qint64 cost = bytes.size() + RecordOverhead;
    if (queuedBytes + cost > MaxQueuedBytes) {
        reportFailure(QStringLiteral("%1: recording stopped: the disk did not keep up (%2 MiB waiting)")
                          .arg(fileName)
                          .arg(MaxQueuedBytes / (1024 * 1024)));
        return;
    }
    queue.push_back(Capture::Record { lastTimeUs, kind, bytes });
    queuedBytes += cost;
    rawBytes += bytes.size();
    lock.unlock();
    wake.notify_one();
}

void CaptureWriterWorker::close()
{
    {
        std::lock_guard<std::mutex> lock(mutex);
        accepting = false;
        stopping = true;
        recording = false;
    }
    wake.notify_one();
    if (thread.joinable())
        thread.join();
}

// Stops appends and tells the owner, once, in the owner's thread. Called
// with the mutex held.
void CaptureWriterWorker::reportFailure(const QString& message)
{
    accepting = false;
    recording = false;
    if (failureReported)
        return;
    failureReported = true;
    errorString = message;
    CaptureWriter* target = owner;
    QMetaObject::invokeMethod(owner, [target, message] { emit target->failed(message); }, Qt::QueuedConnection);
}

void CaptureWriterWorker::stopWithError(const QString& message)
{
    std::lock_guard<std::mutex> lock(mutex);
    reportFailure(QStringLiteral("%1: %2").arg(fileName, message));
    queue.clear();
    queuedBytes = 0;
}

void CaptureWriterWorker::run()
{
    bool ok = writeOut(headerBytes.constData(), headerBytes.size());
    std::deque<Capture::Record> batch;
    std::unique_lock<std::mutex> lock(mutex);
    while (ok) {
        if (!queue.empty()) {
            batch.swap(queue);
            const qint64 batchBytes = queuedBytes;
            lock.unlock();
            ok = writeBatch(batch);
            batch.clear();
            lock.lock();
            queuedBytes -= ok ? batchBytes : 0;
            continue;
        }
        if (stopping)
            break;
        if (frame.isEmpty()) {
            wake.wait(lock);
            continue;
        }
        const auto deadline = std::chrono::steady_clock::now()
            + std::chrono::milliseconds(qMax<qint64>(0, FrameSpanMs - frameAge.elapsed()));
        if (wake.wait_until(lock, deadline) == std::cv_status::timeout && queue.empty()) {
            lock.unlock();
            ok = finishFrame();
            lock.lock();
        }
    }
    lock.unlock();
    if (ok && finishFrame()) {
        // A frame of no bytes ends the capture: a file without it was cut short.
        const char end[FramePrefixSize] = {};
        writeOut(end, FramePrefixSize);
    }
    file.close();
}

bool CaptureWriterWorker::writeBatch(std::deque<Capture::Record>& batch)
{
    for (Capture::Record& record : batch)
        if (!writeRecord(record))
            return false;
    if (!frame.isEmpty() && frameAge.elapsed() >= FrameSpanMs)
        return finishFrame();
    return true;
}

bool CaptureWriterWorker::writeRecord(Capture::Record& record)
{
    const qint64 encodedSize = record.bytes.size() + MaxRecordHeaderSize;
    const bool full = frame.size() + encodedSize > FrameRawTarget;
    if (!frame.isEmpty() && (full || record.timeUs - frameFirstUs >= FrameSpanUs) && !finishFrame())
        return false;
    if (frame.isEmpty()) {
        frameFirstUs = record.timeUs;
        frameAge.start();
    }
    frame.append(char(record.kind));
    appendVarint(frame, quint64(record.timeUs - previousRecordUs));
    appendVarint(frame, quint64(record.bytes.size()));
    previousRecordUs = record.timeUs;
    const int payload = frame.size();
    frame.append(record.bytes);
    record.bytes = QByteArray(); // the queue's copy can go now
    delta.follow(record.kind, frame.data() + payload, frame.size() - payload, true);
    return true;
}

bool CaptureWriterWorker::finishFrame()
{
    if (frame.isEmpty())
        return true;
    const size_t bound = ZSTD_compressBound(size_t(frame.size()));
    compressed.resize(int(FramePrefixSize + bound));
    const size_t size = ZSTD_compress2(context, compressed.data() + FramePrefixSize, bound, frame.constData(),
                                       size_t(frame.size()));
    if (ZSTD_isError(size)) {
        stopWithError(QStringLiteral("cannot compress: %1").arg(QString::fromLatin1(ZSTD_getErrorName(size))));
        return false;
    }
    qToLittleEndian<quint32>(quint32(size), compressed.data());
    qToLittleEndian<quint32>(quint32(frame.size()), compressed.data() + 4);
    frame.clear();
    return writeOut(compressed.constData(), qint64(FramePrefixSize + size));
}

// Writes and flushes, so the frame is whole on disk before the next one
// starts: a crash then loses only the frame being filled.
bool CaptureWriterWorker::writeOut(const char* data, qint64 size)
{
    if (file.write(data, size) != size || !file.flush()) {
        stopWithError(QStringLiteral("cannot write: %1").arg(file.errorString()));
        return false;
    }
    storedBytes += size;
    return true;
}

CaptureWriter::CaptureWriter(QObject* parent)
    : QObject(parent)
    , worker(new CaptureWriterWorker(this))
{
}

CaptureWriter::~CaptureWriter()
{
    close();
}

bool CaptureWriter::open(const QString& fileName, const Capture::Header& header)
{
    return worker->open(fileName, header);
}

void CaptureWriter::append(Capture::RecordKind kind, const QByteArray& bytes)
{
    worker->append(kind, bytes, 0, true);
}

void CaptureWriter::appendReceived(const QByteArray& bytes)
{
    append(Capture::RecordKind::Received, bytes);
}

void CaptureWriter::appendSent(const QByteArray& bytes)
{
    append(Capture::RecordKind::Sent, bytes);
}

void CaptureWriter::appendConnected(const QString& host, quint16 port)
{
    append(Capture::RecordKind::Connected, QStringLiteral("%1:%2").arg(host).arg(port).toUtf8());
}

void CaptureWriter::appendDisconnected()
{
    append(Capture::RecordKind::Disconnected, QByteArray());
}

void CaptureWriter::append(const Capture::Record& record)
{
    worker->append(record.kind, record.bytes, record.timeUs, false);
}

void CaptureWriter::close()
{
    worker->close();
}

bool CaptureWriter::isOpen() const
{
    return worker->recording;
}

QString CaptureWriter::fileName() const
{
    std::lock_guard<std::mutex> lock(worker->mutex);
    return worker->fileName;
}

QString CaptureWriter::errorString() const
{
    std::lock_guard<std::mutex> lock(worker->mutex);
    return worker->errorString;
}

qint64 CaptureWriter::rawBytes() const
{
    return worker->rawBytes;
}

qint64 CaptureWriter::storedBytes() const
{
    return worker->storedBytes;
}

// ---------------------------------------------------------------------------
// Reading

class CaptureReaderState
{
public:
    CaptureReaderState()
        : context(ZSTD_createDCtx())
    {
    }

    ~CaptureReaderState() { ZSTD_freeDCtx(context); }

    bool start(QIODevice* source, const QString& name);
    bool next(Capture::Record& record);

    Capture::Header header;
    QString errorString;
    bool hasError = false;
    bool truncated = false;
    qint64 fileSize = 0;
    qint64 position = 0;

private:
    bool readHeader();
    bool loadFrame();
    bool decompressFrame(const QByteArray& stored, quint32 rawSize);
    bool readRecord(Capture::Record& record);
    bool readVarint(quint64* value);
    bool fail(qint64 offset, const QString& what);

    std::unique_ptr<QIODevice> device;
    QString name;
    ZSTD_DCtx* context;
    StreamDelta delta;
    bool finished = true;
    QByteArray frame;
    int framePosition = 0;
    qint64 frameOffset = 0;
    qint64 timeUs = 0;
};

bool CaptureReaderState::start(QIODevice* source, const QString& fileName)
{
    device.reset(source);
    name = fileName;
    header = Capture::Header();
    errorString.clear();
    hasError = false;
    truncated = false;
    finished = false;
    frame.clear();
    framePosition = 0;
    position = 0;
    timeUs = 0;
    delta = StreamDelta();
    if (!device->open(QIODevice::ReadOnly))
        return fail(0, QStringLiteral("cannot open: %1").arg(device->errorString()));
    fileSize = device->size();
    return readHeader();
}

bool CaptureReaderState::fail(qint64 offset, const QString& what)
{
    finished = true;
    hasError = true;
    errorString = QStringLiteral("%1: offset %2: %3").arg(name).arg(offset).arg(what);
    return false;
}

bool CaptureReaderState::readHeader()
{
    // The header is small and bounded: its two strings hold 64 KiB at most.
    const qint64 maxHeaderSize = 8 + 2 + 8 + 2 + 2 * (2 + 0xffff) + DeltaMaskSize;
    const QByteArray bytes = device->read(qMin(fileSize, maxHeaderSize));
    if (bytes.size() < int(sizeof Magic) || std::memcmp(bytes.constData(), Magic, sizeof Magic) != 0)
        return fail(0, QStringLiteral("not a capture file"));
    PacketReader in(bytes, int(sizeof Magic));
    const quint16 version = in.u16();
    if (!in.ok())
        return fail(in.position(), QStringLiteral("the format version runs past the end of the file"));
    if (version != Version)
        return fail(8, QStringLiteral("format version %1, this reader knows %2").arg(version).arg(Version));
    const auto field = [&](int size, const char* what) {
        if (in.has(size))
            return true;
        return fail(in.position(), QStringLiteral("the %1 runs past the end of the file").arg(QLatin1String(what)));
    };
    if (!field(8, "start time"))
        return false;
    header.startTime = QDateTime::fromMSecsSinceEpoch(qint64(in.u64()), Qt::UTC);
    if (!field(2, "target port"))
        return false;
    header.targetPort = in.u16();
    for (QString* text : { &header.targetHost, &header.profilerVersion }) {
        const char* what = text == &header.targetHost ? "target address" : "profiler version";
        if (!field(2, what))
            return false;
        const int length = in.u16();
        if (!field(length, what))
            return false;
        *text = QString::fromUtf8(in.bytes(length), length);
    }
    if (!field(DeltaMaskSize, "delta-coded type set"))
        return false;
    delta = StreamDelta(deltaTypesFromMask(in.bytes(DeltaMaskSize)));
    position = in.position();
    return device->seek(position) || fail(position, QStringLiteral("cannot seek: %1").arg(device->errorString()));
}

bool CaptureReaderState::next(Capture::Record& record)
{
    while (!finished && framePosition >= frame.size())
        if (!loadFrame())
            return false;
    return !finished && readRecord(record);
}

// Reads the next frame whole. A frame the file ends inside is the cut of
// a crashed or killed recording, not damage.
bool CaptureReaderState::loadFrame()
{
    frame.clear();
    framePosition = 0;
    frameOffset = position;
    const qint64 remaining = fileSize - position;
    if (remaining < FramePrefixSize) {
        finished = true;
        truncated = true;
        return false;
    }
    const QByteArray prefix = device->read(FramePrefixSize);
    if (prefix.size() != FramePrefixSize)
        return fail(frameOffset, QStringLiteral("cannot read: %1").arg(device->errorString()));
    const quint32 storedSize = qFromLittleEndian<quint32>(prefix.constData());
    const quint32 rawSize = qFromLittleEndian<quint32>(prefix.constData() + 4);
    if (storedSize == 0 && rawSize == 0) {
        finished = true;
        position += FramePrefixSize;
        if (position != fileSize)
            return fail(position, QStringLiteral("%1 bytes after the end of the capture").arg(fileSize - position));
        return false;
    }
    if (rawSize == 0 || rawSize > MaxFrameRawSize)
        return fail(frameOffset,
                    QStringLiteral("frame of %1 raw bytes (at most %2)").arg(rawSize).arg(MaxFrameRawSize));
    // No zstd frame of that content is larger.
    if (storedSize > ZSTD_compressBound(rawSize))
        return fail(frameOffset,
                    QStringLiteral("frame of %1 stored bytes for %2 raw bytes").arg(storedSize).arg(rawSize));
    if (storedSize > remaining - FramePrefixSize) {
        finished = true;
        truncated = true;
        return false;
    }
    const QByteArray stored = device->read(storedSize);
    if (stored.size() != int(storedSize))
        return fail(frameOffset, QStringLiteral("cannot read: %1").arg(device->errorString()));
    if (!decompressFrame(stored, rawSize))
        return false;
    position += FramePrefixSize + storedSize;
    return true;
}

bool CaptureReaderState::decompressFrame(const QByteArray& stored, quint32 rawSize)
{
    const auto damaged = [this](const QString& what) {
        return fail(frameOffset, QStringLiteral("damaged frame: ") + what);
    };
    // A zstd frame: its magic number, then a descriptor whose bit 2 says it
    // ends with a checksum of its content.
    if (stored.size() < 5 || qFromLittleEndian<quint32>(stored.constData()) != ZSTD_MAGICNUMBER
        || !(quint8(stored.at(4)) & 0x04))
        return damaged(QStringLiteral("not a zstd frame with a checksum"));
    if (ZSTD_getFrameContentSize(stored.constData(), size_t(stored.size())) != rawSize)
        return damaged(QStringLiteral("its content size disagrees with the frame prefix"));
    if (ZSTD_findFrameCompressedSize(stored.constData(), size_t(stored.size())) != size_t(stored.size()))
        return damaged(QStringLiteral("its length disagrees with the frame prefix"));
    frame.resize(int(rawSize));
    const size_t size = ZSTD_decompressDCtx(context, frame.data(), rawSize, stored.constData(), stored.size());
    if (ZSTD_isError(size) || size != rawSize) {
        frame.clear();
        return damaged(ZSTD_isError(size) ? QLatin1String(ZSTD_getErrorName(size)) : QLatin1String("short content"));
    }
    return true;
}

bool CaptureReaderState::readVarint(quint64* value)
{
    *value = 0;
    for (int shift = 0; shift < 64; shift += 7) {
        if (framePosition >= frame.size())
            return false;
        const quint8 byte = quint8(frame.at(framePosition++));
        // The tenth byte may carry only the top bit of 64.
        if (shift == 63 && byte > 1)
            return false;
        *value |= quint64(byte & 0x7f) << shift;
        if (!(byte & 0x80))
            return true;
    }
    return false;
}

bool CaptureReaderState::readRecord(Capture::Record& record)
{
    const quint8 kind = quint8(frame.at(framePosition++));
    if (kind > quint8(Capture::RecordKind::Disconnected))
        return fail(frameOffset, QStringLiteral("record of unknown kind %1").arg(kind));
    quint64 timeDelta = 0;
    quint64 length = 0;
    if (!readVarint(&timeDelta) || !readVarint(&length))
        return fail(frameOffset, QStringLiteral("record header runs past the end of its frame"));
    if (timeDelta > quint64(std::numeric_limits<qint64>::max() - timeUs))
        return fail(frameOffset, QStringLiteral("record time out of range"));
    if (length > Capture::MaxRecordSize)
        return fail(frameOffset, QStringLiteral("record of %1 bytes (at most %2)").arg(length).arg(MaxRecordSize));
    if (length > quint64(frame.size() - framePosition))
        return fail(frameOffset, QStringLiteral("record of %1 bytes runs past the end of its frame").arg(length));
    timeUs += qint64(timeDelta);
    record.timeUs = timeUs;
    record.kind = Capture::RecordKind(kind);
    record.bytes = QByteArray(frame.constData() + framePosition, int(length));
    framePosition += int(length);
    delta.follow(record.kind, record.bytes.data(), record.bytes.size(), false);
    // Hold one frame at a time: the last record's bytes are its own copy.
    if (framePosition >= frame.size())
        frame.clear();
    return true;
}

CaptureReader::CaptureReader()
    : state(new CaptureReaderState)
{
}

CaptureReader::~CaptureReader() = default;

bool CaptureReader::open(const QString& fileName)
{
    return state->start(new QFile(fileName), fileName);
}

bool CaptureReader::openData(const QByteArray& data, const QString& name)
{
    auto buffer = new QBuffer;
    buffer->setData(data);
    return state->start(buffer, name);
}

bool CaptureReader::next(Capture::Record& record)
{
    return state->next(record);
}

const Capture::Header& CaptureReader::header() const
{
    return state->header;
}

bool CaptureReader::hasError() const
{
    return state->hasError;
}

QString CaptureReader::errorString() const
{
    return state->errorString;
}

bool CaptureReader::truncated() const
{
    return state->truncated;
}

qint64 CaptureReader::fileSize() const
{
    return state->fileSize;
}

qint64 CaptureReader::offset() const
{
    return state->position;
}
