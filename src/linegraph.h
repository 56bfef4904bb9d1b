#ifndef LINEGRAPH_H
#define LINEGRAPH_H

#include <QList>
#include <QObject>
#include <QPen>
#include <QSize>
#include <QString>
#include <QWidget>

class QColor;
class QFrame;
class QHBoxLayout;
class QPaintEvent;
class QPainter;
class QVBoxLayout;
class CPUHistory;
class ChannelHistory;
class CodecHistory;
class LineGraphControl;
class ProfilerSimpleLabel;
class StatsHistory;

// One plotted series: the last 500 samples, oldest first, with their
// maximum kept up to date as samples come and go.
class LineValues : public QObject
{
    Q_OBJECT

public:
    static constexpr int NumSamples = 500;

    LineValues();

    void setName(QString newName);
    QString getName() const;
    void setColor(QColor color);
    QColor getColor() const;
    void setActive(bool newActive);
    bool getActive() const;
    float getMaximum() const;
    const QList<float>& getValues() const;

    void addValue(float value);
    void recalculateMaximum(float added, float removed);
    void paint(QPainter& painter);

signals:
    void dataChanged();

private:
    QList<float> values;
    QString name;
    QPen pen;
    bool active;
    float maximum;
};

// Lines that share one vertical scale and one unit. The scale either
// follows the largest active line (sliding) or is fixed by the user.
class LineValuesGroup : public QObject
{
    Q_OBJECT

public:
    LineValuesGroup();
    ~LineValuesGroup() override;

    void setName(QString newName);
    QString getName() const;
    void setDisplayUnit(QString newDisplayUnit);
    QString getDisplayUnit() const;
    void setDisplayPrecision(int newDisplayPrecision);
    int getDisplayPrecision() const;

    LineValues* addLine(QString lineName, QColor colour);
    const QList<LineValues*>& getLines() const;

    float getMaximum() const;
    void setMaximum(float newMaximum);
    bool getMaximumSliding() const;
    void setMaximumSliding(bool sliding);
    void recalculateMaximum();

    void paint(QPainter& painter, QSize size);

signals:
    void dataChanged();

public slots:
    void slotLineDataChanged();

private:
    float largestActiveMaximum() const;

    QList<LineValues*> lines;
    QString name;
    QString displayUnit;
    int displayPrecision;
    float maximum;
    bool maximumSliding;
};

// The drawing surface: every group painted over the whole area, with the
// top and bottom values of each group's scale at the left edge.
class LineGraph : public QWidget
{
    Q_OBJECT

public:
    explicit LineGraph(QWidget* parent = nullptr, Qt::WindowFlags f = Qt::WindowFlags());
    ~LineGraph() override;

    LineValuesGroup* addGroup(QString name, QString displayUnit, int displayPrecision);
    const QList<LineValuesGroup*>& getGroups() const;
    const ProfilerSimpleLabel* getMaximumLabel() const;
    const ProfilerSimpleLabel* getMinimumLabel() const;

    QSize sizeHint() const override;
    QSize minimumSizeHint() const override;

    void updateMinMaxLabels();

public slots:
    void slotGroupDataChanged();

protected:
    void paintEvent(QPaintEvent* event) override;

private:
    QList<LineValuesGroup*> groups;
    ProfilerSimpleLabel* maximumLabel;
    ProfilerSimpleLabel* minimumLabel;
    QVBoxLayout* labelLayout;
    QHBoxLayout* mainLayout;
};

// The line graph panel of the main form: the graph in a sunken frame, its
// control panel at the right.
class ProfilerLineGraph : public QWidget
{
    Q_OBJECT

public:
    ProfilerLineGraph(CPUHistory* cpuHistory, ChannelHistory* channelHistory, CodecHistory* codecHistory,
                      StatsHistory* statsHistory, QWidget* parent = nullptr, Qt::WindowFlags f = Qt::WindowFlags());

    LineGraph* getLineGraph() const;
    LineGraphControl* getLineGraphControl() const;

private:
    LineGraph* lineGraph;
    QVBoxLayout* graphFrameLayout;
    QFrame* graphFrame;
    LineGraphControl* lineGraphControl;
    QHBoxLayout* panelLayout;
};

#endif // LINEGRAPH_H
