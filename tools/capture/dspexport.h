#ifndef DSPEXPORT_H
#define DSPEXPORT_H

#include <QByteArray>
#include <QString>
#include <QVector>

struct DSPNode;

// The DSP network as a table and as a picture description.
namespace DSPExport
{

// Every unit under `root` once, head first, each unit before its inputs in
// the order they are listed. Shared units come where they are first met.
QVector<const DSPNode*> unitsInTreeOrder(const DSPNode& root);

// A Graphviz digraph with the head unit on the left: one node per unit (its
// id), labelled with its name and own CPU in percent as the profiler shows
// it; an edge from each input to the unit it feeds, dashed for sends and
// dotted for sidechains.
QByteArray dot(const DSPNode& root);

// Text for the inside of a double-quoted DOT string.
QString escapedDotText(const QString& text);

} // namespace DSPExport

#endif // DSPEXPORT_H
