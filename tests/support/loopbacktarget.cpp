#include "loopbacktarget.h"

#include <QHostAddress>
#include <QTest>

#include <sys/socket.h>

LoopbackTarget::LoopbackTarget(QObject* parent)
    : QObject(parent)
{
    connect(&server, &QTcpServer::newConnection, this, &LoopbackTarget::onNewConnection);
    if (!server.listen(QHostAddress::LocalHost, 0))
        qFatal("loopback target cannot listen: %s", qPrintable(server.errorString()));
}

bool LoopbackTarget::waitForClient(int timeoutMs)
{
    return QTest::qWaitFor([this] { return hasClient(); }, timeoutMs);
}

void LoopbackTarget::send(const QByteArray& bytes)
{
    sendWithoutFlush(bytes);
    if (client)
        client->flush();
}

void LoopbackTarget::sendWithoutFlush(const QByteArray& bytes)
{
    if (client)
        client->write(bytes);
}

bool LoopbackTarget::waitForReceived(int count, int timeoutMs)
{
    return QTest::qWaitFor([this, count] { return receivedBytes.size() >= count; }, timeoutMs);
}

LoopbackTarget::~LoopbackTarget()
{
    // The sockets die with the server; their signals must not reach a half-destroyed target.
    if (client)
        client->disconnect(this);
}

void LoopbackTarget::closeClient()
{
    QTcpSocket* socket = client;
    if (!socket)
        return;
    client.clear();
    socket->disconnect(this);
    socket->disconnectFromHost();
    socket->deleteLater();
}

void LoopbackTarget::resetClient()
{
    QTcpSocket* socket = client;
    if (!socket)
        return;
    client.clear();
    socket->disconnect(this);
    // Zero linger turns the close into a reset (RST) instead of a FIN.
    struct linger hard = { 1, 0 };
    ::setsockopt(static_cast<int>(socket->socketDescriptor()), SOL_SOCKET, SO_LINGER, &hard, sizeof hard);
    socket->abort();
    socket->deleteLater();
}

void LoopbackTarget::onNewConnection()
{
    while (QTcpSocket* socket = server.nextPendingConnection()) {
        if (client) {
            socket->abort();
            socket->deleteLater();
            continue;
        }
        client = socket;
        connect(socket, &QTcpSocket::readyRead, this, [this, socket] { receivedBytes.append(socket->readAll()); });
        // A profiler that dropped the link may come back; make room for it.
        connect(socket, &QTcpSocket::disconnected, this, [this, socket] {
            if (client == socket) {
                client.clear();
                socket->deleteLater();
            }
        });
    }
}
