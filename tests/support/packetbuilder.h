#ifndef PACKETBUILDER_H
#define PACKETBUILDER_H

#include <QByteArray>
#include <QString>
#include <QtGlobal>

// Builds packets for tests: a 12-byte header followed by little-endian
// fields. finish() writes the real size into the header; sizeOverride()
// lets a test lie about it.
class PacketBuilder
{
public:
    PacketBuilder(quint8 type, quint8 subtype, quint8 version);

    PacketBuilder& u8(quint8 value);
    PacketBuilder& u16(quint16 value);
    PacketBuilder& i16(qint16 value) { return u16(static_cast<quint16>(value)); }
    PacketBuilder& u32(quint32 value);
    PacketBuilder& i32(qint32 value) { return u32(static_cast<quint32>(value)); }
    PacketBuilder& u64(quint64 value);
    PacketBuilder& f32(float value);
    PacketBuilder& f32BigEndian(float value);
    // A NUL-padded string in a field of exactly `width` bytes (cut if longer).
    PacketBuilder& fixedString(const QByteArray& utf8, int width);
    PacketBuilder& raw(const QByteArray& bytes);
    PacketBuilder& zeros(int count);

    int size() const { return bytes.size(); }
    // The packet with its size field set to its real length.
    QByteArray finish() const;
    // The packet with an arbitrary size field.
    QByteArray finishWithSize(quint32 size) const;

private:
    QByteArray bytes;
};

// Reads a test vector file from the test data folder.
QByteArray readTestData(const QString& fileName);

#endif // PACKETBUILDER_H
