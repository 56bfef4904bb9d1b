#include "linegraph.h"
#include "linegraphcontrol.h"
#include "profilerchain.h"

#include <QCheckBox>
#include <QLayout>
#include <QSpinBox>
#include <QTabWidget>
#include <QtTest>

#include <algorithm>

namespace {

// The panel as the main form builds it, on collectors whose network never connects: tests fill the lists and
// announce the new snapshots with the collectors' own signal, so the connections are exercised too.
struct Panel
{
    ProfilerChain chain;
    ProfilerLineGraph widget{&chain.cpuHistory, &chain.channelHistory, &chain.codecHistory, &chain.statsHistory};
    LineGraphControl& control = *widget.getLineGraphControl();

    LineGraphLegendItem* row(const QString& name) const
    {
        const QList<LineGraphLegendItem*> rows = control.findChildren<LineGraphLegendItem*>();
        return *std::find_if(rows.begin(), rows.end(), [&](auto* row) { return row->getText() == name; });
    }

    QSpinBox* spinBox(int tab) const { return control.findChild<QTabWidget*>()->widget(tab)->findChild<QSpinBox*>(); }
    LineValuesGroup* group(int index) const { return widget.getLineGraph()->getGroups().at(index); }

    QList<int> spinBoxMaxima() const
    {
        return {spinBox(0)->maximum(), spinBox(1)->maximum(), spinBox(2)->maximum(), spinBox(3)->maximum()};
    }

    QList<LineValues*> lines() const
    {
        QList<LineValues*> all;
        for (LineValuesGroup* group : widget.getLineGraph()->getGroups())
            all += group->getLines();
        return all;
    }

    // Line names are unique across the four groups.
    LineValues* line(const QString& name) const
    {
        const QList<LineValues*> all = lines();
        return *std::find_if(all.begin(), all.end(), [&](auto* line) { return line->getName() == name; });
    }

    // "Name: text" for each row that `like` names the same way, "(hidden)"
    // appended for a hidden row, to compare with `like`.
    QStringList legend(const QStringList& like) const
    {
        QStringList texts;
        for (const QString& entry : like) {
            const LineGraphLegendItem* found = row(entry.section(':', 0, 0));
            texts << found->getText() + ": " + found->getValueText() + (found->isHidden() ? " (hidden)" : "");
        }
        return texts;
    }
};

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
    void rowsAndSpinBoxes();
    void statsThenChannelAndCodecPaths();
};

// Each legend row switches its own line, wearing the line's colour; the
// codec legend is not in the order the group paints its lines.
void TestLineGraphControl::rowsAndSpinBoxes()
{
    Panel panel;
    const QStringList legends = {"DSP Stream Geometry Update Total", "Hardware Software Real Virtual Playing",
                                 "Vorbis TADPCM ADPCM MPEG XMA AT9 PCM", "Current"};
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
        QCOMPARE(order.join(' '), legends.at(tab));
        QCOMPARE(panel.group(tab)->getLines().size(), order.size());
    }

    // A fixed scale ignores new data; "Auto" (0) slides again. The box wraps:
    // below "Auto" is the largest fixed scale, above that "Auto" again.
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
    QStringList log; // "name=value" for every sample any line receives, in order
    for (LineValues* line : panel.lines()) {
        QObject::connect(line, &LineValues::dataChanged, [&log, line] {
            log << QString("%1=%2").arg(line->getName()).arg(double(line->getValues().last()));
        });
    }

    emit stats.historyUpdated(2);

    // TADPCM, Vorbis, AT9, Hardware and Software get no samples.
    QCOMPARE(log, QString("DSP=100.5 Stream=101.5 Geometry=103.5 Update=102.5 Total=104.5 Real=105 Virtual=106 "
                          "Playing=107 MPEG=110 ADPCM=108 XMA=112 PCM=114 Current=115.25 DSP=200.5 Stream=201.5 "
                          "Geometry=203.5 Update=202.5 Total=204.5 Real=205 Virtual=206 Playing=207 MPEG=210 "
                          "ADPCM=208 XMA=212 PCM=214 Current=215.25").split(' '));
    const QStringList legend = {
        "DSP: 10.00 [0.00 - 20.00] / 100.00%", "Stream: 11.00 [1.00 - 21.00] / 101.00%",
        "Geometry: 13.00 [3.00 - 23.00] / 103.00%", "Update: 12.00 [2.00 - 22.00] / 102.00%",
        "Total: 14.00 [4.00 - 24.00] / 104.00%", "Hardware: 0 [0 - 0] / 0 channel(s) (hidden)",
        "Software: 0 [0 - 0] / 0 channel(s) (hidden)", "Real: 15 [5 - 25] / 105 channel(s)",
        "Virtual: 16 [6 - 26] / 106 channel(s)", "Playing: 17 [7 - 27] / 107 channel(s)",
        "Vorbis: 0 [0 - 0] / 0 codec(s) (hidden)", "TADPCM: 19 [9 - 29] / 109 codec(s)",
        "ADPCM: 18 [8 - 28] / 108 codec(s)", "MPEG: 20 [10 - 30] / 110 codec(s)", "XMA: 22 [12 - 32] / 112 codec(s)",
        "AT9: 23 [13 - 33] / 113 codec(s)", "PCM: 24 [14 - 34] / 114 codec(s)",
        "Current: 25.000 [15.000 - 35.000] / 1234.900 MB"};
    QCOMPARE(panel.legend(legend), legend);
    // The channel scale was fixed at 90; it stays fixed, at the new maximum.
    QCOMPARE(panel.spinBoxMaxima(), (QList<int>{100, 48, 32, 1234}));
    QCOMPARE(panel.group(1)->getMaximum(), 48.0f);

    // Hiding a row leaves its line switched on; a later record shows it again.
    panel.row("Vorbis")->setChecked(true);
    QVERIFY(panel.line("Vorbis")->getActive());
    stats.values[StatsHistory::StatsVorbis].capacity = 4.0f;
    stats.channelCapacity = -5; // a broken target's: no fixed scale at all
    stats.history->append(statsSnapshot(2));
    emit stats.historyUpdated(1);
    QCOMPARE(panel.spinBoxMaxima(), (QList<int>{100, 0, 32, 1234}));
    QCOMPARE(panel.legend({"Vorbis", "Hardware"}),
             (QStringList{"Vorbis: 21 [11 - 31] / 4 codec(s)", "Hardware: 0 [0 - 0] / 0 channel(s) (hidden)"}));

    panel.chain.channelHistory.getHistoryList()->append(ChannelUsageSnapshot{1, 2, 3, 4, 5, 6, 7, 8, 9, 10});
    panel.chain.channelHistory.getHistoryList()->append(
        ChannelUsageSnapshot{12, 64, 5, 32, 17, 96, 20, 1024, 37, 1000});
    panel.chain.codecHistory.getHistoryList()->append(CodecUsageSnapshot{3, 32, 2, 16, 1, 8, 4, 64});
    log.clear();
    emit panel.chain.channelHistory.historyUpdated(1);
    emit panel.chain.codecHistory.historyUpdated(1);

    QCOMPARE(log,
             QString("Hardware=12 Software=5 Real=17 Virtual=20 Playing=37 MPEG=3 ADPCM=2 XMA=1 PCM=4").split(' '));
    // Only the figure and the capacity come from these packets; the codec
    // packet has no TADPCM pool, so that row keeps the statistics.
    const QStringList overwritten = {
        "Hardware: 12 [0 - 0] / 64 channel(s) (hidden)", "Software: 5 [0 - 0] / 32 channel(s) (hidden)",
        "Real: 17 [5 - 25] / 96 channel(s)", "Virtual: 20 [6 - 26] / 1024 channel(s)",
        "Playing: 37 [7 - 27] / 1000 channel(s)", "MPEG: 3 [10 - 30] / 32 codec(s)", "ADPCM: 2 [8 - 28] / 16 codec(s)",
        "XMA: 1 [12 - 32] / 8 codec(s)", "PCM: 4 [14 - 34] / 64 codec(s)", "TADPCM: 19 [9 - 29] / 109 codec(s)"};
    QCOMPARE(panel.legend(overwritten), overwritten);
    // Neither collector has decoded a packet, so both maxima are 0 now.
    QCOMPARE(panel.spinBoxMaxima(), (QList<int>{100, 0, 0, 1234}));
}

QTEST_MAIN(TestLineGraphControl)
#include "tst_linegraphcontrol.moc"
