#include "dspdepths.h"

#include "dspnettree.h"

namespace
{

// Leaves a unit marked as off the path, as the recursive walk does; a
// caller that discards the marks passes no table at all.
void markOffPath(QHash<DSPNode*, bool>* onPath, DSPNode* unit)
{
    if (onPath)
        onPath->insert(unit, false);
}

// The units reachable from a start unit, numbered in depth-first discovery
// order (the start is 0), with each input edge resolved to a unit number.
// Back edges are the edges into a unit still on the search path: removing
// them leaves an acyclic graph, of which the reversed post-order is a
// topological order.
struct DepthGraph
{
    QVector<DSPNode*> units;
    QVector<int> firstEdge;
    QVector<int> edgeTarget;
    QVector<bool> backEdge;
    QVector<int> postOrder;
    bool hasCycle = false;
};

DepthGraph exploreDepthGraph(DSPNode* start, int sizeHint)
{
    struct Frame
    {
        int unit;
        int next;
    };
    DepthGraph graph;
    // Every unit has one entry in each of these, and most have one input.
    graph.units.reserve(sizeHint);
    graph.firstEdge.reserve(sizeHint);
    graph.edgeTarget.reserve(sizeHint);
    graph.backEdge.reserve(sizeHint);
    graph.postOrder.reserve(sizeHint);
    QVector<bool> onStack;
    onStack.reserve(sizeHint);
    QVector<Frame> stack;
    const auto discover = [&](DSPNode* node) {
        const int unit = graph.units.size();
        node->walkIndex = unit;
        graph.units.append(node);
        graph.firstEdge.append(graph.edgeTarget.size());
        graph.edgeTarget.resize(graph.edgeTarget.size() + node->inputs.size());
        graph.backEdge.resize(graph.edgeTarget.size());
        onStack.append(true);
        stack.append({ unit, 0 });
        return unit;
    };

    discover(start);
    while (!stack.isEmpty()) {
        const int unit = stack.last().unit;
        const int input = stack.last().next;
        const DSPNode* node = graph.units.at(unit);
        if (input == node->inputs.size()) {
            onStack[unit] = false;
            graph.postOrder.append(unit);
            stack.removeLast();
            continue;
        }
        ++stack.last().next;
        const int edge = graph.firstEdge.at(unit) + input;
        DSPNode* child = node->inputs.at(input).node;
        const int known = child->walkIndex;
        if (known < 0) {
            const int target = discover(child);
            graph.edgeTarget[edge] = target;
            continue;
        }
        graph.edgeTarget[edge] = known;
        if (onStack.at(known)) {
            graph.backEdge[edge] = true;
            graph.hasCycle = true;
        }
    }
    // The numbers are only valid during one computation.
    for (DSPNode* unit : qAsConst(graph.units))
        unit->walkIndex = -1;
    return graph;
}

QVector<int> depthsOf(const DepthGraph& graph)
{
    QVector<int> depths;
    depths.reserve(graph.units.size());
    for (const DSPNode* node : graph.units)
        depths.append(node->depth);
    return depths;
}

// Longest paths from the start in topological order, back edges left out.
// On an acyclic graph this is exactly what the recursive walk produces,
// including its rule that a unit is only renumbered when the new path is
// not shorter, and it leaves onPath as the walk would. The depths are
// worked out in an array by unit number and written back once: a unit's
// edges are already numbered, so the pass never visits the units
// themselves, which in a large network lie all over memory.
void relaxDepths(QHash<DSPNode*, bool>* onPath, const DepthGraph& graph)
{
    const int count = graph.units.size();
    QVector<bool> reached(count, false);
    QVector<bool> blocked(count, false);
    QVector<int> depths = depthsOf(graph);
    for (int unit = 1; unit < count; ++unit)
        blocked[unit] = onPath && onPath->value(graph.units.at(unit));
    reached[0] = true;

    for (int order = count - 1; order >= 0; --order) {
        const int unit = graph.postOrder.at(order);
        if (!reached.at(unit))
            continue;
        const int edgesEnd = unit + 1 < count ? graph.firstEdge.at(unit + 1) : graph.edgeTarget.size();
        for (int edge = graph.firstEdge.at(unit); edge < edgesEnd; ++edge) {
            const int target = graph.edgeTarget.at(edge);
            if (graph.backEdge.at(edge) || blocked.at(target) || depths.at(unit) < depths.at(target))
                continue;
            depths[target] = depths.at(unit) + 1;
            reached[target] = true;
        }
    }

    for (int unit = 0; unit < count; ++unit) {
        if (!reached.at(unit))
            continue;
        graph.units.at(unit)->depth = depths.at(unit);
        markOffPath(onPath, graph.units.at(unit));
    }
}

// The depth walk itself, on the numbered graph and with an explicit stack so
// that long chains cannot exhaust the call stack. It leaves onPath alone
// until it has finished, and gives up after `budget` edge visits.
bool walkDepths(QHash<DSPNode*, bool>* onPath, const DepthGraph& graph, qint64 budget)
{
    struct Frame
    {
        int unit;
        int next;
    };
    const int count = graph.units.size();
    QVector<bool> marked(count, false);
    for (int unit = 0; unit < count; ++unit)
        marked[unit] = onPath && onPath->value(graph.units.at(unit));
    QVector<bool> visited(count, false);
    QVector<Frame> stack;
    marked[0] = true;
    visited[0] = true;
    stack.append({ 0, 0 });
    qint64 steps = 0;
    while (!stack.isEmpty()) {
        const int unit = stack.last().unit;
        const int input = stack.last().next;
        const DSPNode* node = graph.units.at(unit);
        if (input == node->inputs.size()) {
            marked[unit] = false;
            stack.removeLast();
            continue;
        }
        ++stack.last().next;
        if (++steps > budget)
            return false;
        const int target = graph.edgeTarget.at(graph.firstEdge.at(unit) + input);
        DSPNode* child = graph.units.at(target);
        if (node->depth < child->depth || marked.at(target))
            continue;
        child->depth = node->depth + 1;
        marked[target] = true;
        visited[target] = true;
        stack.append({ target, 0 });
    }

    for (int unit = 0; unit < count; ++unit) {
        if (visited.at(unit))
            markOffPath(onPath, graph.units.at(unit));
    }
    return true;
}

void restoreDepths(const DepthGraph& graph, const QVector<int>& depths)
{
    for (int unit = 0; unit < graph.units.size(); ++unit)
        graph.units.at(unit)->depth = depths.at(unit);
}

} // namespace

void assignDSPDepths(QHash<DSPNode*, bool>* onPath, DSPNode* start, int sizeHint)
{
    const DepthGraph graph = exploreDepthGraph(start, sizeHint);
    if (!graph.hasCycle) {
        relaxDepths(onPath, graph);
        return;
    }

    // With a cycle the walk's result depends on the order it meets the
    // units, so it is run as it is. It renumbers a unit each time a longer
    // path reaches it, up to the unit count times, which on a large network
    // is a hang. Past the budget the back edges are cut instead and the
    // longest paths taken.
    const qint64 budget = 1000000 + 16 * qint64(graph.edgeTarget.size());
    const QVector<int> depths = depthsOf(graph);
    if (walkDepths(onPath, graph, budget))
        return;
    restoreDepths(graph, depths);
    relaxDepths(onPath, graph);
}
