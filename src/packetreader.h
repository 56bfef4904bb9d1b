#ifndef PACKETREADER_H
#define PACKETREADER_H

#include <QByteArray>
#include <QString>
#include <QtEndian>

#include <cstring>

// Reads little-endian fields from a received packet. The packet comes from a
// program we do not control, so every read is checked against the packet's
// end: a read that would pass it returns 0, leaves the position where it was
// and marks the reader failed. Decoders read on and check ok() once.
class PacketReader
{
public:
    PacketReader(const QByteArray& packet, int offset = 0)
        : data(packet.constData()), size(packet.size()), pos(offset), failed(offset < 0 || offset > packet.size())
    {
    }

    PacketReader(const char* bytes, int length, int offset = 0)
        : data(bytes), size(length), pos(offset), failed(offset < 0 || offset > length)
    {
    }

    bool ok() const { return !failed; }
    int position() const { return pos; }
    int remaining() const { return failed ? 0 : size - pos; }
    bool has(int count) const { return !failed && count >= 0 && count <= size - pos; }

    quint8 u8() { return read<quint8>(); }
    qint8 i8() { return read<qint8>(); }
    quint16 u16() { return read<quint16>(); }
    qint16 i16() { return read<qint16>(); }
    quint32 u32() { return read<quint32>(); }
    qint32 i32() { return read<qint32>(); }
    quint64 u64() { return read<quint64>(); }

    float f32()
    {
        const quint32 bits = u32();
        float value;
        std::memcpy(&value, &bits, sizeof value);
        return value;
    }

    // Some older layouts carry their level floats in network byte order.
    float f32BigEndian()
    {
        if (!has(4))
            return fail<float>();
        const quint32 bits = qFromBigEndian<quint32>(data + pos);
        pos += 4;
        float value;
        std::memcpy(&value, &bits, sizeof value);
        return value;
    }

    // Raw view of the next `count` bytes, or nullptr when they are not there.
    const char* bytes(int count)
    {
        if (!has(count))
            return fail<const char*>();
        const char* start = data + pos;
        pos += count;
        return start;
    }

    // A NUL-terminated UTF-8 string in a field of `width` bytes. A name that
    // fills the field without a terminator is cut at the field's end; invalid
    // UTF-8 is decoded leniently with replacement characters.
    QString fixedString(int width)
    {
        const char* field = bytes(width);
        if (!field)
            return QString();
        const void* end = std::memchr(field, 0, static_cast<size_t>(width));
        const int length = end ? static_cast<int>(static_cast<const char*>(end) - field) : width;
        return QString::fromUtf8(field, length);
    }

    void skip(int count) { bytes(count); }

private:
    template <typename T>
    T read()
    {
        if (!has(static_cast<int>(sizeof(T))))
            return fail<T>();
        const T value = qFromLittleEndian<T>(data + pos);
        pos += static_cast<int>(sizeof(T));
        return value;
    }

    template <typename T>
    T fail()
    {
        failed = true;
        return T();
    }

    const char* data;
    int size;
    int pos;
    bool failed;
};

#endif // PACKETREADER_H
