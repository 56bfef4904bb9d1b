#ifndef DSPNETGRAPHINDEX_H
#define DSPNETGRAPHINDEX_H

#include <QRectF>

#include <vector>

// Finds which of a fixed list of boxes may meet an area, in time that
// grows with what lies near the area rather than with the list.
//
// A loose grid on several levels: level (lx, ly) has cells 2^lx times as
// wide and 2^ly times as tall as the finest, and each box goes once into
// the coarsest-needed level, the first one whose cells are at least its
// size, in the cell holding its top-left corner. A box then ends within
// one cell to the right and below its own, so an area looks at the cells
// it covers plus one column to the left and one row above, on every level
// that holds boxes. Units fill the finest level; a connection or a group
// box that spans many rows sits once on a coarse one instead of in every
// row it crosses, so the storage is one entry per box whatever the
// shapes. The finest cells are coarsened until there are at most a few
// per box, which keeps the cell tables O(N) even for a long, thin graph.
//
// Built in O(N) by counting sort into flat arrays that keep their room
// from one build to the next. The grid is built on the first find() past
// a few after finish(): until then each find() is one pass over the boxes,
// several times cheaper than a build. A live view paints each layout about
// once, so it never pays for a grid; a view scrolled over one layout does,
// once.
class DSPNetGraphBoxIndex
{
public:
    void start(int count);
    void add(const QRectF& box);
    // Edges included, left <= right and top <= bottom.
    void add(int left, int top, int right, int bottom)
    {
        boxes.push_back({ left, top, right, bottom });
    }
    void finish();
    int size() const { return int(boxes.size()); }
    // Appends the numbers (in the order added) of the boxes that meet
    // `area`, ascending; a box that does not meet it may be among them
    // only if it lies within a pixel of it.
    void find(const QRectF& area, std::vector<int>* found);

private:
    struct Box
    {
        int left;
        int top;
        int right;
        int bottom;
    };
    struct Grid
    {
        int shiftX;
        int shiftY;
        qint64 columns;
        qint64 rows;
        qint64 firstCell;
    };
    static const int MaxLevels = 32;

    void buildGrid();
    void scan(int left, int top, int right, int bottom, std::vector<int>* found) const;
    int levelFor(int extent, int baseShift) const;
    int gridFor(int levelX, int levelY);
    void chooseBaseCells();

    std::vector<Box> boxes;
    std::vector<Grid> grids;
    // Per box: its grid, then its cell.
    std::vector<int> cellOf;
    // Cell c holds entries[cellStart[c] .. cellStart[c + 1]).
    std::vector<int> cellStart;
    std::vector<int> entries;
    int gridByLevel[MaxLevels][MaxLevels];
    int originX = 0;
    int originY = 0;
    int spanX = 0;
    int spanY = 0;
    int baseShiftX = 8;
    int baseShiftY = 7;
    // Finds answered by a pass since finish(); -1 once the grid is built.
    int scans = 0;
};

#endif // DSPNETGRAPHINDEX_H
