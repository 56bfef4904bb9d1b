#ifndef STALLTURNS_H
#define STALLTURNS_H

#include <QtGlobal>

#include <algorithm>

// How long a key press can wait, from the event loop's turns. Input that
// comes during a turn is taken by the next turn, after the sources that were
// ready already (posted events, due timers, readable sockets). So a key waits
// for the rest of its own turn and, if the loop went on without a real wait,
// for the next turn too; never for a third, which would find the key ready
// with it. A span is the run of turns between two real waits, and its stall
// is the longest two turns in a row within it. A poll that returns at once
// with something ready did not wait: the sources it found would have gone
// first.
class StallTurns
{
public:
    // A poll that blocked this long found nothing ready when it was called.
    static constexpr qint64 WaitNs = 100000;

    void pollStarts(qint64 nowNs)
    {
        pollStartNs = nowNs;
        if (turnStartNs < 0)
            return;
        const qint64 turn = nowNs - turnStartNs;
        spanLongestNs = std::max(spanLongestNs, previousTurnNs + turn);
        lastTurnNs = turn;
    }

    // Returns whether a span ended; its stall is then getSpanNs().
    bool pollEnded(qint64 nowNs, int timeout, int ready)
    {
        const bool started = turnStartNs >= 0;
        turnStartNs = nowNs;
        const bool waited = timeout != 0 && (ready == 0 || nowNs - pollStartNs >= WaitNs);
        if (!waited) {
            previousTurnNs = started ? lastTurnNs : 0;
            return false;
        }
        finishedSpanNs = spanLongestNs;
        spanLongestNs = 0;
        previousTurnNs = 0;
        return started;
    }

    qint64 getSpanNs() const { return finishedSpanNs; }

private:
    qint64 pollStartNs = 0;
    qint64 turnStartNs = -1;
    qint64 lastTurnNs = 0;
    qint64 previousTurnNs = 0;
    qint64 spanLongestNs = 0;
    qint64 finishedSpanNs = 0;
};

#endif // STALLTURNS_H
