#ifndef SIGNALWATCHER_H
#define SIGNALWATCHER_H

#include <QObject>

class QSocketNotifier;

// Turns SIGINT and SIGTERM into a Qt signal. The handler only writes one
// byte to a socket pair; the event loop reads it and emits, so no work is
// ever done inside the handler. One watcher at a time.
class SignalWatcher : public QObject
{
    Q_OBJECT

public:
    explicit SignalWatcher(QObject* parent = nullptr);
    ~SignalWatcher() override; // restores the default handlers

    bool isWatching() const;

signals:
    void terminationRequested(int signalNumber);

private slots:
    void slotSignalArrived();

private:
    int pair[2] = { -1, -1 };
    QSocketNotifier* notifier = nullptr;
};

#endif // SIGNALWATCHER_H
