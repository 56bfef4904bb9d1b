// Times each stage of one update of the profiler, from the bytes off the
// socket to the painted views, for networks of growing size and awkward
// shape, then the whole window replaying a recorded session of the
// simulated game, and prints one table with the goals checked underneath.

#include "benchcases.h"
#include "benchtable.h"
#include "dspnetgraph.h"
#include "dspnettree.h"
#include "linegraph.h"
#include "livereplay.h"
#include "profilernetwork.h"

#include <QApplication>
#include <QFileInfo>
#include <QPainter>
#include <QRegion>

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include <unistd.h>

using DSPShapes::DSPShape;

namespace
{

const double UpdatePeriodSeconds = 0.1;
// The same game every time, so that runs on different days replay the same session.
const quint64 LiveSeed = 1;
const QColor ViewBackground(49, 56, 64);

enum class Stage
{
    Copy,
    Framing,
    Decode,
    Layout,
    Rebuild,
    Relayout,
    Viewport,
    Whole
};

struct StageInfo
{
    Stage stage;
    const char* key;
    const char* label;
};

const StageInfo Stages[] = {
    { Stage::Copy, "memcpy", "memcpy of the packet (floor)" },
    { Stage::Framing, "framing", "framing: receiveBytes, 1 MiB reads" },
    { Stage::Decode, "decode", "decode + model: DSPTree, same network" },
    { Stage::Layout, "layout", "layout: slotProcessTree, same network" },
    { Stage::Rebuild, "rebuild", "decode + model: DSPTree, network changed" },
    { Stage::Relayout, "relayout", "layout: slotProcessTree, network changed" },
    { Stage::Viewport, "viewport", "paint 1200x700 viewport" },
    { Stage::Whole, "whole", "paint whole graph" },
};

struct ShapeCase
{
    DSPShape shape;
    const char* name;
    int units;
};

const ShapeCase Cases[] = {
    { DSPShape::Tree, "Tree", 100 },
    { DSPShape::Tree, "Tree", 1000 },
    { DSPShape::Tree, "Tree", 5000 },
    { DSPShape::Tree, "Tree", 10000 },
    { DSPShape::Tree, "Tree", 50000 },
    { DSPShape::DiamondLadder, "DiamondLadder", 10000 },
    { DSPShape::Cycles, "Cycles", 10000 },
};

std::string benchmarkName(const ShapeCase& shapeCase, const char* stageKey)
{
    return std::string(shapeCase.name) + "/" + std::to_string(shapeCase.units) + "/" + stageKey;
}

void feed(NetworkCase& c, const QByteArray& packet)
{
    c.network->receiveBytes(packet);
    c.lastFed = &packet;
}

// Starts a pair with the model and the view on the case's own packet, so
// that every packet of the pair that follows is a new one for them.
void startPair(NetworkCase& c, const QByteArray& other)
{
    if (c.lastFed == &c.dspPacket || c.lastFed == &other)
        return;
    feed(c, c.dspPacket);
    c.tree->slotPacketArrived();
    c.graph->slotProcessTree();
}

const QByteArray& nextOfPair(const NetworkCase& c, const QByteArray& other)
{
    return c.lastFed == &c.dspPacket ? other : c.dspPacket;
}

void runModel(benchmark::State& state, NetworkCase& c, const QByteArray& other)
{
    startPair(c, other);
    for (auto _ : state) {
        state.PauseTiming();
        feed(c, nextOfPair(c, other));
        state.ResumeTiming();
        c.tree->slotPacketArrived();
    }
}

void runLayout(benchmark::State& state, NetworkCase& c, const QByteArray& other)
{
    startPair(c, other);
    // The view must have laid out what the model holds before the first update.
    c.graph->slotProcessTree();
    for (auto _ : state) {
        state.PauseTiming();
        feed(c, nextOfPair(c, other));
        c.tree->slotPacketArrived();
        state.ResumeTiming();
        c.graph->slotProcessTree();
    }
}

void runStage(benchmark::State& state, DSPShape shape, int units, Stage stage)
{
    NetworkCase& c = networkCase(shape, units);
    switch (stage) {
    case Stage::Copy:
        for (auto _ : state) {
            std::memcpy(c.copyBuffer.data(), c.dspPacket.constData(), size_t(c.dspPacket.size()));
            benchmark::ClobberMemory();
        }
        break;
    case Stage::Framing:
        for (auto _ : state) {
            for (const QByteArray& read : qAsConst(c.dspPacketReads))
                c.framingNetwork->receiveBytes(read);
        }
        break;
    case Stage::Decode:
        runModel(state, c, c.driftedPacket);
        break;
    case Stage::Layout:
        runLayout(state, c, c.driftedPacket);
        break;
    case Stage::Rebuild:
        runModel(state, c, c.changedPacket);
        break;
    case Stage::Relayout:
        runLayout(state, c, c.changedPacket);
        break;
    case Stage::Viewport:
        // What a scroll area's repaint does: the graph's own paint event for
        // the exposed region, on a cleared backing store.
        for (auto _ : state) {
            c.viewportImage.fill(ViewBackground);
            c.graph->render(&c.viewportImage, QPoint(), QRegion(c.viewport), QWidget::RenderFlags());
        }
        break;
    case Stage::Whole:
        // Saving the picture, without the file: no clip, so nothing is culled.
        for (auto _ : state) {
            c.wholeImage.fill(Qt::transparent);
            QPainter painter(&c.wholeImage);
            c.graph->renderTree(&painter, true);
        }
        break;
    }
}

void runLineGraphs(benchmark::State& state)
{
    LineGraphCase& c = lineGraphCase();
    for (auto _ : state) {
        c.network->receiveBytes(c.packets);
        c.image.fill(Qt::transparent);
        c.lineGraph->render(&c.image);
    }
}

void runLineGraphCopy(benchmark::State& state)
{
    LineGraphCase& c = lineGraphCase();
    for (auto _ : state) {
        std::memcpy(c.copyBuffer.data(), c.packets.constData(), size_t(c.packets.size()));
        benchmark::ClobberMemory();
    }
}

void runBurst(benchmark::State& state)
{
    BurstCase& c = burstCase();
    for (auto _ : state)
        c.network->receiveBytes(c.bytes);
}

void runBurstCopy(benchmark::State& state)
{
    BurstCase& c = burstCase();
    for (auto _ : state) {
        std::memcpy(c.copyBuffer.data(), c.bytes.constData(), size_t(c.bytes.size()));
        benchmark::ClobberMemory();
    }
}

double minimumOf(const std::vector<double>& values)
{
    return *std::min_element(values.begin(), values.end());
}

void configure(benchmark::internal::Benchmark* b, int repetitions)
{
    // Process CPU time, not wall time: other builds share this machine, and
    // the work is single-threaded, so on an idle machine the two agree.
    b->Unit(benchmark::kMicrosecond)->MinTime(0.2);
    if (repetitions > 1) {
        b->Repetitions(repetitions)->ReportAggregatesOnly(true)->ComputeStatistics("min", &minimumOf);
    }
}

void registerBenchmarks(int repetitions)
{
    // Case by case, so that only one large network is held at a time.
    for (const ShapeCase& shapeCase : Cases) {
        for (const StageInfo& info : Stages) {
            const DSPShape shape = shapeCase.shape;
            const int units = shapeCase.units;
            const Stage stage = info.stage;
            configure(benchmark::RegisterBenchmark(benchmarkName(shapeCase, info.key).c_str(),
                                                   [shape, units, stage](benchmark::State& state) {
                                                       runStage(state, shape, units, stage);
                                                   }),
                      repetitions);
        }
    }
    configure(benchmark::RegisterBenchmark("LineGraphs/memcpy", runLineGraphCopy), repetitions);
    configure(benchmark::RegisterBenchmark("LineGraphs/update", runLineGraphs), repetitions);
    configure(benchmark::RegisterBenchmark("Burst/memcpy", runBurstCopy), repetitions);
    configure(benchmark::RegisterBenchmark("Burst/receive", runBurst), repetitions);
}

QString ratioText(double seconds, double floor)
{
    if (seconds < 0.0 || floor <= 0.0)
        return QStringLiteral("-");
    const double ratio = seconds / floor;
    return QString::number(ratio, 'f', ratio < 10.0 ? 1 : 0);
}

QString periodText(double seconds)
{
    if (seconds < 0.0)
        return QStringLiteral("-");
    const double percent = 100.0 * seconds / UpdatePeriodSeconds;
    return QString::number(percent, 'f', percent < 1.0 ? 3 : 1) + QLatin1Char('%');
}

using LiveResults = QVector<LiveReplay::Result>;

double liveNetSeconds(const LiveReplay::Result& live, const LiveReplay::Replay& replay)
{
    return qMax(0.0, replay.cpuSeconds - live.capture.readCpuSeconds);
}

// CPU per 100 ms of the recorded game: what a live session pays each period.
double livePeriodSeconds(const LiveReplay::Result& live)
{
    const double periods = double(live.capture.spanUs) / 1e6 / UpdatePeriodSeconds;
    return periods > 0.0 ? liveNetSeconds(live, live.paced) / periods : -1.0;
}

double liveUpdateSeconds(const LiveReplay::Result& live)
{
    return liveNetSeconds(live, live.fast) / live.capture.dspPackets;
}

void addLiveRows(TextTable* table, const LiveResults& liveResults)
{
    for (const LiveReplay::Result& live : liveResults) {
        if (!live.error.isEmpty())
            continue;
        const QString network = QStringLiteral("demo target %1 (%2 B)")
                                    .arg(live.capture.units)
                                    .arg(live.capture.dspBytes / live.capture.dspPackets);
        const double period = livePeriodSeconds(live);
        const double update = liveUpdateSeconds(live);
        table->addRow({ network, QStringLiteral("window, replay at recorded pace: CPU per 100 ms"),
                        formatDuration(period), QStringLiteral("-"), periodText(period) });
        table->addRow({ network, QStringLiteral("window, replay at full speed: CPU per DSP update"),
                        formatDuration(update), QStringLiteral("-"), periodText(update) });
    }
}

QString printTable(const MinimumTimeReporter& reporter, const LiveResults& liveResults)
{
    TextTable table({ QStringLiteral("network (DSP packet bytes)"), QStringLiteral("stage"), QStringLiteral("time"),
                      QStringLiteral("x memcpy"), QStringLiteral("of 100 ms") });
    for (const ShapeCase& shapeCase : Cases) {
        const qint64 bytes = networkCasePacketBytes(shapeCase.shape, shapeCase.units);
        if (bytes < 0)
            continue;
        const QString network = QStringLiteral("%1 %2 (%3 B)").arg(shapeCase.name).arg(shapeCase.units).arg(bytes);
        const double floor = reporter.getSeconds(benchmarkName(shapeCase, "memcpy"));
        for (const StageInfo& info : Stages) {
            const double seconds = reporter.getSeconds(benchmarkName(shapeCase, info.key));
            table.addRow({ network, QString::fromLatin1(info.label), formatDuration(seconds),
                           ratioText(seconds, floor), periodText(seconds) });
        }
    }
    addLiveRows(&table, liveResults);
    const double lineSeconds = reporter.getSeconds("LineGraphs/update");
    if (lineSeconds >= 0.0) {
        const double floor = reporter.getSeconds("LineGraphs/memcpy");
        table.addRow({ QStringLiteral("line graphs (%1 B)").arg(lineGraphCase().packets.size()),
                       QStringLiteral("CPU+channel+codec+stats packet, paint 800x300"), formatDuration(lineSeconds),
                       ratioText(lineSeconds, floor), periodText(lineSeconds) });
    }
    const double burstSeconds = reporter.getSeconds("Burst/receive");
    if (burstSeconds >= 0.0) {
        const double floor = reporter.getSeconds("Burst/memcpy");
        table.addRow({ QStringLiteral("history backlog (%1 B)").arg(burstCase().bytes.size()),
                       QStringLiteral("%1 packets in one read, all collectors").arg(4 * BurstCase::PacketsPerStream),
                       formatDuration(burstSeconds), ratioText(burstSeconds, floor), periodText(burstSeconds) });
    }
    return table.toString();
}

double stageSeconds(const MinimumTimeReporter& reporter, const char* shape, int units, const char* stage)
{
    return reporter.getSeconds(std::string(shape) + "/" + std::to_string(units) + "/" + stage);
}

// decode + model + layout + viewport paint: what one DSP update costs on
// screen, for the next snapshot of the same network or for a changed one.
double updateSeconds(const MinimumTimeReporter& reporter, int units, bool changed)
{
    double total = 0.0;
    for (const char* stage : { changed ? "rebuild" : "decode", changed ? "relayout" : "layout", "viewport" }) {
        const double seconds = stageSeconds(reporter, "Tree", units, stage);
        if (seconds < 0.0)
            return -1.0;
        total += seconds;
    }
    return total;
}

const char* const TimedStages[] = { "framing", "decode", "layout", "rebuild", "relayout", "viewport", "whole" };
// A stage this close to a plain copy of its packet is at the floor.
const double CopyFloorSlack = 1.5;

struct RowKey
{
    const char* shape;
    int units;
};

bool atCopyFloor(const MinimumTimeReporter& reporter, const RowKey& row, double seconds)
{
    const double floor = stageSeconds(reporter, row.shape, row.units, "memcpy");
    return floor > 0.0 && seconds <= CopyFloorSlack * floor;
}

// "stage ratio" for one stage of two rows; a ratio above the limit fails
// unless the stage is at the copy floor in both rows.
QString compareStage(const MinimumTimeReporter& reporter, const RowKey& row, const RowKey& reference,
                     const char* stage, double limit, bool* known, bool* pass)
{
    const double seconds = stageSeconds(reporter, row.shape, row.units, stage);
    const double referenceSeconds = stageSeconds(reporter, reference.shape, reference.units, stage);
    if (seconds < 0.0 || referenceSeconds <= 0.0) {
        *known = false;
        return QStringLiteral("%1 not run").arg(QLatin1String(stage));
    }
    const double ratio = seconds / referenceSeconds;
    QString text = QStringLiteral("%1 %2x").arg(QLatin1String(stage)).arg(ratio, 0, 'f', 1);
    if (atCopyFloor(reporter, row, seconds) && atCopyFloor(reporter, reference, referenceSeconds))
        return text + QStringLiteral(" (at copy floor)");
    *pass = *pass && ratio <= limit;
    return text;
}

QString verdict(bool known, bool pass)
{
    return !known ? QStringLiteral("not run") : pass ? QStringLiteral("PASS") : QStringLiteral("FAIL");
}

QString printGoals(const MinimumTimeReporter& reporter)
{
    QString text;
    const struct
    {
        int units;
        double limit;
    } updateGoals[] = { { 10000, 0.2 }, { 50000, 1.0 } };
    for (const auto& goal : updateGoals) {
        for (bool changed : { false, true }) {
            const double seconds = updateSeconds(reporter, goal.units, changed);
            text += QStringLiteral("goal: Tree %1, %2, decode+model+layout+viewport %3 = %4 of the period, under %5%: %6\n")
                        .arg(goal.units)
                        .arg(changed ? QStringLiteral("network changed") : QStringLiteral("same network"))
                        .arg(formatDuration(seconds), periodText(seconds))
                        .arg(goal.limit * 100.0)
                        .arg(verdict(seconds >= 0.0, seconds < goal.limit * UpdatePeriodSeconds));
        }
    }

    const double growthLimit = 12.0;
    QStringList growth;
    bool growthKnown = true;
    bool growthPass = true;
    for (const char* stage : TimedStages) {
        growth.append(compareStage(reporter, { "Tree", 50000 }, { "Tree", 5000 }, stage, growthLimit, &growthKnown,
                                   &growthPass));
    }
    // The floor does not grow linearly either: a packet that fits in the
    // processor's cache copies faster per byte than one that does not.
    const double copySmall = stageSeconds(reporter, "Tree", 5000, "memcpy");
    const double copyLarge = stageSeconds(reporter, "Tree", 50000, "memcpy");
    if (copySmall > 0.0 && copyLarge >= 0.0)
        growth.append(QStringLiteral("memcpy floor itself %1x").arg(copyLarge / copySmall, 0, 'f', 1));
    text += QStringLiteral("goal: Tree 50000 / Tree 5000 at most 12x per stage (%1): %2\n")
                .arg(growth.join(QStringLiteral(", ")), verdict(growthKnown, growthPass));

    for (const char* shape : { "DiamondLadder", "Cycles" }) {
        QStringList ratios;
        bool known = true;
        bool pass = true;
        for (const char* stage : TimedStages)
            ratios.append(compareStage(reporter, { shape, 10000 }, { "Tree", 10000 }, stage, 3.0, &known, &pass));
        text += QStringLiteral("goal: %1 10000 / Tree 10000 at most 3x per stage (%2): %3\n")
                    .arg(QLatin1String(shape), ratios.join(QStringLiteral(", ")), verdict(known, pass));
    }
    text += QStringLiteral("(a stage \"at copy floor\" takes at most %1x a memcpy of its packet in both rows: "
                           "its ratio follows the packet sizes and is not judged)\n")
                .arg(CopyFloorSlack);

    for (const ShapeCase& shapeCase : Cases) {
        const QString note = networkCaseNote(shapeCase.shape, shapeCase.units);
        if (!note.isEmpty())
            text += QStringLiteral("note: %1 %2: %3\n").arg(shapeCase.name).arg(shapeCase.units).arg(note);
    }
    return text;
}

QString replayNote(const LiveReplay::Replay& replay, int dspPackets)
{
    return QStringLiteral("%1 s wall, %2 s CPU, %3 graph paints for %4 DSP packets, %5 line graph paints, "
                          "longest stall %6 ms (99th percentile %7 ms)")
        .arg(replay.wallSeconds, 0, 'f', 1)
        .arg(replay.cpuSeconds, 0, 'f', 2)
        .arg(replay.graphPaints)
        .arg(dspPackets)
        .arg(replay.lineGraphPaints)
        .arg(replay.longestStallMs, 0, 'f', 1)
        .arg(replay.p99StallMs, 0, 'f', 1);
}

QString printLiveNotes(const LiveResults& liveResults)
{
    QString text;
    for (const LiveReplay::Result& live : liveResults) {
        const LiveReplay::Recording& capture = live.capture;
        if (!live.error.isEmpty()) {
            text += QStringLiteral("live %1: not measured: %2\n").arg(capture.units).arg(live.error);
            continue;
        }
        text += QStringLiteral("live %1: %2 (%3), %4 s of the game, %5 packets of which %6 DSP, %7 MB received, "
                               "%8 MB on disk; reading the file took %9 s CPU, taken off both rows\n")
                    .arg(capture.units)
                    .arg(QFileInfo(capture.fileName).fileName(),
                         capture.recordedNow ? QStringLiteral("recorded now") : QStringLiteral("kept from before"))
                    .arg(double(capture.spanUs) / 1e6, 0, 'f', 1)
                    .arg(capture.packets)
                    .arg(capture.dspPackets)
                    .arg(double(capture.rawBytes) / 1e6, 0, 'f', 1)
                    .arg(double(capture.fileBytes) / 1e6, 0, 'f', 1)
                    .arg(capture.readCpuSeconds, 0, 'f', 3);
        text += QStringLiteral("live %1: recorded pace: %2\n")
                    .arg(capture.units)
                    .arg(replayNote(live.paced, capture.dspPackets));
        text += QStringLiteral("live %1: full speed: %2\n")
                    .arg(capture.units)
                    .arg(replayNote(live.fast, capture.dspPackets));
    }
    return text;
}

struct BenchOptions
{
    int repetitions = 5;
    QVector<int> liveUnits = { 10000, 50000, 100000 };
};

// "--live=10000,50000" or "--live=none"; false for anything else.
bool parseLiveUnits(const char* text, QVector<int>* units)
{
    units->clear();
    const QString list = QString::fromLocal8Bit(text);
    if (list == QLatin1String("none"))
        return true;
    for (const QString& item : list.split(QLatin1Char(','))) {
        bool ok = false;
        const int value = item.toInt(&ok);
        if (!ok || value < 1 || value > 100000)
            return false;
        units->append(value);
    }
    return true;
}

// Takes this program's own options out of the arguments before Google
// Benchmark sees them. A filter picks benchmarks by name: the live replays
// then run only when asked for by --live.
bool takeOptions(int* argc, char** argv, BenchOptions* options)
{
    bool liveGiven = false;
    bool filtered = false;
    int kept = 1;
    for (int i = 1; i < *argc; ++i) {
        if (std::strncmp(argv[i], "--repetitions=", 14) == 0) {
            options->repetitions = qMax(1, std::atoi(argv[i] + 14));
        } else if (std::strncmp(argv[i], "--live=", 7) == 0) {
            liveGiven = true;
            if (!parseLiveUnits(argv[i] + 7, &options->liveUnits)) {
                std::fputs("tarn-bench: --live takes unit counts like 10000,50000 (at most 100000) or none\n",
                           stderr);
                return false;
            }
        } else {
            filtered = filtered || std::strncmp(argv[i], "--benchmark_filter=", 19) == 0;
            argv[kept++] = argv[i];
        }
    }
    if (filtered && !liveGiven)
        options->liveUnits.clear();
    *argc = kept;
    return true;
}

} // namespace

int main(int argc, char** argv)
{
    // Painting needs no display; the offscreen platform draws the same pixels.
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", "offscreen");
    BenchOptions options;
    if (!takeOptions(&argc, argv, &options))
        return 2;
    const int repetitions = options.repetitions;
    QApplication application(argc, argv);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;

    registerBenchmarks(repetitions);
    MinimumTimeReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);

    // After the stages, one size at a time: each window holds a large network.
    LiveResults liveResults;
    for (int units : qAsConst(options.liveUnits)) {
        if (isatty(STDERR_FILENO))
            std::fprintf(stderr, "\r\033[Klive %d: recording or replaying...", units);
        liveResults.append(LiveReplay::run(units, LiveSeed));
    }
    if (isatty(STDERR_FILENO) && !liveResults.isEmpty())
        std::fputs("\r\033[K", stderr);

    const QString table = printTable(reporter, liveResults);
    const QString goals = printGoals(reporter) + printLiveNotes(liveResults);
    std::printf("CPU time per update stage, fastest of %d repetitions (the window rows: one replay each, "
                "process CPU time)\n",
                repetitions);
    std::fputs(qPrintable(table), stdout);
    std::fputs("\n", stdout);
    std::fputs(qPrintable(goals), stdout);
    releaseBenchCases();
    benchmark::Shutdown();
    return 0;
}
