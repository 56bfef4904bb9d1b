// Takes the README's pictures: the whole window running against the
// simulated target with every tab's rows ticked, first at the size it opens
// with, then larger with every display option on. Run it on a real X server
// (xcb under Xvfb) for a desktop's fonts.
// Usage: tarn-screenshot OUTPUT_FOLDER
#include "dspnetgraph.h"
#include "linegraphcontrol.h"
#include "mainform.h"
#include "targetserver.h"

#include <QApplication>
#include <QCheckBox>
#include <QDir>
#include <QElapsedTimer>
#include <QLineEdit>
#include <QPushButton>
#include <QTabWidget>

namespace
{

void runFor(int milliseconds)
{
    QElapsedTimer clock;
    clock.start();
    while (clock.elapsed() < milliseconds)
        QApplication::processEvents(QEventLoop::AllEvents, 20);
}

void tickEveryRow(MainForm& window)
{
    for (LineGraphLegendItem* row : window.findChildren<LineGraphLegendItem*>())
        row->setChecked(true);
}

void showOption(MainForm& window, const QString& text)
{
    for (QCheckBox* box : window.findChildren<QCheckBox*>()) {
        if (box->text() == text)
            box->setChecked(true);
    }
}

bool save(QWidget* widget, const QString& path)
{
    // The graph's scale labels take their texts while it paints, and a
    // grab paints the labels before their new sizes show: grab once to
    // settle them, then keep the second.
    widget->grab();
    const bool saved = widget->grab().save(path);
    qInfo("%s %s", saved ? "wrote" : "could not write", qPrintable(path));
    return saved;
}

} // namespace

int main(int argc, char** argv)
{
    QApplication application(argc, argv);
    const QString folder = argc > 1 ? QString::fromLocal8Bit(argv[1]) : QStringLiteral("docs");
    QDir().mkpath(folder);

    TargetSettings settings;
    settings.seed = 5;
    TargetServer target(settings);
    if (!target.listen(QHostAddress::LocalHost, 0))
        qFatal("cannot listen: %s", qPrintable(target.getErrorString()));

    MainForm window;
    window.resize(800, 600);
    window.setWindowTitle(QStringLiteral("TARN Profiler"));
    window.show();
    window.findChild<QLineEdit*>(QStringLiteral("portEdit"))->setText(QString::number(target.getPort()));
    window.findChild<QPushButton*>(QStringLiteral("connectButton"))->click();

    tickEveryRow(window);
    runFor(15000);
    bool ok = save(&window, folder + QStringLiteral("/profiler-window.png"));

    window.resize(1400, 1000);
    showOption(window, QStringLiteral("CPU Usage"));
    showOption(window, QStringLiteral("Volume"));
    showOption(window, QStringLiteral("Legend"));
    runFor(5000);
    ok = save(&window, folder + QStringLiteral("/profiler-window-large.png")) && ok;
    auto* tabs = window.findChild<QTabWidget*>();
    const char* names[] = { "cpu", "channel", "codec", "memory" };
    for (int tab = 1; tabs && tab < tabs->count(); ++tab) {
        tabs->setCurrentIndex(tab);
        runFor(300);
        ok = save(tabs->parentWidget()->parentWidget(), folder + QStringLiteral("/line-graph-%1.png").arg(names[tab]))
            && ok;
    }
    return ok ? 0 : 1;
}
