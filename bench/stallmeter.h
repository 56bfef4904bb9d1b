#ifndef STALLMETER_H
#define STALLMETER_H

#include <QElapsedTimer>
#include <QObject>
#include <QString>
#include <QTimer>
#include <QVector>

// How long the event loop keeps a user waiting: a 10 ms timer that should
// fire every 10 ms, and by how much each interval overran. A paint, a decode
// or a layout that holds the loop for 200 ms shows as one interval 190 ms
// late, whatever the CPU share over a second says.
class StallMeter : public QObject
{
    Q_OBJECT

public:
    static constexpr int IntervalMs = 10;

    explicit StallMeter(QObject* parent = nullptr);

    // Forgets what was measured and measures from now.
    void restart();
    void stop();

    int getSampleCount() const;
    // Milliseconds an interval overran the timer's 10 ms, 0 when nothing ran.
    double getLongestMs() const;
    // The lateness that this share of intervals (0..1) stayed within.
    double getPercentileMs(double share) const;
    // One line for logs and scripts: "stall max=X p99=Y intervals=N".
    QString getSummary() const;

private slots:
    void slotTick();

private:
    QTimer timer;
    QElapsedTimer clock;
    qint64 lastNs = 0;
    // Lateness per interval in microseconds; 100 per second of measuring.
    QVector<qint32> latenessUs;
};

#endif // STALLMETER_H
