#include "dspnetgraph.h"

#include "prefetch.h"

#include <QBrush>
#include <QPaintEvent>
#include <QFontMetricsF>
#include <QPainter>

#include <numeric>

namespace
{

// Inner area of a node box, inside the faceplate's frame.
const int InsetX = 3;
const int InsetY = 3;
const int InnerWidth = 114;
const int InnerHeight = 39;

// Widest a unit draws: its meters may run past the box when it has more than
// sixteen channels.
const float BarWidth = InnerWidth * 0.0625f;
// Room for antialiasing and the widest pen around anything culled.
const qreal CullMargin = 3;

QPen makePen(const QColor& colour, qreal width, Qt::PenStyle style)
{
    return QPen(QBrush(colour, Qt::SolidPattern), width, style, Qt::SquareCap, Qt::BevelJoin);
}

QString hexId(unsigned long long id)
{
    return QString::asprintf("%016llX", id);
}

// An empty area means the painter is not clipped: everything is drawn.
// Whether the segment itself, not only its bounding box, comes near the
// area (Liang-Barsky). A long diagonal whose box meets the view often does not.
bool segmentMeets(const QLineF& line, const QRectF& rect)
{
    qreal t0 = 0.0;
    qreal t1 = 1.0;
    const qreal p[4] = { -line.dx(), line.dx(), -line.dy(), line.dy() };
    const qreal q[4] = { line.x1() - rect.left(), rect.right() - line.x1(), line.y1() - rect.top(),
                         rect.bottom() - line.y1() };
    for (int i = 0; i < 4; ++i) {
        if (p[i] == 0.0) {
            if (q[i] < 0.0)
                return false;
            continue;
        }
        const qreal t = q[i] / p[i];
        if (p[i] < 0.0)
            t0 = qMax(t0, t);
        else
            t1 = qMin(t1, t);
    }
    return t0 <= t1;
}

bool inView(const QRectF& visible, const QRectF& bounds)
{
    return visible.isNull() || visible.intersects(bounds);
}

QRectF lineBounds(const QLine& line)
{
    return QRectF(QPointF(line.p1()), QPointF(line.p2()))
        .normalized()
        .adjusted(-CullMargin, -CullMargin, CullMargin, CullMargin);
}

void drawLines(QPainter* painter, const QPen& pen, const QVector<QLine>& lines,
               const std::vector<int>& candidates, const QRectF& visible)
{
    painter->setPen(pen);
    for (int i : candidates) {
        const QLine& line = lines.at(i);
        if (inView(visible, lineBounds(line)))
            painter->drawLine(line);
    }
}

void indexLines(DSPNetGraphBoxIndex* index, const QVector<QLine>& lines)
{
    index->start(lines.size());
    for (const QLine& line : lines) {
        index->add(qMin(line.x1(), line.x2()), qMin(line.y1(), line.y2()), qMax(line.x1(), line.x2()),
                   qMax(line.y1(), line.y2()));
    }
    index->finish();
}

void drawLegendRow(QPainter* painter, int y, const QPen& pen, const QPen& textPen,
                   const QString& label)
{
    painter->setPen(pen);
    painter->drawLine(10, y, 30, y);
    painter->setPen(textPen);
    painter->drawText(QPoint(40, y + 3), label);
}

} // namespace

void DSPNetGraph::createDrawingResources()
{
    textPen = makePen(QColor(255, 255, 255), 1, Qt::SolidLine);
    greyPen = makePen(QColor(113, 113, 113), 1, Qt::SolidLine);
    textShadowPen = makePen(QColor(0, 0, 0, 128), 1, Qt::SolidLine);
    standardPen = makePen(QColor(200, 200, 200), 2, Qt::SolidLine);
    sendPen = makePen(QColor(200, 200, 200), 2, Qt::DotLine);
    sidechainPen = makePen(QColor(50, 150, 50), 2, Qt::SolidLine);
    sendSidechainPen = makePen(QColor(50, 150, 50), 2, Qt::DotLine);
    ellipsisPen = makePen(QColor(200, 200, 200), 1, Qt::SolidLine);
    groupPen = makePen(QColor(100, 100, 50), 1, Qt::DashLine);
    nestedGroupPen = makePen(QColor(150, 150, 125), 1, Qt::DashLine);
    groupTextPen = makePen(QColor(255, 255, 200), 1, Qt::SolidLine);
    nestedGroupTextPen = makePen(QColor(255, 255, 200), 1, Qt::SolidLine);

    activeColour = QColor(66, 186, 255);
    defaultColour = QColor(49, 56, 64);
    bypassColour = QColor(Qt::white);
    highlightColour = QColor(Qt::magenta);
    meterBackgroundColour = activeColour.lighter(150);
    meterColour = QColor(Qt::darkGreen);
    meterClipColour = QColor(Qt::darkRed);

    nodeFont.setPointSize(7);
    nodeFont.setStyleHint(QFont::SansSerif, QFont::PreferOutline);
    nodeFont.setStretch(125);
    markerFont.setPointSize(24);
}

// A large network costs painting time per unit even where nothing shows, so
// a clipped paint takes only the items the index finds near the clip and
// tests those as before; what is drawn is the same pixel for pixel.
void DSPNetGraph::renderTree(QPainter* painter, bool forImage)
{
    if (paintIndexStale) {
        indexForPainting();
        paintIndexStale = false;
    }
    const QRectF visible = painter->hasClipping() ? painter->clipBoundingRect() : QRectF();
    const QRectF logicalVisible(visible.topLeft() / scale, visible.size() / scale);
    // Room for the widest margin any test below adds, in device (scaled)
    // or logical coordinates, and for the rounding of scaled send lines.
    const qreal room = (CullMargin + 1) / scale + CullMargin + 1;
    paintArea = visible.isNull() ? QRectF() : logicalVisible.adjusted(-room, -room, room, room);
    painter->setRenderHint(QPainter::Antialiasing);
    painter->setRenderHint(QPainter::TextAntialiasing);
    if (showSends)
        drawSendLines(painter, visible);
    drawNodes(painter, visible);
    if (showGroups || showGuids)
        drawGroupBoxes(painter, forImage, visible);

    // Everything from here on is in logical coordinates.
    painter->scale(scale, scale);
    drawNodeTexts(painter, logicalVisible);
    drawMarkers(painter);
    drawConnections(painter, logicalVisible);
    if (showLegend)
        drawLegend(painter);
}

// Drawn before the painter is scaled so the dots keep their size at any zoom.
void DSPNetGraph::drawSendLines(QPainter* painter, const QRectF& visible)
{
    painter->setPen(sendPen);
    for (int i : paintCandidates(sendLineIndex, sendLines.size(), paintArea)) {
        const QLine& line = sendLines.at(i);
        const QLine scaled(qRound(line.x1() * scale), qRound(line.y1() * scale),
                           qRound(line.x2() * scale), qRound(line.y2() * scale));
        if (!inView(visible, lineBounds(scaled)))
            continue;
        if (!visible.isNull()
            && !segmentMeets(QLineF(scaled), visible.adjusted(-CullMargin, -CullMargin, CullMargin, CullMargin)))
            continue;
        painter->drawLine(scaled);
    }
}

void DSPNetGraph::drawNodes(QPainter* painter, const QRectF& visible)
{
    for (int i : paintCandidates(unitIndex, nodeList.size(), paintArea)) {
        const DSPNetGraphicalNode& node = nodeList.at(i);
        const QRectF bounds = nodeBounds(node);
        const QRectF scaled(bounds.topLeft() * scale, bounds.size() * scale);
        if (inView(visible, scaled.adjusted(-CullMargin, -CullMargin, CullMargin, CullMargin)))
            drawNode(painter, node);
    }
}

// In logical coordinates; the meters may reach past the box.
QRectF DSPNetGraph::nodeBounds(const DSPNetGraphicalNode& node) const
{
    const qreal meters = InsetX + node.levels.size() * BarWidth + 1;
    return QRectF(node.position, QSizeF(qMax<qreal>(120, meters), 45));
}

void DSPNetGraph::drawNode(QPainter* painter, const DSPNetGraphicalNode& node)
{
    const float x0 = (node.position.x() + InsetX) * scale;
    const float y0 = (node.position.y() + InsetY) * scale;
    painter->fillRect(QRectF(x0, y0, InnerWidth * scale, InnerHeight * scale), fillColour(node));
    if (node.active && showVolumeLevels)
        drawLevelMeters(painter, node, x0, y0);
    const QPointF corner(node.position.x() * scale, node.position.y() * scale);
    painter->drawImage(corner, isSelected(node) ? faceplateHighlightImage : faceplateImage);
}

// Sixteen bars span the box. The separators take whatever pen is current
// (the send pen when sends are shown), which gives them their dotted look.
void DSPNetGraph::drawLevelMeters(QPainter* painter, const DSPNetGraphicalNode& node, float x0,
                                  float y0)
{
    const float barWidth = InnerWidth * scale * 0.0625f;
    const int count = node.levels.size();
    painter->fillRect(QRectF(x0, y0, count * barWidth, InnerHeight * scale),
                      meterBackgroundColour);
    const int bottom = static_cast<int>(y0 + InnerHeight * scale);
    for (int i = 0; i < count; ++i) {
        const float value = node.levels.at(i);
        // Bytes below -80 dB would give a bar hanging under the box.
        const float height = qMax(0.0f, qMin(value, 1.0f) * InnerHeight * scale);
        const int left = static_cast<int>(x0 + i * barWidth);
        painter->fillRect(QRect(left, bottom, static_cast<int>(barWidth),
                                -static_cast<int>(height)),
                          value <= 1.0f ? meterColour : meterClipColour);
        const int separator = static_cast<int>(x0 + i * barWidth + barWidth);
        painter->drawLine(separator, static_cast<int>(y0), separator, bottom);
    }
}

void DSPNetGraph::drawGroupBoxes(QPainter* painter, bool forImage, const QRectF& visible)
{
    const QFontMetricsF metrics(painter->font());
    // The index knows the boxes, not how far their texts reach in this font.
    const qreal textReach = groupTextLength * metrics.maxWidth() / scale;
    const qreal textHeight = metrics.height() / scale;
    const QRectF area = paintArea.isNull() ? QRectF()
                                           : paintArea.adjusted(-textReach, -textHeight, 0, textHeight);
    for (int i : paintCandidates(groupBoxIndex, groupList.size(), area)) {
        const DSPGroupGraphicalNode& group = groupList.at(i);
        if (!visible.isNull()) {
            const QRectF box(group.rect.x() * scale, group.rect.y() * scale, group.rect.width() * scale,
                             group.rect.height() * scale);
            // The texts hang below the box and are no wider than their widest glyphs.
            const qreal textWidth = (group.name.size() + group.guidString.size() + 1) * metrics.maxWidth();
            const qreal below = (group.level * 5 + 10) * scale + metrics.height();
            const QRectF bounds = box.united(QRectF(box.left(), box.top(), textWidth, box.height() + below))
                                      .adjusted(-CullMargin, -CullMargin - metrics.height(), CullMargin, CullMargin);
            if (!visible.intersects(bounds))
                continue;
        }
        drawGroupBox(painter, group, forImage);
    }
}

void DSPNetGraph::drawGroupBox(QPainter* painter, const DSPGroupGraphicalNode& group,
                               bool forImage)
{
    painter->setPen(group.level == 0 ? groupPen : nestedGroupPen);
    painter->drawRect(QRectF(group.rect.x() * scale, group.rect.y() * scale,
                             group.rect.width() * scale, group.rect.height() * scale));
    if (scale < 0.5f)
        return;

    const float down = group.level * 5 * scale;
    const int baseX = static_cast<int>(group.rect.x() * scale);
    const float baseY = group.rect.y() * scale + group.rect.height() * scale;
    QPen pen = group.level == 0 ? groupTextPen : nestedGroupTextPen;
    // A saved image has no background, so the pale text would vanish on white.
    if (forImage)
        pen.setColor(activeColour);
    painter->setPen(pen);

    const bool showGuid = !group.guidString.isEmpty() && showGuids;
    bool guidDrawn = false;
    if (!group.name.isEmpty() && showGroups) {
        QString text = group.name;
        if (showGuid && group.rect.width() > 240) {
            text += QLatin1Char(' ') + group.guidString;
            guidDrawn = true;
        }
        painter->drawText(QPoint(baseX, static_cast<int>(baseY + down)), text);
    }
    if (showGuid && !guidDrawn) {
        const int y = static_cast<int>(baseY + (group.level * 5 + 10) * scale);
        painter->drawText(QPoint(baseX, y), group.guidString);
    }
}

// Qt clips a text that does not fit to its rectangle, inside the box.
void DSPNetGraph::drawNodeTexts(QPainter* painter, const QRectF& visible)
{
    const int flags = Qt::AlignHCenter | Qt::AlignVCenter | Qt::TextWordWrap;
    painter->setFont(nodeFont);
    for (int i : paintCandidates(unitIndex, nodeList.size(), paintArea)) {
        const DSPNetGraphicalNode& node = nodeList.at(i);
        if (!inView(visible, QRectF(node.position, QSizeF(120, 45)).adjusted(-1, -1, 1, 1)))
            continue;
        QString text = node.name;
        if (showCPUUsage) {
            text = QStringLiteral("[%1%]\n%2")
                       .arg(QString::number(nodeCPU(node) * 100, 'f', 2), node.name);
        }
        const int x = node.position.x();
        const int y = node.position.y();
        painter->setPen(textShadowPen);
        painter->drawText(QRect(QPoint(x + 5, y + 6), QPoint(x + 114, y + 40)), flags, text);
        painter->setPen(textPen);
        painter->drawText(QRect(QPoint(x + 5, y + 5), QPoint(x + 114, y + 39)), flags, text);
    }
}

// Only the index culls markers: a text may reach past its rectangle, by
// less than its own height and width.
void DSPNetGraph::drawMarkers(QPainter* painter)
{
    painter->setFont(markerFont);
    painter->setPen(ellipsisPen);
    const QFontMetricsF metrics = painter->fontMetrics();
    const qreal reach = metrics.height() + metrics.horizontalAdvance(QStringLiteral("..."));
    const QRectF area = paintArea.isNull() ? QRectF() : paintArea.adjusted(-reach, -reach, reach, reach);
    for (int i : paintCandidates(markerIndex, ellipsisPoints.size(), area)) {
        const QPoint& point = ellipsisPoints.at(i);
        painter->drawText(QRect(point, point + QPoint(119, 44)), Qt::AlignCenter,
                          QStringLiteral("..."));
    }
}

// Send lines were drawn first, under the units.
void DSPNetGraph::drawConnections(QPainter* painter, const QRectF& visible)
{
    drawLines(painter, standardPen, standardLines,
              paintCandidates(standardLineIndex, standardLines.size(), paintArea), visible);
    drawLines(painter, sidechainPen, sidechainLines,
              paintCandidates(sidechainLineIndex, sidechainLines.size(), paintArea), visible);
    drawLines(painter, sendSidechainPen, sendSidechainLines,
              paintCandidates(sendSidechainLineIndex, sendSidechainLines.size(), paintArea), visible);
}

// Every box in logical coordinates and without the margins the device
// tests add: paintArea makes room for those. A layout of N items costs
// O(N) here.
void DSPNetGraph::indexForPainting()
{
    // The group names lie all over the heap: each is asked for ahead, or
    // their sizes would stall the pass once per box. A unit's meter levels
    // lie inside it.
    const int units = nodeList.size();
    unitIndex.start(units);
    for (int i = 0; i < units; ++i) {
        const DSPNetGraphicalNode& node = nodeList.at(i);
        // Sixteen meters or fewer fit in the box.
        if (node.levels.size() > 16) {
            unitIndex.add(nodeBounds(node));
        } else {
            const QPoint p = node.position;
            unitIndex.add(p.x(), p.y(), p.x() + 120, p.y() + 45);
        }
    }
    unitIndex.finish();
    indexLines(&standardLineIndex, standardLines);
    indexLines(&sidechainLineIndex, sidechainLines);
    indexLines(&sendSidechainLineIndex, sendSidechainLines);
    indexLines(&sendLineIndex, sendLines);
    markerIndex.start(ellipsisPoints.size());
    for (const QPoint& p : qAsConst(ellipsisPoints))
        markerIndex.add(p.x(), p.y(), p.x() + 119, p.y() + 44);
    markerIndex.finish();
    // A box's texts start at its left edge and hang below it by its nesting.
    groupTextLength = 0;
    const int groups = groupList.size();
    groupBoxIndex.start(groups);
    for (int i = 0; i < groups; ++i) {
        if (i + Prefetch::Distance < groups) {
            Prefetch::block(groupList.at(i + Prefetch::Distance).name);
            Prefetch::block(groupList.at(i + Prefetch::Distance).guidString);
        }
        const DSPGroupGraphicalNode& group = groupList.at(i);
        groupTextLength = qMax(groupTextLength, group.name.size() + group.guidString.size() + 1);
        groupBoxIndex.add(group.rect.adjusted(0, 0, 0, qMax(0, group.level * 5 + 10)));
    }
    groupBoxIndex.finish();
}

// The items of one list a paint may draw, in the list's order: those the
// index finds near the area, or all of them when nothing is clipped or the
// list changed since it was indexed (the callers still test each one).
const std::vector<int>& DSPNetGraph::paintCandidates(DSPNetGraphBoxIndex& index, int count,
                                                     const QRectF& area)
{
    paintFound.clear();
    if (paintIndexed && !area.isNull() && index.size() == count) {
        index.find(area, &paintFound);
        return paintFound;
    }
    paintFound.resize(size_t(count));
    std::iota(paintFound.begin(), paintFound.end(), 0);
    return paintFound;
}

// In the leftmost column around the last row; the widget's extra height
// below maxY leaves room for it.
void DSPNetGraph::drawLegend(QPainter* painter)
{
    const int y = maxY;
    painter->setFont(nodeFont);
    painter->setPen(textPen);
    painter->drawText(QPoint(10, y - 27), QStringLiteral("Connections:"));
    drawLegendRow(painter, y - 15, standardPen, textPen, QStringLiteral("Standard"));
    drawLegendRow(painter, y, sidechainPen, textPen, QStringLiteral("Sidechain"));
    drawLegendRow(painter, y + 15, sendPen, textPen, QStringLiteral("Send"));
    drawLegendRow(painter, y + 30, sendSidechainPen, textPen, QStringLiteral("Send Sidechain"));
}

// "0x" followed by at least one digit searches ids from their last digit
// backwards, so a short suffix finds a handle copied from a log; anything
// else searches the names.
bool DSPNetGraph::matchesHighlight(const DSPNetGraphicalNode& node) const
{
    if (highlightName.isEmpty())
        return false;
    if (highlightName.startsWith(QLatin1String("0x")) && highlightName.length() >= 3) {
        const QString digits = highlightName.mid(2);
        return hexId(node.id).endsWith(digits, Qt::CaseInsensitive)
               || hexId(node.groupId).endsWith(digits, Qt::CaseInsensitive);
    }
    return node.name.contains(highlightName, Qt::CaseSensitive);
}

QColor DSPNetGraph::fillColour(const DSPNetGraphicalNode& node) const
{
    if (matchesHighlight(node))
        return highlightColour;
    if (node.bypass)
        return bypassColour;
    if (node.active)
        return showCPUUsage ? cpuColour(node) : activeColour;
    return defaultColour;
}

// Green at the low threshold through yellow to red at the high one.
QColor DSPNetGraph::cpuColour(const DSPNetGraphicalNode& node) const
{
    const float usage = nodeCPU(node);
    const float t = qBound(0.0f, (usage - minCPUUsage) * (1.0f / (maxCPUUsage - minCPUUsage)),
                           1.0f);
    const int hue = static_cast<int>((1.0f - t) * 120);
    return QColor::fromHsv(hue, 255, 255, 255);
}

float DSPNetGraph::nodeCPU(const DSPNetGraphicalNode& node) const
{
    return inclusiveCPUUsage ? node.inclusiveCPU : node.exclusiveCPU;
}

bool DSPNetGraph::isSelected(const DSPNetGraphicalNode& node) const
{
    return node.id == selectedId && node.groupId == selectedGroupId;
}

void DSPNetGraph::paintEvent(QPaintEvent* event)
{
    QPainter painter(this);
    // The exposed area is already the limit; stating it lets renderTree skip
    // what lies outside.
    painter.setClipRect(event->rect());
    renderTree(&painter, false);
}

void DSPNetGraph::saveTree(QString fileName)
{
    QImage image(geometry().width(), geometry().height(), QImage::Format_ARGB32);
    if (!image.isNull()) {
        image.fill(Qt::transparent);
        QPainter painter(&image);
        renderTree(&painter, true);
    }
    image.save(fileName);
}
