// The application's main window, connected to a target without a user:
// sets the port field and clicks Connect, then runs like the application.
// After the warm-up it measures how long the event loop stalls and how
// often the views paint; SIGTERM or SIGINT prints that and quits.
// Usage: tarn-footprint-driver [--warmup SECONDS] PORT

#include "dspnetgraph.h"
#include "linegraph.h"
#include "mainform.h"
#include "paintcounter.h"
#include "signalwatcher.h"
#include "stallmeter.h"

#include <QApplication>
#include <QCommandLineParser>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QTextStream>
#include <QTimer>

namespace
{

struct DriverOptions
{
    int port = 0;
    double warmupSeconds = 8.0;
};

bool parseOptions(const QStringList& arguments, DriverOptions* options)
{
    QCommandLineParser parser;
    const QCommandLineOption warmup(QStringLiteral("warmup"), QStringLiteral("Seconds before measuring stalls."),
                                    QStringLiteral("seconds"), QStringLiteral("8"));
    parser.addOption(warmup);
    parser.addPositionalArgument(QStringLiteral("port"), QStringLiteral("The target's port on 127.0.0.1."));
    if (!parser.parse(arguments) || parser.positionalArguments().size() != 1)
        return false;
    bool portOk = false;
    bool warmupOk = false;
    options->port = parser.positionalArguments().first().toInt(&portOk);
    options->warmupSeconds = parser.value(warmup).toDouble(&warmupOk);
    return portOk && warmupOk && options->port > 0 && options->port <= 65535 && options->warmupSeconds >= 0.0;
}

} // namespace

int main(int argc, char** argv)
{
    QApplication application(argc, argv);
    DriverOptions options;
    if (!parseOptions(application.arguments(), &options)) {
        QTextStream(stderr) << "usage: tarn-footprint-driver [--warmup SECONDS] PORT" << Qt::endl;
        return 2;
    }

    MainForm mainForm(nullptr, Qt::WindowFlags());
    mainForm.resize(800, 600);
    mainForm.setWindowTitle(QStringLiteral("TARN Profiler"));
    mainForm.show();

    QLineEdit* portEdit = mainForm.findChild<QLineEdit*>(QStringLiteral("portEdit"));
    QPushButton* connectButton = mainForm.findChild<QPushButton*>(QStringLiteral("connectButton"));
    QLabel* statusLabel = mainForm.findChild<QLabel*>(QStringLiteral("statusLabel"));
    DSPNetGraph* graph = mainForm.findChild<DSPNetGraph*>();
    LineGraph* lineGraph = mainForm.findChild<LineGraph*>();
    if (!portEdit || !connectButton || !statusLabel || !graph || !lineGraph) {
        QTextStream(stderr) << "tarn-footprint-driver: the window has changed" << Qt::endl;
        return 2;
    }
    portEdit->setText(QString::number(options.port));
    connectButton->click();

    // Status changes go to stdout for the script's log; once a second is
    // far too rare to show in the figures being measured.
    QString lastStatus;
    QTimer statusTimer;
    QObject::connect(&statusTimer, &QTimer::timeout, [&] {
        if (statusLabel->text() == lastStatus)
            return;
        lastStatus = statusLabel->text();
        QTextStream(stdout) << lastStatus << Qt::endl;
    });
    statusTimer.start(1000);

    StallMeter stallMeter;
    PaintCounter graphPaints(graph);
    PaintCounter lineGraphPaints(lineGraph);
    QTimer::singleShot(qRound(options.warmupSeconds * 1000.0), [&] {
        stallMeter.restart();
        graphPaints.setCount(0);
        lineGraphPaints.setCount(0);
    });

    // The script reads the CPU time, then asks for the rest of the figures.
    SignalWatcher signalWatcher;
    QObject::connect(&signalWatcher, &SignalWatcher::terminationRequested, [&] {
        stallMeter.stop();
        QTextStream(stdout) << stallMeter.getSummary() << Qt::endl
                            << "paints graph=" << graphPaints.getCount() << " lines=" << lineGraphPaints.getCount()
                            << Qt::endl;
        application.quit();
    });
    return application.exec();
}
