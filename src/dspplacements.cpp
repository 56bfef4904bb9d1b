#include "dspplacements.h"

#include <atomic>

namespace
{

// Every table and every reset of one draws a generation of its own, so a
// row a unit remembers from another graph or an older generation is never
// taken for a row of this one.
quint32 newGeneration()
{
    static std::atomic<quint32> last { 0 };
    quint32 next = ++last;
    if (next == 0)
        next = ++last;
    return next;
}

// Rows of keys not seen for a while are kept until there are this many more
// than units, so a network whose units come and go does not renumber often.
const int SpareRows = 1024;

} // namespace

DSPPlacementTable::DSPPlacementTable()
    : generation(newGeneration())
{
}

void DSPPlacementTable::startPass(int units)
{
    if (keys.size() > 2 * size_t(units) + SpareRows)
        forgetRows();
    if (++pass == 0) {
        for (Row& row : rows)
            row.pass = 0;
        pass = 1;
    }
}

void DSPPlacementTable::insert(const DSPNode* node, QPoint position)
{
    Row& row = rows[rowOf(node)];
    row.pass = pass;
    row.position = position;
}

int DSPPlacementTable::place(const DSPNode* node, QPoint position, int entry)
{
    Row& row = rows[rowOf(node)];
    row.pass = pass;
    row.position = position;
    const int before = row.entry;
    row.entry = entry;
    return before;
}

QHash<int, QPoint> DSPPlacementTable::toHash() const
{
    QHash<int, QPoint> table;
    for (size_t row = 0; row < keys.size(); ++row) {
        if (rows[row].pass == pass)
            table.insert(keys[row], rows[row].position);
    }
    return table;
}

// A unit new to the table, to this generation of it, or to its key.
int DSPPlacementTable::giveRow(const DSPNode* node, int key)
{
    const auto found = rowByKey.constFind(key);
    const int row = found != rowByKey.constEnd() ? found.value() : addRow(key);
    node->viewGeneration = generation;
    node->viewKey = key;
    node->viewRow = row;
    return row;
}

int DSPPlacementTable::addRow(int key)
{
    const int row = int(keys.size());
    rowByKey.insert(key, row);
    keys.push_back(key);
    rows.push_back(Row());
    return row;
}

void DSPPlacementTable::forgetRows()
{
    generation = newGeneration();
    rowByKey.clear();
    keys.clear();
    rows.clear();
}
