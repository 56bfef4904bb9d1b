#ifndef TARGETSERVER_H
#define TARGETSERVER_H

#include "simengine.h"

#include <QByteArray>
#include <QElapsedTimer>
#include <QHash>
#include <QHostAddress>
#include <QObject>
#include <QString>
#include <QTcpServer>

struct TargetSettings
{
    int dspVersion = 6;
    int cpuVersion = 1;
    int units = 60;
    double rateMultiplier = 1.0; // every stream goes out this many times as often as asked
    quint64 seed = 1;
};

// The simulated target: one engine shared by every profiler that connects.
// It can run in-process: listen on port 0 and read the port back.
class TargetServer : public QObject
{
    Q_OBJECT

public:
    enum : quint16
    {
        DefaultPort = 9264
    };

    explicit TargetServer(const TargetSettings& settings, QObject* parent = nullptr);

    bool listen(const QHostAddress& address = QHostAddress::LocalHost, quint16 port = DefaultPort);
    quint16 getPort() const;
    QString getErrorString() const;
    const TargetSettings& getSettings() const { return settings; }
    const SimEngine& getEngine() const { return engine; }
    int getNumConnections() const { return numConnections; }

    // The newest packet of a stream this target serves, or a null array for
    // a type it does not know. Brings the engine up to the wall clock first.
    QByteArray getPacket(quint8 type);
    static bool isStreamType(quint8 type);

    void setUnitActive(quint64 id, bool active);
    void setUnitBypass(quint64 id, bool bypass);
    void reportCommandString(quint8 type, const QString& text);

signals:
    void connectionOpened(QString peer);
    void connectionClosed(QString peer);
    // A (1, 1) or (7, 1) text command, with the type it came in.
    void commandStringReceived(int type, QString text);

private slots:
    void slotNewConnection();

private:
    struct CachedPacket
    {
        quint64 revision = 0;
        QByteArray bytes;
    };

    void catchUp();
    QByteArray encode(quint8 type) const;

    TargetSettings settings;
    SimEngine engine;
    QTcpServer server;
    QElapsedTimer clock;
    qint64 skippedSteps = 0;
    int numConnections = 0;
    QHash<quint8, CachedPacket> cache;
};

#endif // TARGETSERVER_H
