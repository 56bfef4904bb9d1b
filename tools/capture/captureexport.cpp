#include "captureexport.h"

#include "dspexport.h"

#include <QDir>
#include <QSaveFile>
#include <QTextStream>

namespace
{

const QStringList CPUHeader = { "time", "dsp", "stream", "geometry", "update", "total" };
const QStringList ChannelHeader = { "time",         "hardwareUsed",     "hardwareCapacity", "softwareUsed",
                                    "softwareCapacity", "realUsed",     "realCapacity",     "virtualUsed",
                                    "virtualCapacity",  "playingUsed",  "playingCapacity" };
const QStringList CodecHeader = { "time",       "mpegUsed", "mpegCapacity", "adpcmUsed",  "adpcmCapacity",
                                  "xmaUsed",    "xmaCapacity", "pcmUsed",   "pcmCapacity" };
const QStringList StatsHeader = { "time",   "dsp",  "stream", "update", "geometry", "total",
                                  "realChannels", "virtualChannels", "playingChannels", "adpcm", "tadpcm",
                                  "mpeg", "vorbis", "xma", "at9", "pcm", "memory" };
const QStringList DSPHeader = { "time", "id", "name", "exclusiveCPU%", "inclusiveCPU%", "active", "bypass" };

QString number(float value)
{
    return CsvTable::number(value);
}

QString number(qint32 value)
{
    return QString::number(value);
}

QStringList cells(const CPUUsageSnapshot& s)
{
    return { number(s.dsp), number(s.stream), number(s.geometry), number(s.update), number(s.total) };
}

QStringList cells(const ChannelUsageSnapshot& s)
{
    return { number(s.hardwareUsed), number(s.hardwareCapacity), number(s.softwareUsed), number(s.softwareCapacity),
             number(s.realUsed),     number(s.realCapacity),     number(s.virtualUsed),  number(s.virtualCapacity),
             number(s.playingUsed),  number(s.playingCapacity) };
}

QStringList cells(const CodecUsageSnapshot& s)
{
    return { number(s.mpegUsed), number(s.mpegCapacity), number(s.adpcmUsed), number(s.adpcmCapacity),
             number(s.xmaUsed),  number(s.xmaCapacity),  number(s.pcmUsed),   number(s.pcmCapacity) };
}

QStringList cells(const StatsSnapshot& s)
{
    return { number(s.dsp),          number(s.stream),          number(s.update),          number(s.geometry),
             number(s.total),        number(s.realChannels),    number(s.virtualChannels), number(s.playingChannels),
             number(s.adpcm),        number(s.tadpcm),          number(s.mpeg),            number(s.vorbis),
             number(s.xma),          number(s.at9),             number(s.pcm),             number(s.memory) };
}

QStringList cells(const DSPNode& node)
{
    // In percent, as the network view shows them.
    return { QString::number(node.id),         node.name,
             number(node.exclusiveCPU * 100),  number(node.inclusiveCPU * 100),
             QString::number(int(node.active)), QString::number(int(node.bypass)) };
}

} // namespace

struct CaptureExport::Tables
{
    CsvTable cpu;
    CsvTable channels;
    CsvTable codecs;
    CsvTable stats;
    CsvTable dspUnits;

    // The newest `count` snapshots of a history, each as a row at `timeUs`.
    template <typename Snapshot>
    static void addRows(CsvTable* table, const QList<Snapshot>& history, int count, qint64 timeUs)
    {
        for (int i = qMax(0, history.size() - count); i < history.size(); ++i)
            table->addRow(QStringList(CsvTable::seconds(timeUs)) + cells(history.at(i)));
    }
};

CaptureExport::CaptureExport(const ExportOptions& options)
    : options(options)
    , dspTree(&network)
    , cpuHistory(&network)
    , channelHistory(&network)
    , codecHistory(&network)
    , statsHistory(&network)
{
    connect(&cpuHistory, &CPUHistory::historyUpdated, this, &CaptureExport::slotCPUUpdated);
    connect(&channelHistory, &ChannelHistory::historyUpdated, this, &CaptureExport::slotChannelsUpdated);
    connect(&codecHistory, &CodecHistory::historyUpdated, this, &CaptureExport::slotCodecsUpdated);
    connect(&statsHistory, &StatsHistory::historyUpdated, this, &CaptureExport::slotStatsUpdated);
    connect(&dspTree, &DSPTree::dspNetTreeUpdated, this, &CaptureExport::slotDSPUpdated);
}

CaptureExport::~CaptureExport() = default;

int CaptureExport::run(QTextStream& err)
{
    CaptureStream stream;
    if (!stream.open(options.fileName)) {
        err << "tarn-capture: " << stream.errorString() << '\n';
        return 1;
    }
    if (!options.csvDir.isEmpty() && !openTables(err))
        return 1;

    bool dotWritten = false;
    CaptureStream::Event event;
    while (stream.next(&event)) {
        if (options.dot && !dotWritten && event.timeUs > options.dotTimeUs) {
            if (!writeDot(err))
                return 1;
            dotWritten = true;
            // The rest of the file cannot change the graph.
            if (!tables)
                return 0;
        }
        replay(event);
    }
    const bool whole = reportEnding(stream, err);
    if (options.dot && !dotWritten && !writeDot(err))
        return 1;
    if (tables && !commitTables(err))
        return 1;
    return whole ? 0 : 1;
}

void CaptureExport::replay(const CaptureStream::Event& event)
{
    // The stream hands over whole packets only, so the network never holds
    // part of one when a connection ends; telling it keeps it that way if
    // that ever changes.
    if (event.kind == CaptureStream::EventKind::Connected)
        network.replayConnection();
    if (event.kind != CaptureStream::EventKind::Received)
        return;
    timeUs = event.timeUs;
    network.receiveBytes(event.bytes);
}

// Reports the end of the reading; false when the file is damaged.
bool CaptureExport::reportEnding(const CaptureStream& stream, QTextStream& err) const
{
    switch (stream.ending()) {
    case CaptureStream::Ending::Complete:
        return true;
    case CaptureStream::Ending::Truncated:
        err << "tarn-capture: " << options.fileName << ": file ends inside a frame (cut short)\n";
        return true;
    case CaptureStream::Ending::Damaged:
        err << "tarn-capture: " << stream.errorString() << '\n';
        return false;
    }
    return false;
}

bool CaptureExport::openTables(QTextStream& err)
{
    QDir dir(options.csvDir);
    if (!dir.mkpath(QStringLiteral("."))) {
        err << "tarn-capture: cannot create the folder " << options.csvDir << '\n';
        return false;
    }
    tables.reset(new Tables);
    const struct
    {
        CsvTable* table;
        const char* name;
        const QStringList& header;
    } files[] = {
        { &tables->cpu, "cpu.csv", CPUHeader },          { &tables->channels, "channels.csv", ChannelHeader },
        { &tables->codecs, "codecs.csv", CodecHeader },  { &tables->stats, "stats.csv", StatsHeader },
        { &tables->dspUnits, "dsp-units.csv", DSPHeader },
    };
    for (const auto& file : files) {
        if (!file.table->open(dir.filePath(QLatin1String(file.name)), file.header)) {
            err << "tarn-capture: " << file.table->errorString() << '\n';
            return false;
        }
    }
    return true;
}

bool CaptureExport::commitTables(QTextStream& err)
{
    for (CsvTable* table : { &tables->cpu, &tables->channels, &tables->codecs, &tables->stats, &tables->dspUnits }) {
        if (!table->commit()) {
            err << "tarn-capture: " << table->errorString() << '\n';
            return false;
        }
    }
    return true;
}

bool CaptureExport::writeDot(QTextStream& err)
{
    if (dspUpdates == 0) {
        err << "tarn-capture: " << options.fileName << ": no DSP network at or before "
            << CsvTable::seconds(options.dotTimeUs) << " s\n";
        return false;
    }
    QSaveFile file(options.dotFile);
    if (!file.open(QIODevice::WriteOnly) || file.write(DSPExport::dot(dspTree.root)) < 0 || !file.commit()) {
        err << "tarn-capture: " << options.dotFile << ": " << file.errorString() << '\n';
        return false;
    }
    return true;
}

void CaptureExport::slotCPUUpdated(int numNewSnapshots)
{
    if (tables)
        Tables::addRows(&tables->cpu, *cpuHistory.getHistoryList(), numNewSnapshots, timeUs);
}

void CaptureExport::slotChannelsUpdated(int numNewSnapshots)
{
    if (tables)
        Tables::addRows(&tables->channels, *channelHistory.getHistoryList(), numNewSnapshots, timeUs);
}

void CaptureExport::slotCodecsUpdated(int numNewSnapshots)
{
    if (tables)
        Tables::addRows(&tables->codecs, *codecHistory.getHistoryList(), numNewSnapshots, timeUs);
}

void CaptureExport::slotStatsUpdated(int numNewSnapshots)
{
    if (tables)
        Tables::addRows(&tables->stats, *statsHistory.history, numNewSnapshots, timeUs);
}

void CaptureExport::slotDSPUpdated()
{
    // Group packets announce themselves through the same signal.
    const quint64 serial = dspTree.getShapeSerial() + dspTree.getValueSerial();
    if (serial == dspSerial)
        return;
    dspSerial = serial;
    ++dspUpdates;
    if (!tables || (dspWritten && timeUs - dspWrittenUs < options.dspEveryUs))
        return;
    dspWritten = true;
    dspWrittenUs = timeUs;
    const QString time = CsvTable::seconds(timeUs);
    for (const DSPNode* node : DSPExport::unitsInTreeOrder(dspTree.root))
        tables->dspUnits.addRow(QStringList(time) + cells(*node));
}
