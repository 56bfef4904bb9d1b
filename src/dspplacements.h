#ifndef DSPPLACEMENTS_H
#define DSPPLACEMENTS_H

#include "dspnettree.h"

#include <QHash>
#include <QPoint>

#include <vector>

// Where the running layout pass put each unit, keyed as the view keys units:
// by the low 32 bits of the id, so units sharing them count as one. The
// layout asks several times per unit, for units spread all over the heap;
// a hash probe there is a cache miss per question. Instead every key gets a
// row of this table once, the unit remembers its row across updates, and a
// question is two reads of small arrays.
class DSPPlacementTable
{
public:
    DSPPlacementTable();

    // Forgets the last pass. `units` is the size of the network about to be
    // laid out: rows of keys long gone are given up once they outnumber it.
    void startPass(int units);
    bool find(const DSPNode* node, QPoint* position)
    {
        const Row& row = rows[size_t(rowOf(node))];
        if (row.pass != pass)
            return false;
        *position = row.position;
        return true;
    }
    void insert(const DSPNode* node, QPoint position);
    // This pass's entries as the layout's public table shows them.
    QHash<int, QPoint> toHash() const;
    // insert() for a unit placed at `entry` of the view's list of placed
    // units; returns where the entry of its key lay before, or -1.
    int place(const DSPNode* node, QPoint position, int entry);
    // The entry last noted for the unit's key, or -1.
    int entryOf(const DSPNode* node) { return rows[rowOf(node)].entry; }
    int rowCount() const { return int(keys.size()); }

    static int keyOf(unsigned long long id) { return static_cast<int>(static_cast<quint32>(id)); }

private:
    // Inline: the layout asks several times per unit, and nearly always
    // the unit remembers its row.
    int rowOf(const DSPNode* node)
    {
        const int key = keyOf(node->id);
        if (node->viewGeneration == generation && node->viewKey == key)
            return node->viewRow;
        return giveRow(node, key);
    }
    int giveRow(const DSPNode* node, int key);
    int addRow(int key);
    void forgetRows();

    // Rows are numbered per generation; a unit's remembered row counts only
    // for the generation it was given in, in this table, for its key.
    quint32 generation = 0;
    QHash<int, int> rowByKey;
    std::vector<int> keys;
    // What a question reads and a placement writes lies in one cache line.
    struct Row
    {
        quint32 pass = 0;
        int entry = -1;
        QPoint position;
    };
    std::vector<Row> rows;
    quint32 pass = 1;
};

#endif // DSPPLACEMENTS_H
