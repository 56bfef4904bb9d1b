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
    void legendRowsSwitchTheirLines();
    void spinBoxFixesScale();
    void cpuFeedsNewSnapshots();
    void statsThenChannelAndCodecPaths();
    void collectorsDriveThePanel();
};

void TestLineGraphControl::legendRowsSwitchTheirLines()
{
    Panel panel;
    // The codec legend is not in the order the group paints its lines.
    const QList<QStringList> legends = {{"DSP", "Stream", "Geometry", "Update", "Total"},
                                        {"Hardware", "Software", "Real", "Virtual", "Playing"},
                                        {"Vorbis", "TADPCM", "ADPCM", "MPEG", "XMA", "AT9", "PCM"},
                                        {"Current"}};
    QTabWidget* tabs = panel.control.findChild<QTabWidget*>();
    QCOMPARE(tabs->count(), legends.size());
    for (int tab = 0; tab < tabs->count(); ++tab) {
        QStringList order;
        QLayout* layout = tabs->widget(tab)->layout();
        for (int i = 0; i < layout->count(); ++i) {
            auto row = qobject_cast<LineGraphLegendItem*>(layout->itemAt(i)->widget());
            if (!row)
                continue;
            order << row->getText();
            LineValues* line = panel.line(row->getText());
            QVERIFY(panel.group(tab)->getLines().contains(line));
            QVERIFY(row->findChild<QCheckBox*>()->styleSheet().contains(line->getColor().name() + ";"));
            QVERIFY(!line->getActive());
            row->setChecked(true);
            QVERIFY(line->getActive());
            row->findChild<QCheckBox*>()->click();
            QVERIFY(!line->getActive());
        }
        QCOMPARE(order, legends.at(tab));
        QCOMPARE(panel.group(tab)->getLines().size(), order.size());
    }
}

// A fixed scale ignores new data; "Auto" (0) slides again. The box wraps:
// below "Auto" is the largest fixed scale, above that "Auto" again.
void TestLineGraphControl::spinBoxFixesScale()
{
    Panel panel;
    panel.row("DSP")->setChecked(true);
    panel.line("DSP")->addValue(12.0f);
    QSpinBox* spinBox = panel.spinBox(0);
    LineValuesGroup* cpu = panel.group(0);

    spinBox->setValue(50);
    QCOMPARE(spinBox->text(), QString("50%"));
    panel.line("DSP")->addValue(80.0f);
    QCOMPARE(cpu->getMaximum(), 50.0f);
    spinBox->setValue(0);
    QCOMPARE(spinBox->text(), QString("Auto"));
    QCOMPARE(cpu->getMaximum(), 80.0f);
    spinBox->stepDown();
    QCOMPARE(cpu->getMaximum(), 100.0f);
    spinBox->stepUp();
    QCOMPARE(cpu->getMaximum(), 80.0f);
}

// Only the announced snapshots are fed, clamped to the list; the legend
// shows the newest snapshot even when nothing new was fed.
void TestLineGraphControl::cpuFeedsNewSnapshots()
{
    const struct
    {
        int listSize;
        int numNewSnapshots;
        QList<int> fed;
    } cases[] = {{10, 3, {7, 8, 9}}, {10, 0, {}}, {4, 9, {0, 1, 2, 3}}, {4, -2, {}}, {0, 3, {}}};
    for (const auto& c : cases) {
        Panel panel;
        for (int i = 0; i < c.listSize; ++i)
            panel.chain.cpuHistory.getHistoryList()->append(cpuSnapshot(i * 10.0f));
        panel.spinBox(0)->setMaximum(5);
        QStringList log;
        panel.recordFeeds(&log);

        panel.control.slotProcessCPUHistory(c.numNewSnapshots);

        // The snapshot fields in declaration order, each 0.25 above the previous.
        const QStringList names{"DSP", "Stream", "Geometry", "Update", "Total"};
        QStringList expected;
        for (int i : c.fed) {
            for (int k = 0; k < names.size(); ++k)
                expected << QString("%1=%2").arg(names.at(k)).arg(i * 10 + k * 0.25);
        }
        QCOMPARE(log, expected);
        const QString newest = c.listSize ? QString::number((c.listSize - 1) * 10.0 + 0.5, 'f', 2) : "0.00";
        QCOMPARE(panel.row("Geometry")->getValueText(),
                 QString("%1 [0.00 - 0.00] / %2%").arg(newest, c.listSize ? "100.00" : "0.00"));
        QCOMPARE(panel.spinBox(0)->maximum(), c.listSize ? 100 : 5);
    }
}

// The statistics fill every tab; the channel and codec histories then
// overwrite what their packets carry and nothing else.
void TestLineGraphControl::statsThenChannelAndCodecPaths()
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
    QCOMPARE(panel.group(1)->getMaximum(), 48.0f);

    // Hiding a row leaves its line switched on; a later record shows it again.
    panel.row("Vorbis")->setChecked(true);
    QVERIFY(panel.line("Vorbis")->getActive());
    stats.values[StatsHistory::StatsVorbis].capacity = 4.0f;
    stats.history->append(statsSnapshot(2));
    panel.control.slotProcessStatsHistory(1);
    QVERIFY(!panel.row("Vorbis")->isHidden());
    QVERIFY(panel.row("Hardware")->isHidden());

    panel.chain.channelHistory.getHistoryList()->append(ChannelUsageSnapshot{1, 2, 3, 4, 5, 6, 7, 8, 9, 10});
    panel.chain.channelHistory.getHistoryList()->append(
        ChannelUsageSnapshot{12, 64, 5, 32, 17, 96, 20, 1024, 37, 1024});
    panel.chain.codecHistory.getHistoryList()->append(CodecUsageSnapshot{3, 32, 2, 16, 1, 8, 4, 64});
    log.clear();
    panel.control.slotProcessChannelHistory(1);
    panel.control.slotProcessCodecHistory(1);

    QCOMPARE(log, (QStringList{"Hardware=12", "Software=5", "Real=17", "Virtual=20", "Playing=37", "MPEG=3",
                               "ADPCM=2", "XMA=1", "PCM=4"}));
    QCOMPARE(panel.row("Hardware")->getValueText(), QString("12 [0 - 0] / 64 channel(s)"));
    // Only the figure and the capacity come from these packets.
    QCOMPARE(panel.row("XMA")->getValueText(), QString("1 [12 - 32] / 8 codec(s)"));
    // The codec packet has no such pool: the row keeps the statistics.
    QCOMPARE(panel.row("TADPCM")->getValueText(), QString("19 [9 - 29] / 109 codec(s)"));
    // Neither collector has decoded a packet, so both maxima are 0 now.
    QCOMPARE(panel.spinBox(1)->maximum(), 0);
    QCOMPARE(panel.spinBox(2)->maximum(), 0);
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
