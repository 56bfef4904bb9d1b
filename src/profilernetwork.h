#ifndef PROFILERNETWORK_H
#define PROFILERNETWORK_H

#include "profilepacket.h"

#include <QAbstractSocket>
#include <QByteArray>
#include <QHash>
#include <QList>
#include <QObject>
#include <QString>

#include <deque>
#include <list>

class CaptureWriter;
class QTcpSocket;
class QTimer;

// The link to the target: connection state, framing of the byte stream into
// packets, and the queue from which collectors take packets by type.
class ProfilerNetwork : public QObject
{
    Q_OBJECT

public:
    enum ProfilerNetworkState
    {
        StateDisconnected,
        StateConnecting,
        StateConnected,
        StateConnectFailed,
        StateTargetClosed,
        StateSocketError
    };

    enum : unsigned short
    {
        DefaultProfilerPort = 9264
    };

    // The largest packet we accept. A real 500000-unit network snapshot is
    // about 47 MB; anything claiming more is a broken or hostile target, and
    // buffering it would let one header eat the machine's memory.
    static constexpr quint32 MaxPacketSize = 64u * 1024u * 1024u;
    // Packets of types nobody takes would otherwise pile up forever; beyond
    // these bounds the oldest waiting packets are dropped.
    static constexpr int MaxWaitingPackets = 1024;
    static constexpr qint64 MaxWaitingBytes = 2 * qint64(MaxPacketSize);
    // How much one pass of the receive loop takes from the socket.
    static constexpr qint64 MaxReadPerPass = 1024 * 1024;

    ProfilerNetwork();
    ~ProfilerNetwork() override;

    void connectToHost(QString host, unsigned short port);
    void disconnectFromHost();
    bool isConnecting();
    bool isConnected();
    void setAutoReconnect(bool on);
    void requestDataType(unsigned char type, unsigned char subtype, unsigned int updateInterval);
    void sendCommand(TARN::ProfilePacketHeader* packet);
    // Frames bytes as they come from the target and announces the packets.
    // The socket feeds it; replay tools, fuzzers and benchmarks can too.
    void receiveBytes(const QByteArray& bytes);
    // Asks the target for the six profiling streams at their periods (DSP
    // network and groups every 100 ms, the rest every 200 ms), or with
    // on = false stops them.
    void requestProfileStreams(bool on);
    // Every byte that crosses the socket, both ways, and every connection
    // that comes up or goes down is also handed to the recorder, when one is
    // set. Not owned; nullptr stops recording.
    void setRecorder(CaptureWriter* recorder);
    // Replay: recorded bytes come in through receiveBytes() instead of the
    // socket. While replaying the link counts as connected, requests are
    // dropped quietly and commands are dropped with a status text, since
    // there is no target to receive them. startReplay() drops any live
    // connection first; replayConnection() marks the start of a recorded
    // connection (a new byte stream); stopReplay() ends the replay with the
    // given status text, as does disconnectFromHost().
    void startReplay(const QString& status);
    void replayConnection();
    void stopReplay(const QString& status);
    bool isReplaying() const;
    int getNumWaitingPackets(unsigned char type, unsigned char subtype);
    QByteArray getPacket(unsigned char type, unsigned char subtype);

    bool paused;

signals:
    void statusChanged(QString status);
    void packetReady();

public slots:
    void slotSocketConnected();
    void slotSocketErrorOccurred(QAbstractSocket::SocketError socketError);
    void slotPacketArrived();
    void slotReconnectTimeout();
    void slotIdleTimeout();

private:
    void setState(ProfilerNetworkState state);
    void startConnection(const QString& host, unsigned short port);
    void abortSocket();
    void recordDisconnected();
    bool writeToTarget(const char* bytes, qint64 size);
    void failWithSocketError();
    void readFromSocket();
    void readIntoReceived(qint64 count);
    qint64 packetBytesLeft() const;
    void announcePackets();
    bool frameReceivedBytes();
    void appendPacket(const QByteArray& packet);
    void dropOldestPacket();
    void clearPackets();

    // The waiting packets in arrival order, and for each (type, subtype) its
    // own packets oldest first. Collectors drain one type at a time; with the
    // index, counting and taking cost the same however many packets of other
    // types wait in front.
    struct WaitingPacket
    {
        QByteArray bytes;
        quint16 key;
    };
    using PacketQueue = std::list<WaitingPacket>;

    QTcpSocket* socket;
    PacketQueue* packetList;
    QHash<quint16, std::deque<PacketQueue::iterator>> packetsByType;
    QTimer* reconnectTimer;
    QTimer* idleTimer;
    bool connecting;
    bool autoReconnect;
    QString hostName;
    quint16 port;
    CaptureWriter* recorder;
    // Whether the recorder was told of a connection it has not yet seen end.
    bool recordedConnected;
    bool replaying;
    qint64 waitingBytes;
    // Bytes received but not yet cut into packets: at most one partial packet.
    QByteArray received;
    bool readPassQueued;
};

#endif // PROFILERNETWORK_H
