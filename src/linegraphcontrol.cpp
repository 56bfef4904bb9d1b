#include "linegraphcontrol.h"

#include "channelhistory.h"
#include "codechistory.h"
#include "cpuhistory.h"
#include "linegraph.h"
#include "profilersimplelabel.h"
#include "statshistory.h"

#include <QCheckBox>
#include <QHBoxLayout>
#include <QLabel>
#include <QSpinBox>
#include <QTabWidget>
#include <QVBoxLayout>

namespace
{

const int LegendRowSpacing = 2;

} // namespace

LineGraphLegendItem::LineGraphLegendItem(QWidget* parent, Qt::WindowFlags f)
    : QWidget(parent, f)
    , activeCheckBox(new QCheckBox())
    , valueLabel(new ProfilerSimpleLabel())
    , layout(new QHBoxLayout())
    , average(0.0f)
    , minimum(0.0f)
    , maximum(0.0f)
    , capacity(0.0f)
    , displayUnit()
    , displayPrecision(0)
{
    connect(activeCheckBox, &QCheckBox::stateChanged, this, &LineGraphLegendItem::slotActiveCheckBoxStatusChanged);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(15);
    layout->addWidget(activeCheckBox);
    layout->addStretch();
    layout->addWidget(valueLabel);
    // Long figures give way before the window does: squeezed, the row cuts
    // them at the right and keeps the current value.
    valueLabel->setElideMode(Qt::ElideRight);
    setLayout(layout);
}

void LineGraphLegendItem::setChecked(bool checked)
{
    if (activeCheckBox->isChecked() == checked)
        return;
    // The check box's stateChanged() emits checkedStatusChanged() for us.
    activeCheckBox->setChecked(checked);
}

bool LineGraphLegendItem::getChecked() const
{
    return activeCheckBox->isChecked();
}

void LineGraphLegendItem::setChipColor(QColor colour)
{
    // The indicator doubles as the line's colour chip: an empty box when the
    // line is off, filled with its colour when it is on.
    activeCheckBox->setStyleSheet(QString("QCheckBox::indicator { border:1px solid black; } "
                                          "QCheckBox::indicator:checked { background-color:")
                                  + colour.name() + "; }");
}

void LineGraphLegendItem::setText(QString text)
{
    activeCheckBox->setText(text);
}

QString LineGraphLegendItem::getText() const
{
    return activeCheckBox->text();
}

QString LineGraphLegendItem::getValueText() const
{
    return valueLabel->getText();
}

void LineGraphLegendItem::setDisplayUnit(QString newDisplayUnit)
{
    if (newDisplayUnit == displayUnit)
        return;
    displayUnit = newDisplayUnit;
    updateValue();
}

QString LineGraphLegendItem::getDisplayUnit() const
{
    return displayUnit;
}

void LineGraphLegendItem::setDisplayPrecision(int newDisplayPrecision)
{
    if (newDisplayPrecision == displayPrecision)
        return;
    displayPrecision = newDisplayPrecision;
    updateValue();
}

int LineGraphLegendItem::getDisplayPrecision() const
{
    return displayPrecision;
}

void LineGraphLegendItem::setAverage(float newAverage)
{
    setFigure(average, newAverage);
}

float LineGraphLegendItem::getAverage() const
{
    return average;
}

void LineGraphLegendItem::setMinimum(float newMinimum)
{
    setFigure(minimum, newMinimum);
}

float LineGraphLegendItem::getMinimum() const
{
    return minimum;
}

void LineGraphLegendItem::setMaximum(float newMaximum)
{
    setFigure(maximum, newMaximum);
}

float LineGraphLegendItem::getMaximum() const
{
    return maximum;
}

void LineGraphLegendItem::setCapacity(float newCapacity)
{
    setFigure(capacity, newCapacity);
}

float LineGraphLegendItem::getCapacity() const
{
    return capacity;
}

void LineGraphLegendItem::setFigure(float& figure, float value)
{
    // Rebuilding the text costs more than the comparison; most snapshots
    // repeat most figures.
    if (value == figure)
        return;
    figure = value;
    updateValue();
}

void LineGraphLegendItem::setStats(StatsValues* stats)
{
    // A capacity of 0 means the target does not measure this value.
    if (stats->capacity == 0.0f) {
        hide();
        return;
    }
    average = stats->average;
    minimum = stats->minimum;
    maximum = stats->maximum;
    capacity = stats->capacity;
    updateValue();
    show();
}

QString LineGraphLegendItem::formatFigure(float value) const
{
    return QString::number(double(value), 'f', displayPrecision);
}

void LineGraphLegendItem::updateValue()
{
    valueLabel->setText(QString("%1 [%2 - %3] / %4%5")
                            .arg(formatFigure(average), formatFigure(minimum), formatFigure(maximum),
                                 formatFigure(capacity), displayUnit));
}

void LineGraphLegendItem::slotActiveCheckBoxStatusChanged(int)
{
    emit checkedStatusChanged(activeCheckBox->isChecked());
}

LineGraphControl::LineGraphControl(LineGraph* lineGraph, CPUHistory* cpuHistory, ChannelHistory* channelHistory,
                                   CodecHistory* codecHistory, StatsHistory* statsHistory, QWidget* parent,
                                   Qt::WindowFlags f)
    : QWidget(parent, f)
    , lineGraph(lineGraph)
    , cpuHistory(cpuHistory)
    , channelHistory(channelHistory)
    , codecHistory(codecHistory)
    , statsHistory(statsHistory)
{
    createCPUTab();
    createChannelTab();
    createCodecTab();
    createMemoryTab();
    tabs = new QTabWidget();
    mainLayout = new QVBoxLayout();

    connectCollectors();
    connectSpinBoxes();

    setUpPage(cpuGroup,
              {cpuDSPLegendItem, cpuStreamLegendItem, cpuGeometryLegendItem, cpuUpdateLegendItem, cpuTotalLegendItem},
              cpuMaxLabel, cpuMaxSpinBox, cpuMaxLayout, cpuPageLayout, cpuPage);
    setUpPage(channelGroup,
              {channelHardwareLegendItem, channelSoftwareLegendItem, channelRealLegendItem, channelVirtualLegendItem,
               channelPlayingLegendItem},
              channelMaxLabel, channelMaxSpinBox, channelMaxLayout, channelPageLayout, channelPage);
    // The legend lists the codecs in another order than the group paints them.
    setUpPage(codecGroup,
              {codecVorbisLegendItem, codecTADPCMLegendItem, codecADPCMLegendItem, codecMPEGLegendItem,
               codecXMALegendItem, codecAT9LegendItem, codecPCMLegendItem},
              codecMaxLabel, codecMaxSpinBox, codecMaxLayout, codecPageLayout, codecPage);
    setUpPage(memoryGroup, {memoryCurrentLegendItem}, memoryMaxLabel, memoryMaxSpinBox, memoryMaxLayout,
              memoryPageLayout, memoryPage);

    tabs->addTab(cpuPage, "CPU");
    tabs->addTab(channelPage, "Channel");
    tabs->addTab(codecPage, "Codec");
    tabs->addTab(memoryPage, "Memory");
    mainLayout->addWidget(tabs);
    mainLayout->setContentsMargins(0, 0, 0, 0);

    spinBoxGroups.insert(cpuMaxSpinBox, cpuGroup);
    spinBoxGroups.insert(channelMaxSpinBox, channelGroup);
    spinBoxGroups.insert(codecMaxSpinBox, codecGroup);
    spinBoxGroups.insert(memoryMaxSpinBox, memoryGroup);
    setLayout(mainLayout);
}

LineGraphControl::~LineGraphControl()
{
    legendLines.clear();
    spinBoxGroups.clear();
}

void LineGraphControl::createCPUTab()
{
    cpuGroup = lineGraph->addGroup("CPU", "%", 2);
    cpuDSPLegendItem = createLineAndLegendItem(cpuGroup, "DSP", QColor("red"));
    cpuStreamLegendItem = createLineAndLegendItem(cpuGroup, "Stream", QColor("green"));
    cpuGeometryLegendItem = createLineAndLegendItem(cpuGroup, "Geometry", QColor("yellow"));
    cpuUpdateLegendItem = createLineAndLegendItem(cpuGroup, "Update", QColor("blue"));
    cpuTotalLegendItem = createLineAndLegendItem(cpuGroup, "Total", QColor("orange"));
    createTabControls(cpuMaxLabel, cpuMaxSpinBox, cpuMaxLayout, cpuPageLayout, cpuPage);
}

void LineGraphControl::createChannelTab()
{
    channelGroup = lineGraph->addGroup("Channel", " channel(s)", 0);
    channelHardwareLegendItem = createLineAndLegendItem(channelGroup, "Hardware", QColor("cornflowerblue"));
    channelSoftwareLegendItem = createLineAndLegendItem(channelGroup, "Software", QColor("plum"));
    channelRealLegendItem = createLineAndLegendItem(channelGroup, "Real", QColor("indianred"));
    channelVirtualLegendItem = createLineAndLegendItem(channelGroup, "Virtual", QColor("khaki"));
    channelPlayingLegendItem = createLineAndLegendItem(channelGroup, "Playing", QColor("linen"));
    createTabControls(channelMaxLabel, channelMaxSpinBox, channelMaxLayout, channelPageLayout, channelPage);
}

void LineGraphControl::createCodecTab()
{
    codecGroup = lineGraph->addGroup("Codec", " codec(s)", 0);
    codecMPEGLegendItem = createLineAndLegendItem(codecGroup, "MPEG", QColor("yellowgreen"));
    codecADPCMLegendItem = createLineAndLegendItem(codecGroup, "ADPCM", QColor("peru"));
    codecXMALegendItem = createLineAndLegendItem(codecGroup, "XMA", QColor("seashell"));
    codecPCMLegendItem = createLineAndLegendItem(codecGroup, "PCM", QColor("tomato"));
    codecTADPCMLegendItem = createLineAndLegendItem(codecGroup, "TADPCM", QColor("lightslategray"));
    codecVorbisLegendItem = createLineAndLegendItem(codecGroup, "Vorbis", QColor("seagreen"));
    codecAT9LegendItem = createLineAndLegendItem(codecGroup, "AT9", QColor("mediumorchid"));
    createTabControls(codecMaxLabel, codecMaxSpinBox, codecMaxLayout, codecPageLayout, codecPage);
}

void LineGraphControl::createMemoryTab()
{
    memoryGroup = lineGraph->addGroup("Memory", " MB", 3);
    memoryCurrentLegendItem = createLineAndLegendItem(memoryGroup, "Current", QColor("skyblue"));
    createTabControls(memoryMaxLabel, memoryMaxSpinBox, memoryMaxLayout, memoryPageLayout, memoryPage);
}

void LineGraphControl::createTabControls(QLabel*& maxLabel, QSpinBox*& maxSpinBox, QHBoxLayout*& maxLayout,
                                         QVBoxLayout*& pageLayout, QWidget*& page)
{
    maxLabel = new QLabel();
    maxSpinBox = new QSpinBox();
    maxLayout = new QHBoxLayout();
    pageLayout = new QVBoxLayout();
    page = new QWidget();
}

void LineGraphControl::connectCollectors()
{
    connect(cpuHistory, &CPUHistory::historyUpdated, this, &LineGraphControl::slotProcessCPUHistory);
    connect(channelHistory, &ChannelHistory::historyUpdated, this, &LineGraphControl::slotProcessChannelHistory);
    connect(codecHistory, &CodecHistory::historyUpdated, this, &LineGraphControl::slotProcessCodecHistory);
    connect(statsHistory, &StatsHistory::historyUpdated, this, &LineGraphControl::slotProcessStatsHistory);
}

void LineGraphControl::connectSpinBoxes()
{
    const QList<QSpinBox*> spinBoxes = {cpuMaxSpinBox, channelMaxSpinBox, codecMaxSpinBox, memoryMaxSpinBox};
    for (QSpinBox* spinBox : spinBoxes) {
        connect(spinBox, QOverload<int>::of(&QSpinBox::valueChanged), this,
                &LineGraphControl::slotMaxSpinBoxChanged);
    }
}

void LineGraphControl::setUpPage(LineValuesGroup* group, const QList<LineGraphLegendItem*>& legendOrder,
                                 QLabel* maxLabel, QSpinBox* maxSpinBox, QHBoxLayout* maxLayout,
                                 QVBoxLayout* pageLayout, QWidget* page)
{
    maxLabel->setText("Maximum:");
    // The minimum, 0, reads "Auto": the group's scale follows its data.
    maxSpinBox->setSpecialValueText("Auto");
    maxSpinBox->setAccelerated(true);
    maxSpinBox->setWrapping(true);
    maxSpinBox->setMaximum(100);
    maxSpinBox->setSuffix(group->getDisplayUnit());

    maxLayout->addStretch();
    maxLayout->addWidget(maxLabel);
    maxLayout->addWidget(maxSpinBox);

    for (LineGraphLegendItem* row : legendOrder)
        pageLayout->addWidget(row);
    pageLayout->addStretch();
    pageLayout->addLayout(maxLayout);
    pageLayout->setContentsMargins(10, 10, 10, 10);
    // Rows read as one list, and the Codec tab's seven still fit beside a
    // network view that gets most of a small window's height.
    pageLayout->setSpacing(LegendRowSpacing);
    page->setLayout(pageLayout);
}

LineGraphLegendItem* LineGraphControl::createLineAndLegendItem(LineValuesGroup* group, QString name, QColor colour)
{
    LineValues* line = group->addLine(name, colour);
    LineGraphLegendItem* row = new LineGraphLegendItem();
    row->setChecked(false);
    row->setChipColor(colour);
    row->setText(name);
    // Setting the unit and precision also writes the row's first, all-zero
    // figures, so a row never shows an empty text.
    row->setDisplayUnit(group->getDisplayUnit());
    row->setDisplayPrecision(group->getDisplayPrecision());
    legendLines.insert(row, line);
    connect(row, &LineGraphLegendItem::checkedStatusChanged, this, &LineGraphControl::slotLegendItemClicked);
    return row;
}

void LineGraphControl::slotLegendItemClicked(bool checked)
{
    LineValues* line = legendLines.value(qobject_cast<LineGraphLegendItem*>(sender()));
    if (line)
        line->setActive(checked);
}

void LineGraphControl::slotMaxSpinBoxChanged(int maximum)
{
    LineValuesGroup* group = spinBoxGroups.value(qobject_cast<QSpinBox*>(sender()));
    if (!group)
        return;
    if (maximum == 0) {
        group->setMaximumSliding(true);
        return;
    }
    group->setMaximumSliding(false);
    group->setMaximum(float(maximum));
}

// The collectors announce only snapshots they have just appended, so
// numNewSnapshots never exceeds the list; clamping keeps a broken caller from
// reading outside it.
// A fixed scale above the new maximum is brought down to it, so the graph
// stays fixed at the largest scale allowed. A wrapping spin box left to
// itself would jump back to "Auto" instead. Negative capacities from a
// broken target allow no fixed scale at all. Setting an unchanged maximum
// still asks every layout above for a new pass, on which the tab widget
// repaints itself whole: several times a second.
static void setSpinBoxMaximum(QSpinBox* spinBox, int maximum)
{
    maximum = qMax(0, maximum);
    if (spinBox->value() > maximum)
        spinBox->setValue(maximum);
    if (spinBox->maximum() != maximum)
        spinBox->setMaximum(maximum);
}

static int firstNewSnapshot(int listSize, int numNewSnapshots)
{
    return listSize - qBound(0, numNewSnapshots, listSize);
}

void LineGraphControl::addValue(LineGraphLegendItem* row, float value)
{
    LineValues* line = legendLines.value(row);
    if (line)
        line->addValue(value);
}

void LineGraphControl::setPercent(LineGraphLegendItem* row, float percent)
{
    row->setAverage(percent);
    row->setCapacity(100.0f);
}

void LineGraphControl::setUsage(LineGraphLegendItem* row, qint32 used, qint32 rowCapacity)
{
    row->setAverage(float(used));
    row->setCapacity(float(rowCapacity));
}

void LineGraphControl::slotProcessCPUHistory(int numNewSnapshots)
{
    const QList<CPUUsageSnapshot>& list = *cpuHistory->getHistoryList();
    if (list.isEmpty())
        return;
    for (int i = firstNewSnapshot(list.size(), numNewSnapshots); i < list.size(); ++i) {
        const CPUUsageSnapshot& snapshot = list.at(i);
        addValue(cpuDSPLegendItem, snapshot.dsp);
        addValue(cpuStreamLegendItem, snapshot.stream);
        addValue(cpuGeometryLegendItem, snapshot.geometry);
        addValue(cpuUpdateLegendItem, snapshot.update);
        addValue(cpuTotalLegendItem, snapshot.total);
    }

    const CPUUsageSnapshot& newest = list.last();
    setPercent(cpuDSPLegendItem, newest.dsp);
    setPercent(cpuStreamLegendItem, newest.stream);
    setPercent(cpuGeometryLegendItem, newest.geometry);
    setPercent(cpuUpdateLegendItem, newest.update);
    setPercent(cpuTotalLegendItem, newest.total);
    setSpinBoxMaximum(cpuMaxSpinBox, 100);
}

void LineGraphControl::slotProcessChannelHistory(int numNewSnapshots)
{
    const QList<ChannelUsageSnapshot>& list = *channelHistory->getHistoryList();
    if (list.isEmpty())
        return;
    for (int i = firstNewSnapshot(list.size(), numNewSnapshots); i < list.size(); ++i) {
        const ChannelUsageSnapshot& snapshot = list.at(i);
        addValue(channelHardwareLegendItem, float(snapshot.hardwareUsed));
        addValue(channelSoftwareLegendItem, float(snapshot.softwareUsed));
        addValue(channelRealLegendItem, float(snapshot.realUsed));
        addValue(channelVirtualLegendItem, float(snapshot.virtualUsed));
        addValue(channelPlayingLegendItem, float(snapshot.playingUsed));
    }

    const ChannelUsageSnapshot& newest = list.last();
    setUsage(channelHardwareLegendItem, newest.hardwareUsed, newest.hardwareCapacity);
    setUsage(channelSoftwareLegendItem, newest.softwareUsed, newest.softwareCapacity);
    setUsage(channelRealLegendItem, newest.realUsed, newest.realCapacity);
    setUsage(channelVirtualLegendItem, newest.virtualUsed, newest.virtualCapacity);
    setUsage(channelPlayingLegendItem, newest.playingUsed, newest.playingCapacity);
    setSpinBoxMaximum(channelMaxSpinBox, channelHistory->getMaximumValue());
}

void LineGraphControl::slotProcessCodecHistory(int numNewSnapshots)
{
    const QList<CodecUsageSnapshot>& list = *codecHistory->getHistoryList();
    if (list.isEmpty())
        return;
    for (int i = firstNewSnapshot(list.size(), numNewSnapshots); i < list.size(); ++i) {
        const CodecUsageSnapshot& snapshot = list.at(i);
        addValue(codecMPEGLegendItem, float(snapshot.mpegUsed));
        addValue(codecADPCMLegendItem, float(snapshot.adpcmUsed));
        addValue(codecXMALegendItem, float(snapshot.xmaUsed));
        addValue(codecPCMLegendItem, float(snapshot.pcmUsed));
    }

    // This packet has no TADPCM, Vorbis or AT9 pools; their rows keep what
    // the statistics path last showed.
    const CodecUsageSnapshot& newest = list.last();
    setUsage(codecMPEGLegendItem, newest.mpegUsed, newest.mpegCapacity);
    setUsage(codecADPCMLegendItem, newest.adpcmUsed, newest.adpcmCapacity);
    setUsage(codecXMALegendItem, newest.xmaUsed, newest.xmaCapacity);
    setUsage(codecPCMLegendItem, newest.pcmUsed, newest.pcmCapacity);
    setSpinBoxMaximum(codecMaxSpinBox, codecHistory->getMaximumValue());
}

void LineGraphControl::slotProcessStatsHistory(int numNewSnapshots)
{
    const QList<StatsSnapshot>& list = *statsHistory->history;
    if (list.isEmpty())
        return;
    // TADPCM, Vorbis and AT9 get no samples here although their rows show
    // the statistics; the graph has always plotted only these thirteen.
    for (int i = firstNewSnapshot(list.size(), numNewSnapshots); i < list.size(); ++i) {
        const StatsSnapshot& snapshot = list.at(i);
        addValue(cpuDSPLegendItem, snapshot.dsp);
        addValue(cpuStreamLegendItem, snapshot.stream);
        addValue(cpuGeometryLegendItem, snapshot.geometry);
        addValue(cpuUpdateLegendItem, snapshot.update);
        addValue(cpuTotalLegendItem, snapshot.total);
        addValue(channelRealLegendItem, float(snapshot.realChannels));
        addValue(channelVirtualLegendItem, float(snapshot.virtualChannels));
        addValue(channelPlayingLegendItem, float(snapshot.playingChannels));
        addValue(codecMPEGLegendItem, float(snapshot.mpeg));
        addValue(codecADPCMLegendItem, float(snapshot.adpcm));
        addValue(codecXMALegendItem, float(snapshot.xma));
        addValue(codecPCMLegendItem, float(snapshot.pcm));
        addValue(memoryCurrentLegendItem, snapshot.memory);
    }
    showStatsInLegend();
    updateStatsSpinBoxMaxima();
}

void LineGraphControl::showStatsInLegend()
{
    StatsValues* values = statsHistory->values;
    cpuDSPLegendItem->setStats(&values[StatsHistory::StatsDSP]);
    cpuStreamLegendItem->setStats(&values[StatsHistory::StatsStream]);
    cpuGeometryLegendItem->setStats(&values[StatsHistory::StatsGeometry]);
    cpuUpdateLegendItem->setStats(&values[StatsHistory::StatsUpdate]);
    cpuTotalLegendItem->setStats(&values[StatsHistory::StatsTotal]);
    // The statistics packet has no hardware or software channel figures.
    channelHardwareLegendItem->hide();
    channelSoftwareLegendItem->hide();
    channelRealLegendItem->setStats(&values[StatsHistory::StatsRealChannels]);
    channelVirtualLegendItem->setStats(&values[StatsHistory::StatsVirtualChannels]);
    channelPlayingLegendItem->setStats(&values[StatsHistory::StatsPlayingChannels]);
    codecMPEGLegendItem->setStats(&values[StatsHistory::StatsMPEG]);
    codecADPCMLegendItem->setStats(&values[StatsHistory::StatsADPCM]);
    codecVorbisLegendItem->setStats(&values[StatsHistory::StatsVorbis]);
    codecTADPCMLegendItem->setStats(&values[StatsHistory::StatsTADPCM]);
    codecXMALegendItem->setStats(&values[StatsHistory::StatsXMA]);
    codecAT9LegendItem->setStats(&values[StatsHistory::StatsAT9]);
    codecPCMLegendItem->setStats(&values[StatsHistory::StatsPCM]);
    memoryCurrentLegendItem->setStats(&values[StatsHistory::StatsMemory]);
}

void LineGraphControl::updateStatsSpinBoxMaxima()
{
    setSpinBoxMaximum(cpuMaxSpinBox, 100);
    setSpinBoxMaximum(channelMaxSpinBox, statsHistory->channelCapacity);
    setSpinBoxMaximum(codecMaxSpinBox, statsHistory->codecCapacity);
    // Truncated toward zero: a 1234.9 MB capacity allows a 1234 MB scale.
    setSpinBoxMaximum(memoryMaxSpinBox, int(statsHistory->values[StatsHistory::StatsMemory].capacity));
}
