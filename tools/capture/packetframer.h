#ifndef PACKETFRAMER_H
#define PACKETFRAMER_H

#include <QByteArray>

// Cuts one recorded byte stream into packets by their 12-byte headers, with
// the bounds the network applies to a live stream: a size below the header's
// own or above the largest packet accepted breaks the stream, and nothing
// more of it is framed until the next connection.
class PacketFramer
{
public:
    enum Result
    {
        PacketTaken,
        NeedMore,
        StreamBroken
    };

    // A new connection: a new byte stream.
    void reset();
    // Ignored once the stream is broken.
    void append(const QByteArray& bytes);
    // The next whole packet, if the bytes so far hold one. StreamBroken is
    // returned once, at the bad header; after it NeedMore.
    Result take(QByteArray* packet);
    // Bytes received that do not make a whole packet yet.
    int pendingBytes() const;
    bool isBroken() const;

private:
    QByteArray buffer;
    int offset = 0;
    bool broken = false;
};

#endif // PACKETFRAMER_H
