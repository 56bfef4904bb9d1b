#include "profilerdspnetgraph.h"

#include "dspnetgraph.h"
#include "dspnettree.h"
#include "flowlayout.h"

#include <QCheckBox>
#include <QDir>
#include <QFileDialog>
#include <QGroupBox>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QMouseEvent>
#include <QPalette>
#include <QPushButton>
#include <QScrollArea>
#include <QScrollBar>
#include <QSpinBox>
#include <QVBoxLayout>
#include <QWheelEvent>

#include <climits>
#include <cmath>

namespace
{

// A check box's state is 0 (unchecked), 1 (partly checked) or 2 (checked).
bool isDecided(int state)
{
    return state == Qt::Unchecked || state == Qt::Checked;
}

// Truncates toward zero; what no int can hold (including the infinity of a
// graph that had no size yet) gives 0 or the nearest end of the range.
int truncated(double value)
{
    if (std::isnan(value))
        return 0;
    return static_cast<int>(qBound<double>(INT_MIN, std::trunc(value), INT_MAX));
}

// Halves go away from zero, in both directions.
int rounded(float value)
{
    return static_cast<int>(std::lround(value));
}

// A wheel event's direction and size as the old single-axis wheel API gave
// them: the axis that moved most wins, and a tie counts as vertical.
bool isVerticalWheel(const QWheelEvent* event)
{
    const QPoint angle = event->angleDelta();
    return qAbs(angle.x()) <= qAbs(angle.y());
}

const int MinimumHighlightWidth = 120;

} // namespace

ProfilerDSPNetGraph::ProfilerDSPNetGraph(DSPTree* tree, QWidget* parent, Qt::WindowFlags flags)
    : QWidget(parent, flags), dspTree(tree), lastMousePos(0, 0)
{
    createWidgets();
    connectWidgets();
    setUpGraph();
    setUpPalettes();
    setUpScrollArea();
    setUpShowBox();
    setUpCPUBox();
    setUpBottomBar();
    setUpMainLayout();
}

ProfilerDSPNetGraph::~ProfilerDSPNetGraph() = default;

// Parentless for now; the layouts take them over in setUpMainLayout().
void ProfilerDSPNetGraph::createWidgets()
{
    graph = new DSPNetGraph(dspTree);
    cornerWidget = new QWidget;
    scrollArea = new QScrollArea;
    showExcessiveCheckBox = new QCheckBox;
    showInactiveCheckBox = new QCheckBox;
    showCPUUsageCheckBox = new QCheckBox;
    showVolumeCheckBox = new QCheckBox;
    showGroupsCheckBox = new QCheckBox;
    showGuidsCheckBox = new QCheckBox;
    showSendsCheckBox = new QCheckBox;
    showLegendCheckBox = new QCheckBox;
    // The option rows wrap when the window is narrow, each into at most two
    // rows, so that they never turn into a tall column.
    showLayout = new FlowLayout(2);
    showGroupBox = new QGroupBox;
    lowLabel = new QLabel;
    minCPUSpinBox = new QSpinBox;
    highLabel = new QLabel;
    maxCPUSpinBox = new QSpinBox;
    inclusiveCheckBox = new QCheckBox;
    cpuLayout = new QHBoxLayout;
    cpuGroupBox = new QGroupBox;
    captureButton = new QPushButton;
    bottomLayout = new FlowLayout(2);
    mainLayout = new QVBoxLayout;
    highlightLabel = new QLabel;
    highlightEdit = new QLineEdit;
}

// Before any state is set, so that the boxes that start checked push their
// value into the graph.
void ProfilerDSPNetGraph::connectWidgets()
{
    connect(showExcessiveCheckBox, &QCheckBox::stateChanged, this,
            &ProfilerDSPNetGraph::slotShowExcessiveStateChanged);
    connect(showInactiveCheckBox, &QCheckBox::stateChanged, this,
            &ProfilerDSPNetGraph::slotShowInactiveStateChanged);
    connect(showCPUUsageCheckBox, &QCheckBox::stateChanged, this,
            &ProfilerDSPNetGraph::slotShowCPUUsageStateChanged);
    connect(showVolumeCheckBox, &QCheckBox::stateChanged, this,
            &ProfilerDSPNetGraph::slotShowVolumeLevelsStateChanged);
    connect(showGroupsCheckBox, &QCheckBox::stateChanged, this,
            &ProfilerDSPNetGraph::slotShowGroupsStateChanged);
    connect(showGuidsCheckBox, &QCheckBox::stateChanged, this,
            &ProfilerDSPNetGraph::slotShowGuidsStateChanged);
    connect(showSendsCheckBox, &QCheckBox::stateChanged, this,
            &ProfilerDSPNetGraph::slotShowSendsStateChanged);
    connect(showLegendCheckBox, &QCheckBox::stateChanged, this,
            &ProfilerDSPNetGraph::slotShowLegendStateChanged);
    connect(minCPUSpinBox, QOverload<int>::of(&QSpinBox::valueChanged), this,
            &ProfilerDSPNetGraph::slotMinCPUValueChanged);
    connect(maxCPUSpinBox, QOverload<int>::of(&QSpinBox::valueChanged), this,
            &ProfilerDSPNetGraph::slotMaxCPUValueChanged);
    connect(inclusiveCheckBox, &QCheckBox::stateChanged, this,
            &ProfilerDSPNetGraph::slotInclusiveCPUStateChanged);
    connect(captureButton, &QPushButton::clicked, this, &ProfilerDSPNetGraph::slotSaveImage);
    connect(highlightEdit, &QLineEdit::textChanged, this,
            &ProfilerDSPNetGraph::slotHighlightChanged);
    connect(graph, &DSPNetGraph::selectedNodePositionChanged, this,
            &ProfilerDSPNetGraph::slotSelectedNodePositionChanged);
}

void ProfilerDSPNetGraph::setUpGraph()
{
    graph->setCursor(Qt::OpenHandCursor);
    graph->installEventFilter(this);
}

void ProfilerDSPNetGraph::setUpPalettes()
{
    QPalette cornerPalette = cornerWidget->palette();
    cornerPalette.setBrush(QPalette::Window,
                           scrollArea->verticalScrollBar()->palette().brush(QPalette::Button));
    cornerWidget->setPalette(cornerPalette);
    cornerWidget->setAutoFillBackground(true);

    // The units' inactive colour, so the graph's transparent background
    // blends with the boxes.
    QPalette areaPalette = scrollArea->palette();
    areaPalette.setBrush(QPalette::Window, QBrush(QColor(49, 56, 64)));
    scrollArea->setPalette(areaPalette);
    scrollArea->setAutoFillBackground(true);
}

void ProfilerDSPNetGraph::setUpScrollArea()
{
    scrollArea->installEventFilter(this);
    scrollArea->setFrameStyle(QFrame::Panel | QFrame::Sunken);
    scrollArea->setVerticalScrollBarPolicy(Qt::ScrollBarAlwaysOn);
    scrollArea->setCornerWidget(cornerWidget);
    scrollArea->setWidget(graph);
}

void ProfilerDSPNetGraph::setUpShowBox()
{
    struct Option
    {
        QCheckBox* box;
        const char* text;
        bool checked;
    };
    const Option options[] = {
        { showExcessiveCheckBox, "Excessive Inputs", true },
        { showInactiveCheckBox, "Inactive Inputs", true },
        { showCPUUsageCheckBox, "CPU Usage", false },
        { showVolumeCheckBox, "Volume", false },
        { showGroupsCheckBox, "Groups", true },
        { showGuidsCheckBox, "Guids", false },
        { showSendsCheckBox, "Sends", true },
        { showLegendCheckBox, "Legend", false },
    };
    for (const Option& option : options) {
        option.box->setText(QString::fromLatin1(option.text));
        option.box->setChecked(option.checked);
    }
    showLayout->setContentsMargins(5, 5, 5, 5);
    for (const Option& option : options)
        showLayout->addWidget(option.box);
    showGroupBox->setLayout(showLayout);
    showGroupBox->setTitle(QStringLiteral("Show"));
}

// Setting the high threshold to 20 % runs its slot, which narrows the low
// box to 0..19 and gives the graph its maximum of 0.2.
void ProfilerDSPNetGraph::setUpCPUBox()
{
    minCPUSpinBox->setSuffix(QStringLiteral("%"));
    minCPUSpinBox->setValue(0);
    minCPUSpinBox->setRange(0, 19);
    maxCPUSpinBox->setSuffix(QStringLiteral("%"));
    maxCPUSpinBox->setValue(20);
    maxCPUSpinBox->setRange(1, 100);
    inclusiveCheckBox->setText(QStringLiteral("Inclusive"));
    inclusiveCheckBox->setChecked(false);
    lowLabel->setText(QStringLiteral("Low:"));
    highLabel->setText(QStringLiteral("High:"));

    cpuLayout->setContentsMargins(5, 5, 5, 5);
    cpuLayout->addWidget(lowLabel);
    cpuLayout->addWidget(minCPUSpinBox);
    cpuLayout->addWidget(highLabel);
    cpuLayout->addWidget(maxCPUSpinBox);
    cpuLayout->addWidget(inclusiveCheckBox);
    cpuGroupBox->setLayout(cpuLayout);
    cpuGroupBox->setTitle(QStringLiteral("CPU Usage"));
    cpuGroupBox->setEnabled(false);
}

void ProfilerDSPNetGraph::setUpBottomBar()
{
    captureButton->setText(QStringLiteral("Screen Capture"));
    highlightLabel->setText(QStringLiteral("Hightlight:"));
    // Room for a unit name or a command, however the row is squeezed.
    highlightEdit->setMinimumWidth(MinimumHighlightWidth);
    bottomLayout->addWidget(showGroupBox);
    bottomLayout->addWidget(cpuGroupBox);
    bottomLayout->addStretch();
    bottomLayout->addWidget(highlightLabel);
    bottomLayout->addWidget(highlightEdit);
    bottomLayout->addWidget(captureButton);
    bottomLayout->setSpacing(6);
}

void ProfilerDSPNetGraph::setUpMainLayout()
{
    mainLayout->setContentsMargins(0, 0, 0, 0);
    mainLayout->addWidget(scrollArea);
    mainLayout->addLayout(bottomLayout);
    mainLayout->setSpacing(4);
    setLayout(mainLayout);
}

void ProfilerDSPNetGraph::slotShowExcessiveStateChanged(int state)
{
    if (isDecided(state))
        graph->setShowExcessiveInputs(state == Qt::Checked);
}

void ProfilerDSPNetGraph::slotShowInactiveStateChanged(int state)
{
    if (isDecided(state))
        graph->setShowInactiveInputs(state == Qt::Checked);
}

void ProfilerDSPNetGraph::slotShowCPUUsageStateChanged(int state)
{
    if (!isDecided(state))
        return;
    graph->setShowCPUUsage(state == Qt::Checked);
    cpuGroupBox->setEnabled(state == Qt::Checked);
}

void ProfilerDSPNetGraph::slotShowVolumeLevelsStateChanged(int state)
{
    if (isDecided(state))
        graph->setShowVolumeLevels(state == Qt::Checked);
}

void ProfilerDSPNetGraph::slotShowGroupsStateChanged(int state)
{
    if (isDecided(state))
        graph->setShowGroups(state == Qt::Checked);
}

void ProfilerDSPNetGraph::slotShowGuidsStateChanged(int state)
{
    if (isDecided(state))
        graph->setShowGuids(state == Qt::Checked);
}

// Sends and the legend treat a partly checked box as unchecked.
void ProfilerDSPNetGraph::slotShowSendsStateChanged(int state)
{
    graph->setShowSends(state == Qt::Checked);
}

void ProfilerDSPNetGraph::slotShowLegendStateChanged(int state)
{
    graph->setShowLegend(state == Qt::Checked);
}

// The graph works in fractions; the boxes show percent. Each box bounds
// the other so the low threshold stays below the high one.
void ProfilerDSPNetGraph::slotMinCPUValueChanged(int value)
{
    maxCPUSpinBox->setRange(value + 1, 100);
    graph->setMinCPUUsage(value / 100.0);
}

void ProfilerDSPNetGraph::slotMaxCPUValueChanged(int value)
{
    minCPUSpinBox->setRange(0, value - 1);
    graph->setMaxCPUUsage(value / 100.0);
}

void ProfilerDSPNetGraph::slotInclusiveCPUStateChanged(int state)
{
    if (isDecided(state))
        graph->setInclusiveCPUUsage(state == Qt::Checked);
}

// The picture is always taken at scale 1.0, whatever the zoom on screen.
void ProfilerDSPNetGraph::slotSaveImage()
{
    const QString fileName = QFileDialog::getSaveFileName(
        this, QStringLiteral("Save Image"), QDir::homePath() + QStringLiteral("/dspnet_capture.png"),
        QStringLiteral("Image Files (*.png *.jpg *.bmp)"));
    if (fileName.isNull())
        return;
    const float savedScale = graph->getScale();
    graph->setScale(1.0f);
    graph->saveTree(fileName);
    graph->setScale(savedScale);
}

// The field doubles as a small command line: the target takes text that
// begins with "Show" as a command, on every edit.
void ProfilerDSPNetGraph::slotHighlightChanged(const QString& text)
{
    if (text.startsWith(QLatin1String("Show"), Qt::CaseInsensitive)) {
        dspTree->sendDSPCommandString(text);
        dspTree->sendGroupCommandString(text);
    }
    graph->setHighlightName(text);
    graph->repaint();
}

void ProfilerDSPNetGraph::slotSelectedNodePositionChanged(QPoint position,
                                                          QPoint previousPosition)
{
    const float scale = graph->getScale();
    scrollBy(rounded((position.x() - previousPosition.x()) * scale),
             rounded((position.y() - previousPosition.y()) * scale));
}

void ProfilerDSPNetGraph::scrollBy(int dx, int dy)
{
    QScrollBar* horizontal = scrollArea->horizontalScrollBar();
    QScrollBar* vertical = scrollArea->verticalScrollBar();
    horizontal->setValue(horizontal->value() + dx);
    vertical->setValue(vertical->value() + dy);
}

bool ProfilerDSPNetGraph::eventFilter(QObject* watched, QEvent* event)
{
    if (event->type() != QEvent::Wheel)
        return QWidget::eventFilter(watched, event);

    // Filtering alone is not enough: an ignored wheel event travels on to the
    // parents, and the scroll area would scroll as well as zoom.
    QWheelEvent* wheel = static_cast<QWheelEvent*>(event);
    wheel->accept();
    if (isVerticalWheel(wheel))
        zoom(wheel->angleDelta().y());
    return true;
}

// One notch is a tenth of scale. The selected unit stays where it is on
// screen; without a selection, the point at the middle of the view does.
void ProfilerDSPNetGraph::zoom(int wheelDelta)
{
    QScrollBar* horizontal = scrollArea->horizontalScrollBar();
    QScrollBar* vertical = scrollArea->verticalScrollBar();
    const QSize areaBefore = scrollArea->geometry().size();
    const int h = horizontal->value();
    const int v = vertical->value();
    const QSize graphBefore = graph->size();
    const float oldScale = graph->getScale();

    graph->setScale(oldScale + (wheelDelta / 120) / 10.0);
    const float newScale = graph->getScale();
    const QSize graphAfter = graph->size();
    if (graphAfter.width() <= 0 || graphAfter.height() <= 0)
        return;

    int newH = 0;
    int newV = 0;
    QRectF selected(0, 0, 0, 0);
    if (graph->getSelectedNodeRect(selected)) {
        const double cx = selected.x() + selected.width() * 0.5;
        const double cy = selected.y() + selected.height() * 0.5;
        newH = h + truncated(newScale * cx - oldScale * cx);
        newV = v + truncated(newScale * cy - oldScale * cy);
    } else {
        const QSize areaAfter = scrollArea->geometry().size();
        const float centreX = h + areaBefore.width() / 2;
        const float centreY = v + areaBefore.height() / 2;
        newH = truncated(float(graphAfter.width()) * centreX / float(graphBefore.width()))
               - areaAfter.width() / 2;
        newV = truncated(float(graphAfter.height()) * centreY / float(graphBefore.height()))
               - areaAfter.height() / 2;
    }
    horizontal->setValue(qBound(0, newH, graphAfter.width()));
    vertical->setValue(qBound(0, newV, graphAfter.height()));
}

void ProfilerDSPNetGraph::mousePressEvent(QMouseEvent* event)
{
    lastMousePos = event->localPos().toPoint();
    graph->setCursor(Qt::ClosedHandCursor);
}

// The picture follows the mouse at twice its speed.
void ProfilerDSPNetGraph::mouseMoveEvent(QMouseEvent* event)
{
    const QPoint position = event->localPos().toPoint();
    const QPoint delta = lastMousePos - position;
    lastMousePos = position;
    scrollBy(2 * delta.x(), 2 * delta.y());
}

void ProfilerDSPNetGraph::mouseReleaseEvent(QMouseEvent* event)
{
    Q_UNUSED(event);
    graph->setCursor(Qt::OpenHandCursor);
}
