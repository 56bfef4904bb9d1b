#ifndef PASSTABLE_H
#define PASSTABLE_H

#include <QVector>

// A map that a layout pass fills and reads many times per unit and that the
// next pass starts empty again: a flat open-addressing table, so a lookup
// touches one cell instead of a bucket and a node, and emptying it counts
// passes instead of visiting every entry. Keys are integers. The packet
// decoder uses one as the set of unit ids a packet has shown so far.
template <typename Key, typename Value>
class PassTable
{
public:
    // Empties the table, with room for `keys` keys.
    void startPass(int keys)
    {
        // The last pass's count is the best guess when the caller's is low.
        const int capacity = capacityFor(qMax(keys, stored));
        // A cell belongs to this pass only if it carries this pass's number;
        // a number reused after wrapping around must not revive old cells,
        // and one huge pass must not hold its room for the whole session.
        if (++pass == 0 || cells.size() < capacity || cells.size() > 4 * capacity)
            reallocate(capacity);
        stored = 0;
    }

    bool find(Key key, Value* value) const
    {
        if (cells.isEmpty())
            return false;
        const Cell& cell = cells.at(cellFor(key));
        if (cell.pass != pass)
            return false;
        *value = cell.value;
        return true;
    }

    void insert(Key key, Value value)
    {
        bool added;
        claim(key, &added).value = value;
    }

    // Adds `key` with `value` unless this pass has it already; false then,
    // and the value it has stays. One probe where find and insert take two.
    bool insertNew(Key key, Value value)
    {
        bool added;
        Cell& cell = claim(key, &added);
        if (added)
            cell.value = value;
        return added;
    }

    int size() const { return stored; }

    // Asks for the cell where a lookup of `key` starts.
    void prefetch(Key key) const
    {
        if (!cells.isEmpty())
            __builtin_prefetch(cells.constData() + homeCell(key));
    }

private:
    struct Cell
    {
        Key key = 0;
        quint32 pass = 0;
        Value value = Value();
    };

    static int capacityFor(int keys)
    {
        int capacity = 16;
        while (capacity < 2 * keys)
            capacity *= 2;
        return capacity;
    }

    void reallocate(int capacity)
    {
        cells = QVector<Cell>(capacity);
        mask = static_cast<quint32>(capacity - 1);
        pass = 1;
        stored = 0;
    }

    // The cell of `key` in this pass, taken for it if it had none.
    Cell& claim(Key key, bool* added)
    {
        if (2 * (stored + 1) > cells.size())
            grow();
        Cell& cell = cells[cellFor(key)];
        *added = cell.pass != pass;
        if (*added) {
            cell.key = key;
            cell.pass = pass;
            ++stored;
        }
        return cell;
    }

    // The cell holding `key` in this pass, or the free cell where it would go.
    int cellFor(Key key) const
    {
        quint32 index = homeCell(key);
        while (cells.at(int(index)).pass == pass && cells.at(int(index)).key != key)
            index = (index + 1) & mask;
        return int(index);
    }

    quint32 homeCell(Key key) const
    {
        // Fibonacci hashing spreads keys that differ only in high bits.
        const quint64 bits = static_cast<quint64>(key) * 0x9E3779B97F4A7C15ULL;
        return static_cast<quint32>(bits >> 32) & mask;
    }

    // Only when a pass holds more keys than it was started for.
    void grow()
    {
        const QVector<Cell> old = cells;
        const quint32 oldPass = pass;
        reallocate(capacityFor(stored + 1) * 2);
        for (const Cell& cell : old) {
            if (cell.pass == oldPass)
                insert(cell.key, cell.value);
        }
    }

    QVector<Cell> cells;
    quint32 mask = 0;
    quint32 pass = 1;
    int stored = 0;
};

#endif // PASSTABLE_H
