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
    if (!client)
        return;
    client->write(bytes);
    client->flush();
}

bool LoopbackTarget::waitForReceived(int count, int timeoutMs)
{
    return QTest::qWaitFor([this, count] { return receivedBytes.size() >= count; }, timeoutMs);
}

void LoopbackTarget::closeClient()
{
    if (!client)
        return;
    client->disconnectFromHost();
    client->deleteLater();
    client.clear();
}

void LoopbackTarget::resetClient()
{
    if (!client)
        return;
    // Zero linger turns the close into a reset (RST) instead of a FIN.
    struct linger hard = { 1, 0 };
    ::setsockopt(static_cast<int>(client->socketDescriptor()), SOL_SOCKET, SO_LINGER, &hard, sizeof hard);
    client->abort();
    client->deleteLater();
    client.clear();
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
    }
}
