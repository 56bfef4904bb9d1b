#include "stallmeter.h"

#include <QAbstractEventDispatcher>

#include <glib.h>

#include <algorithm>
#include <climits>

namespace
{

StallMeter* measuring = nullptr;
GPollFunc originalPoll = nullptr;

gint pollAndMeasure(GPollFD* fds, guint count, gint timeout)
{
    if (measuring)
        measuring->pollStarts();
    const gint result = originalPoll(fds, count, timeout);
    if (measuring)
        measuring->pollEnded(timeout, result);
    return result;
}

// Platform plugins bring their own subclass of the GLib dispatcher (xcb's
// is QPAEventDispatcherGlib), so the class name alone would miss it.
bool loopIsGLib()
{
    const QAbstractEventDispatcher* dispatcher = QAbstractEventDispatcher::instance();
    return dispatcher && dispatcher->inherits("QEventDispatcherGlib");
}

} // namespace

StallMeter::StallMeter(QObject* parent)
    : QObject(parent)
{
    // A coarse timer may fire up to 5 % early or late on purpose; that would
    // read as stalls that no code caused.
    timer.setTimerType(Qt::PreciseTimer);
    timer.setInterval(IntervalMs);
    connect(&timer, &QTimer::timeout, this, &StallMeter::slotTick);
}

StallMeter::~StallMeter()
{
    stop();
}

// The main thread's loop polls the default context; one meter watches it
// at a time.
void StallMeter::restart()
{
    stop();
    spansUs.clear();
    clock.start();
    lastNs = 0;
    turns = StallTurns();
    if (loopIsGLib() && !measuring) {
        GMainContext* context = g_main_context_default();
        originalPoll = g_main_context_get_poll_func(context);
        g_main_context_set_poll_func(context, pollAndMeasure);
        measuring = this;
        return;
    }
    timer.start();
}

void StallMeter::stop()
{
    timer.stop();
    if (measuring != this)
        return;
    g_main_context_set_poll_func(g_main_context_default(), originalPoll);
    measuring = nullptr;
}

void StallMeter::pollStarts()
{
    turns.pollStarts(clock.nsecsElapsed());
}

void StallMeter::pollEnded(int timeout, int ready)
{
    if (turns.pollEnded(clock.nsecsElapsed(), timeout, ready))
        record(turns.getSpanNs());
}

void StallMeter::slotTick()
{
    const qint64 now = clock.nsecsElapsed();
    record(now - lastNs - qint64(IntervalMs) * 1000000);
    lastNs = now;
}

void StallMeter::record(qint64 spanNs)
{
    spansUs.append(qint32(qBound<qint64>(0, spanNs / 1000, INT_MAX)));
}

int StallMeter::getSampleCount() const
{
    return spansUs.size();
}

double StallMeter::getLongestMs() const
{
    if (spansUs.isEmpty())
        return 0.0;
    return *std::max_element(spansUs.begin(), spansUs.end()) / 1000.0;
}

double StallMeter::getPercentileMs(double share) const
{
    if (spansUs.isEmpty())
        return 0.0;
    QVector<qint32> sorted = spansUs;
    const int index = qBound(0, int(share * sorted.size() + 0.5) - 1, sorted.size() - 1);
    std::nth_element(sorted.begin(), sorted.begin() + index, sorted.end());
    return sorted.at(index) / 1000.0;
}

QString StallMeter::getSummary() const
{
    return QStringLiteral("stall max=%1 p99=%2 spans=%3")
        .arg(getLongestMs(), 0, 'f', 1)
        .arg(getPercentileMs(0.99), 0, 'f', 1)
        .arg(getSampleCount());
}
