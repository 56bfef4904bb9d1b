#include "capturerecorder.h"

#include "profilepacket.h"
#include "version.h"

#include <QDateTime>
#include <QFile>
#include <QFileInfo>
#include <QTextStream>

#include <climits>

namespace
{

const int ProgressIntervalMs = 500;

// The streams the recorder drains to count them; the network would
// otherwise hold them until its queue bound drops them.
const unsigned char StreamTypes[] = { TARN::PacketTypeDSPNetwork, TARN::PacketTypeGroups, TARN::PacketTypeCPU,
                                      TARN::PacketTypeChannels,   TARN::PacketTypeCodecs, TARN::PacketTypeStats };

QString byteText(qint64 bytes)
{
    if (bytes < 1024)
        return QStringLiteral("%1 B").arg(bytes);
    if (bytes < 1024 * 1024)
        return QStringLiteral("%1 KiB").arg(QString::number(double(bytes) / 1024.0, 'f', 1));
    return QStringLiteral("%1 MiB").arg(QString::number(double(bytes) / (1024.0 * 1024.0), 'f', 1));
}

} // namespace

CaptureRecorder::CaptureRecorder(const RecordOptions& options, QTextStream& err)
    : options(options), err(err)
{
    durationTimer.setSingleShot(true);
    durationTimer.setTimerType(Qt::PreciseTimer);
    progressTimer.setInterval(ProgressIntervalMs);
    // Queued: while the network announces a lost link the socket may still
    // say it is connected; one turn of the event loop later it no longer does.
    connect(&network, &ProfilerNetwork::statusChanged, this, &CaptureRecorder::slotStatusChanged,
            Qt::QueuedConnection);
    connect(&network, &ProfilerNetwork::packetReady, this, &CaptureRecorder::slotPacketReady);
    connect(&writer, &CaptureWriter::failed, this, &CaptureRecorder::slotWriterFailed);
    connect(&durationTimer, &QTimer::timeout, this, &CaptureRecorder::slotStop);
    connect(&progressTimer, &QTimer::timeout, this, &CaptureRecorder::slotShowProgress);
}

CaptureRecorder::~CaptureRecorder()
{
    network.setRecorder(nullptr);
}

bool CaptureRecorder::start()
{
    Capture::Header header;
    header.startTime = QDateTime::currentDateTimeUtc();
    header.targetHost = options.host;
    header.targetPort = options.port;
    header.profilerVersion = tarnVersion();
    createdFile = !QFileInfo::exists(options.fileName);
    if (!writer.open(options.fileName, header)) {
        err << "tarn-capture: " << writer.errorString() << '\n';
        return false;
    }
    clock.start();
    network.setRecorder(&writer);
    network.connectToHost(options.host, options.port);
    if (options.durationMs > 0)
        durationTimer.start(int(qMin<qint64>(options.durationMs, INT_MAX)));
    if (options.showProgress)
        progressTimer.start();
    return true;
}

void CaptureRecorder::slotStop()
{
    finish(0);
}

void CaptureRecorder::slotStatusChanged(const QString& status)
{
    if (done)
        return;
    if (network.isConnected()) {
        if (!linkUp)
            network.requestProfileStreams(true);
        linkUp = everConnected = true;
        return;
    }
    linkUp = false;
    if (network.isConnecting())
        return;
    if (!everConnected) {
        err << "tarn-capture: could not connect to " << options.host << ':' << options.port << " (" << status
            << ")\n";
        finish(1);
        return;
    }
    // The network retries by itself only when the target closed the link;
    // after any other loss the recording still waits for the target.
    network.setAutoReconnect(true);
}

void CaptureRecorder::slotPacketReady()
{
    for (unsigned char type : StreamTypes) {
        while (network.getNumWaitingPackets(type, TARN::PacketSubtypeData) > 0) {
            bytesIn += network.getPacket(type, TARN::PacketSubtypeData).size();
            ++packets;
        }
    }
}

void CaptureRecorder::slotWriterFailed(const QString& message)
{
    if (done)
        return;
    err << "tarn-capture: " << message << '\n';
    finish(1);
}

void CaptureRecorder::slotShowProgress()
{
    // Rewritten in place; the padding wipes what a longer line left.
    err << '\r' << progressText().leftJustified(72) << Qt::flush;
}

QString CaptureRecorder::progressText() const
{
    const qint64 ms = clock.elapsed();
    return QStringLiteral("%1 s  %2 packets  %3 in  %4 on disk")
        .arg(QString::number(double(ms) / 1000.0, 'f', 1))
        .arg(packets)
        .arg(byteText(bytesIn), byteText(writer.storedBytes()));
}

void CaptureRecorder::finish(int exitCode)
{
    if (done)
        return;
    done = true;
    durationTimer.stop();
    progressTimer.stop();
    network.disconnectFromHost();
    network.setRecorder(nullptr);
    writer.close();
    if (options.showProgress)
        err << '\r' << progressText().leftJustified(72) << '\n';
    // The last frame is written while closing; its failure is announced too
    // late for slotWriterFailed().
    if (exitCode == 0 && !writer.errorString().isEmpty()) {
        err << "tarn-capture: " << writer.errorString() << '\n';
        exitCode = 1;
    }
    // A file made for a target that never answered holds nothing; one that
    // was there before (or is a device) is not ours to remove.
    if (!everConnected && createdFile)
        QFile::remove(options.fileName);
    err.flush();
    emit finished(exitCode);
}
