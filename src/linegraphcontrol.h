#ifndef LINEGRAPHCONTROL_H
#define LINEGRAPHCONTROL_H

#include <QColor>
#include <QHash>
#include <QString>
#include <QWidget>

class QCheckBox;
class QHBoxLayout;
class QLabel;
class QSpinBox;
class QTabWidget;
class QVBoxLayout;
class CPUHistory;
class ChannelHistory;
class CodecHistory;
class LineGraph;
class LineValues;
class LineValuesGroup;
class ProfilerSimpleLabel;
class StatsHistory;
struct StatsValues;

// One legend row: a check box that switches its line on and off (its
// indicator is the line's colour chip) and the line's figures.
class LineGraphLegendItem : public QWidget
{
    Q_OBJECT

public:
    explicit LineGraphLegendItem(QWidget* parent = nullptr, Qt::WindowFlags f = Qt::WindowFlags());

    void setChecked(bool checked);
    bool getChecked() const;
    void setChipColor(QColor colour);
    void setText(QString text);
    QString getText() const;
    QString getValueText() const;

    void setDisplayUnit(QString newDisplayUnit);
    QString getDisplayUnit() const;
    void setDisplayPrecision(int newDisplayPrecision);
    int getDisplayPrecision() const;
    void setAverage(float newAverage);
    float getAverage() const;
    void setMinimum(float newMinimum);
    float getMinimum() const;
    void setMaximum(float newMaximum);
    float getMaximum() const;
    void setCapacity(float newCapacity);
    float getCapacity() const;
    void setStats(StatsValues* stats);

    void updateValue();

signals:
    void checkedStatusChanged(bool checked);

public slots:
    void slotActiveCheckBoxStatusChanged(int state);

private:
    void setFigure(float& figure, float value);
    QString formatFigure(float value) const;

    QCheckBox* activeCheckBox;
    ProfilerSimpleLabel* valueLabel;
    QHBoxLayout* layout;
    float average;
    float minimum;
    float maximum;
    float capacity;
    QString displayUnit;
    int displayPrecision;
};

// The panel at the right of the line graph: one tab per group with a legend
// row per line and a spin box that fixes the group's scale or leaves it
// sliding ("Auto"). It also turns the collectors' histories into samples.
class LineGraphControl : public QWidget
{
    Q_OBJECT

public:
    LineGraphControl(LineGraph* lineGraph, CPUHistory* cpuHistory, ChannelHistory* channelHistory,
                     CodecHistory* codecHistory, StatsHistory* statsHistory, QWidget* parent = nullptr,
                     Qt::WindowFlags f = Qt::WindowFlags());
    ~LineGraphControl() override;

    LineGraphLegendItem* createLineAndLegendItem(LineValuesGroup* group, QString name, QColor colour);

public slots:
    void slotLegendItemClicked(bool checked);
    void slotMaxSpinBoxChanged(int maximum);
    void slotProcessCPUHistory(int numNewSnapshots);
    void slotProcessChannelHistory(int numNewSnapshots);
    void slotProcessCodecHistory(int numNewSnapshots);
    void slotProcessStatsHistory(int numNewSnapshots);

private:
    void createCPUTab();
    void createChannelTab();
    void createCodecTab();
    void createMemoryTab();
    void createTabControls(QLabel*& maxLabel, QSpinBox*& maxSpinBox, QHBoxLayout*& maxLayout,
                           QVBoxLayout*& pageLayout, QWidget*& page);
    void connectCollectors();
    void connectSpinBoxes();
    void setUpPage(LineValuesGroup* group, const QList<LineGraphLegendItem*>& legendOrder, QLabel* maxLabel,
                   QSpinBox* maxSpinBox, QHBoxLayout* maxLayout, QVBoxLayout* pageLayout, QWidget* page);
    void addValue(LineGraphLegendItem* row, float value);
    void setPercent(LineGraphLegendItem* row, float percent);
    void setUsage(LineGraphLegendItem* row, qint32 used, qint32 rowCapacity);
    void showStatsInLegend();
    void updateStatsSpinBoxMaxima();

    LineGraph* lineGraph = nullptr;
    CPUHistory* cpuHistory = nullptr;
    ChannelHistory* channelHistory = nullptr;
    CodecHistory* codecHistory = nullptr;
    StatsHistory* statsHistory = nullptr;
    QHash<LineGraphLegendItem*, LineValues*> legendLines;
    QHash<QSpinBox*, LineValuesGroup*> spinBoxGroups;

    LineValuesGroup* cpuGroup = nullptr;
    LineGraphLegendItem* cpuDSPLegendItem = nullptr;
    LineGraphLegendItem* cpuStreamLegendItem = nullptr;
    LineGraphLegendItem* cpuGeometryLegendItem = nullptr;
    LineGraphLegendItem* cpuUpdateLegendItem = nullptr;
    LineGraphLegendItem* cpuTotalLegendItem = nullptr;
    QLabel* cpuMaxLabel = nullptr;
    QSpinBox* cpuMaxSpinBox = nullptr;
    QHBoxLayout* cpuMaxLayout = nullptr;
    QVBoxLayout* cpuPageLayout = nullptr;
    QWidget* cpuPage = nullptr;

    LineValuesGroup* channelGroup = nullptr;
    LineGraphLegendItem* channelHardwareLegendItem = nullptr;
    LineGraphLegendItem* channelSoftwareLegendItem = nullptr;
    LineGraphLegendItem* channelRealLegendItem = nullptr;
    LineGraphLegendItem* channelVirtualLegendItem = nullptr;
    LineGraphLegendItem* channelPlayingLegendItem = nullptr;
    QLabel* channelMaxLabel = nullptr;
    QSpinBox* channelMaxSpinBox = nullptr;
    QHBoxLayout* channelMaxLayout = nullptr;
    QVBoxLayout* channelPageLayout = nullptr;
    QWidget* channelPage = nullptr;

    LineValuesGroup* codecGroup = nullptr;
    LineGraphLegendItem* codecMPEGLegendItem = nullptr;
    LineGraphLegendItem* codecADPCMLegendItem = nullptr;
    LineGraphLegendItem* codecXMALegendItem = nullptr;
    LineGraphLegendItem* codecPCMLegendItem = nullptr;
    LineGraphLegendItem* codecTADPCMLegendItem = nullptr;
    LineGraphLegendItem* codecVorbisLegendItem = nullptr;
    LineGraphLegendItem* codecAT9LegendItem = nullptr;
    QLabel* codecMaxLabel = nullptr;
    QSpinBox* codecMaxSpinBox = nullptr;
    QHBoxLayout* codecMaxLayout = nullptr;
    QVBoxLayout* codecPageLayout = nullptr;
    QWidget* codecPage = nullptr;

    LineValuesGroup* memoryGroup = nullptr;
    LineGraphLegendItem* memoryCurrentLegendItem = nullptr;
    QLabel* memoryMaxLabel = nullptr;
    QSpinBox* memoryMaxSpinBox = nullptr;
    QHBoxLayout* memoryMaxLayout = nullptr;
    QVBoxLayout* memoryPageLayout = nullptr;
    QWidget* memoryPage = nullptr;

    QTabWidget* tabs = nullptr;
    QVBoxLayout* mainLayout = nullptr;
};

#endif // LINEGRAPHCONTROL_H
