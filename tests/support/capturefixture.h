#ifndef CAPTUREFIXTURE_H
#define CAPTUREFIXTURE_H

#include "capturefile.h"
#include "packetbuilder.h"

#include <QFile>
#include <QMetaType>
#include <QVector>

#include <algorithm>

// What the capture tests share: records compared whole, one header, files written and read
// back in a call, and the profiler's data request.
using Capture::Record;
using Capture::RecordKind;
using Records = QVector<Record>;
Q_DECLARE_METATYPE(Capture::Record)

namespace Capture
{
inline bool operator==(const Record& a, const Record& b)
{
    return a.timeUs == b.timeUs && a.kind == b.kind && a.bytes == b.bytes;
}
} // namespace Capture

inline const Capture::Header TestHeader { QDateTime(QDate(2024, 5, 6), QTime(7, 8, 9, 10), Qt::UTC),
                                          QStringLiteral("127.0.0.1"), 9264, QStringLiteral("0.1+gittest") };

inline Record at(double seconds, RecordKind kind, const QByteArray& bytes = QByteArray())
{
    return { qint64(seconds * 1e6 + 0.5), kind, bytes };
}

inline Record received(double seconds, const QByteArray& bytes)
{
    return at(seconds, RecordKind::Received, bytes);
}

// The file's bytes, empty when it cannot be read.
inline QByteArray fileBytes(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

inline bool writeFile(const QString& path, const QByteArray& bytes)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(bytes) == bytes.size();
}

// Writes the records at their own times under TestHeader and returns the file.
inline QByteArray writeCapture(const QString& path, const Records& records)
{
    CaptureWriter writer;
    if (!writer.open(path, TestHeader))
        return QByteArray();
    for (const Record& record : records)
        writer.append(record);
    writer.close();
    return fileBytes(path);
}

struct ReadResult
{
    Capture::Header header;
    Records records;
    QVector<qint64> frameEnds; // the reader's offset after each record
    bool truncated = false;
    QString errorString; // empty unless the reader met damage

    bool whole() const { return errorString.isEmpty() && !truncated; }
    int recordsBefore(qint64 offset) const
    {
        return int(std::count_if(frameEnds.begin(), frameEnds.end(), [offset](qint64 end) { return end <= offset; }));
    }
};

// Reads a capture from a file or, when `data` is given, from memory.
inline ReadResult readCapture(const QString& name, const QByteArray* data = nullptr)
{
    CaptureReader reader;
    ReadResult result;
    if (data ? reader.openData(*data, name) : reader.open(name)) {
        for (Record record; reader.next(record);) {
            result.records.append(record);
            result.frameEnds.append(reader.offset());
        }
    }
    result.header = reader.header();
    result.truncated = reader.truncated();
    result.errorString = reader.errorString();
    return result;
}

// A data request as the profiler sends it: a stream type and its period.
inline QByteArray request(quint8 type, quint32 periodMs)
{
    return PacketBuilder(0, 0, 0).u8(type).u8(0).u32(periodMs).finish();
}

#endif // CAPTUREFIXTURE_H
