#include "packetbuilder.h"

#include <QFile>
#include <QtEndian>

PacketBuilder::PacketBuilder(quint8 type, quint8 subtype, quint8 version)
{
    bytes = QByteArray(12, '\0');
    bytes[8] = static_cast<char>(type);
    bytes[9] = static_cast<char>(subtype);
    bytes[10] = static_cast<char>(version);
}

PacketBuilder& PacketBuilder::raw(const QByteArray& data)
{
    bytes.append(data);
    return *this;
}

QByteArray PacketBuilder::finishWithSize(quint32 size) const
{
    QByteArray packet = bytes;
    qToLittleEndian(size, packet.data());
    return packet;
}

QByteArray dspPacketV6(const QVector<DSPUnitV6>& units, qint32 rate, qint32 length)
{
    PacketBuilder packet(1, 0, 6);
    packet.i32(rate).i32(length);
    for (const DSPUnitV6& unit : units) {
        packet.u64(unit.id).u64(0).u64(0).u16(unit.children).u16(unit.usage).u8(unit.flags).u8(unit.levelCount);
        for (int slot = 0; slot < 32; ++slot)
            packet.u8(quint8(-slot));
        packet.raw(unit.name.leftJustified(32, '\0', true));
    }
    return packet.finish();
}

QByteArray dspChainV6(int length, quint16 lastChildren)
{
    QVector<DSPUnitV6> units;
    for (int i = 1; i <= length; ++i)
        units.append({ quint64(i), quint16(i < length ? 1 : lastChildren) });
    return dspPacketV6(units);
}

QByteArray cpuPacket(float dsp, quint8 version)
{
    PacketBuilder packet(3, 0, version);
    packet.f32(dsp).f32(0.1f).f32(2.5f);
    return (version == 0 ? packet : packet.f32(1.0f / 3)).finish();
}

QByteArray intsPacket(quint8 type, int count, int first, quint8 version)
{
    PacketBuilder packet(type, 0, version);
    for (int i = 0; i < count; ++i)
        packet.i32(first + i);
    return packet.finish();
}

QByteArray cutPacket(const QByteArray& packet, int size)
{
    QByteArray part = packet.left(size);
    qToLittleEndian(quint32(size), part.data());
    return part;
}

QByteArray readTestData(const QString& fileName)
{
    QFile file(QStringLiteral(TARN_TEST_DATA_DIR "/") + fileName);
    if (!file.open(QIODevice::ReadOnly))
        qFatal("missing test data file %s", qPrintable(fileName));
    return file.readAll();
}
