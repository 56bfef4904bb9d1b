// tarn-capture: records a profiling session into a capture file without a
// window, and reads capture files back as a summary, tables or a graph.
#include "captureexport.h"
#include "captureinfo.h"
#include "capturerecorder.h"
#include "signalwatcher.h"
#include "version.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QTextStream>

#include <cmath>
#include <unistd.h>

namespace
{

const int ExitUsage = 2;

const char* const Overview = R"(Records a profiling session of a TARN game without a window, and reads
capture files back.

Commands:
  record [--host H] [--port P] [--duration S] FILE
      Connects like the profiler, asks for the same streams and writes
      everything that crosses the link to FILE until S seconds have passed
      or SIGINT/SIGTERM arrives. A target that goes away is waited for.
  info FILE
      Start time, target, duration, packets by type and version, requests
      and commands sent, connections, DSP unit counts and sizes.
  export FILE --csv DIR [--dsp-every S]
      Decodes the streams with the profiler's collectors and writes
      cpu.csv, channels.csv, codecs.csv, stats.csv and dsp-units.csv.
  export FILE --dot TIME OUT.dot
      The DSP network as of TIME seconds into the capture, for Graphviz.

Run "tarn-capture COMMAND --help" for the options of a command.

Exit codes: 0 done; 1 could not connect, could not read or write a file, or
the capture is damaged; 2 bad usage. A capture that merely ends inside a
frame (cut short by a crash or a kill) is read up to there with a warning
and exits 0.)";

[[noreturn]] void usageError(const QString& message)
{
    QTextStream(stderr) << "tarn-capture: " << message << " (see tarn-capture --help)\n";
    ::exit(ExitUsage);
}

// Parses and checks; --help and --version end the program here.
void parseOrExit(QCommandLineParser& parser, const QStringList& arguments)
{
    if (!parser.parse(arguments))
        usageError(parser.errorText());
    if (parser.isSet(QStringLiteral("help")))
        parser.showHelp(0);
    if (parser.isSet(QStringLiteral("version")))
        parser.showVersion();
}

// Seconds as microseconds; bad or negative text is a usage error.
qint64 secondsOption(const QCommandLineParser& parser, const QString& name, bool allowZero)
{
    bool ok = false;
    const double seconds = parser.value(name).toDouble(&ok);
    if (!ok || !std::isfinite(seconds) || seconds < 0 || (!allowZero && seconds == 0) || seconds > 1e9)
        usageError(QStringLiteral("--%1 wants a number of seconds, not \"%2\"").arg(name, parser.value(name)));
    return std::llround(seconds * 1e6);
}

void expectPositionals(const QCommandLineParser& parser, int count, const QString& what)
{
    if (parser.positionalArguments().size() != count)
        usageError(QStringLiteral("%1 wants %2").arg(parser.positionalArguments().value(0, QStringLiteral("the command")), what));
}

int runRecord(QCoreApplication& app, QCommandLineParser& parser, const QStringList& arguments)
{
    parser.addOptions({
        { QStringLiteral("host"), QStringLiteral("The game's address (127.0.0.1)."), QStringLiteral("H"),
          QStringLiteral("127.0.0.1") },
        { QStringLiteral("port"), QStringLiteral("The game's profiling port (9264)."), QStringLiteral("P"),
          QString::number(ProfilerNetwork::DefaultProfilerPort) },
        { QStringLiteral("duration"), QStringLiteral("Stop after S seconds (default: at SIGINT or SIGTERM)."),
          QStringLiteral("S") },
    });
    parser.addPositionalArgument(QStringLiteral("FILE"), QStringLiteral("The capture file to write."));
    parser.setApplicationDescription(QStringLiteral(
        "Records a profiling session into FILE until the duration ends or SIGINT/SIGTERM arrives.\n"
        "Exit codes: 0 recorded, 1 the first connection failed or FILE could not be written, 2 bad usage."));
    parseOrExit(parser, arguments);
    expectPositionals(parser, 2, QStringLiteral("one FILE"));

    RecordOptions options;
    options.host = parser.value(QStringLiteral("host"));
    bool ok = false;
    const uint port = parser.value(QStringLiteral("port")).toUInt(&ok);
    if (!ok || port == 0 || port > 65535)
        usageError(QStringLiteral("--port wants a port from 1 to 65535, not \"%1\"").arg(parser.value("port")));
    options.port = quint16(port);
    if (parser.isSet(QStringLiteral("duration")))
        options.durationMs = qMax<qint64>(1, secondsOption(parser, QStringLiteral("duration"), false) / 1000);
    options.fileName = parser.positionalArguments().at(1);
    options.showProgress = ::isatty(2) == 1;

    QTextStream err(stderr);
    SignalWatcher watcher;
    CaptureRecorder recorder(options, err);
    QObject::connect(&watcher, &SignalWatcher::terminationRequested, &recorder, &CaptureRecorder::slotStop);
    QObject::connect(&recorder, &CaptureRecorder::finished, &app, &QCoreApplication::exit, Qt::QueuedConnection);
    if (!recorder.start())
        return 1;
    return app.exec();
}

int runInfo(QCommandLineParser& parser, const QStringList& arguments)
{
    parser.addPositionalArgument(QStringLiteral("FILE"), QStringLiteral("The capture file to read."));
    parser.setApplicationDescription(QStringLiteral(
        "Summarises a capture file. A damaged file is summed up as far as it reads, then the damage is\n"
        "reported and the exit code is 1; a file cut short inside a frame is reported as such and exits 0."));
    parseOrExit(parser, arguments);
    expectPositionals(parser, 2, QStringLiteral("one FILE"));
    QTextStream out(stdout);
    QTextStream err(stderr);
    return printCaptureInfo(parser.positionalArguments().at(1), out, err);
}

int runExport(QCommandLineParser& parser, const QStringList& arguments)
{
    parser.addOptions({
        { QStringLiteral("csv"), QStringLiteral("Write the tables into DIR (created if missing)."),
          QStringLiteral("DIR") },
        { QStringLiteral("dsp-every"),
          QStringLiteral("Write the DSP units at most every S seconds of capture time (1)."), QStringLiteral("S"),
          QStringLiteral("1") },
        { QStringLiteral("dot"),
          QStringLiteral("Write the DSP network as of TIME seconds to OUT.dot: the head unit on the left, "
                         "units labelled with name and own CPU %, sends dashed, sidechains dotted."),
          QStringLiteral("TIME") },
    });
    parser.addPositionalArgument(QStringLiteral("FILE"), QStringLiteral("The capture file to read."));
    parser.addPositionalArgument(QStringLiteral("OUT.dot"), QStringLiteral("With --dot: the graph file."),
                                 QStringLiteral("[OUT.dot]"));
    parser.setApplicationDescription(QStringLiteral(
        "Decodes the streams of a capture with the profiler's own collectors. Every table has a time\n"
        "column: seconds since the capture started, at the record that completed the packet.\n"
        "A damaged file is exported as far as it reads and exits 1; one cut short exits 0."));
    parseOrExit(parser, arguments);

    ExportOptions options;
    options.csvDir = parser.value(QStringLiteral("csv"));
    options.dot = parser.isSet(QStringLiteral("dot"));
    if (parser.isSet(QStringLiteral("csv")) && options.csvDir.isEmpty())
        usageError(QStringLiteral("--csv wants a folder"));
    if (options.csvDir.isEmpty() && !options.dot)
        usageError(QStringLiteral("export wants --csv DIR or --dot TIME OUT.dot"));
    expectPositionals(parser, options.dot ? 3 : 2,
                      options.dot ? QStringLiteral("FILE and OUT.dot") : QStringLiteral("one FILE"));
    options.fileName = parser.positionalArguments().at(1);
    options.dspEveryUs = secondsOption(parser, QStringLiteral("dsp-every"), true);
    if (options.dot) {
        options.dotTimeUs = secondsOption(parser, QStringLiteral("dot"), true);
        options.dotFile = parser.positionalArguments().at(2);
    }
    QTextStream err(stderr);
    CaptureExport exporter(options);
    return exporter.run(err);
}

} // namespace

int main(int argc, char* argv[])
{
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("tarn-capture"));
    QCoreApplication::setApplicationVersion(tarnVersion());

    QCommandLineParser parser;
    parser.setApplicationDescription(QString::fromUtf8(Overview));
    parser.addHelpOption();
    parser.addVersionOption();
    parser.addPositionalArgument(QStringLiteral("command"), QStringLiteral("record, info or export."),
                                 QStringLiteral("COMMAND ..."));
    // Everything after the command is the command's own to parse.
    parser.setOptionsAfterPositionalArgumentsMode(QCommandLineParser::ParseAsPositionalArguments);
    const QStringList arguments = app.arguments();
    parseOrExit(parser, arguments);

    const QString command = parser.positionalArguments().value(0);
    if (command.isEmpty())
        usageError(QStringLiteral("no command given"));
    parser.clearPositionalArguments();
    parser.setOptionsAfterPositionalArgumentsMode(QCommandLineParser::ParseAsOptions);
    parser.setApplicationDescription(QString());
    parser.addPositionalArgument(command, QString(), command);
    if (command == QLatin1String("record"))
        return runRecord(app, parser, arguments);
    if (command == QLatin1String("info"))
        return runInfo(parser, arguments);
    if (command == QLatin1String("export"))
        return runExport(parser, arguments);
    usageError(QStringLiteral("unknown command \"%1\"").arg(command));
}
