#ifndef TARGETCONNECTION_H
#define TARGETCONNECTION_H

#include <QByteArray>
#include <QHash>
#include <QObject>
#include <QString>

class QTcpSocket;
class QTimer;
class TargetServer;

// One profiler's connection: cuts its bytes into packets, obeys its data
// requests and commands, and sends each requested stream on its own timer.
// It deletes itself once the socket is gone.
class TargetConnection : public QObject
{
    Q_OBJECT

public:
    enum : int
    {
        // The profiler never sends more than 140 bytes; anything far larger is
        // not a profiler, and waiting for it would only pile up memory.
        MaxIncomingPacketSize = 64 * 1024,
        // A profiler that stops reading must not make us buffer without end:
        // snapshots are skipped while about this much still waits to go out.
        MaxPendingBytes = 8 * 1024 * 1024
    };

    TargetConnection(QTcpSocket* socket, TargetServer* server);

    QString getPeer() const { return peer; }

signals:
    void closed();

private slots:
    void slotReadyRead();
    void slotDisconnected();

private:
    struct Stream
    {
        QTimer* timer = nullptr;
        double periodMs = 0.0; // after the rate multiplier
        double credit = 0.0; // packets owed, fractions carried over
    };

    bool takePacket(int* consumed, QByteArray* packet);
    void handlePacket(const QByteArray& packet);
    void handleDataRequest(const QByteArray& packet);
    void handleUnitCommand(const QByteArray& packet, quint8 subtype);
    void handleCommandString(const QByteArray& packet, quint8 type);
    void startStream(quint8 type, quint32 intervalMs);
    void stopStream(quint8 type);
    void sendDue(quint8 type);
    void sendPacket(quint8 type, int copies);
    void close();

    QTcpSocket* socket;
    TargetServer* server;
    QString peer;
    QByteArray incoming;
    QHash<quint8, Stream> streams;
    bool closing = false;
};

#endif // TARGETCONNECTION_H
