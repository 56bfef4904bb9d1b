#include "dspnetgraph.h"

#include "dspnetgraphgeometry.h"

#include <QAction>
#include <QImageReader>
#include <QMenu>
#include <QMouseEvent>
#include <QTimer>

using namespace DSPNetGraphGeometry;

namespace
{

QImage loadFaceplate(const QString& fileName, const QSize& size)
{
    QImageReader reader(fileName);
    reader.setScaledSize(size);
    return reader.read();
}

} // namespace

int findOwnIndex(QVector<DSPGroupGraphicalNode>& groups, unsigned long long id)
{
    for (int i = 0; i < groups.size(); ++i) {
        if (groups.at(i).id == id)
            return i;
    }
    return -1;
}

DSPNetGraph::DSPNetGraph(DSPTree* tree, QWidget* parent, Qt::WindowFlags flags)
    : QWidget(parent, flags), tree(tree), refreshTimer(new QTimer(this)), layoutTimer(new QTimer(this)),
      layoutStartTimer(new QTimer(this))
{
    createDrawingResources();
    refreshTimer->setSingleShot(true);
    connect(refreshTimer, &QTimer::timeout, this, QOverload<>::of(&QWidget::update));
    // A large network's layout runs on a timer that is not yet due when the
    // loop comes round, so the input that came during the decode goes first;
    // a posted call or a due timer would run ahead of it. Started in the
    // decode's own turn, it could come due before that turn ends (the
    // packet's other slots, paints posted meanwhile), so a zero timer starts
    // it from the next turn.
    layoutTimer->setSingleShot(true);
    layoutTimer->setTimerType(Qt::PreciseTimer);
    layoutTimer->setInterval(1);
    connect(layoutTimer, &QTimer::timeout, this, &DSPNetGraph::slotProcessTree);
    layoutStartTimer->setSingleShot(true);
    layoutStartTimer->setInterval(0);
    connect(layoutStartTimer, &QTimer::timeout, layoutTimer, QOverload<>::of(&QTimer::start));
    connect(tree, &DSPTree::dspNetTreeUpdated, this, &DSPNetGraph::slotTreeUpdated);
    updateGraphicSize();
}

DSPNetGraph::~DSPNetGraph() = default;

void DSPNetGraph::slotTreeUpdated()
{
    if (tree->nodesById.size() < DeferredLayoutUnits) {
        layoutStartTimer->stop();
        layoutTimer->stop();
        slotProcessTree();
        return;
    }
    // Updates that come before the layout runs are laid out by it.
    if (!layoutTimer->isActive() && !layoutStartTimer->isActive())
        layoutStartTimer->start();
}

void DSPNetGraph::refresh()
{
    if (!refreshTimer->isActive())
        refreshTimer->start(10);
}

// A widget that changed size is repainted whole after this turn anyway; the
// refresh 10 ms later would paint the same picture a second time.
void DSPNetGraph::refreshAfterResize(bool resized)
{
    if (resized)
        update();
    else
        refresh();
}

void DSPNetGraph::setShowExcessiveInputs(bool show)
{
    showExcessiveInputs = show;
    slotProcessTree();
}

void DSPNetGraph::setShowInactiveInputs(bool show)
{
    showInactiveInputs = show;
    slotProcessTree();
}

void DSPNetGraph::setShowCPUUsage(bool show)
{
    showCPUUsage = show;
    refresh();
}

void DSPNetGraph::setShowVolumeLevels(bool show)
{
    showVolumeLevels = show;
    refresh();
}

void DSPNetGraph::setShowGroups(bool show)
{
    showGroups = show;
    refresh();
}

void DSPNetGraph::setShowGuids(bool show)
{
    showGuids = show;
    refresh();
}

void DSPNetGraph::setShowSends(bool show)
{
    showSends = show;
    refresh();
}

void DSPNetGraph::setShowLegend(bool show)
{
    showLegend = show;
    refresh();
}

void DSPNetGraph::setInclusiveCPUUsage(bool inclusive)
{
    inclusiveCPUUsage = inclusive;
    refresh();
}

void DSPNetGraph::setMinCPUUsage(float usage)
{
    if (usage >= 0.0f && usage < maxCPUUsage)
        minCPUUsage = usage;
    refresh();
}

void DSPNetGraph::setMaxCPUUsage(float usage)
{
    if (usage <= 100.0f && usage > minCPUUsage)
        maxCPUUsage = usage;
    refresh();
}

void DSPNetGraph::setHighlightName(QString name)
{
    // The panel repaints itself after every edit; no timer needed here.
    highlightName = name;
}

void DSPNetGraph::setScale(float newScale)
{
    const float clamped = qMax(qMin(newScale, 2.0f), 0.2f);
    if (clamped == scale)
        return;
    scale = clamped;
    updateGraphicSize();
    refreshAfterResize(updateWidgetSize(true));
}

void DSPNetGraph::updateGraphicSize()
{
    const QSize size(static_cast<int>(NodeWidth * scale), static_cast<int>(NodeHeight * scale));
    faceplateImage = loadFaceplate(QStringLiteral(":Profiler/node-faceplate.png"), size);
    faceplateHighlightImage =
        loadFaceplate(QStringLiteral(":Profiler/node-faceplate-highlight.png"), size);
}

bool DSPNetGraph::updateWidgetSize(bool force)
{
    const int width = static_cast<int>((maxX + ExtraWidth) * scale);
    const int height = static_cast<int>((maxY + ExtraHeight) * scale);
    if (force || width > widgetWidth)
        widgetWidth = width;
    if (force || height > widgetHeight)
        widgetHeight = height;
    // Qt refuses (with a warning) sizes beyond its limit; a network that
    // deep is clipped rather than reported on every update.
    const QSize size(qMin(widgetWidth, QWIDGETSIZE_MAX), qMin(widgetHeight, QWIDGETSIZE_MAX));
    if (size == minimumSize() && size == maximumSize())
        return false;
    setMinimumSize(size);
    setMaximumSize(size);
    return true;
}

void DSPNetGraph::updateSelectedNode()
{
    if (!selectedFound) {
        clearSelection();
        return;
    }
    if (selectedNewPosition != selectedPosition) {
        const QPoint previousPosition = selectedPosition;
        selectedPosition = selectedNewPosition;
        emit selectedNodePositionChanged(selectedPosition, previousPosition);
    }
}

void DSPNetGraph::clearSelection()
{
    selectedId = NoSelection;
    selectedGroupId = NoSelection;
}

bool DSPNetGraph::getSelectedNodeRect(QRectF& rect) const
{
    if (selectedId == NoSelection)
        return false;
    rect = QRectF(selectedPosition.x(), selectedPosition.y(), NodeWidth, NodeHeight);
    return true;
}

void DSPNetGraph::slotDSPEnable()
{
    tree->sendDSPCommandEnable(menuTargetId, true);
}

void DSPNetGraph::slotDSPDisable()
{
    tree->sendDSPCommandEnable(menuTargetId, false);
}

void DSPNetGraph::slotDSPBypass()
{
    tree->sendDSPCommandBypass(menuTargetId, true);
}

void DSPNetGraph::slotDSPUnbypass()
{
    tree->sendDSPCommandBypass(menuTargetId, false);
}

void DSPNetGraph::mousePressEvent(QMouseEvent* event)
{
    mousePressed = true;
    QWidget::mousePressEvent(event);
}

// Mouse tracking is off, so this only runs with a button held: any movement
// turns the press into a drag, which the panel uses for panning.
void DSPNetGraph::mouseMoveEvent(QMouseEvent* event)
{
    mousePressed = false;
    QWidget::mouseMoveEvent(event);
}

void DSPNetGraph::mouseReleaseEvent(QMouseEvent* event)
{
    const bool selectingButton = event->button() == Qt::LeftButton
                                 || event->button() == Qt::RightButton;
    if (!mousePressed || !selectingButton) {
        QWidget::mouseReleaseEvent(event);
        return;
    }

    const int index = nodeIndexAt(event->localPos().toPoint());
    if (index < 0) {
        // The old highlight stays until something else repaints.
        clearSelection();
        return;
    }
    // A copy: the menu's event loop may run a layout pass.
    const DSPNetGraphicalNode node = nodeList.at(index);
    selectedId = node.id;
    selectedGroupId = node.groupId;
    selectedPosition = node.position;
    refresh();
    if (event->button() == Qt::RightButton) {
        menuTargetId = node.id;
        runNodeMenu(node, event->screenPos().toPoint());
    }
    QWidget::mouseReleaseEvent(event);
}

int DSPNetGraph::nodeIndexAt(const QPoint& point) const
{
    for (int i = 0; i < nodeList.size(); ++i) {
        const QPoint position = nodeList.at(i).position;
        const QRectF box(position.x() * scale, position.y() * scale, NodeWidth * scale,
                         NodeHeight * scale);
        if (box.contains(point))
            return i;
    }
    return -1;
}

// Each action offers the opposite of the state its check mark shows; the
// drawing changes only when the target reports the new state.
void DSPNetGraph::runNodeMenu(const DSPNetGraphicalNode& node, const QPoint& screenPosition)
{
    QMenu menu(this);
    menu.setTitle(node.name);
    QAction* activeAction = menu.addAction(QStringLiteral("Active"));
    activeAction->setCheckable(true);
    activeAction->setChecked(node.active);
    connect(activeAction, &QAction::triggered, this,
            node.active ? &DSPNetGraph::slotDSPDisable : &DSPNetGraph::slotDSPEnable);
    QAction* bypassAction = menu.addAction(QStringLiteral("Bypass"));
    bypassAction->setCheckable(true);
    bypassAction->setChecked(node.bypass);
    connect(bypassAction, &QAction::triggered, this,
            node.bypass ? &DSPNetGraph::slotDSPUnbypass : &DSPNetGraph::slotDSPBypass);
    menu.exec(screenPosition);
}
