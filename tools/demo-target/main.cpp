#include "targetserver.h"
#include "version.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QHostAddress>
#include <QTextStream>
#include <QTimer>

#include <cstdlib>

namespace
{

QTextStream& output()
{
    static QTextStream stream(stdout);
    return stream;
}

// Each event is one line, whatever the profiler put in its text.
QString oneLine(QString text)
{
    for (QChar& c : text) {
        if (c.category() == QChar::Other_Control)
            c = QLatin1Char(' ');
    }
    return text;
}

void printLine(const QString& line)
{
    output() << line << Qt::endl;
}

[[noreturn]] void fail(const QString& message)
{
    QTextStream(stderr) << "tarn-demo-target: " << message << Qt::endl;
    std::exit(2);
}

struct Options
{
    QHostAddress host;
    quint16 port = TargetServer::DefaultPort;
    TargetSettings settings;
    double durationSeconds = 0.0;
};

qlonglong integerOption(const QCommandLineParser& parser, const QString& name, qlonglong low, qlonglong high)
{
    bool ok = false;
    const qlonglong value = parser.value(name).toLongLong(&ok);
    if (!ok || value < low || value > high)
        fail(QStringLiteral("--%1 takes a whole number from %2 to %3").arg(name).arg(low).arg(high));
    return value;
}

double realOption(const QCommandLineParser& parser, const QString& name, double low, double high)
{
    bool ok = false;
    const double value = parser.value(name).toDouble(&ok);
    if (!ok || !(value >= low) || !(value <= high))
        fail(QStringLiteral("--%1 takes a number from %2 to %3").arg(name).arg(low).arg(high));
    return value;
}

Options parseOptions(const QCoreApplication& app)
{
    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral(
        "A simulated game that streams audio-engine profiling data to the profiler."));
    parser.addHelpOption();
    parser.addVersionOption();
    parser.addOptions({
        {QStringLiteral("host"), QStringLiteral("Address to listen on (default 127.0.0.1)."), QStringLiteral("address"),
         QStringLiteral("127.0.0.1")},
        {QStringLiteral("port"), QStringLiteral("Port to listen on (default 9264; 0: any free port)."), QStringLiteral("port"),
         QString::number(TargetServer::DefaultPort)},
        {QStringLiteral("dsp-version"), QStringLiteral("DSP network layout to send, 0 to 6 (default 6)."),
         QStringLiteral("N"), QStringLiteral("6")},
        {QStringLiteral("cpu-version"), QStringLiteral("CPU packet layout to send, 0 or 1 (default 1)."), QStringLiteral("N"),
         QStringLiteral("1")},
        {QStringLiteral("units"), QStringLiteral("Units in the DSP network, 1 to 100000 (default 60)."), QStringLiteral("N"),
         QStringLiteral("60")},
        {QStringLiteral("rate-multiplier"),
         QStringLiteral("Send every stream X times as often as the profiler asks (default 1)."), QStringLiteral("X"),
         QStringLiteral("1")},
        {QStringLiteral("seed"), QStringLiteral("Seed of the simulation (default 1); the same seed plays the same game."),
         QStringLiteral("N"), QStringLiteral("1")},
        {QStringLiteral("duration"), QStringLiteral("Exit after S seconds (default 0: run until stopped)."),
         QStringLiteral("S"), QStringLiteral("0")},
    });
    parser.process(app);
    if (!parser.positionalArguments().isEmpty())
        fail(QStringLiteral("unexpected argument \"%1\"").arg(parser.positionalArguments().first()));

    Options options;
    if (!options.host.setAddress(parser.value(QStringLiteral("host"))))
        fail(QStringLiteral("--host takes an IP address"));
    options.port = static_cast<quint16>(integerOption(parser, QStringLiteral("port"), 0, 65535));
    options.settings.dspVersion = static_cast<int>(integerOption(parser, QStringLiteral("dsp-version"), 0, 6));
    options.settings.cpuVersion = static_cast<int>(integerOption(parser, QStringLiteral("cpu-version"), 0, 1));
    options.settings.units = static_cast<int>(integerOption(parser, QStringLiteral("units"), 1, 100000));
    options.settings.rateMultiplier = realOption(parser, QStringLiteral("rate-multiplier"), 0.001, 100000.0);
    bool ok = false;
    options.settings.seed = parser.value(QStringLiteral("seed")).toULongLong(&ok);
    if (!ok)
        fail(QStringLiteral("--seed takes a whole number"));
    options.durationSeconds = realOption(parser, QStringLiteral("duration"), 0.0, 31536000.0);
    return options;
}

} // namespace

int main(int argc, char* argv[])
{
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("tarn-demo-target"));
    QCoreApplication::setApplicationVersion(tarnVersion());
    const Options options = parseOptions(app);

    TargetServer server(options.settings);
    QObject::connect(&server, &TargetServer::connectionOpened, [](const QString& peer) {
        printLine(QStringLiteral("Profiler connected from %1").arg(peer));
    });
    QObject::connect(&server, &TargetServer::commandStringReceived, [](int type, const QString& text) {
        const QString source = type == 1 ? QStringLiteral("DSP") : QStringLiteral("Group");
        printLine(QStringLiteral("%1 command: %2").arg(source, oneLine(text)));
    });
    if (!server.listen(options.host, options.port))
        fail(QStringLiteral("cannot listen on %1:%2: %3")
                 .arg(options.host.toString())
                 .arg(options.port)
                 .arg(server.getErrorString()));

    const SimEngine& engine = server.getEngine();
    printLine(QStringLiteral("Listening on %1:%2 (DSP version %3, CPU version %4, %5 units, seed %6)")
                  .arg(options.host.toString())
                  .arg(server.getPort())
                  .arg(options.settings.dspVersion)
                  .arg(options.settings.cpuVersion)
                  .arg(engine.getNetwork().units.size())
                  .arg(options.settings.seed));

    if (options.durationSeconds > 0.0)
        QTimer::singleShot(qRound64(options.durationSeconds * 1000.0), &app, &QCoreApplication::quit);
    return app.exec();
}
