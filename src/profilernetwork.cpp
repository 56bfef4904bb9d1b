#include "profilernetwork.h"

#include "capturefile.h"

#include <QTcpSocket>
#include <QTimer>

#include <limits>

namespace
{

const int ReconnectIntervalMs = 5000;

struct StreamRequest
{
    unsigned char type;
    unsigned int period;
};

// The streams asked for when the link comes up, in the order they are sent.
const StreamRequest StreamRequests[] = {
    { TARN::PacketTypeDSPNetwork, 100 },
    { TARN::PacketTypeGroups, 100 },
    { TARN::PacketTypeCPU, 200 },
    { TARN::PacketTypeChannels, 200 },
    { TARN::PacketTypeCodecs, 200 },
    { TARN::PacketTypeStats, 200 },
};

const int IdleTimeoutMs = 3000;

const QString ReplayCommandStatus = QStringLiteral("Replay: commands are not sent to a target.");
const QString ReplayBrokenStatus = QStringLiteral("Replay stopped: the recorded bytes do not form valid packets.");

// A size below the header's own would never consume anything and spin the
// framing; one above the bound would buffer without limit.
bool isFramedSize(quint32 size)
{
    return size >= quint32(TARN::ProfilePacketHeaderSize) && size <= ProfilerNetwork::MaxPacketSize;
}

quint16 packetKey(unsigned char type, unsigned char subtype)
{
    return quint16(type << 8 | subtype);
}

quint16 packetKey(const QByteArray& packet)
{
    return packetKey(static_cast<unsigned char>(packet.at(TARN::PacketTypeOffset)),
                     static_cast<unsigned char>(packet.at(TARN::PacketSubtypeOffset)));
}

} // namespace

ProfilerNetwork::ProfilerNetwork()
    : paused(false)
    , socket(new QTcpSocket)
    , packetList(new PacketQueue)
    , reconnectTimer(new QTimer(this))
    , idleTimer(new QTimer(this))
    , connecting(false)
    , autoReconnect(false)
    , hostName(QStringLiteral("127.0.0.1"))
    , port(DefaultProfilerPort)
    , recorder(nullptr)
    , recordedConnected(false)
    , replaying(false)
    , waitingBytes(0)
    , readPassQueued(false)
{
    reconnectTimer->setInterval(ReconnectIntervalMs);
    idleTimer->setInterval(IdleTimeoutMs);
    idleTimer->setSingleShot(true);
    // Coarse timers may fire up to 5% early; a target is silent only after
    // the full three seconds.
    idleTimer->setTimerType(Qt::PreciseTimer);

    // Without a limit the socket buffers whatever a flooding target sends.
    // The limit must still hold the largest packet we accept, or that packet
    // could never be completed.
    socket->setReadBufferSize(MaxPacketSize + 64 * 1024);

    connect(socket, &QTcpSocket::connected, this, &ProfilerNetwork::slotSocketConnected);
    connect(socket, &QTcpSocket::readyRead, this, &ProfilerNetwork::slotPacketArrived);
    connect(socket, &QTcpSocket::errorOccurred, this, &ProfilerNetwork::slotSocketErrorOccurred);
    connect(reconnectTimer, &QTimer::timeout, this, &ProfilerNetwork::slotReconnectTimeout);
    connect(idleTimer, &QTimer::timeout, this, &ProfilerNetwork::slotIdleTimeout);
}

ProfilerNetwork::~ProfilerNetwork()
{
    delete socket;
    delete packetList;
}

void ProfilerNetwork::connectToHost(QString host, unsigned short port)
{
    startConnection(host, port);
}

void ProfilerNetwork::disconnectFromHost()
{
    abortSocket();
    replaying = false;
    setState(StateDisconnected);
}

bool ProfilerNetwork::isConnecting()
{
    return connecting || autoReconnect;
}

bool ProfilerNetwork::isConnected()
{
    return replaying || socket->state() == QAbstractSocket::ConnectedState;
}

void ProfilerNetwork::setAutoReconnect(bool on)
{
    autoReconnect = on;
    if (on)
        reconnectTimer->start();
    else
        reconnectTimer->stop();
}

void ProfilerNetwork::requestDataType(unsigned char type, unsigned char subtype, unsigned int updateInterval)
{
    if (!isConnected() || replaying)
        return;
    idleTimer->stop();

    TARN::ProfilePacketDataRequest request;
    request.header = TARN::makeHeader(sizeof request, TARN::PacketTypeRequest, TARN::PacketSubtypeData, 0);
    request.requestedType = type;
    request.requestedSubtype = subtype;
    request.updateInterval = updateInterval;

    if (!isConnected())
        return;
    if (!writeToTarget(reinterpret_cast<const char*>(&request), sizeof request))
        failWithSocketError();
}

void ProfilerNetwork::sendCommand(TARN::ProfilePacketHeader* packet)
{
    if (!isConnected())
        return;
    // The user may right-click a unit of a replayed network; nothing can
    // carry the command out, and silence would look like a dead target.
    if (replaying) {
        emit statusChanged(ReplayCommandStatus);
        return;
    }
    if (!writeToTarget(reinterpret_cast<const char*>(packet), packet->size))
        failWithSocketError();
}

void ProfilerNetwork::requestProfileStreams(bool on)
{
    for (const StreamRequest& request : StreamRequests)
        requestDataType(request.type, TARN::PacketSubtypeData, on ? request.period : 0);
}

void ProfilerNetwork::setRecorder(CaptureWriter* newRecorder)
{
    // The file being left ends the connection it saw come up, so every file
    // pairs its connections; one that came up before the new recorder is not
    // the new one's to close.
    recordDisconnected();
    recorder = newRecorder;
}

void ProfilerNetwork::startReplay(const QString& status)
{
    abortSocket();
    connecting = false;
    autoReconnect = false;
    reconnectTimer->stop();
    idleTimer->stop();
    received.clear();
    clearPackets();
    replaying = true;
    emit statusChanged(status);
}

void ProfilerNetwork::replayConnection()
{
    received.clear();
}

void ProfilerNetwork::stopReplay(const QString& status)
{
    replaying = false;
    received.clear();
    emit statusChanged(status);
}

bool ProfilerNetwork::isReplaying() const
{
    return replaying;
}

int ProfilerNetwork::getNumWaitingPackets(unsigned char type, unsigned char subtype)
{
    const auto found = packetsByType.constFind(packetKey(type, subtype));
    return found == packetsByType.constEnd() ? 0 : int(found->size());
}

QByteArray ProfilerNetwork::getPacket(unsigned char type, unsigned char subtype)
{
    const auto found = packetsByType.find(packetKey(type, subtype));
    if (found == packetsByType.end())
        return QByteArray();
    const PacketQueue::iterator oldest = found->front();
    found->pop_front();
    if (found->empty())
        packetsByType.erase(found);
    const QByteArray packet = oldest->bytes;
    waitingBytes -= packet.size();
    packetList->erase(oldest);
    return packet;
}

void ProfilerNetwork::slotSocketConnected()
{
    // A new connection is a new byte stream.
    received.clear();
    if (recorder) {
        recorder->appendConnected(hostName, port);
        recordedConnected = true;
    }
    setState(StateConnected);
}

void ProfilerNetwork::slotSocketErrorOccurred(QAbstractSocket::SocketError socketError)
{
    recordDisconnected();
    switch (socketError) {
    case QAbstractSocket::ConnectionRefusedError:
        setState(StateConnectFailed);
        break;
    case QAbstractSocket::RemoteHostClosedError:
        setState(StateTargetClosed);
        break;
    default:
        setState(StateSocketError);
        break;
    }
}

void ProfilerNetwork::slotPacketArrived()
{
    idleTimer->start();
    readFromSocket();
    // A target sending at full speed must not keep the user interface from
    // turning: take the rest on the next pass of the event loop. The socket
    // will not signal again for bytes it already holds.
    if (socket->bytesAvailable() > 0 && !readPassQueued) {
        readPassQueued = true;
        QTimer::singleShot(0, this, [this] {
            readPassQueued = false;
            if (socket->bytesAvailable() > 0)
                slotPacketArrived();
        });
    }
}

// The rest of a packet begun in an earlier pass is read up to its end
// first. Its buffer has room for exactly that: bytes beyond it would make
// the buffer grow, a copy of it all, and the packet then be cut out of it,
// another. All that a pass read is announced once.
void ProfilerNetwork::readFromSocket()
{
    qint64 wanted = qMin(socket->bytesAvailable(), MaxReadPerPass);
    if (!received.isEmpty() && wanted > 0) {
        const qint64 chunk = qMin(wanted, packetBytesLeft());
        readIntoReceived(chunk);
        if (!frameReceivedBytes())
            return;
        wanted -= chunk;
    }
    if (wanted > 0) {
        readIntoReceived(wanted);
        if (!frameReceivedBytes())
            return;
    }
    announcePackets();
}

// The socket hands over a block it holds whole without copying it, and an
// empty receive buffer takes it by reference: a snapshot read in one go
// becomes a packet with no copy at all. Behind a partial packet the bytes go
// straight to the end of the buffer instead, which has room for the rest.
void ProfilerNetwork::readIntoReceived(qint64 count)
{
    if (recorder || received.isEmpty()) {
        const QByteArray bytes = socket->read(count);
        if (recorder && !bytes.isEmpty())
            recorder->appendReceived(bytes);
        received.append(bytes);
        return;
    }
    const int kept = received.size();
    received.resize(kept + int(count));
    const qint64 read = socket->read(received.data() + kept, count);
    received.resize(kept + int(qMax<qint64>(read, 0)));
}

// What is left of the packet in progress, or all there is when its size is
// not known yet or is one the framing refuses.
qint64 ProfilerNetwork::packetBytesLeft() const
{
    const qint64 unknown = std::numeric_limits<qint64>::max();
    if (received.size() < int(sizeof(quint32)))
        return unknown;
    const quint32 size = qFromLittleEndian<quint32>(received.constData());
    if (!isFramedSize(size) || size <= quint32(received.size()))
        return unknown;
    return qint64(size) - received.size();
}

void ProfilerNetwork::receiveBytes(const QByteArray& bytes)
{
    received.append(bytes);
    if (frameReceivedBytes())
        announcePackets();
}

void ProfilerNetwork::announcePackets()
{
    if (packetList->empty())
        return;
    if (paused) {
        clearPackets();
    } else {
        emit packetReady();
    }
}

// Cuts every whole packet off the front of what has been received; a
// partial packet stays until the rest arrives. Returns false when the
// stream is broken and the link was dropped.
bool ProfilerNetwork::frameReceivedBytes()
{
    int offset = 0;
    while (received.size() - offset >= TARN::ProfilePacketHeaderSize) {
        const quint32 size = qFromLittleEndian<quint32>(received.constData() + offset);
        if (!isFramedSize(size)) {
            failWithSocketError();
            return false;
        }
        if (received.size() - offset < int(size))
            break;
        appendPacket(received.mid(offset, int(size)));
        offset += int(size);
    }
    // When the bytes were exactly whole packets the last one shares the
    // buffer; removing would first copy it all only to throw the copy away.
    if (offset == received.size())
        received.clear();
    else
        received.remove(0, offset);
    // A large packet comes in many reads; room for all of it now saves
    // copying it again each time the buffer would have grown. The size was
    // checked against the bound above, and untouched pages cost no memory.
    if (received.size() >= TARN::ProfilePacketHeaderSize) {
        const int size = int(qFromLittleEndian<quint32>(received.constData()));
        if (size > received.capacity())
            received.reserve(size);
    }
    return true;
}

void ProfilerNetwork::slotReconnectTimeout()
{
    const QString host = hostName;
    startConnection(host, port);
}

void ProfilerNetwork::slotIdleTimeout()
{
    abortSocket();
    setState(StateTargetClosed);
}

void ProfilerNetwork::setState(ProfilerNetworkState state)
{
    switch (state) {
    case StateDisconnected:
        connecting = false;
        autoReconnect = false;
        reconnectTimer->stop();
        idleTimer->stop();
        emit statusChanged(QStringLiteral("Disconnected."));
        break;
    case StateConnecting:
        connecting = true;
        if (!autoReconnect)
            emit statusChanged(QStringLiteral("Attempting to connect..."));
        break;
    case StateConnected:
        connecting = false;
        autoReconnect = false;
        reconnectTimer->stop();
        emit statusChanged(QStringLiteral("Connected."));
        break;
    case StateConnectFailed:
        connecting = false;
        if (!autoReconnect)
            emit statusChanged(QStringLiteral("Connection failed... Disconnected."));
        break;
    case StateTargetClosed:
        connecting = false;
        autoReconnect = true;
        reconnectTimer->start();
        idleTimer->stop();
        emit statusChanged(QStringLiteral("Target closed... Attempting reconnection."));
        break;
    case StateSocketError:
        connecting = false;
        autoReconnect = false;
        reconnectTimer->stop();
        idleTimer->stop();
        emit statusChanged(QStringLiteral("A socket error has occurred... Disconnected."));
        break;
    }
}

void ProfilerNetwork::startConnection(const QString& host, unsigned short requestedPort)
{
    hostName = host;
    port = requestedPort == 0 ? quint16(DefaultProfilerPort) : requestedPort;
    replaying = false;
    setState(StateConnecting);
    // A previous attempt may still be under way when the reconnect timer
    // fires; connecting a busy socket would be refused as an operation error.
    if (socket->state() != QAbstractSocket::UnconnectedState)
        abortSocket();
    socket->connectToHost(hostName, port, QIODevice::ReadWrite, QAbstractSocket::AnyIPProtocol);
}

void ProfilerNetwork::abortSocket()
{
    recordDisconnected();
    socket->abort();
}

void ProfilerNetwork::recordDisconnected()
{
    if (recordedConnected && recorder)
        recorder->appendDisconnected();
    recordedConnected = false;
}

// Everything written goes through here, so the recording holds exactly the
// bytes the target was sent.
bool ProfilerNetwork::writeToTarget(const char* bytes, qint64 size)
{
    if (socket->write(bytes, size) != size)
        return false;
    if (recorder)
        recorder->appendSent(QByteArray(bytes, int(size)));
    return true;
}

void ProfilerNetwork::failWithSocketError()
{
    abortSocket();
    received.clear();
    // A recorded stream that breaks broke the live link too; the replay
    // ends where the connection did.
    if (replaying)
        stopReplay(ReplayBrokenStatus);
    else
        setState(StateSocketError);
}

void ProfilerNetwork::appendPacket(const QByteArray& packet)
{
    const quint16 key = packetKey(packet);
    packetList->push_back({ packet, key });
    packetsByType[key].push_back(std::prev(packetList->end()));
    waitingBytes += packet.size();
    while (int(packetList->size()) > MaxWaitingPackets || waitingBytes > MaxWaitingBytes)
        dropOldestPacket();
}

// The oldest packet of all is also the oldest of its own type.
void ProfilerNetwork::dropOldestPacket()
{
    const auto found = packetsByType.find(packetList->front().key);
    found->pop_front();
    if (found->empty())
        packetsByType.erase(found);
    waitingBytes -= packetList->front().bytes.size();
    packetList->pop_front();
}

void ProfilerNetwork::clearPackets()
{
    packetList->clear();
    packetsByType.clear();
    waitingBytes = 0;
}
