#include "captureformat.h"

#include <QtEndian>

#include <algorithm>

namespace CaptureFormat
{

namespace
{

const quint32 MaxPacketSize = 64u * 1024u * 1024u;
// Previous packets kept for delta coding, on both sides.
const qint64 ReferenceBudget = 64 * 1024 * 1024;

} // namespace

// Chosen by measurement (docs/capture-format.md): every snapshot stream but
// the DSP network, whose large packets zstd matches against the one before
// better than it compresses their XOR.
TypeSet defaultDeltaTypes()
{
    TypeSet types;
    for (int type : { TARN::PacketTypeCPU, TARN::PacketTypeChannels, TARN::PacketTypeCodecs, TARN::PacketTypeGroups,
                      TARN::PacketTypeStats })
        types.set(size_t(type));
    return types;
}

QByteArray deltaMask(const TypeSet& types)
{
    QByteArray mask(DeltaMaskSize, '\0');
    for (int type = 0; type < 256; ++type)
        if (types.test(size_t(type)))
            mask[type / 8] = char(mask[type / 8] | (1 << (type % 8)));
    return mask;
}

TypeSet deltaTypesFromMask(const char* mask)
{
    TypeSet types;
    for (int type = 0; type < 256; ++type)
        types.set(size_t(type), (quint8(mask[type / 8]) >> (type % 8)) & 1);
    return types;
}

void appendVarint(QByteArray& out, quint64 value)
{
    for (; value >= 0x80; value >>= 7)
        out.append(char(value | 0x80));
    out.append(char(value));
}

StreamDelta::StreamDelta(const TypeSet& types)
    : deltaTypes(types)
{
}

void StreamDelta::startStream()
{
    passThrough = false;
    headerFill = 0;
    bodyDone = 0;
    bodySize = 0;
    reference = nullptr;
    body.clear();
    references.clear();
    referenceBytes = 0;
}

void StreamDelta::endStream()
{
    startStream();
    passThrough = true;
}

void StreamDelta::follow(Capture::RecordKind kind, char* data, int size, bool encoding)
{
    switch (kind) {
    case Capture::RecordKind::Received:
        transform(data, size, encoding);
        break;
    case Capture::RecordKind::Connected:
        startStream();
        break;
    case Capture::RecordKind::Disconnected:
        endStream();
        break;
    case Capture::RecordKind::Sent:
        break;
    }
}

void StreamDelta::transform(char* data, int size, bool encoding)
{
    int position = 0;
    while (position < size && !passThrough) {
        if (headerFill < TARN::ProfilePacketHeaderSize)
            position += takeHeader(data + position, size - position);
        else
            position += transformBody(data + position, size - position, encoding);
    }
}

int StreamDelta::takeHeader(const char* data, int size)
{
    const int count = qMin(size, TARN::ProfilePacketHeaderSize - headerFill);
    std::copy(data, data + count, header + headerFill);
    headerFill += count;
    if (headerFill == TARN::ProfilePacketHeaderSize)
        startBody();
    return count;
}

void StreamDelta::startBody()
{
    const quint32 size = qFromLittleEndian<quint32>(header);
    // The receiver drops the link on such a size; what follows cannot be framed.
    if (size < quint32(TARN::ProfilePacketHeaderSize) || size > MaxPacketSize) {
        passThrough = true;
        return;
    }
    const quint8 type = quint8(header[TARN::PacketTypeOffset]);
    key = quint16(type << 8 | quint8(header[TARN::PacketSubtypeOffset]));
    coded = deltaTypes.test(type);
    bodySize = size - quint32(TARN::ProfilePacketHeaderSize);
    bodyDone = 0;
    reference = nullptr;
    if (coded) {
        auto it = references.find(key);
        if (it != references.end() && quint32(it->second.size()) == bodySize)
            reference = &it->second;
    }
    if (bodySize == 0)
        finishPacket();
}

int StreamDelta::transformBody(char* data, int size, bool encoding)
{
    const int count = int(qMin(quint32(size), bodySize - bodyDone));
    if (reference) {
        // The reference becomes this packet's plain body as it goes.
        char* previous = reference->data() + bodyDone;
        for (int i = 0; i < count; ++i) {
            const char in = data[i];
            data[i] = char(in ^ previous[i]);
            previous[i] = encoding ? in : data[i];
        }
    } else if (coded) {
        body.append(data, count);
    }
    bodyDone += quint32(count);
    if (bodyDone == bodySize)
        finishPacket();
    return count;
}

void StreamDelta::finishPacket()
{
    if (coded && !reference)
        keepReference();
    headerFill = 0;
    bodyDone = 0;
    reference = nullptr;
}

// Over the budget every other reference goes: both sides decide alike from
// the same packet sizes.
void StreamDelta::keepReference()
{
    QByteArray& slot = references[key];
    const qint64 total = referenceBytes - slot.size() + body.size();
    if (total > ReferenceBudget) {
        references.clear();
        referenceBytes = body.size();
        references[key] = body;
    } else {
        slot = body;
        referenceBytes = total;
    }
    body = QByteArray();
}

} // namespace CaptureFormat
