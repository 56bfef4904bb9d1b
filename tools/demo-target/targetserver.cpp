#include "targetserver.h"

#include "packetencoder.h"
#include "profilepacket.h"
#include "targetconnection.h"

#include <QTcpSocket>

namespace
{

// After a stall (a debugger, a slow machine, a huge network) the engine
// catches up this many steps at most and lets the rest of the time go, so
// it cannot fall further and further behind.
const int MaxCatchUpSteps = 10;
// The largest network the generator is sized for; far beyond it a version 6
// record could no longer count the head unit's inputs.
const int MaxUnits = 100000;

// Out-of-range settings from an in-process caller fall back to something the
// encoders can produce; the command line checks them before they get here.
TargetSettings sanitized(TargetSettings settings)
{
    if (settings.dspVersion < 0 || settings.dspVersion > PacketEncoder::NewestDSPVersion)
        settings.dspVersion = PacketEncoder::NewestDSPVersion;
    if (settings.cpuVersion < 0 || settings.cpuVersion > PacketEncoder::NewestCPUVersion)
        settings.cpuVersion = PacketEncoder::NewestCPUVersion;
    if (!(settings.rateMultiplier > 0.0))
        settings.rateMultiplier = 1.0;
    settings.units = qBound(1, settings.units, MaxUnits);
    return settings;
}

} // namespace

TargetServer::TargetServer(const TargetSettings& settings, QObject* parent)
    : QObject(parent)
    , settings(sanitized(settings))
    , engine(this->settings.seed, this->settings.units)
{
    clock.start();
    connect(&server, &QTcpServer::newConnection, this, &TargetServer::slotNewConnection);
}

bool TargetServer::listen(const QHostAddress& address, quint16 port)
{
    return server.listen(address, port);
}

quint16 TargetServer::getPort() const
{
    return server.serverPort();
}

QString TargetServer::getErrorString() const
{
    return server.errorString();
}

bool TargetServer::isStreamType(quint8 type)
{
    switch (type) {
    case TARN::PacketTypeDSPNetwork:
    case TARN::PacketTypeCPU:
    case TARN::PacketTypeChannels:
    case TARN::PacketTypeCodecs:
    case TARN::PacketTypeGroups:
    case TARN::PacketTypeStats:
        return true;
    default:
        return false;
    }
}

// Several profilers, and a stream sent many times per step, share one
// encoding per step: a large network costs milliseconds to encode.
QByteArray TargetServer::getPacket(quint8 type)
{
    if (!isStreamType(type))
        return QByteArray();
    catchUp();
    CachedPacket& cached = cache[type];
    if (cached.bytes.isNull() || cached.revision != engine.getRevision()) {
        cached.bytes = encode(type);
        cached.revision = engine.getRevision();
    }
    return cached.bytes;
}

void TargetServer::setUnitActive(quint64 id, bool active)
{
    engine.setUnitActive(id, active);
}

void TargetServer::setUnitBypass(quint64 id, bool bypass)
{
    engine.setUnitBypass(id, bypass);
}

void TargetServer::reportCommandString(quint8 type, const QString& text)
{
    emit commandStringReceived(type, text);
}

void TargetServer::slotNewConnection()
{
    while (QTcpSocket* socket = server.nextPendingConnection()) {
        auto connection = new TargetConnection(socket, this);
        const QString peer = connection->getPeer();
        ++numConnections;
        connect(connection, &TargetConnection::closed, this, [this, peer]() {
            --numConnections;
            emit connectionClosed(peer);
        });
        emit connectionOpened(peer);
    }
}

void TargetServer::catchUp()
{
    const qint64 due = clock.elapsed() / SimEngine::StepMs - skippedSteps;
    qint64 behind = due - engine.getStepCount();
    if (behind > MaxCatchUpSteps) {
        skippedSteps += behind - MaxCatchUpSteps;
        behind = MaxCatchUpSteps;
    }
    for (; behind > 0; --behind)
        engine.step();
}

QByteArray TargetServer::encode(quint8 type) const
{
    switch (type) {
    case TARN::PacketTypeDSPNetwork:
        return PacketEncoder::encodeDSP(engine.getNetwork(), settings.dspVersion);
    case TARN::PacketTypeCPU:
        return PacketEncoder::encodeCPU(engine.getFigures(), settings.cpuVersion);
    case TARN::PacketTypeChannels:
        return PacketEncoder::encodeChannels(engine.getFigures());
    case TARN::PacketTypeCodecs:
        return PacketEncoder::encodeCodecs(engine.getFigures());
    case TARN::PacketTypeGroups:
        return PacketEncoder::encodeGroups(engine.getNetwork());
    case TARN::PacketTypeStats:
        return PacketEncoder::encodeStats(engine.getFigures());
    default:
        return QByteArray();
    }
}
