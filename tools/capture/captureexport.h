#ifndef CAPTUREEXPORT_H
#define CAPTUREEXPORT_H

#include "capturestream.h"
#include "channelhistory.h"
#include "codechistory.h"
#include "cpuhistory.h"
#include "csvtable.h"
#include "dspnettree.h"
#include "profilernetwork.h"
#include "statshistory.h"

#include <QObject>
#include <QString>

#include <memory>

class QTextStream;

struct ExportOptions
{
    QString fileName;
    QString csvDir; // empty: no tables
    qint64 dspEveryUs = 1000000;
    bool dot = false;
    qint64 dotTimeUs = 0;
    QString dotFile;
};

// `tarn-capture export`: replays the packets the target sent into a network
// with the profiler's own collectors attached, so every figure is decoded
// by the code the window uses, and writes what they give as CSV tables
// and the DSP network as of a moment as a Graphviz graph.
class CaptureExport : public QObject
{
    Q_OBJECT

public:
    explicit CaptureExport(const ExportOptions& options);
    ~CaptureExport() override;

    // Returns the exit code: 0, also when the file was merely cut short; 1
    // when it cannot be read or is damaged (what was read before is still
    // written) or an output cannot be written. Messages go to `err`.
    int run(QTextStream& err);

private slots:
    void slotCPUUpdated(int numNewSnapshots);
    void slotChannelsUpdated(int numNewSnapshots);
    void slotCodecsUpdated(int numNewSnapshots);
    void slotStatsUpdated(int numNewSnapshots);
    void slotDSPUpdated();

private:
    struct Tables;

    bool openTables(QTextStream& err);
    bool commitTables(QTextStream& err);
    void replay(const CaptureStream::Event& event);
    bool writeDot(QTextStream& err);
    bool reportEnding(const CaptureStream& stream, QTextStream& err) const;

    ExportOptions options;
    ProfilerNetwork network;
    DSPTree dspTree;
    CPUHistory cpuHistory;
    ChannelHistory channelHistory;
    CodecHistory codecHistory;
    StatsHistory statsHistory;
    std::unique_ptr<Tables> tables;
    qint64 timeUs = 0; // of the record that completed the packet being decoded
    quint64 dspSerial = 0;
    bool dspWritten = false;
    qint64 dspWrittenUs = 0;
    int dspUpdates = 0;
};

#endif // CAPTUREEXPORT_H
