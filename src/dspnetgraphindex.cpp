#include "dspnetgraphindex.h"

#include <QtGlobal>

#include <algorithm>

namespace
{

// Far beyond any layout, and small enough that spans cannot overflow.
const double CoordinateLimit = double(1 << 29);
// Finest cells: a column (200 px) and a row (75 px) of units each fit
// in one, rounded up to a power of two.
const int FinestShiftX = 8;
const int FinestShiftY = 7;
const int MaxShift = 30;
// A pass costs a fifth of a build or less; a paint asks the unit boxes twice.
const int ScansBeforeGrid = 3;

// Faster than std::floor and std::ceil, which the build of every layout
// calls four times per item.
int lowerBound(double value)
{
    const double bounded = qBound(-CoordinateLimit, value, CoordinateLimit);
    const int truncated = int(bounded);
    return truncated > bounded ? truncated - 1 : truncated;
}

int upperBound(double value)
{
    const double bounded = qBound(-CoordinateLimit, value, CoordinateLimit);
    const int truncated = int(bounded);
    return truncated < bounded ? truncated + 1 : truncated;
}

// Rounds towards minus infinity, unlike a shift of a negative number.
qint64 cellNumber(qint64 offset, int shift)
{
    return offset >= 0 ? offset >> shift : -((-offset + (qint64(1) << shift) - 1) >> shift);
}

} // namespace

void DSPNetGraphBoxIndex::start(int count)
{
    scans = 0;
    boxes.clear();
    boxes.reserve(size_t(qMax(0, count)));
}

// Either corner may come first; a NaN edge (which no layout makes) ends
// up at the limit.
void DSPNetGraphBoxIndex::add(const QRectF& box)
{
    const qreal x1 = box.x();
    const qreal x2 = x1 + box.width();
    const qreal y1 = box.y();
    const qreal y2 = y1 + box.height();
    boxes.push_back({ lowerBound(qMin(x1, x2)), lowerBound(qMin(y1, y2)), upperBound(qMax(x1, x2)),
                      upperBound(qMax(y1, y2)) });
}

void DSPNetGraphBoxIndex::finish()
{
    scans = 0;
}

void DSPNetGraphBoxIndex::buildGrid()
{
    scans = -1;
    grids.clear();
    for (auto& row : gridByLevel)
        std::fill(std::begin(row), std::end(row), -1);
    const int count = size();
    cellOf.resize(size_t(count));
    entries.resize(size_t(count));
    cellStart.assign(1, 0);
    if (count == 0)
        return;

    int right = boxes.front().left;
    int bottom = boxes.front().top;
    originX = right;
    originY = bottom;
    for (const Box& box : boxes) {
        originX = qMin(originX, box.left);
        originY = qMin(originY, box.top);
        right = qMax(right, box.left);
        bottom = qMax(bottom, box.top);
    }
    spanX = right - originX;
    spanY = bottom - originY;
    chooseBaseCells();

    for (int i = 0; i < count; ++i) {
        const Box& box = boxes[size_t(i)];
        cellOf[size_t(i)] = gridFor(levelFor(box.right - box.left, baseShiftX),
                                    levelFor(box.bottom - box.top, baseShiftY));
    }
    qint64 cells = 0;
    for (Grid& grid : grids) {
        grid.firstCell = cells;
        cells += grid.columns * grid.rows;
    }

    cellStart.assign(size_t(cells + 1), 0);
    for (int i = 0; i < count; ++i) {
        const Box& box = boxes[size_t(i)];
        const Grid& grid = grids[size_t(cellOf[size_t(i)])];
        const int cell = int(grid.firstCell + (qint64(box.top - originY) >> grid.shiftY) * grid.columns
                            + (qint64(box.left - originX) >> grid.shiftX));
        cellOf[size_t(i)] = cell;
        ++cellStart[size_t(cell + 1)];
    }
    for (size_t c = 1; c < cellStart.size(); ++c)
        cellStart[c] += cellStart[c - 1];
    // Filled in box order, so every cell lists its boxes ascending; the
    // cursors are the starts of the cells after, moved back afterwards.
    for (int i = 0; i < count; ++i)
        entries[size_t(cellStart[size_t(cellOf[size_t(i)])]++)] = i;
    for (size_t c = cellStart.size() - 1; c > 0; --c)
        cellStart[c] = cellStart[c - 1];
    cellStart[0] = 0;
}

// At most about four finest cells per box: a graph one row tall and
// thousands of columns wide (or the other way round) gets cells long in
// the direction it extends, instead of a table of empty ones.
void DSPNetGraphBoxIndex::chooseBaseCells()
{
    baseShiftX = FinestShiftX;
    baseShiftY = FinestShiftY;
    const qint64 limit = 4 * qint64(size()) + 64;
    for (;;) {
        const qint64 columns = (qint64(spanX) >> baseShiftX) + 1;
        const qint64 rows = (qint64(spanY) >> baseShiftY) + 1;
        if (columns * rows <= limit)
            return;
        // Both at the largest shift make at most four cells, under the limit.
        if (columns >= rows && baseShiftX < MaxShift)
            ++baseShiftX;
        else
            ++baseShiftY;
    }
}

int DSPNetGraphBoxIndex::levelFor(int extent, int baseShift) const
{
    int level = 0;
    while (baseShift + level < MaxShift && (qint64(1) << (baseShift + level)) < extent)
        ++level;
    return level;
}

int DSPNetGraphBoxIndex::gridFor(int levelX, int levelY)
{
    int& index = gridByLevel[levelX][levelY];
    if (index < 0) {
        Grid grid;
        grid.shiftX = baseShiftX + levelX;
        grid.shiftY = baseShiftY + levelY;
        grid.columns = (qint64(spanX) >> grid.shiftX) + 1;
        grid.rows = (qint64(spanY) >> grid.shiftY) + 1;
        grid.firstCell = 0;
        index = int(grids.size());
        grids.push_back(grid);
    }
    return index;
}

void DSPNetGraphBoxIndex::find(const QRectF& area, std::vector<int>* found)
{
    const QRectF r = area.normalized();
    const int left = lowerBound(r.left());
    const int top = lowerBound(r.top());
    const int right = upperBound(r.right());
    const int bottom = upperBound(r.bottom());
    if (scans >= 0 && scans < ScansBeforeGrid) {
        ++scans;
        scan(left, top, right, bottom, found);
        return;
    }
    if (scans >= 0)
        buildGrid();
    const size_t first = found->size();
    for (const Grid& grid : grids) {
        // A box reaches at most one cell past the one its corner is in.
        const qint64 column0 = qMax<qint64>(0, cellNumber(qint64(left) - originX, grid.shiftX) - 1);
        const qint64 column1 = qMin(grid.columns - 1, cellNumber(qint64(right) - originX, grid.shiftX));
        const qint64 row0 = qMax<qint64>(0, cellNumber(qint64(top) - originY, grid.shiftY) - 1);
        const qint64 row1 = qMin(grid.rows - 1, cellNumber(qint64(bottom) - originY, grid.shiftY));
        if (column0 > column1)
            continue;
        for (qint64 row = row0; row <= row1; ++row) {
            const qint64 rowCell = grid.firstCell + row * grid.columns;
            const int begin = cellStart[size_t(rowCell + column0)];
            const int end = cellStart[size_t(rowCell + column1 + 1)];
            // The cells of a row are contiguous, and so are their entries.
            for (int e = begin; e < end; ++e) {
                const int i = entries[size_t(e)];
                const Box& box = boxes[size_t(i)];
                if (box.left <= right && box.right >= left && box.top <= bottom && box.bottom >= top)
                    found->push_back(i);
            }
        }
    }
    std::sort(found->begin() + qint64(first), found->end());
}

void DSPNetGraphBoxIndex::scan(int left, int top, int right, int bottom, std::vector<int>* found) const
{
    const int count = size();
    for (int i = 0; i < count; ++i) {
        const Box& box = boxes[size_t(i)];
        if (box.left <= right && box.right >= left && box.top <= bottom && box.bottom >= top)
            found->push_back(i);
    }
}
