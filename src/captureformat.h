#ifndef CAPTUREFORMAT_H
#define CAPTUREFORMAT_H

#include "capturefile.h"
#include "profilepacket.h"

#include <QByteArray>

#include <bitset>
#include <unordered_map>

// What the capture writer and reader share of the layout described in
// docs/capture-format.md.
namespace CaptureFormat
{

const char Magic[8] = { 'T', 'A', 'R', 'N', 'C', 'A', 'P', '\0' };
constexpr quint16 Version = 1;
// Before each zstd frame: its stored size and its raw size, u32 each. Both
// zero end the capture.
constexpr int FramePrefixSize = 8;
// A kind byte, a time varint of up to 10 bytes and a length varint of up to 5.
constexpr int MaxRecordHeaderSize = 16;
// The largest frame: one record of the largest size alone.
constexpr quint32 MaxFrameRawSize = Capture::MaxRecordSize + MaxRecordHeaderSize;
// One bit per packet type: its bodies are delta coded.
constexpr int DeltaMaskSize = 32;

using TypeSet = std::bitset<256>;

TypeSet defaultDeltaTypes();
QByteArray deltaMask(const TypeSet& types);
TypeSet deltaTypesFromMask(const char* mask);
void appendVarint(QByteArray& out, quint64 value);

// Frames the Received byte stream into packets and XORs each packet body
// with the body of the previous packet of the same (type, subtype) when that
// one had the same size. Headers pass unchanged, so the decoder frames the
// decoded bytes the same way and keeps the same references. The state runs
// on across chunks and frames; a Connected record starts it afresh.
class StreamDelta
{
public:
    explicit StreamDelta(const TypeSet& types = TypeSet());

    void startStream();
    // Bytes after a disconnection belong to no stream we can frame.
    void endStream();
    // One record's effect, the same for writer and reader: received bytes
    // pass through the coder, connection markers start or end a stream.
    void follow(Capture::RecordKind kind, char* data, int size, bool encoding);

private:
    void transform(char* data, int size, bool encoding);
    int takeHeader(const char* data, int size);
    void startBody();
    int transformBody(char* data, int size, bool encoding);
    void finishPacket();
    void keepReference();

    TypeSet deltaTypes;
    bool passThrough = false;
    char header[TARN::ProfilePacketHeaderSize] = {};
    int headerFill = 0;
    quint16 key = 0;
    bool coded = false;
    quint32 bodySize = 0;
    quint32 bodyDone = 0;
    QByteArray* reference = nullptr; // the same-size previous body, updated in place
    QByteArray body; // the body being gathered when there is no such reference
    std::unordered_map<quint16, QByteArray> references;
    qint64 referenceBytes = 0;
};

} // namespace CaptureFormat

#endif // CAPTUREFORMAT_H
