#ifndef CAPTUREREPLAY_H
#define CAPTUREREPLAY_H

#include "capturefile.h"

#include <QElapsedTimer>
#include <QObject>
#include <QPointer>
#include <QString>

class ProfilerNetwork;
class QTimer;

// Plays a capture file into a network link as if the recorded target were
// sending it again: the received bytes go through the link's own framing,
// at the recorded pace divided by the speed. The collectors and views on the
// link see a live session; Pause on the link stops the replay clock.
class CaptureReplay : public QObject
{
    Q_OBJECT

public:
    explicit CaptureReplay(ProfilerNetwork* network, QObject* parent = nullptr);
    ~CaptureReplay() override;

    // Opens the file and reads its first record; false, with errorString()
    // set, when it is not a capture this build can read.
    bool open(const QString& fileName);
    QString errorString() const;
    // 1 plays as recorded, 2 twice as fast; 0 as fast as the views can take.
    void setSpeed(double speed);
    double getSpeed() const;
    // Puts the link into replay mode and starts feeding it.
    void start();
    bool isRunning() const;

signals:
    // The replay has ended: at the end of the file, at damage, or because
    // the link left replay mode (the user disconnected).
    void finished();

private slots:
    void slotFeed();

private:
    bool readNext();
    void advanceClock();
    bool isDue() const;
    void feed(const Capture::Record& record);
    void scheduleNext();
    void finish();
    void stop();
    QString displayName() const;
    QString speedText() const;
    QString endStatus() const;

    QPointer<ProfilerNetwork> network;
    CaptureReader reader;
    QString fileName;
    QTimer* timer;
    double speed;
    bool running;
    // The record to feed next, read ahead one at a time.
    Capture::Record next;
    bool haveNext;
    // Where the replay stands on the recorded time line, and the wall clock
    // reading it was last advanced at. In floating point: a file's times
    // and a user's speed are not to be trusted not to overflow.
    double positionUs;
    qint64 wallUs;
    QElapsedTimer wallClock;
};

#endif // CAPTUREREPLAY_H
