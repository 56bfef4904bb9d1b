#ifndef LIVEREPLAY_H
#define LIVEREPLAY_H

#include <QString>

// The path a user runs, without the target's noise: a seeded session of the
// simulated game, recorded once, played back through the application's own
// window (MainForm, shown and painting on the offscreen platform), with the
// process CPU time measured over the replay.
namespace LiveReplay
{

// A recording of the simulated game at one network size, kept under the
// build directory and reused while the target program stays the same.
struct Recording
{
    int units = 0;
    quint64 seed = 1;
    QString fileName;
    bool recordedNow = false;
    int dspPackets = 0;
    qint64 dspBytes = 0;
    int packets = 0;
    qint64 spanUs = 0; // from the first to the last packet received
    qint64 rawBytes = 0;
    qint64 fileBytes = 0;
    // Reading the file (decompression, delta decoding) is replay work that a
    // live session does not have; measured alone so it can be taken off.
    double readCpuSeconds = 0.0;
};

struct Replay
{
    double speed = 1.0;
    double cpuSeconds = 0.0; // the whole process, reading the file included
    double wallSeconds = 0.0;
    int graphPaints = 0;
    int lineGraphPaints = 0;
    double longestStallMs = 0.0;
    double p99StallMs = 0.0;
    QString endStatus;
};

struct Result
{
    Recording capture;
    Replay paced; // at the recorded pace: paints as often as live
    Replay fast;  // as fast as possible: repaints fold together
    QString error; // empty when both replays ran to the end
};

constexpr double RecordSeconds = 10.0;

// Records the capture if needed, warms the window up with one fast replay,
// then measures a replay at the recorded pace and one as fast as possible.
Result run(int units, quint64 seed);

} // namespace LiveReplay

#endif // LIVEREPLAY_H
