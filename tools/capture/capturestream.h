#ifndef CAPTURESTREAM_H
#define CAPTURESTREAM_H

#include "capturefile.h"
#include "packetframer.h"

#include <QByteArray>
#include <QString>

// Reads a capture file as what happened on the link: connections coming up
// and going down, and the packets each way, each with the time of the
// record whose bytes completed it. The bytes of every connection are framed
// on their own, as the network frames a new connection's stream.
class CaptureStream
{
public:
    enum class EventKind
    {
        Connected,     // bytes: the target, "host:port"
        Disconnected,  // pendingBytes: what was left of an unfinished packet
        Received,      // bytes: one whole packet from the target
        Sent,          // bytes: one whole request or command
        StreamBroken   // a packet header with an impossible size; the rest of that connection is not framed
    };

    enum class Ending
    {
        Complete,
        Truncated, // the file ends inside one of its frames: cut short
        Damaged
    };

    struct Event
    {
        EventKind kind = EventKind::Received;
        bool sent = false; // for StreamBroken: which direction broke
        qint64 timeUs = 0;
        QByteArray bytes;
        int pendingBytes = 0;
    };

    bool open(const QString& fileName);
    // The next event in file order; false at the end of the file or at the
    // first damage.
    bool next(Event* event);

    const Capture::Header& header() const;
    QString errorString() const;
    Ending ending() const; // valid once next() returned false
    qint64 lastTimeUs() const;
    qint64 rawBytes() const; // the bytes of all records read
    qint64 fileSize() const;
    // Bytes of unfinished packets at the end of the file, both ways.
    int pendingBytes() const;

private:
    bool takePacket(PacketFramer* framer, bool sent, Event* event);
    void startConnection();

    CaptureReader reader;
    PacketFramer received;
    PacketFramer sent;
    qint64 lastTime = 0;
    qint64 recordBytes = 0;
};

#endif // CAPTURESTREAM_H
