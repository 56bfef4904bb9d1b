#include "targetconnection.h"

#include "packetreader.h"
#include "profilepacket.h"
#include "targetserver.h"

#include <QTcpSocket>
#include <QTimer>

#include <cmath>

namespace
{

const int CommandTextSize = 128;
// A requested period longer than this is taken as this: QTimer counts in int
// milliseconds, and nobody profiles at one packet an hour.
const double MaxPeriodMs = 3600000.0;
// However high the rate multiplier, one timer tick sends at most this many copies.
const int MaxCopiesPerTick = 1000;
const int SmallPacketSize = 4096;

} // namespace

TargetConnection::TargetConnection(QTcpSocket* socket, TargetServer* server)
    : QObject(server)
    , socket(socket)
    , server(server)
{
    socket->setParent(this);
    socket->setReadBufferSize(MaxIncomingPacketSize);
    peer = QStringLiteral("%1:%2").arg(socket->peerAddress().toString()).arg(socket->peerPort());
    connect(socket, &QTcpSocket::readyRead, this, &TargetConnection::slotReadyRead);
    connect(socket, &QTcpSocket::disconnected, this, &TargetConnection::slotDisconnected);
    if (socket->state() != QAbstractSocket::ConnectedState)
        QTimer::singleShot(0, this, &TargetConnection::slotDisconnected);
}

// Consumed bytes are dropped once per read, not once per packet: a burst of
// tiny packets would otherwise move the buffer again for each of them.
void TargetConnection::slotReadyRead()
{
    if (closing)
        return;
    incoming.append(socket->readAll());
    int consumed = 0;
    QByteArray packet;
    while (!closing && takePacket(&consumed, &packet))
        handlePacket(packet);
    incoming.remove(0, consumed);
}

void TargetConnection::slotDisconnected()
{
    close();
}

// Frames the way the profiler does, by the header's size, but refuses sizes
// that could never advance (below a header) or that no profiler would send.
bool TargetConnection::takePacket(int* consumed, QByteArray* packet)
{
    PacketReader header(incoming, *consumed);
    const quint32 size = header.u32();
    if (!header.has(TARN::ProfilePacketHeaderSize - 4))
        return false;
    if (size < TARN::ProfilePacketHeaderSize || size > MaxIncomingPacketSize) {
        close();
        return false;
    }
    if (static_cast<quint32>(incoming.size() - *consumed) < size)
        return false;
    *packet = incoming.mid(*consumed, static_cast<int>(size));
    *consumed += static_cast<int>(size);
    return true;
}

void TargetConnection::handlePacket(const QByteArray& packet)
{
    PacketReader header(packet, TARN::PacketTypeOffset);
    const quint8 type = header.u8();
    const quint8 subtype = header.u8();
    if (!header.ok())
        return;
    if (type == TARN::PacketTypeRequest && subtype == TARN::PacketSubtypeData)
        handleDataRequest(packet);
    else if (type == TARN::PacketTypeDSPNetwork
             && (subtype == TARN::PacketSubtypeEnable || subtype == TARN::PacketSubtypeBypass))
        handleUnitCommand(packet, subtype);
    else if ((type == TARN::PacketTypeDSPNetwork || type == TARN::PacketTypeGroups)
             && subtype == TARN::PacketSubtypeCommandString)
        handleCommandString(packet, type);
}

void TargetConnection::handleDataRequest(const QByteArray& packet)
{
    PacketReader in(packet, TARN::ProfilePacketHeaderSize);
    const quint8 type = in.u8();
    const quint8 subtype = in.u8();
    const quint32 intervalMs = in.u32();
    if (!in.ok() || subtype != TARN::PacketSubtypeData || !TargetServer::isStreamType(type))
        return;
    if (intervalMs == 0)
        stopStream(type);
    else
        startStream(type, intervalMs);
}

void TargetConnection::handleUnitCommand(const QByteArray& packet, quint8 subtype)
{
    PacketReader in(packet, TARN::ProfilePacketHeaderSize);
    const quint64 id = in.u64();
    const bool state = in.u8() != 0;
    if (!in.ok())
        return;
    if (subtype == TARN::PacketSubtypeEnable)
        server->setUnitActive(id, state);
    else
        server->setUnitBypass(id, state);
}

// A short packet still carries what text it has; the field's own end or the
// packet's end closes the string.
void TargetConnection::handleCommandString(const QByteArray& packet, quint8 type)
{
    PacketReader in(packet, TARN::ProfilePacketHeaderSize);
    const QString text = in.fixedString(qMin(CommandTextSize, in.remaining()));
    server->reportCommandString(type, text);
}

// A request, new or repeated, answers at once and then every period: the
// profiler has something to show without waiting a whole interval.
void TargetConnection::startStream(quint8 type, quint32 intervalMs)
{
    Stream& stream = streams[type];
    if (!stream.timer) {
        stream.timer = new QTimer(this);
        stream.timer->setTimerType(Qt::PreciseTimer);
        connect(stream.timer, &QTimer::timeout, this, [this, type]() { sendDue(type); });
    }
    stream.periodMs = qMin(intervalMs / server->getSettings().rateMultiplier, MaxPeriodMs);
    stream.credit = 0.0;
    stream.timer->start(qMax(1, qRound(stream.periodMs)));
    sendPacket(type, 1);
}

void TargetConnection::stopStream(quint8 type)
{
    const auto found = streams.find(type);
    if (found == streams.end())
        return;
    delete found->timer;
    streams.erase(found);
}

// Timer ticks are whole milliseconds; a period below one, or not a whole
// number, is met on average by sending what the elapsed ticks owe.
void TargetConnection::sendDue(quint8 type)
{
    const auto found = streams.find(type);
    if (found == streams.end())
        return;
    Stream& stream = *found;
    stream.credit += stream.timer->interval() / stream.periodMs;
    const int copies = qMin(static_cast<int>(std::floor(stream.credit)), MaxCopiesPerTick);
    stream.credit = qMin(stream.credit - copies, 1.0);
    sendPacket(type, copies);
}

void TargetConnection::sendPacket(quint8 type, int copies)
{
    if (closing || copies <= 0)
        return;
    // Small packets get more headroom, so the line graphs keep moving while
    // the profiler works through the snapshots of a huge network.
    const QByteArray packet = server->getPacket(type);
    const qint64 limit = packet.size() <= SmallPacketSize ? 2 * MaxPendingBytes : MaxPendingBytes;
    for (int i = 0; i < copies && socket->bytesToWrite() < limit; ++i)
        socket->write(packet);
}

void TargetConnection::close()
{
    if (closing)
        return;
    closing = true;
    for (const Stream& stream : qAsConst(streams))
        delete stream.timer;
    streams.clear();
    incoming.clear();
    socket->abort();
    emit closed();
    deleteLater();
}
