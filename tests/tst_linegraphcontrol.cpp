#include "channelhistory.h"
#include "codechistory.h"
#include "cpuhistory.h"
#include "linegraph.h"
#include "linegraphcontrol.h"
#include "loopbacktarget.h"
#include "packetbuilder.h"
#include "profilernetwork.h"
#include "profilersimplelabel.h"
#include "statshistory.h"

#include <QCheckBox>
#include <QLabel>
#include <QLayout>
#include <QSignalSpy>
#include <QSpinBox>
#include <QTabWidget>
#include <QtTest>

namespace {

LineGraphLegendItem* findRow(const QWidget* panel, const QString& name)
{
    for (LineGraphLegendItem* row : panel->findChildren<LineGraphLegendItem*>()) {
        if (row->getText() == name)
            return row;
    }
    return nullptr;
}

// The panel with real collectors on a network that never connects; tests
// fill the collectors' lists and call the processing slots themselves.
struct Panel
{
    ProfilerNetwork network;
    CPUHistory cpuHistory{&network};
    ChannelHistory channelHistory{&network};
    CodecHistory codecHistory{&network};
    StatsHistory statsHistory{&network};
    LineGraph graph;
    LineGraphControl control{&graph, &cpuHistory, &channelHistory, &codecHistory, &statsHistory};

    LineGraphLegendItem* row(const QString& name) const { return findRow(&control, name); }

    // Line names are unique across the four groups.
    LineValues* line(const QString& name) const
    {
        for (LineValuesGroup* group : graph.getGroups()) {
            for (LineValues* candidate : group->getLines()) {
                if (candidate->getName() == name)
                    return candidate;
            }
        }
        return nullptr;
    }

    QTabWidget* tabs() const { return control.findChild<QTabWidget*>(); }
    QSpinBox* spinBox(int tab) const { return tabs()->widget(tab)->findChild<QSpinBox*>(); }
    LineValuesGroup* group(int index) const { return graph.getGroups().at(index); }

    // Records "name=value" for every sample any line receives, in order.
    void recordFeeds(QStringList* log)
    {
        for (LineValuesGroup* group : graph.getGroups()) {
            for (LineValues* line : group->getLines()) {
                QObject::connect(line, &LineValues::dataChanged, [log, line] {
                    *log << QString("%1=%2").arg(line->getName()).arg(double(line->getValues().last()));
                });
            }
        }
    }
};

QStringList legendOrder(QWidget* page)
{
    QStringList names;
    for (int i = 0; i < page->layout()->count(); ++i) {
        if (auto row = qobject_cast<LineGraphLegendItem*>(page->layout()->itemAt(i)->widget()))
            names << row->getText();
    }
    return names;
}

QList<float> tail(const LineValues* line, int count)
{
    return line->getValues().mid(line->getValues().size() - count);
}

CPUUsageSnapshot cpuSnapshot(float base)
{
    return CPUUsageSnapshot{base, base + 0.25f, base + 0.5f, base + 0.75f, base + 1.0f};
}

StatsSnapshot statsSnapshot(qint16 base)
{
    const auto count = [base](int offset) { return qint16(base + offset); };
    return StatsSnapshot{base + 0.5f, base + 1.5f, base + 2.5f, base + 3.5f, base + 4.5f, count(5), count(6),
                         count(7), count(8), count(9), count(10), count(11), count(12), count(13), count(14),
                         base + 15.25f};
}

void setStatsValues(StatsHistory* history)
{
    for (int i = 0; i < StatsHistory::StatsValueCount; ++i)
        history->values[i] = StatsValues{float(i), float(i + 20), float(i + 10), float(i + 100)};
}

} // namespace

class TestLineGraphControl : public QObject
{
    Q_OBJECT

private slots:
    void groupsAndLines_data();
    void groupsAndLines();
    void initialLegendRows_data();
    void initialLegendRows();
    void tickingShowsLine();
    void spinBoxFixesScale();
    void cpuFeedsNewSnapshots_data();
    void cpuFeedsNewSnapshots();
    void channelAndCodecPaths();
    void statsPathFeedsAndLegend();
    void statsPathHiddenRowsAndMaxima();
    void collectorsDriveThePanel();
};

void TestLineGraphControl::groupsAndLines_data()
{
    QTest::addColumn<int>("tab");
    QTest::addColumn<QString>("name");
    QTest::addColumn<QString>("unit");
    QTest::addColumn<int>("precision");
    QTest::addColumn<QStringList>("lines");
    QTest::addColumn<QStringList>("colours");
    QTest::addColumn<QStringList>("legend");

    QTest::newRow("CPU") << 0 << "CPU" << "%" << 2 << QStringList{"DSP", "Stream", "Geometry", "Update", "Total"}
                         << QStringList{"red", "green", "yellow", "blue", "orange"}
                         << QStringList{"DSP", "Stream", "Geometry", "Update", "Total"};
    QTest::newRow("Channel") << 1 << "Channel" << " channel(s)" << 0
                             << QStringList{"Hardware", "Software", "Real", "Virtual", "Playing"}
                             << QStringList{"cornflowerblue", "plum", "indianred", "khaki", "linen"}
                             << QStringList{"Hardware", "Software", "Real", "Virtual", "Playing"};
    QTest::newRow("Codec") << 2 << "Codec" << " codec(s)" << 0
                           << QStringList{"MPEG", "ADPCM", "XMA", "PCM", "TADPCM", "Vorbis", "AT9"}
                           << QStringList{"yellowgreen", "peru", "seashell", "tomato", "lightslategray", "seagreen",
                                          "mediumorchid"}
                           << QStringList{"Vorbis", "TADPCM", "ADPCM", "MPEG", "XMA", "AT9", "PCM"};
    QTest::newRow("Memory") << 3 << "Memory" << " MB" << 3 << QStringList{"Current"} << QStringList{"skyblue"}
                            << QStringList{"Current"};
}

void TestLineGraphControl::groupsAndLines()
{
    QFETCH(int, tab);
    QFETCH(QString, name);
    QFETCH(QString, unit);
    QFETCH(int, precision);
    QFETCH(QStringList, lines);
    QFETCH(QStringList, colours);
    QFETCH(QStringList, legend);

    Panel panel;
    QCOMPARE(panel.graph.getGroups().size(), 4);
    LineValuesGroup* group = panel.group(tab);
    QCOMPARE(group->getName(), name);
    QCOMPARE(group->getDisplayUnit(), unit);
    QCOMPARE(group->getDisplayPrecision(), precision);
    QVERIFY(group->getMaximumSliding());

    QCOMPARE(group->getLines().size(), lines.size());
    for (int i = 0; i < lines.size(); ++i) {
        QCOMPARE(group->getLines().at(i)->getName(), lines.at(i));
        QCOMPARE(group->getLines().at(i)->getColor(), QColor(colours.at(i)));
        QVERIFY(!group->getLines().at(i)->getActive());
    }

    QCOMPARE(panel.tabs()->tabText(tab), name);
    QWidget* page = panel.tabs()->widget(tab);
    QCOMPARE(legendOrder(page), legend);
    QCOMPARE(page->layout()->contentsMargins(), QMargins(10, 10, 10, 10));
    QCOMPARE(page->findChild<QLabel*>()->text(), QString("Maximum:"));

    QSpinBox* spinBox = panel.spinBox(tab);
    QCOMPARE(spinBox->minimum(), 0);
    QCOMPARE(spinBox->maximum(), 100);
    QCOMPARE(spinBox->value(), 0);
    QCOMPARE(spinBox->text(), QString("Auto"));
    QCOMPARE(spinBox->suffix(), unit);
    QVERIFY(spinBox->wrapping());
    QVERIFY(spinBox->isAccelerated());
}

void TestLineGraphControl::initialLegendRows_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<QString>("figures");
    QTest::addColumn<QString>("chip");

    QTest::newRow("CPU") << "DSP" << "0.00 [0.00 - 0.00] / 0.00%" << "#ff0000";
    QTest::newRow("Channel") << "Hardware" << "0 [0 - 0] / 0 channel(s)" << "#6495ed";
    QTest::newRow("Codec") << "AT9" << "0 [0 - 0] / 0 codec(s)" << "#ba55d3";
    QTest::newRow("Memory") << "Current" << "0.000 [0.000 - 0.000] / 0.000 MB" << "#87ceeb";
}

void TestLineGraphControl::initialLegendRows()
{
    QFETCH(QString, name);
    QFETCH(QString, figures);
    QFETCH(QString, chip);

    Panel panel;
    LineGraphLegendItem* row = panel.row(name);
    QVERIFY(row);
    QCOMPARE(row->getValueText(), figures);
    QVERIFY(!row->getChecked());
    QCOMPARE(row->findChild<QCheckBox*>()->styleSheet(),
             QString("QCheckBox::indicator { border:1px solid black; } "
                     "QCheckBox::indicator:checked { background-color:%1; }")
                 .arg(chip));
}

void TestLineGraphControl::tickingShowsLine()
{
    Panel panel;
    LineGraphLegendItem* row = panel.row("Total");
    LineValues* line = panel.line("Total");
    line->addValue(42.0f);
    QCOMPARE(panel.group(0)->getMaximum(), 0.0f);

    QSignalSpy spy(row, &LineGraphLegendItem::checkedStatusChanged);
    row->setChecked(true);
    QCOMPARE(spy.count(), 1);
    QCOMPARE(spy.at(0).at(0).toBool(), true);
    QVERIFY(line->getActive());
    QCOMPARE(panel.group(0)->getMaximum(), 42.0f);

    // A click on the check box takes the same way.
    row->findChild<QCheckBox*>()->click();
    QCOMPARE(spy.count(), 2);
    QVERIFY(!line->getActive());
    QCOMPARE(panel.group(0)->getMaximum(), 0.0f);

    // Unticked lines keep their history.
    line->addValue(7.0f);
    row->setChecked(true);
    QCOMPARE(tail(line, 2), (QList<float>{42.0f, 7.0f}));
    QCOMPARE(panel.group(0)->getMaximum(), 42.0f);
}

void TestLineGraphControl::spinBoxFixesScale()
{
    Panel panel;
    panel.graph.resize(300, 100);
    panel.row("DSP")->setChecked(true);
    panel.line("DSP")->addValue(12.0f);
    QSpinBox* spinBox = panel.spinBox(0);
    LineValuesGroup* cpu = panel.group(0);

    spinBox->setValue(50);
    QVERIFY(!cpu->getMaximumSliding());
    QCOMPARE(cpu->getMaximum(), 50.0f);
    panel.line("DSP")->addValue(80.0f);
    QCOMPARE(cpu->getMaximum(), 50.0f);
    panel.graph.grab();
    QCOMPARE(panel.graph.getMaximumLabel()->getText(), QString("50.00% / 0 channel(s) / 0 codec(s) / 0.000 MB"));

    spinBox->setValue(0);
    QCOMPARE(spinBox->text(), QString("Auto"));
    QVERIFY(cpu->getMaximumSliding());
    QCOMPARE(cpu->getMaximum(), 80.0f);

    // Wrapping: below "Auto" is the largest fixed scale, above it "Auto" again.
    spinBox->stepDown();
    QCOMPARE(spinBox->value(), 100);
    QCOMPARE(cpu->getMaximum(), 100.0f);
    QVERIFY(!cpu->getMaximumSliding());
    spinBox->stepUp();
    QCOMPARE(spinBox->value(), 0);
    QVERIFY(cpu->getMaximumSliding());
}

void TestLineGraphControl::cpuFeedsNewSnapshots_data()
{
    QTest::addColumn<int>("listSize");
    QTest::addColumn<int>("numNewSnapshots");
    QTest::addColumn<QList<int>>("fed");

    QTest::newRow("3 new of 10") << 10 << 3 << QList<int>{7, 8, 9};
    QTest::newRow("all new") << 4 << 4 << QList<int>{0, 1, 2, 3};
    QTest::newRow("none new") << 10 << 0 << QList<int>();
    // Cannot come from a collector; must not read outside the list.
    QTest::newRow("more than the list") << 4 << 9 << QList<int>{0, 1, 2, 3};
    QTest::newRow("negative") << 4 << -2 << QList<int>();
    QTest::newRow("empty list") << 0 << 3 << QList<int>();
}

void TestLineGraphControl::cpuFeedsNewSnapshots()
{
    QFETCH(int, listSize);
    QFETCH(int, numNewSnapshots);
    QFETCH(QList<int>, fed);

    Panel panel;
    for (int i = 0; i < listSize; ++i)
        panel.cpuHistory.getHistoryList()->append(cpuSnapshot(i * 10.0f));
    panel.spinBox(0)->setMaximum(5);
    QStringList log;
    panel.recordFeeds(&log);

    panel.control.slotProcessCPUHistory(numNewSnapshots);

    QStringList expected;
    for (int i : fed) {
        const CPUUsageSnapshot s = cpuSnapshot(i * 10.0f);
        expected << QString("DSP=%1").arg(double(s.dsp)) << QString("Stream=%1").arg(double(s.stream))
                 << QString("Geometry=%1").arg(double(s.geometry)) << QString("Update=%1").arg(double(s.update))
                 << QString("Total=%1").arg(double(s.total));
    }
    QCOMPARE(log, expected);
    if (listSize == 0) {
        QCOMPARE(panel.row("Geometry")->getValueText(), QString("0.00 [0.00 - 0.00] / 0.00%"));
        QCOMPARE(panel.spinBox(0)->maximum(), 5);
        return;
    }
    // The legend shows the newest snapshot even when nothing new was fed.
    const float newest = (listSize - 1) * 10.0f;
    QCOMPARE(panel.row("Geometry")->getAverage(), newest + 0.5f);
    QCOMPARE(panel.row("Geometry")->getValueText(),
             QString("%1 [0.00 - 0.00] / 100.00%").arg(double(newest + 0.5f), 0, 'f', 2));
    QCOMPARE(panel.row("Total")->getCapacity(), 100.0f);
    QCOMPARE(panel.spinBox(0)->maximum(), 100);
}

void TestLineGraphControl::channelAndCodecPaths()
{
    Panel panel;
    panel.channelHistory.getHistoryList()->append(ChannelUsageSnapshot{1, 2, 3, 4, 5, 6, 7, 8, 9, 10});
    panel.channelHistory.getHistoryList()->append(ChannelUsageSnapshot{12, 64, 5, 32, 17, 96, 20, 1024, 37, 1024});
    panel.codecHistory.getHistoryList()->append(CodecUsageSnapshot{3, 32, 2, 16, 1, 8, 4, 64});
    QStringList log;
    panel.recordFeeds(&log);

    panel.control.slotProcessChannelHistory(1);
    panel.control.slotProcessCodecHistory(1);

    QCOMPARE(log, (QStringList{"Hardware=12", "Software=5", "Real=17", "Virtual=20", "Playing=37", "MPEG=3",
                               "ADPCM=2", "XMA=1", "PCM=4"}));
    QCOMPARE(panel.row("Hardware")->getValueText(), QString("12 [0 - 0] / 64 channel(s)"));
    QCOMPARE(panel.row("XMA")->getValueText(), QString("1 [0 - 0] / 8 codec(s)"));
    // The codec packet has no such pools; their rows stay as they were.
    for (const QString& name : QStringList{"TADPCM", "Vorbis", "AT9"})
        QCOMPARE(panel.row(name)->getValueText(), QString("0 [0 - 0] / 0 codec(s)"));
    // Neither collector has decoded a packet, so both maxima are still 0.
    QCOMPARE(panel.spinBox(1)->maximum(), 0);
    QCOMPARE(panel.spinBox(2)->maximum(), 0);
}

void TestLineGraphControl::statsPathFeedsAndLegend()
{
    Panel panel;
    for (qint16 base : {0, 100, 200})
        panel.statsHistory.history->append(statsSnapshot(base));
    setStatsValues(&panel.statsHistory);
    QStringList log;
    panel.recordFeeds(&log);

    panel.control.slotProcessStatsHistory(2);

    QStringList expected;
    for (int base : {100, 200}) {
        expected << QString("DSP=%1").arg(base + 0.5) << QString("Stream=%1").arg(base + 1.5)
                 << QString("Geometry=%1").arg(base + 3.5) << QString("Update=%1").arg(base + 2.5)
                 << QString("Total=%1").arg(base + 4.5) << QString("Real=%1").arg(base + 5)
                 << QString("Virtual=%1").arg(base + 6) << QString("Playing=%1").arg(base + 7)
                 << QString("MPEG=%1").arg(base + 10) << QString("ADPCM=%1").arg(base + 8)
                 << QString("XMA=%1").arg(base + 12) << QString("PCM=%1").arg(base + 14)
                 << QString("Current=%1").arg(base + 15.25);
    }
    QCOMPARE(log, expected);
    for (const QString& name : QStringList{"TADPCM", "Vorbis", "AT9", "Hardware", "Software"})
        QCOMPARE(panel.line(name)->getMaximum(), 0.0f);

    // Records are (minimum i, maximum i + 20, average i + 10, capacity i + 100).
    QCOMPARE(panel.row("DSP")->getValueText(), QString("10.00 [0.00 - 20.00] / 100.00%"));
    QCOMPARE(panel.row("Geometry")->getValueText(), QString("13.00 [3.00 - 23.00] / 103.00%"));
    QCOMPARE(panel.row("Update")->getValueText(), QString("12.00 [2.00 - 22.00] / 102.00%"));
    QCOMPARE(panel.row("Playing")->getValueText(), QString("17 [7 - 27] / 107 channel(s)"));
    QCOMPARE(panel.row("TADPCM")->getValueText(), QString("19 [9 - 29] / 109 codec(s)"));
    QCOMPARE(panel.row("AT9")->getValueText(), QString("23 [13 - 33] / 113 codec(s)"));
    QCOMPARE(panel.row("Current")->getValueText(), QString("25.000 [15.000 - 35.000] / 115.000 MB"));
}

void TestLineGraphControl::statsPathHiddenRowsAndMaxima()
{
    Panel panel;
    panel.statsHistory.history->append(statsSnapshot(1));
    setStatsValues(&panel.statsHistory);
    panel.statsHistory.values[StatsHistory::StatsVorbis].capacity = 0.0f;
    panel.statsHistory.values[StatsHistory::StatsMemory].capacity = 1234.9f;
    panel.statsHistory.channelCapacity = 48;
    panel.statsHistory.codecCapacity = 32;
    panel.spinBox(1)->setValue(90);
    QCOMPARE(panel.group(1)->getMaximum(), 90.0f);

    panel.control.slotProcessStatsHistory(1);

    QVERIFY(panel.row("Vorbis")->isHidden());
    QVERIFY(panel.row("Hardware")->isHidden());
    QVERIFY(panel.row("Software")->isHidden());
    QVERIFY(!panel.row("Real")->isHidden());
    QVERIFY(!panel.row("TADPCM")->isHidden());
    QCOMPARE(panel.spinBox(0)->maximum(), 100);
    QCOMPARE(panel.spinBox(1)->maximum(), 48);
    QCOMPARE(panel.spinBox(2)->maximum(), 32);
    QCOMPARE(panel.spinBox(3)->maximum(), 1234);
    // The channel scale was fixed at 90; it stays fixed, at the new maximum.
    QCOMPARE(panel.spinBox(1)->value(), 48);
    QVERIFY(!panel.group(1)->getMaximumSliding());
    QCOMPARE(panel.group(1)->getMaximum(), 48.0f);

    // Hiding a row leaves its line switched on; a later record shows it again.
    panel.row("Vorbis")->setChecked(true);
    QVERIFY(panel.line("Vorbis")->getActive());
    panel.statsHistory.values[StatsHistory::StatsVorbis].capacity = 4.0f;
    panel.statsHistory.history->append(statsSnapshot(2));
    panel.control.slotProcessStatsHistory(1);
    QVERIFY(!panel.row("Vorbis")->isHidden());
    QVERIFY(panel.row("Hardware")->isHidden());
}

void TestLineGraphControl::collectorsDriveThePanel()
{
    LoopbackTarget target;
    ProfilerNetwork network;
    CPUHistory cpuHistory(&network);
    ChannelHistory channelHistory(&network);
    CodecHistory codecHistory(&network);
    StatsHistory statsHistory(&network);
    ProfilerLineGraph panel(&cpuHistory, &channelHistory, &codecHistory, &statsHistory);
    QTabWidget* tabs = panel.findChild<QTabWidget*>();

    network.connectToHost("127.0.0.1", target.port());
    QVERIFY(QTest::qWaitFor([&network] { return network.isConnected(); }, 5000));
    QVERIFY(target.waitForClient());
    target.send(PacketBuilder(TARN::PacketTypeChannels, 0, 0).i32(3).i32(32).i32(5).i32(64).i32(10).i32(1024).finish()
                + PacketBuilder(TARN::PacketTypeCodecs, 0, 0).i32(1).i32(32).i32(2).i32(16).i32(3).i32(0).i32(4)
                      .i32(64).finish());

    QVERIFY(QTest::qWaitFor([&] { return tabs->widget(2)->findChild<QSpinBox*>()->maximum() == 64; }, 5000));
    QCOMPARE(findRow(&panel, "Real")->getValueText(), QString("8 [0 - 0] / 96 channel(s)"));
    QCOMPARE(findRow(&panel, "PCM")->getValueText(), QString("4 [0 - 0] / 64 codec(s)"));
    QCOMPARE(tabs->widget(1)->findChild<QSpinBox*>()->maximum(), 1024);
}

QTEST_MAIN(TestLineGraphControl)
#include "tst_linegraphcontrol.moc"
