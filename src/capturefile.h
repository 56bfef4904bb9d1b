#ifndef CAPTUREFILE_H
#define CAPTUREFILE_H

#include <QByteArray>
#include <QDateTime>
#include <QObject>
#include <QString>

#include <memory>

// A capture file keeps a profiling session: every byte that crossed the
// socket, both ways, each chunk with the moment it crossed. The layout is
// described in docs/capture-format.md.
namespace Capture
{

enum class RecordKind : quint8
{
    Received = 0,     // bytes from the target, as one socket read delivered them
    Sent = 1,         // bytes to the target: a data request or a command
    Connected = 2,    // a connection came up; the bytes name the target, "host:port"
    Disconnected = 3  // the connection went down; no bytes
};

struct Header
{
    QDateTime startTime; // UTC
    QString targetHost;
    quint16 targetPort = 0;
    QString profilerVersion;
};

struct Record
{
    qint64 timeUs = 0; // monotonic, microseconds since the capture started
    RecordKind kind = RecordKind::Received;
    QByteArray bytes;
};

// No record is larger than the largest packet the profiler accepts.
constexpr quint32 MaxRecordSize = 64u * 1024u * 1024u;

} // namespace Capture

class CaptureWriterWorker;

// Writes a capture file. Appending only queues the bytes: compression and
// disk writes happen on a thread of the writer's own, so the caller (the
// GUI thread) never waits for the disk. A write error stops the recording:
// failed() is emitted once, later appends are ignored, and what was written
// before stays readable.
class CaptureWriter : public QObject
{
    Q_OBJECT

public:
    explicit CaptureWriter(QObject* parent = nullptr);
    ~CaptureWriter() override; // closes

    // Creates the file and writes its header; false, with errorString() set,
    // when the file cannot be created or written. The record clock starts here.
    bool open(const QString& fileName, const Capture::Header& header);
    // Thread-safe and never blocks on the disk. The time is taken from the
    // writer's monotonic clock.
    void append(Capture::RecordKind kind, const QByteArray& bytes);
    void appendReceived(const QByteArray& bytes);
    void appendSent(const QByteArray& bytes);
    void appendConnected(const QString& host, quint16 port);
    void appendDisconnected();
    // With a time of the caller's, for tools and tests; times must not go
    // backwards.
    void append(const Capture::Record& record);
    // Writes what is queued, ends the last frame and closes the file. Waits
    // for the writer thread; safe to call twice.
    void close();

    bool isOpen() const; // false before open(), after close() and after a write error
    QString fileName() const;
    QString errorString() const;
    qint64 rawBytes() const;    // record bytes appended so far
    qint64 storedBytes() const; // bytes on disk so far, header included

signals:
    // Delivered in the writer's own thread (the one that created it), once.
    void failed(const QString& message);

private:
    std::unique_ptr<CaptureWriterWorker> worker;
};

class CaptureReaderState;

// Reads a capture file, record by record, one frame in memory at a time.
// The file is untrusted: a wrong magic or version, a damaged frame or a
// record that runs past its frame ends the reading with a one-line error
// naming the file and the byte offset; every record before it was returned.
// A file cut short (a crash, a kill, a full disk) ends quietly after its
// last whole frame.
class CaptureReader
{
public:
    CaptureReader();
    ~CaptureReader();

    // Opens the file and checks its header.
    bool open(const QString& fileName);
    // Reads a capture held in memory; `name` stands for the file in errors.
    bool openData(const QByteArray& data, const QString& name);
    // The next record in file order; false at the end or at the first damage.
    bool next(Capture::Record& record);

    const Capture::Header& header() const;
    bool hasError() const;
    QString errorString() const; // "FILE: offset N: what went wrong"
    bool truncated() const;      // the file ends inside a frame
    qint64 fileSize() const;
    qint64 offset() const; // bytes of the file read so far

private:
    std::unique_ptr<CaptureReaderState> state;
};

#endif // CAPTUREFILE_H
