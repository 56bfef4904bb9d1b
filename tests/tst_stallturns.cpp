#include "stallturns.h"

#include <QtTest>

#include <initializer_list>

namespace
{

const qint64 Ms = 1000000;

// One step of a scripted event loop: a turn of this length, then a poll
// with this timeout that took this long and found this many sources ready.
struct Step
{
    qint64 turnNs;
    int timeout;
    qint64 pollNs;
    int ready;
};

QVector<qint64> spansOf(std::initializer_list<Step> steps)
{
    StallTurns turns;
    QVector<qint64> spans;
    qint64 now = 0;
    // The first poll starts the count; it ends no span.
    turns.pollStarts(now);
    now += Ms;
    if (turns.pollEnded(now, 1, 0))
        spans.append(-1);
    for (const Step& step : steps) {
        now += step.turnNs;
        turns.pollStarts(now);
        now += step.pollNs;
        if (turns.pollEnded(now, step.timeout, step.ready))
            spans.append(turns.getSpanNs());
    }
    return spans;
}

} // namespace

class TestStallTurns : public QObject
{
    Q_OBJECT

private slots:
    void keyWaitsForItsTurnAndTheNext();
};

// The cases measured with real key presses on an X server: a key waits for
// the turn it came in and the one after, unless the loop waited between.
void TestStallTurns::keyWaitsForItsTurnAndTheNext()
{
    const Step wait = { 0, 1, Ms, 0 };
    // One long turn.
    QCOMPARE(spansOf({ { 50 * Ms, 5, Ms, 0 } }), QVector<qint64>({ 50 * Ms }));
    // A posted call behind a turn: the key waits for both.
    QCOMPARE(spansOf({ { 25 * Ms, 0, 0, 0 }, { 25 * Ms, 5, Ms, 0 } }), QVector<qint64>({ 50 * Ms }));
    // A timer not yet due lets the loop wait between the two halves.
    QCOMPARE(spansOf({ { 25 * Ms, 1, Ms, 0 }, { 25 * Ms, 5, Ms, 0 } }),
             QVector<qint64>({ 25 * Ms, 25 * Ms }));
    // Short posted calls between the halves: the key goes with the first.
    QCOMPARE(spansOf({ { 25 * Ms, 0, 0, 0 }, { Ms / 10, 0, 0, 0 }, { Ms / 10, 0, 0, 0 }, { 25 * Ms, 0, 0, 0 },
                       wait }),
             QVector<qint64>({ 25 * Ms + Ms / 10 }));
    // A socket readable before the poll is taken with the key, and one that
    // woke a blocked poll is not.
    QCOMPARE(spansOf({ { 25 * Ms, 5, 10000, 1 }, { 25 * Ms, 5, Ms, 0 } }), QVector<qint64>({ 50 * Ms }));
    QCOMPARE(spansOf({ { 25 * Ms, 5, 2 * Ms, 1 }, { 25 * Ms, 5, Ms, 0 } }),
             QVector<qint64>({ 25 * Ms, 25 * Ms }));
    // After a wait the count starts afresh.
    QCOMPARE(spansOf({ { 30 * Ms, 0, 0, 0 }, { 2 * Ms, 1, Ms, 0 }, { 3 * Ms, 0, 0, 0 }, { 4 * Ms, 1, Ms, 0 } }),
             QVector<qint64>({ 32 * Ms, 7 * Ms }));
}

QTEST_GUILESS_MAIN(TestStallTurns)
#include "tst_stallturns.moc"
