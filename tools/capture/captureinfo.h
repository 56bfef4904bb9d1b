#ifndef CAPTUREINFO_H
#define CAPTUREINFO_H

#include "capturefile.h"
#include "capturestream.h"

#include <QMap>
#include <QPair>
#include <QString>

class QTextStream;

// What `tarn-capture info` tells about a capture file.
struct CaptureSummary
{
    Capture::Header header;
    qint64 durationUs = 0;
    int connections = 0;
    int disconnections = 0;
    // Received packets by (type, version).
    QMap<QPair<int, int>, int> receivedPackets;
    int requests = 0;
    int stopRequests = 0; // requests with a period of 0
    int textCommands = 0;
    int enableCommands = 0;
    int bypassCommands = 0;
    int otherCommands = 0;
    int brokenStreams = 0;
    qint64 unfinishedBytes = 0; // of packets cut off by a disconnect or the end
    int dspUpdates = 0;
    int minUnits = 0;
    int maxUnits = 0;
    qint64 rawBytes = 0;
    qint64 fileSize = 0;
    bool opened = false;
    CaptureStream::Ending ending = CaptureStream::Ending::Complete;
    QString errorString;

    int receivedPacketCount() const;
};

// Reads the whole file; what was read before any damage is summed up too.
CaptureSummary summarizeCapture(const QString& fileName);

// `tarn-capture info FILE`: the summary on `out`, any damage on `err`.
// Returns the exit code: 0, also for a file that was merely cut short; 1
// for a file that cannot be read or is damaged.
int printCaptureInfo(const QString& fileName, QTextStream& out, QTextStream& err);

// The name of a packet type of the profiling streams, or "type N".
QString packetTypeName(int type);

#endif // CAPTUREINFO_H
