#ifndef LOOPBACKTARGET_H
#define LOOPBACKTARGET_H

#include <QByteArray>
#include <QObject>
#include <QPointer>
#include <QTcpServer>
#include <QTcpSocket>

// A stand-in target on 127.0.0.1 with an OS-chosen port. It accepts one profiler at a time, records what the
// profiler sends and sends whatever the test gives it.
class LoopbackTarget : public QObject
{
    Q_OBJECT

public:
    explicit LoopbackTarget(QObject* parent = nullptr);
    ~LoopbackTarget() override;

    quint16 port() const { return server.serverPort(); }
    bool waitForClient(int timeoutMs = 5000);
    bool hasClient() const { return !client.isNull(); }

    // Sends bytes and flushes them to the OS at once.
    void send(const QByteArray& bytes);
    // Queues bytes without waiting for the OS; pendingBytes() tells how many
    // are still queued, so a test can stream at full speed without hoarding.
    void sendWithoutFlush(const QByteArray& bytes);
    qint64 pendingBytes() const { return client ? client->bytesToWrite() : 0; }
    // Waits until at least `count` bytes arrived from the profiler.
    bool waitForReceived(int count, int timeoutMs = 5000);
    QByteArray received() const { return receivedBytes; }
    void clearReceived() { receivedBytes.clear(); }

    // Orderly close (the profiler sees the remote close) and a hard reset.
    void closeClient();
    void resetClient();

private:
    void onNewConnection();

    QTcpServer server;
    QPointer<QTcpSocket> client;
    QByteArray receivedBytes;
};

#endif // LOOPBACKTARGET_H
