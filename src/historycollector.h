#ifndef HISTORYCOLLECTOR_H
#define HISTORYCOLLECTOR_H

#include <QByteArray>
#include <QList>
#include <QObject>
#include <QString>

class ProfilerNetwork;

// The part that CPUHistory, ChannelHistory, CodecHistory and StatsHistory
// share: draining their packets from the network, the 100-snapshot limit,
// one historyUpdated() per batch and the status texts. Each collector only
// decodes one packet at a time.
class HistoryCollector : public QObject
{
    Q_OBJECT

public:
    static constexpr int MaxHistorySize = 100;

    HistoryCollector(ProfilerNetwork* network, unsigned char packetType);

signals:
    void statusChanged(QString status);
    void historyUpdated(int numNewSnapshots);

public slots:
    void slotPacketArrived();

protected:
    // Appends one snapshot decoded from `packet` and returns true, or
    // rejects the packet (with a status text) and returns false.
    virtual bool decodePacket(const QByteArray& packet, int version) = 0;
    virtual int getHistorySize() const = 0;
    // Runs after a batch that appended something, before historyUpdated().
    virtual void finishBatch();

    void reportOldVersion();
    // Both return false, so a decoder can end with `return reject...();`.
    bool rejectIncompatibleVersion();
    bool rejectTruncated();

    template <typename Snapshot>
    static void appendSnapshot(QList<Snapshot>* history, const Snapshot& snapshot)
    {
        history->append(snapshot);
        // Trimmed after every append, so a burst never grows the list.
        while (history->size() > MaxHistorySize)
            history->removeFirst();
    }

    // Two's-complement sums as the target computes them. Done in unsigned
    // arithmetic because a signed overflow is undefined behaviour.
    static qint32 wrappingAdd(qint32 a, qint32 b);
    static qint16 wrappingAdd(qint16 a, qint16 b);

    ProfilerNetwork* network;

private:
    bool decodeOnePacket(const QByteArray& packet);

    unsigned char packetType;
};

#endif // HISTORYCOLLECTOR_H
