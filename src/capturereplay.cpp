#include "capturereplay.h"

#include "profilernetwork.h"

#include <QFileInfo>
#include <QTimer>
#include <QtMath>

namespace
{

// A paused replay looks this often whether it may go on, and a running one
// never sleeps longer without looking whether the user disconnected.
const int PollIntervalMs = 50;
// At full speed the event loop gets a turn after this long, so the views
// paint and the buttons answer.
const qint64 BatchMs = 20;

} // namespace

CaptureReplay::CaptureReplay(ProfilerNetwork* network, QObject* parent)
    : QObject(parent)
    , network(network)
    , timer(new QTimer(this))
    , speed(1.0)
    , running(false)
    , haveNext(false)
    , positionUs(0.0)
    , wallUs(0)
{
    timer->setSingleShot(true);
    // A coarse timer may fire 5% late on every record and stretch the replay.
    timer->setTimerType(Qt::PreciseTimer);
    connect(timer, &QTimer::timeout, this, &CaptureReplay::slotFeed);
}

CaptureReplay::~CaptureReplay() = default;

bool CaptureReplay::open(const QString& name)
{
    fileName = name;
    if (!reader.open(fileName))
        return false;
    haveNext = readNext();
    return true;
}

QString CaptureReplay::errorString() const
{
    return reader.errorString();
}

void CaptureReplay::setSpeed(double value)
{
    speed = value > 0.0 && qIsFinite(value) ? value : 0.0;
}

double CaptureReplay::getSpeed() const
{
    return speed;
}

void CaptureReplay::start()
{
    if (!network || running)
        return;
    running = true;
    network->startReplay(QStringLiteral("Replaying %1 %2...").arg(displayName(), speedText()));
    // The recording may have started long before the first connection.
    positionUs = haveNext ? double(next.timeUs) : 0.0;
    wallClock.start();
    wallUs = 0;
    timer->start(0);
}

bool CaptureReplay::isRunning() const
{
    return running;
}

void CaptureReplay::slotFeed()
{
    if (!network || !network->isReplaying()) {
        stop();
        return;
    }
    advanceClock();
    if (network->paused) {
        timer->start(PollIntervalMs);
        return;
    }
    QElapsedTimer batch;
    batch.start();
    while (haveNext && isDue()) {
        feed(next);
        // A broken recorded stream ends the replay inside the link.
        if (!network->isReplaying()) {
            stop();
            return;
        }
        haveNext = readNext();
        if (batch.elapsed() >= BatchMs) {
            timer->start(0);
            return;
        }
    }
    if (haveNext)
        scheduleNext();
    else
        finish();
}

bool CaptureReplay::readNext()
{
    return reader.next(next);
}

// Wall time spent paused does not move the replay on.
void CaptureReplay::advanceClock()
{
    const qint64 now = wallClock.nsecsElapsed() / 1000;
    if (!network->paused)
        positionUs += double(now - wallUs) * speed;
    wallUs = now;
}

bool CaptureReplay::isDue() const
{
    return speed == 0.0 || double(next.timeUs) <= positionUs;
}

void CaptureReplay::feed(const Capture::Record& record)
{
    switch (record.kind) {
    case Capture::RecordKind::Received:
        network->receiveBytes(record.bytes);
        break;
    case Capture::RecordKind::Connected:
        network->replayConnection();
        break;
    case Capture::RecordKind::Sent:
    case Capture::RecordKind::Disconnected:
        break;
    }
}

void CaptureReplay::scheduleNext()
{
    const double waitMs = (double(next.timeUs) - positionUs) / speed / 1000.0;
    if (!(waitMs > 0.0))
        timer->start(0);
    else
        timer->start(waitMs < PollIntervalMs ? qCeil(waitMs) : PollIntervalMs);
}

void CaptureReplay::finish()
{
    const QString status = endStatus();
    if (network && network->isReplaying())
        network->stopReplay(status);
    stop();
}

void CaptureReplay::stop()
{
    timer->stop();
    if (!running)
        return;
    running = false;
    emit finished();
}

// The path can be long; the status line has room for the name.
QString CaptureReplay::displayName() const
{
    return QFileInfo(fileName).fileName();
}

QString CaptureReplay::speedText() const
{
    if (speed == 0.0)
        return QStringLiteral("as fast as possible");
    return QStringLiteral("at %1x").arg(speed);
}

QString CaptureReplay::endStatus() const
{
    if (reader.hasError())
        return QStringLiteral("Replay of %1 stopped at damage: %2").arg(displayName(), reader.errorString());
    if (reader.truncated())
        return QStringLiteral("Replay of %1 finished; the file was cut short.").arg(displayName());
    return QStringLiteral("Replay of %1 finished.").arg(displayName());
}
