#include "stallmeter.h"

#include <algorithm>
#include <climits>

StallMeter::StallMeter(QObject* parent)
    : QObject(parent)
{
    // A coarse timer may fire up to 5 % early or late on purpose; that would
    // read as stalls that no code caused.
    timer.setTimerType(Qt::PreciseTimer);
    timer.setInterval(IntervalMs);
    connect(&timer, &QTimer::timeout, this, &StallMeter::slotTick);
}

void StallMeter::restart()
{
    latenessUs.clear();
    clock.start();
    lastNs = 0;
    timer.start();
}

void StallMeter::stop()
{
    timer.stop();
}

void StallMeter::slotTick()
{
    const qint64 now = clock.nsecsElapsed();
    const qint64 lateUs = (now - lastNs) / 1000 - qint64(IntervalMs) * 1000;
    lastNs = now;
    latenessUs.append(qint32(qBound<qint64>(0, lateUs, INT_MAX)));
}

int StallMeter::getSampleCount() const
{
    return latenessUs.size();
}

double StallMeter::getLongestMs() const
{
    if (latenessUs.isEmpty())
        return 0.0;
    return *std::max_element(latenessUs.begin(), latenessUs.end()) / 1000.0;
}

double StallMeter::getPercentileMs(double share) const
{
    if (latenessUs.isEmpty())
        return 0.0;
    QVector<qint32> sorted = latenessUs;
    const int index = qBound(0, int(share * sorted.size() + 0.5) - 1, sorted.size() - 1);
    std::nth_element(sorted.begin(), sorted.begin() + index, sorted.end());
    return sorted.at(index) / 1000.0;
}

QString StallMeter::getSummary() const
{
    return QStringLiteral("stall max=%1 p99=%2 intervals=%3")
        .arg(getLongestMs(), 0, 'f', 1)
        .arg(getPercentileMs(0.99), 0, 'f', 1)
        .arg(getSampleCount());
}
