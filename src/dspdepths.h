#ifndef DSPDEPTHS_H
#define DSPDEPTHS_H

#include <QHash>

struct DSPNode;

// Gives every unit below `start` its column: the length of the longest path
// to it from `start`, with cycles cut where the path meets itself. `onPath`
// marks the units on the current path, as a recursive walk would; it is left
// as that walk leaves it; it may be null when nobody reads it. Runs in time linear in the network wherever the
// network has no cycle, and in bounded time where it has one.
void assignDSPDepths(QHash<DSPNode*, bool>* onPath, DSPNode* start, int sizeHint);

#endif // DSPDEPTHS_H
