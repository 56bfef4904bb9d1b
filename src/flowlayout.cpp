#include "flowlayout.h"

#include <QWidget>

#include <algorithm>

FlowLayout::FlowLayout(int maximumRows)
    : QHBoxLayout()
    , maximumRows(qMax(1, maximumRows))
{
}

QSize FlowLayout::minimumSize() const
{
    const int contentWidth = minimumContentWidth();
    if (fitsOneRow(contentWidth + marginsWidth()))
        return QHBoxLayout::minimumSize();
    return QSize(contentWidth + marginsWidth(), tallestWrap() + marginsHeight());
}

// Squeezed items can share rows that at a little more width they would not,
// so a narrower row is not always the taller one. A window's minimum height
// must hold the tallest, whatever width it gets.
int FlowLayout::tallestWrap() const
{
    if (cachedTallest >= 0)
        return cachedTallest;
    const int narrowest = minimumContentWidth();
    const int widest = singleRowWidth() - marginsWidth();
    const int step = qMax(1, (widest - narrowest) / 64);
    int tallest = 0;
    for (int width = narrowest; width < widest; width += step)
        tallest = qMax(tallest, wrappedHeight(width));
    cachedTallest = tallest;
    return tallest;
}

bool FlowLayout::hasHeightForWidth() const
{
    return true;
}

int FlowLayout::heightForWidth(int width) const
{
    if (fitsOneRow(width))
        return QHBoxLayout::hasHeightForWidth() ? QHBoxLayout::heightForWidth(width) : QHBoxLayout::sizeHint().height();
    return wrappedHeight(width - marginsWidth()) + marginsHeight();
}

int FlowLayout::minimumHeightForWidth(int width) const
{
    return heightForWidth(width);
}

void FlowLayout::setGeometry(const QRect& rect)
{
    if (fitsOneRow(rect.width())) {
        QHBoxLayout::setGeometry(rect);
        return;
    }
    QLayout::setGeometry(rect);
    const QRect content = rect.marginsRemoved(contentsMargins());
    QVector<Row> rows;
    const QVector<Placement> placements = wrap(content.width(), &rows);
    int x = content.x();
    int y = content.y();
    int row = 0;
    int stretchesLeft = rows.isEmpty() ? 0 : rows.first().stretchItems;
    int spareLeft = rows.isEmpty() ? 0 : rows.first().spareWidth;
    bool rowHasItem = false;
    for (const Placement& placement : placements) {
        if (placement.row != row) {
            y += rows.at(row).height + gap();
            row = placement.row;
            x = content.x();
            stretchesLeft = rows.at(row).stretchItems;
            spareLeft = rows.at(row).spareWidth;
            rowHasItem = false;
        }
        if (placement.item->spacerItem()) {
            // Shares of the spare width; the last stretch takes what rounding left.
            const int share = stretchesLeft > 0 ? spareLeft / stretchesLeft : 0;
            placement.item->setGeometry(QRect(x, y, share, rows.at(row).height));
            x += share;
            spareLeft -= share;
            --stretchesLeft;
            continue;
        }
        if (rowHasItem)
            x += gap();
        const int rowHeight = rows.at(row).height;
        const int height = qMin(rowHeight, placement.item->maximumSize().height());
        placement.item->setGeometry(QRect(x, y + (rowHeight - height) / 2, placement.width, height));
        x += placement.width;
        rowHasItem = true;
    }
}

void FlowLayout::invalidate()
{
    cachedMinimumWidth = -1;
    cachedTallest = -1;
    QHBoxLayout::invalidate();
}

int FlowLayout::gap() const
{
    const int space = spacing();
    return space >= 0 ? space : 6;
}

int FlowLayout::singleRowWidth() const
{
    return QHBoxLayout::sizeHint().width();
}

int FlowLayout::marginsWidth() const
{
    const QMargins margins = contentsMargins();
    return margins.left() + margins.right();
}

int FlowLayout::marginsHeight() const
{
    const QMargins margins = contentsMargins();
    return margins.top() + margins.bottom();
}

bool FlowLayout::fitsOneRow(int width) const
{
    return width >= singleRowWidth();
}

// The narrowest content width at which no item is cut and the items take
// at most maximumRows rows. The number of rows only falls as the width
// grows, so a binary search finds it.
int FlowLayout::minimumContentWidth() const
{
    if (cachedMinimumWidth >= 0)
        return cachedMinimumWidth;
    int low = widestItem();
    int high = qMax(low, singleRowWidth() - marginsWidth());
    while (low < high) {
        const int middle = low + (high - low) / 2;
        if (rowCount(middle) <= maximumRows)
            high = middle;
        else
            low = middle + 1;
    }
    cachedMinimumWidth = low;
    return low;
}

int FlowLayout::widestItem() const
{
    int widest = 0;
    for (int i = 0; i < count(); ++i) {
        QLayoutItem* item = itemAt(i);
        if (!item->spacerItem() && !item->isEmpty())
            widest = qMax(widest, item->minimumSize().width());
    }
    return widest;
}

// A wrapping item's minimum height is that of its narrowest shape; at the
// width it is given here it needs only its height for that width.
int FlowLayout::itemHeight(QLayoutItem* item, int width) const
{
    if (item->hasHeightForWidth())
        return item->heightForWidth(width);
    return qMax(item->sizeHint().height(), item->minimumSize().height());
}

// Rows as if every item had its preferred width; when that takes more rows
// than allowed, as if every item could shrink to its minimum. Each row then
// shares its width out.
QVector<FlowLayout::Placement> FlowLayout::wrap(int contentWidth, QVector<Row>* rows) const
{
    QVector<Placement> placements = breakRows(contentWidth, true);
    if (placements.isEmpty() || placements.constLast().row >= maximumRows)
        placements = breakRows(contentWidth, false);
    rows->clear();
    rows->resize(placements.isEmpty() ? 1 : placements.constLast().row + 1);
    for (int first = 0; first < placements.size();) {
        int last = first;
        while (last + 1 < placements.size() && placements.at(last + 1).row == placements.at(first).row)
            ++last;
        fitRow(placements.data() + first, last - first + 1, contentWidth, &(*rows)[placements.at(first).row]);
        first = last + 1;
    }
    return placements;
}

QVector<FlowLayout::Placement> FlowLayout::breakRows(int contentWidth, bool preferredWidths) const
{
    QVector<Placement> placements;
    int row = 0;
    int used = 0;
    bool rowHasItem = false;
    int rowStretch = -1; // where the current row's last stretch is placed
    bool itemBeforeStretch = false;
    for (int i = 0; i < count(); ++i) {
        QLayoutItem* item = itemAt(i);
        if (item->spacerItem()) {
            itemBeforeStretch = rowHasItem;
            rowStretch = placements.size();
            placements.append({ item, 0, row });
            continue;
        }
        if (item->isEmpty())
            continue;
        // An item that expands, such as a text field, is the first to give up
        // its extra width, before anything moves to another row.
        const int minimum = item->minimumSize().width();
        const bool keepsPreferred = preferredWidths && !(item->expandingDirections() & Qt::Horizontal);
        const int width = keepsPreferred ? qMax(minimum, qMin(item->sizeHint().width(), contentWidth)) : minimum;
        // Twice at most: the group that moved on may itself leave no room.
        while (rowHasItem && used + gap() + width > contentWidth) {
            // The items after a stretch belong together at the row's right
            // end: they move on to the next row with it, and stay at the
            // right there.
            const int moved = rowStretch >= 0 && itemBeforeStretch ? rowStretch : placements.size();
            ++row;
            used = 0;
            rowHasItem = false;
            for (int j = moved; j < placements.size(); ++j) {
                placements[j].row = row;
                if (!placements.at(j).item->spacerItem()) {
                    used += (rowHasItem ? gap() : 0) + placements.at(j).width;
                    rowHasItem = true;
                }
            }
            rowStretch = moved < placements.size() ? moved : -1;
            itemBeforeStretch = false;
        }
        used += (rowHasItem ? gap() : 0) + width;
        rowHasItem = true;
        placements.append({ item, width, row });
    }
    return placements;
}

// Items get their preferred widths and the stretches what is left over.
// When the preferred widths do not fit, expanding items give up their extra
// width first; if that is not enough, every other item gives up the same
// share of what it has above its minimum.
void FlowLayout::fitRow(Placement* placements, int count, int contentWidth, Row* row) const
{
    int items = 0;
    int minimumTotal = 0;
    int expandingExtra = 0;
    int otherExtra = 0;
    for (int i = 0; i < count; ++i) {
        QLayoutItem* item = placements[i].item;
        if (item->spacerItem()) {
            ++row->stretchItems;
            continue;
        }
        ++items;
        minimumTotal += item->minimumSize().width();
        (item->expandingDirections() & Qt::Horizontal ? expandingExtra : otherExtra) += extraWidth(item);
    }
    const int available = contentWidth - gap() * qMax(0, items - 1);
    const int room = qMax(0, available - minimumTotal);
    const int otherRoom = qMin(room, otherExtra);
    const int expandingRoom = qMin(room - otherRoom, expandingExtra);
    int used = 0;
    for (int i = 0; i < count; ++i) {
        QLayoutItem* item = placements[i].item;
        if (item->spacerItem())
            continue;
        const bool expanding = item->expandingDirections() & Qt::Horizontal;
        const int extra = extraWidth(item);
        const int total = expanding ? expandingExtra : otherExtra;
        const int share = expanding ? expandingRoom : otherRoom;
        placements[i].width = item->minimumSize().width() + (total == 0 ? 0 : int(qint64(extra) * share / total));
        used += placements[i].width;
        row->height = qMax(row->height, itemHeight(item, placements[i].width));
    }
    row->spareWidth = qMax(0, available - used);
}

int FlowLayout::extraWidth(QLayoutItem* item) const
{
    return qMax(0, item->sizeHint().width() - item->minimumSize().width());
}

int FlowLayout::wrappedHeight(int contentWidth) const
{
    QVector<Row> rows;
    wrap(contentWidth, &rows);
    int height = 0;
    for (const Row& row : qAsConst(rows))
        height += row.height;
    return height + gap() * (rows.size() - 1);
}

int FlowLayout::rowCount(int contentWidth) const
{
    QVector<Row> rows;
    wrap(contentWidth, &rows);
    return rows.size();
}
