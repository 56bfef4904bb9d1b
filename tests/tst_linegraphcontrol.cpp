#include "linegraph.h"
#include "linegraphcontrol.h"
#include "loopbacktarget.h"
#include "packetbuilder.h"
#include "profilerchain.h"

#include <QCheckBox>
#include <QLayout>
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

QSpinBox* spinBox(const QWidget* panel, int tab)
{
    return panel->findChild<QTabWidget*>()->widget(tab)->findChild<QSpinBox*>();
}

// The panel on collectors whose network never connects; tests fill the
// collectors' lists and call the processing slots themselves.
struct Panel
{
    ProfilerChain chain;
    LineGraph graph;
    LineGraphControl control{&graph, &chain.cpuHistory, &chain.channelHistory, &chain.codecHistory,
                             &chain.statsHistory};

    LineGraphLegendItem* row(const QString& name) const { return findRow(&control, name); }
    QSpinBox* spinBox(int tab) const { return ::spinBox(&control, tab); }
    LineValuesGroup* group(int index) const { return graph.getGroups().at(index); }

    QList<LineValues*> lines() const
    {
        QList<LineValues*> all;
        for (LineValuesGroup* group : graph.getGroups())
            all += group->getLines();
        return all;
    }

    // Line names are unique across the four groups.
    LineValues* line(const QString& name) const
    {
        for (LineValues* candidate : lines()) {
            if (candidate->getName() == name)
                return candidate;
        }
        return nullptr;
    }

    // Records "name=value" for every sample any line receives, in order.
    void recordFeeds(QStringList* log)
    {
        for (LineValues* line : lines()) {
            QObject::connect(line, &LineValues::dataChanged, [log, line] {
                *log << QString("%1=%2").arg(line->getName()).arg(double(line->getValues().last()));
            });
        }
    }
};

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

} // namespace

class TestLineGraphControl : public QObject
{
    Q_OBJECT

private slots:
    void groupsAndLines_data();
    void groupsAndLines();
    void tickingShowsLine();
    void spinBoxFixesScale();
    void cpuFeedsNewSnapshots_data();
    void cpuFeedsNewSnapshots();
    void channelAndCodecPaths();
    void statsPath();
    void collectorsDriveThePanel();
};

void TestLineGraphControl::groupsAndLines_data()
{
    QTest::addColumn<int>("tab");
    QTest::addColumn<QString>("unit");
    QTest::addColumn<int>("precision");
    QTest::addColumn<QStringList>("lines");
    QTest::addColumn<QStringList>("colours");
    QTest::addColumn<QStringList>("legend"); // empty: in line order
    QTest::addColumn<QString>("figures");

    QTest::newRow("CPU") << 0 << "%" << 2 << QStringList{"DSP", "Stream", "Geometry", "Update", "Total"}
                         << QStringList{"red", "green", "yellow", "blue", "orange"} << QStringList()
                         << "0.00 [0.00 - 0.00] / 0.00%";
    QTest::newRow("Channel") << 1 << " channel(s)" << 0
                             << QStringList{"Hardware", "Software", "Real", "Virtual", "Playing"}
                             << QStringList{"cornflowerblue", "plum", "indianred", "khaki", "linen"} << QStringList()
                             << "0 [0 - 0] / 0 channel(s)";
    QTest::newRow("Codec") << 2 << " codec(s)" << 0
                           << QStringList{"MPEG", "ADPCM", "XMA", "PCM", "TADPCM", "Vorbis", "AT9"}
                           << QStringList{"yellowgreen", "peru", "seashell", "tomato", "lightslategray", "seagreen",
                                          "mediumorchid"}
                           << QStringList{"Vorbis", "TADPCM", "ADPCM", "MPEG", "XMA", "AT9", "PCM"}
                           << "0 [0 - 0] / 0 codec(s)";
    QTest::newRow("Memory") << 3 << " MB" << 3 << QStringList{"Current"} << QStringList{"skyblue"} << QStringList()
                            << "0.000 [0.000 - 0.000] / 0.000 MB";
}

void TestLineGraphControl::groupsAndLines()
{
    QFETCH(int, tab);
    QFETCH(QString, unit);
    QFETCH(int, precision);
    QFETCH(QStringList, lines);
    QFETCH(QStringList, colours);
    QFETCH(QStringList, legend);
    QFETCH(QString, figures);

    Panel panel;
    QCOMPARE(panel.graph.getGroups().size(), 4);
    LineValuesGroup* group = panel.group(tab);
    QCOMPARE(group->getName(), QString(QTest::currentDataTag()));
    QCOMPARE(group->getDisplayUnit(), unit);
    QCOMPARE(group->getDisplayPrecision(), precision);
    QVERIFY(group->getMaximumSliding());
    QCOMPARE(panel.control.findChild<QTabWidget*>()->tabText(tab), group->getName());

    QCOMPARE(group->getLines().size(), lines.size());
    for (int i = 0; i < lines.size(); ++i) {
        LineValues* line = group->getLines().at(i);
        QCOMPARE(line->getName(), lines.at(i));
        QCOMPARE(line->getColor(), QColor(colours.at(i)));
        QVERIFY(!line->getActive());
        LineGraphLegendItem* row = panel.row(lines.at(i));
        QCOMPARE(row->getValueText(), figures);
        QVERIFY(!row->getChecked());
        QCOMPARE(row->findChild<QCheckBox*>()->styleSheet(),
                 QString("QCheckBox::indicator { border:1px solid black; } "
                         "QCheckBox::indicator:checked { background-color:%1; }")
                     .arg(QColor(colours.at(i)).name()));
    }

    QStringList order;
    QLayout* layout = panel.control.findChild<QTabWidget*>()->widget(tab)->layout();
    for (int i = 0; i < layout->count(); ++i) {
        if (auto row = qobject_cast<LineGraphLegendItem*>(layout->itemAt(i)->widget()))
            order << row->getText();
    }
    QCOMPARE(order, legend.isEmpty() ? lines : legend);

    QSpinBox* spinBox = panel.spinBox(tab);
    QCOMPARE(spinBox->maximum(), 100);
    QCOMPARE(spinBox->value(), 0);
    QCOMPARE(spinBox->text(), QString("Auto"));
    QCOMPARE(spinBox->suffix(), unit);
}

void TestLineGraphControl::tickingShowsLine()
{
    Panel panel;
    LineGraphLegendItem* row = panel.row("Total");
    LineValues* line = panel.line("Total");
    line->addValue(42.0f);
    QCOMPARE(panel.group(0)->getMaximum(), 0.0f);

    row->setChecked(true);
    QVERIFY(line->getActive());
    QCOMPARE(panel.group(0)->getMaximum(), 42.0f);

    row->findChild<QCheckBox*>()->click();
    QVERIFY(!line->getActive());
    QCOMPARE(panel.group(0)->getMaximum(), 0.0f);

    // Unticked lines keep their history.
    line->addValue(7.0f);
    row->setChecked(true);
    QCOMPARE(line->getValues().mid(498), (QList<float>{42.0f, 7.0f}));
    QCOMPARE(panel.group(0)->getMaximum(), 42.0f);
}

void TestLineGraphControl::spinBoxFixesScale()
{
    Panel panel;
    panel.row("DSP")->setChecked(true);
    panel.line("DSP")->addValue(12.0f);
    QSpinBox* spinBox = panel.spinBox(0);
    LineValuesGroup* cpu = panel.group(0);

    spinBox->setValue(50);
    QVERIFY(!cpu->getMaximumSliding());
    panel.line("DSP")->addValue(80.0f);
    QCOMPARE(cpu->getMaximum(), 50.0f);

    spinBox->setValue(0);
    QCOMPARE(spinBox->text(), QString("Auto"));
    QVERIFY(cpu->getMaximumSliding());
    QCOMPARE(cpu->getMaximum(), 80.0f);

    // Wrapping: below "Auto" is the largest fixed scale, above it "Auto" again.
    spinBox->stepDown();
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
    QTest::newRow("none new") << 10 << 0 << QList<int>();
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
        panel.chain.cpuHistory.getHistoryList()->append(cpuSnapshot(i * 10.0f));
    panel.spinBox(0)->setMaximum(5);
    QStringList log;
    panel.recordFeeds(&log);

    panel.control.slotProcessCPUHistory(numNewSnapshots);

    // The snapshot fields in declaration order, each 0.25 above the previous.
    const QStringList names{"DSP", "Stream", "Geometry", "Update", "Total"};
    QStringList expected;
    for (int i : fed) {
        for (int k = 0; k < names.size(); ++k)
            expected << QString("%1=%2").arg(names.at(k)).arg(i * 10 + k * 0.25);
    }
    QCOMPARE(log, expected);
    // The legend shows the newest snapshot even when nothing new was fed.
    const QString newest = listSize ? QString::number((listSize - 1) * 10.0 + 0.5, 'f', 2) : "0.00";
    QCOMPARE(panel.row("Geometry")->getValueText(),
             QString("%1 [0.00 - 0.00] / %2%").arg(newest, listSize ? "100.00" : "0.00"));
    QCOMPARE(panel.spinBox(0)->maximum(), listSize ? 100 : 5);
}

void TestLineGraphControl::channelAndCodecPaths()
{
    Panel panel;
    panel.chain.channelHistory.getHistoryList()->append(ChannelUsageSnapshot{1, 2, 3, 4, 5, 6, 7, 8, 9, 10});
    panel.chain.channelHistory.getHistoryList()->append(
        ChannelUsageSnapshot{12, 64, 5, 32, 17, 96, 20, 1024, 37, 1024});
    panel.chain.codecHistory.getHistoryList()->append(CodecUsageSnapshot{3, 32, 2, 16, 1, 8, 4, 64});
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

void TestLineGraphControl::statsPath()
{
    Panel panel;
    StatsHistory& stats = panel.chain.statsHistory;
    for (qint16 base : {0, 100, 200})
        stats.history->append(statsSnapshot(base));
    // Records are (minimum i, maximum i + 20, average i + 10, capacity i + 100).
    for (int i = 0; i < StatsHistory::StatsValueCount; ++i)
        stats.values[i] = StatsValues{float(i), float(i + 20), float(i + 10), float(i + 100)};
    stats.values[StatsHistory::StatsVorbis].capacity = 0.0f;
    stats.values[StatsHistory::StatsMemory].capacity = 1234.9f;
    stats.channelCapacity = 48;
    stats.codecCapacity = 32;
    panel.spinBox(1)->setValue(90);
    QStringList log;
    panel.recordFeeds(&log);

    panel.control.slotProcessStatsHistory(2);

    const QList<QPair<QString, double>> fed = {
        {"DSP", 0.5}, {"Stream", 1.5}, {"Geometry", 3.5}, {"Update", 2.5}, {"Total", 4.5},
        {"Real", 5},  {"Virtual", 6},  {"Playing", 7},    {"MPEG", 10},    {"ADPCM", 8},
        {"XMA", 12},  {"PCM", 14},     {"Current", 15.25}};
    QStringList expected;
    for (int base : {100, 200}) {
        for (const auto& [name, offset] : fed)
            expected << QString("%1=%2").arg(name).arg(base + offset);
    }
    QCOMPARE(log, expected);
    for (const QString& name : QStringList{"TADPCM", "Vorbis", "AT9", "Hardware", "Software"})
        QCOMPARE(panel.line(name)->getMaximum(), 0.0f);

    QCOMPARE(panel.row("DSP")->getValueText(), QString("10.00 [0.00 - 20.00] / 100.00%"));
    QCOMPARE(panel.row("Geometry")->getValueText(), QString("13.00 [3.00 - 23.00] / 103.00%"));
    QCOMPARE(panel.row("Update")->getValueText(), QString("12.00 [2.00 - 22.00] / 102.00%"));
    QCOMPARE(panel.row("Playing")->getValueText(), QString("17 [7 - 27] / 107 channel(s)"));
    QCOMPARE(panel.row("TADPCM")->getValueText(), QString("19 [9 - 29] / 109 codec(s)"));
    QCOMPARE(panel.row("AT9")->getValueText(), QString("23 [13 - 33] / 113 codec(s)"));
    QCOMPARE(panel.row("Current")->getValueText(), QString("25.000 [15.000 - 35.000] / 1234.900 MB"));

    for (const QString& name : QStringList{"Vorbis", "Hardware", "Software"})
        QVERIFY(panel.row(name)->isHidden());
    QVERIFY(!panel.row("Real")->isHidden());
    QCOMPARE(panel.spinBox(0)->maximum(), 100);
    QCOMPARE(panel.spinBox(2)->maximum(), 32);
    QCOMPARE(panel.spinBox(3)->maximum(), 1234);
    // The channel scale was fixed at 90; it stays fixed, at the new maximum.
    QCOMPARE(panel.spinBox(1)->maximum(), 48);
    QVERIFY(!panel.group(1)->getMaximumSliding());
    QCOMPARE(panel.group(1)->getMaximum(), 48.0f);

    // Hiding a row leaves its line switched on; a later record shows it again.
    panel.row("Vorbis")->setChecked(true);
    QVERIFY(panel.line("Vorbis")->getActive());
    stats.values[StatsHistory::StatsVorbis].capacity = 4.0f;
    stats.history->append(statsSnapshot(2));
    panel.control.slotProcessStatsHistory(1);
    QVERIFY(!panel.row("Vorbis")->isHidden());
    QVERIFY(panel.row("Hardware")->isHidden());
}

void TestLineGraphControl::collectorsDriveThePanel()
{
    LoopbackTarget target;
    ProfilerChain chain;
    ProfilerLineGraph panel(&chain.cpuHistory, &chain.channelHistory, &chain.codecHistory, &chain.statsHistory);

    chain.network.connectToHost("127.0.0.1", target.port());
    QVERIFY(QTest::qWaitFor([&chain] { return chain.network.isConnected(); }, 5000));
    QVERIFY(target.waitForClient());
    target.send(PacketBuilder(TARN::PacketTypeChannels, 0, 0).i32(3).i32(32).i32(5).i32(64).i32(10).i32(1024).finish()
                + PacketBuilder(TARN::PacketTypeCodecs, 0, 0).i32(1).i32(32).i32(2).i32(16).i32(3).i32(0).i32(4)
                      .i32(64).finish());

    QVERIFY(QTest::qWaitFor([&] { return spinBox(&panel, 2)->maximum() == 64; }, 5000));
    QCOMPARE(findRow(&panel, "Real")->getValueText(), QString("8 [0 - 0] / 96 channel(s)"));
    QCOMPARE(findRow(&panel, "PCM")->getValueText(), QString("4 [0 - 0] / 64 codec(s)"));
    QCOMPARE(spinBox(&panel, 1)->maximum(), 1024);
}

QTEST_MAIN(TestLineGraphControl)
#include "tst_linegraphcontrol.moc"
