#include "linegraph.h"

#include "linegraphcontrol.h"
#include "profilersimplelabel.h"

#include <QBrush>
#include <QColor>
#include <QFrame>
#include <QHBoxLayout>
#include <QPainter>
#include <QPainterPath>
#include <QPalette>
#include <QVBoxLayout>

LineValues::LineValues()
    : values()
    , name()
    , pen(QBrush(Qt::white), 2)
    , active(false)
    , maximum(0.0f)
{
    for (int i = 0; i < NumSamples; ++i)
        values.append(0.0f);
    // The group scales the painter to sample coordinates; a cosmetic pen
    // stays 2 device pixels wide whatever that scale is.
    pen.setCosmetic(true);
}

void LineValues::setName(QString newName)
{
    name = newName;
}

QString LineValues::getName() const
{
    return name;
}

void LineValues::setColor(QColor color)
{
    pen.setColor(color);
}

QColor LineValues::getColor() const
{
    return pen.color();
}

void LineValues::setActive(bool newActive)
{
    if (newActive == active)
        return;
    active = newActive;
    emit dataChanged();
}

bool LineValues::getActive() const
{
    return active;
}

float LineValues::getMaximum() const
{
    return maximum;
}

const QList<float>& LineValues::getValues() const
{
    return values;
}

void LineValues::addValue(float value)
{
    values.append(value);
    const float removed = values.takeFirst();
    recalculateMaximum(value, removed);
    emit dataChanged();
}

void LineValues::recalculateMaximum(float added, float removed)
{
    if (added > maximum) {
        maximum = added;
        return;
    }
    if (maximum != removed)
        return;
    // The sample that may have been the maximum has left; another one may
    // still hold the same value, so look at all of them again.
    maximum = 0.0f;
    for (float value : qAsConst(values)) {
        if (value > maximum)
            maximum = value;
    }
}

void LineValues::paint(QPainter& painter)
{
    if (!active)
        return;

    QPainterPath path;
    path.moveTo(0.0, values.at(0));
    for (int i = 1; i < values.size(); ++i)
        path.lineTo(i, values.at(i));

    painter.setPen(pen);
    painter.drawPath(path);
}

LineValuesGroup::LineValuesGroup()
    : lines()
    , name()
    , displayUnit()
    , displayPrecision(0)
    , maximum(0.0f)
    , maximumSliding(true)
{
}

LineValuesGroup::~LineValuesGroup()
{
    qDeleteAll(lines);
    lines.clear();
}

void LineValuesGroup::setName(QString newName)
{
    name = newName;
}

QString LineValuesGroup::getName() const
{
    return name;
}

void LineValuesGroup::setDisplayUnit(QString newDisplayUnit)
{
    displayUnit = newDisplayUnit;
}

QString LineValuesGroup::getDisplayUnit() const
{
    return displayUnit;
}

void LineValuesGroup::setDisplayPrecision(int newDisplayPrecision)
{
    displayPrecision = newDisplayPrecision;
}

int LineValuesGroup::getDisplayPrecision() const
{
    return displayPrecision;
}

LineValues* LineValuesGroup::addLine(QString lineName, QColor colour)
{
    LineValues* line = new LineValues();
    line->setName(lineName);
    line->setColor(colour);
    connect(line, &LineValues::dataChanged, this, &LineValuesGroup::slotLineDataChanged);
    lines.append(line);
    return line;
}

const QList<LineValues*>& LineValuesGroup::getLines() const
{
    return lines;
}

float LineValuesGroup::getMaximum() const
{
    return maximum;
}

void LineValuesGroup::setMaximum(float newMaximum)
{
    if (newMaximum == maximum)
        return;
    maximum = newMaximum;
    emit dataChanged();
}

bool LineValuesGroup::getMaximumSliding() const
{
    return maximumSliding;
}

void LineValuesGroup::setMaximumSliding(bool sliding)
{
    if (sliding == maximumSliding)
        return;
    maximumSliding = sliding;
    // A fixed scale keeps the current maximum until the user sets another.
    if (maximumSliding)
        maximum = largestActiveMaximum();
    emit dataChanged();
}

void LineValuesGroup::recalculateMaximum()
{
    if (maximumSliding)
        maximum = largestActiveMaximum();
}

void LineValuesGroup::slotLineDataChanged()
{
    recalculateMaximum();
    emit dataChanged();
}

float LineValuesGroup::largestActiveMaximum() const
{
    float largest = 0.0f;
    for (const LineValues* line : lines) {
        if (line->getActive() && line->getMaximum() > largest)
            largest = line->getMaximum();
    }
    return largest;
}

void LineValuesGroup::paint(QPainter& painter, QSize size)
{
    // A zero scale would divide by zero; an empty area shows nothing anyway.
    if (maximum == 0.0f || size.isEmpty())
        return;

    const float w = size.width();
    const float h = size.height();
    painter.save();
    // Sample i with value v lands at x = i * w / 499, y = h * (1 - v / maximum):
    // oldest sample at the left edge, newest at the right, 0 at the bottom.
    const float sx = w / float(LineValues::NumSamples - 1);
    const float sy = -h / maximum;
    painter.scale(sx, sy);
    painter.translate(0.0, (-maximum / h) * h);
    for (LineValues* line : qAsConst(lines))
        line->paint(painter);
    painter.restore();
}

LineGraph::LineGraph(QWidget* parent, Qt::WindowFlags f)
    : QWidget(parent, f)
    , groups()
    , maximumLabel(new ProfilerSimpleLabel())
    , minimumLabel(new ProfilerSimpleLabel())
    , labelLayout(new QVBoxLayout())
    , mainLayout(new QHBoxLayout())
{
    maximumLabel->setColor(QColor(Qt::white));
    minimumLabel->setColor(QColor(Qt::white));
    // In a narrow window the legend keeps its figures and the scale is cut
    // short at the right instead.
    maximumLabel->setElideMode(Qt::ElideRight);
    minimumLabel->setElideMode(Qt::ElideRight);

    // Aligned, each label is as wide as its own text: stretched to the
    // column's width, the shorter one would cap the longer one.
    labelLayout->addWidget(maximumLabel, 0, Qt::AlignLeft);
    labelLayout->addStretch();
    labelLayout->addWidget(minimumLabel, 0, Qt::AlignLeft);
    labelLayout->setContentsMargins(3, 1, 3, 1);

    mainLayout->addLayout(labelLayout);
    mainLayout->addStretch();
    mainLayout->setContentsMargins(0, 0, 0, 0);

    QPalette background;
    background.setBrush(QPalette::All, QPalette::Window, QBrush(QColor(49, 56, 64, 255)));
    setPalette(background);
    setAutoFillBackground(true);
    setLayout(mainLayout);
}

LineGraph::~LineGraph()
{
    qDeleteAll(groups);
    groups.clear();
}

LineValuesGroup* LineGraph::addGroup(QString name, QString displayUnit, int displayPrecision)
{
    LineValuesGroup* group = new LineValuesGroup();
    group->setName(name);
    group->setDisplayUnit(displayUnit);
    group->setDisplayPrecision(displayPrecision);
    connect(group, &LineValuesGroup::dataChanged, this, &LineGraph::slotGroupDataChanged);
    groups.append(group);
    return group;
}

const QList<LineValuesGroup*>& LineGraph::getGroups() const
{
    return groups;
}

const ProfilerSimpleLabel* LineGraph::getMaximumLabel() const
{
    return maximumLabel;
}

const ProfilerSimpleLabel* LineGraph::getMinimumLabel() const
{
    return minimumLabel;
}

QSize LineGraph::sizeHint() const
{
    return QSize(200, 80);
}

QSize LineGraph::minimumSizeHint() const
{
    return QSize(100, 80);
}

void LineGraph::paintEvent(QPaintEvent*)
{
    QPainter painter(this);
    // Refreshed here rather than on every maximum change, so the labels
    // always match the scales of the curves being drawn.
    const QSize maximumSize = maximumLabel->maximumSize();
    const QSize minimumSize = minimumLabel->maximumSize();
    updateMinMaxLabels();
    // A label whose text changed size would otherwise be drawn where its old
    // text was, or not at all, until the layout catches up a pass later.
    if (maximumLabel->maximumSize() != maximumSize || minimumLabel->maximumSize() != minimumSize)
        mainLayout->activate();
    painter.setRenderHint(QPainter::Antialiasing);
    for (LineValuesGroup* group : qAsConst(groups))
        group->paint(painter, size());
}

static QString formatScaleValue(float value, int precision)
{
    return QString("%1").arg(double(value), 0, 'f', precision, QChar(' '));
}

void LineGraph::updateMinMaxLabels()
{
    QString maximumText;
    QString minimumText;
    for (int i = 0; i < groups.size(); ++i) {
        const LineValuesGroup* group = groups.at(i);
        if (i > 0) {
            maximumText += " / ";
            minimumText += " / ";
        }
        maximumText += formatScaleValue(group->getMaximum(), group->getDisplayPrecision());
        minimumText += formatScaleValue(0.0f, group->getDisplayPrecision());
        maximumText += group->getDisplayUnit();
        minimumText += group->getDisplayUnit();
    }
    maximumLabel->setText(maximumText);
    minimumLabel->setText(minimumText);
}

void LineGraph::slotGroupDataChanged()
{
    update();
}

ProfilerLineGraph::ProfilerLineGraph(CPUHistory* cpuHistory, ChannelHistory* channelHistory,
                                     CodecHistory* codecHistory, StatsHistory* statsHistory,
                                     QWidget* parent, Qt::WindowFlags f)
    : QWidget(parent, f)
    , lineGraph(new LineGraph())
    , graphFrameLayout(new QVBoxLayout())
    , graphFrame(new QFrame())
    , lineGraphControl(new LineGraphControl(lineGraph, cpuHistory, channelHistory, codecHistory, statsHistory))
    , panelLayout(new QHBoxLayout())
{
    graphFrameLayout->setContentsMargins(0, 0, 0, 0);
    graphFrameLayout->addWidget(lineGraph);
    graphFrame->setFrameStyle(QFrame::Panel | QFrame::Sunken);
    graphFrame->setLayout(graphFrameLayout);

    // The graph takes all spare width; the control panel keeps its own.
    panelLayout->setContentsMargins(0, 0, 0, 0);
    panelLayout->addWidget(graphFrame, 1);
    panelLayout->addWidget(lineGraphControl, 0);
    setLayout(panelLayout);
}

LineGraph* ProfilerLineGraph::getLineGraph() const
{
    return lineGraph;
}

LineGraphControl* ProfilerLineGraph::getLineGraphControl() const
{
    return lineGraphControl;
}
