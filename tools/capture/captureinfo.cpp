#include "captureinfo.h"

#include "dspnettree.h"
#include "packetreader.h"
#include "profilepacket.h"
#include "profilernetwork.h"

#include <QTextStream>

#include <cstddef>

namespace
{

const int LabelWidth = 16;
const int PacketLabelWidth = 36;

// The unit counts come from the profiler's own decoder: a packet it would
// drop as malformed counts for nothing here either.
class UnitCounter
{
public:
    UnitCounter() : tree(&network) {}

    void add(const QByteArray& packet, CaptureSummary* summary)
    {
        const quint64 before = serial();
        network.receiveBytes(packet);
        if (serial() == before)
            return;
        const int units = tree.nodesById.size();
        summary->minUnits = summary->dspUpdates == 0 ? units : qMin(summary->minUnits, units);
        summary->maxUnits = summary->dspUpdates == 0 ? units : qMax(summary->maxUnits, units);
        ++summary->dspUpdates;
    }

private:
    quint64 serial() const { return tree.getShapeSerial() + tree.getValueSerial(); }

    ProfilerNetwork network;
    DSPTree tree;
};

void countSent(const QByteArray& packet, CaptureSummary* summary)
{
    PacketReader in(packet, TARN::PacketTypeOffset);
    const quint8 type = in.u8();
    const quint8 subtype = in.u8();
    if (type == TARN::PacketTypeRequest) {
        ++summary->requests;
        PacketReader request(packet, int(offsetof(TARN::ProfilePacketDataRequest, updateInterval)));
        if (request.u32() == 0 && request.ok())
            ++summary->stopRequests;
        return;
    }
    switch (subtype) {
    case TARN::PacketSubtypeCommandString:
        ++summary->textCommands;
        break;
    case TARN::PacketSubtypeEnable:
        ++summary->enableCommands;
        break;
    case TARN::PacketSubtypeBypass:
        ++summary->bypassCommands;
        break;
    default:
        ++summary->otherCommands;
        break;
    }
}

void addEvent(const CaptureStream::Event& event, UnitCounter* units, CaptureSummary* summary)
{
    switch (event.kind) {
    case CaptureStream::EventKind::Connected:
        ++summary->connections;
        break;
    case CaptureStream::EventKind::Disconnected:
        ++summary->disconnections;
        summary->unfinishedBytes += event.pendingBytes;
        break;
    case CaptureStream::EventKind::Received: {
        const int type = quint8(event.bytes.at(TARN::PacketTypeOffset));
        const int version = quint8(event.bytes.at(TARN::PacketVersionOffset));
        ++summary->receivedPackets[qMakePair(type, version)];
        if (type == TARN::PacketTypeDSPNetwork)
            units->add(event.bytes, summary);
        break;
    }
    case CaptureStream::EventKind::Sent:
        countSent(event.bytes, summary);
        break;
    case CaptureStream::EventKind::StreamBroken:
        ++summary->brokenStreams;
        break;
    }
}

QString line(const QString& label, const QString& value)
{
    return label.leftJustified(LabelWidth) + value;
}

QString sentText(const CaptureSummary& summary)
{
    const int commands = summary.textCommands + summary.enableCommands + summary.bypassCommands + summary.otherCommands;
    QString text = QStringLiteral("%1 requests (%2 stopping a stream), %3 commands")
                       .arg(summary.requests)
                       .arg(summary.stopRequests)
                       .arg(commands);
    if (commands > 0) {
        text += QStringLiteral(" (%1 text, %2 enable, %3 bypass, %4 other)")
                    .arg(summary.textCommands)
                    .arg(summary.enableCommands)
                    .arg(summary.bypassCommands)
                    .arg(summary.otherCommands);
    }
    return text;
}

QString sizeText(const CaptureSummary& summary)
{
    QString text = QStringLiteral("%1 bytes").arg(summary.fileSize);
    if (summary.rawBytes > 0 && summary.fileSize > 0) {
        const double share = 100.0 * double(summary.fileSize) / double(summary.rawBytes);
        const double ratio = double(summary.rawBytes) / double(summary.fileSize);
        text += QStringLiteral(", %1 % of raw (%2:1)").arg(QString::number(share, 'f', 1), QString::number(ratio, 'f', 2));
    }
    return text;
}

QString secondsText(qint64 us)
{
    return QString::number(double(us) / 1e6, 'f', 3) + QStringLiteral(" s");
}

void printSummary(const QString& fileName, const CaptureSummary& summary, QTextStream& out)
{
    const Capture::Header& header = summary.header;
    out << line(QStringLiteral("File"), fileName) << '\n';
    out << line(QStringLiteral("Started"), header.startTime.toUTC().toString(Qt::ISODateWithMs)) << '\n';
    out << line(QStringLiteral("Target"), QStringLiteral("%1:%2").arg(header.targetHost).arg(header.targetPort))
        << '\n';
    out << line(QStringLiteral("Profiler"), header.profilerVersion) << '\n';
    out << line(QStringLiteral("Duration"), secondsText(summary.durationUs)) << '\n';
    out << line(QStringLiteral("Connections"),
                QStringLiteral("%1 opened, %2 closed").arg(summary.connections).arg(summary.disconnections))
        << '\n';
    out << line(QStringLiteral("Received"), QStringLiteral("%1 packets").arg(summary.receivedPacketCount())) << '\n';
    for (auto it = summary.receivedPackets.constBegin(); it != summary.receivedPackets.constEnd(); ++it) {
        const QString label = QStringLiteral("%1 (type %2) version %3")
                                  .arg(packetTypeName(it.key().first))
                                  .arg(it.key().first)
                                  .arg(it.key().second);
        out << "  " << label.leftJustified(PacketLabelWidth) << it.value() << '\n';
    }
    if (summary.dspUpdates > 0) {
        out << line(QStringLiteral("DSP units"), QStringLiteral("%1..%2 over %3 updates")
                                                     .arg(summary.minUnits)
                                                     .arg(summary.maxUnits)
                                                     .arg(summary.dspUpdates))
            << '\n';
    } else {
        out << line(QStringLiteral("DSP units"), QStringLiteral("no DSP network")) << '\n';
    }
    out << line(QStringLiteral("Sent"), sentText(summary)) << '\n';
    if (summary.brokenStreams > 0) {
        out << line(QStringLiteral("Broken streams"),
                    QStringLiteral("%1 (a packet header with an impossible size; the rest of that connection "
                                   "was not read)")
                        .arg(summary.brokenStreams))
            << '\n';
    }
    if (summary.unfinishedBytes > 0) {
        out << line(QStringLiteral("Unfinished"),
                    QStringLiteral("%1 bytes of packets cut off by a disconnect or the end").arg(summary.unfinishedBytes))
            << '\n';
    }
    out << line(QStringLiteral("Raw size"), QStringLiteral("%1 bytes").arg(summary.rawBytes)) << '\n';
    out << line(QStringLiteral("Stored size"), sizeText(summary)) << '\n';
}

} // namespace

int CaptureSummary::receivedPacketCount() const
{
    int count = 0;
    for (int packets : receivedPackets)
        count += packets;
    return count;
}

QString packetTypeName(int type)
{
    switch (type) {
    case TARN::PacketTypeDSPNetwork:
        return QStringLiteral("DSP network");
    case TARN::PacketTypeCPU:
        return QStringLiteral("CPU");
    case TARN::PacketTypeChannels:
        return QStringLiteral("channels");
    case TARN::PacketTypeCodecs:
        return QStringLiteral("codecs");
    case TARN::PacketTypeGroups:
        return QStringLiteral("groups");
    case TARN::PacketTypeStats:
        return QStringLiteral("statistics");
    default:
        return QStringLiteral("unknown");
    }
}

CaptureSummary summarizeCapture(const QString& fileName)
{
    CaptureSummary summary;
    CaptureStream stream;
    summary.opened = stream.open(fileName);
    if (summary.opened) {
        UnitCounter units;
        CaptureStream::Event event;
        while (stream.next(&event))
            addEvent(event, &units, &summary);
        summary.header = stream.header();
        summary.durationUs = stream.lastTimeUs();
        summary.unfinishedBytes += stream.pendingBytes();
        summary.rawBytes = stream.rawBytes();
        summary.fileSize = stream.fileSize();
        summary.ending = stream.ending();
    }
    summary.errorString = stream.errorString();
    return summary;
}

int printCaptureInfo(const QString& fileName, QTextStream& out, QTextStream& err)
{
    const CaptureSummary summary = summarizeCapture(fileName);
    if (!summary.opened) {
        err << "tarn-capture: " << summary.errorString << '\n';
        return 1;
    }
    printSummary(fileName, summary, out);
    out.flush();
    switch (summary.ending) {
    case CaptureStream::Ending::Complete:
        return 0;
    case CaptureStream::Ending::Truncated:
        err << "tarn-capture: " << fileName << ": file ends inside a frame (cut short)\n";
        return 0;
    case CaptureStream::Ending::Damaged:
        err << "tarn-capture: " << summary.errorString << '\n';
        return 1;
    }
    return 1;
}
