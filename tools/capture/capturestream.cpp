#include "capturestream.h"

bool CaptureStream::open(const QString& fileName)
{
    return reader.open(fileName);
}

bool CaptureStream::next(Event* event)
{
    for (;;) {
        // Packets a record completed come out before the next record is read.
        if (takePacket(&received, false, event) || takePacket(&sent, true, event))
            return true;

        Capture::Record record;
        if (!reader.next(record))
            return false;
        recordBytes += record.bytes.size();
        lastTime = record.timeUs;
        event->timeUs = record.timeUs;
        event->bytes.clear();
        event->pendingBytes = 0;
        switch (record.kind) {
        case Capture::RecordKind::Received:
            received.append(record.bytes);
            break;
        case Capture::RecordKind::Sent:
            sent.append(record.bytes);
            break;
        case Capture::RecordKind::Connected:
            startConnection();
            event->kind = EventKind::Connected;
            event->bytes = record.bytes;
            return true;
        case Capture::RecordKind::Disconnected:
            event->kind = EventKind::Disconnected;
            event->pendingBytes = pendingBytes();
            startConnection();
            return true;
        }
    }
}

bool CaptureStream::takePacket(PacketFramer* framer, bool sentWay, Event* event)
{
    QByteArray packet;
    switch (framer->take(&packet)) {
    case PacketFramer::NeedMore:
        return false;
    case PacketFramer::PacketTaken:
        event->kind = sentWay ? EventKind::Sent : EventKind::Received;
        event->bytes = packet;
        break;
    case PacketFramer::StreamBroken:
        event->kind = EventKind::StreamBroken;
        event->bytes.clear();
        break;
    }
    event->sent = sentWay;
    event->timeUs = lastTime;
    event->pendingBytes = 0;
    return true;
}

void CaptureStream::startConnection()
{
    received.reset();
    sent.reset();
}

const Capture::Header& CaptureStream::header() const
{
    return reader.header();
}

QString CaptureStream::errorString() const
{
    return reader.errorString();
}

CaptureStream::Ending CaptureStream::ending() const
{
    if (reader.hasError())
        return Ending::Damaged;
    return reader.truncated() ? Ending::Truncated : Ending::Complete;
}

qint64 CaptureStream::lastTimeUs() const
{
    return lastTime;
}

qint64 CaptureStream::rawBytes() const
{
    return recordBytes;
}

qint64 CaptureStream::fileSize() const
{
    return reader.fileSize();
}

int CaptureStream::pendingBytes() const
{
    return received.pendingBytes() + sent.pendingBytes();
}
