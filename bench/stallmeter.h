#ifndef STALLMETER_H
#define STALLMETER_H

#include <QElapsedTimer>
#include <QObject>
#include <QString>
#include <QTimer>
#include <QVector>

#include "stallturns.h"

// How long the event loop keeps a user waiting: for each span between two
// waits for events, the longest a key pressed in it could wait (StallTurns).
// A paint, a decode or a layout that holds the loop for 200 ms shows as a
// 200 ms stall, whatever the CPU share over a second says. The turns come
// from wrapping the GLib main context's poll, which adds no wakeups of its
// own. Where the loop is not GLib's, a 10 ms timer stands in and each
// interval's overrun is the span; that timer wakes the loop 100 times a
// second, and its cost shows in the CPU figures.
class StallMeter : public QObject
{
    Q_OBJECT

public:
    static constexpr int IntervalMs = 10;

    explicit StallMeter(QObject* parent = nullptr);
    ~StallMeter() override;

    // Forgets what was measured and measures from now.
    void restart();
    void stop();

    int getSampleCount() const;
    // The longest span in milliseconds, 0 when nothing ran.
    double getLongestMs() const;
    // The span that this share of spans (0..1) stayed within.
    double getPercentileMs(double share) const;
    // One line for logs and scripts: "stall max=X p99=Y spans=N".
    QString getSummary() const;

    // Called by the poll wrapper around each poll, with its timeout and result.
    void pollStarts();
    void pollEnded(int timeout, int ready);

private slots:
    void slotTick();

private:
    void record(qint64 spanNs);

    QTimer timer;
    QElapsedTimer clock;
    StallTurns turns;
    // The timer's last tick.
    qint64 lastNs = -1;
    // Spans in microseconds.
    QVector<qint32> spansUs;
};

#endif // STALLMETER_H
