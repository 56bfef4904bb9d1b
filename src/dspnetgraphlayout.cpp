#include "dspnetgraph.h"

#include "dspnetgraphgeometry.h"
#include "prefetch.h"

#include <algorithm>
#include <vector>

using namespace DSPNetGraphGeometry;

namespace
{

const QPoint NoPosition(-1, -1);
// A pass without a head unit keeps the old drawing and appends its send
// lines once more; beyond this many such passes in a row it stops growing.
const int MaxStaleSendPasses = 16;

// A space after each colon gives word wrapping a place to break.
QString displayName(const QString& name)
{
    // Most names have no colon; looking for one is far cheaper than a
    // replace that finds nothing.
    if (!name.contains(QLatin1Char(':')))
        return name;
    return QString(name).replace(QLatin1Char(':'), QLatin1String(": "));
}

// The model keeps a unit's name string while the name is unchanged, so the
// display name stands. Any other name is made anew: comparing it first
// costs as much as making it, since most names have no colon.
void updateDisplayName(DSPNetGraphicalNode* graphical, const QString& name)
{
    if (name.isSharedWith(graphical->sourceName))
        return;
    graphical->name = displayName(name);
    graphical->sourceName = name;
}

// Sets every field, so a placed unit left from the last layout becomes
// exactly a new one while keeping the room its lists have.
void setGraphicalNode(DSPNetGraphicalNode* graphical, const DSPNode* node, QPoint position)
{
    updateDisplayName(graphical, node->name);
    graphical->position = position;
    graphical->id = node->id;
    graphical->groupId = node->groupId;
    graphical->sendTargetId = node->sendTargetId;
    graphical->active = node->active;
    graphical->bypass = node->bypass;
    graphical->inclusiveCPU = node->inclusiveCPU;
    graphical->exclusiveCPU = node->exclusiveCPU;
    graphical->levels.assign(node->levels);
}

// Grows a list ahead of the network: a game's network grows and shrinks by
// a few units all the time, and growing by exactly what is needed would
// copy the whole list each time it reaches a new size.
template <typename List>
void reserveForUnits(List* list, int units)
{
    if (qint64(list->capacity()) < units)
        list->reserve(units + units / 4);
}

int connectionEndY(int parentY, unsigned int index, unsigned int count)
{
    return static_cast<int>(parentY + (index + 1) * (float(NodeHeight) / (count + 1)));
}

QPoint nodeCentre(const DSPNetGraphicalNode& node)
{
    return node.position + QPoint(NodeWidth / 2, 22);
}

} // namespace

QList<float> DSPMeterLevels::toList() const
{
    QList<float> values;
    values.reserve(bytes.size());
    for (int i = 0; i < bytes.size(); ++i)
        values.append(at(i));
    return values;
}

// Copied into the room already there: most units keep their number of levels.
void DSPMeterLevels::assign(const QVector<char>& levels)
{
    if (bytes.size() != levels.size())
        bytes.resize(levels.size());
    std::copy_n(levels.constData(), levels.size(), bytes.data());
}

// One unit on the way down the layout: what processNodes() keeps on the
// stack of a recursive walk, held in a vector so that a network as deep as
// the target can send does not exhaust the call stack.
struct DSPNetGraph::LayoutFrame
{
    DSPNode::InputRecord record;
    QPoint parentPosition;
    unsigned int index = 0;
    unsigned int count = 0;
    QPoint position;
    // The unit's drawn inputs: frameInputs[inputStart .. inputStart + inputCount).
    int inputStart = 0;
    int inputCount = 0;
    int next = 0;
    bool excessive = false;
    bool newInputSeen = false;
};

void DSPNetGraph::slotProcessTree()
{
    if (layoutIsCurrent()) {
        // The same layout and the same selection paint the same picture.
        if (laidSelection.id == selectedId && laidSelection.groupId == selectedGroupId)
            return;
        findSelectedUnit();
    } else {
        if (canUpdateLayoutInPlace())
            updateLayoutInPlace();
        else
            layOutTree();
        paintIndexStale = true;
    }
    // The selection is scrolled to in a widget of the new size.
    const bool resized = updateWidgetSize(false);
    updateSelectedNode();
    refreshAfterResize(resized);
}

void DSPNetGraph::layOutTree()
{
    groupList.clear();
    groupIndexCurrent = false;
    selectedFound = nullptr;

    // The head is drawn without a connection, whatever its record says.
    DSPNode::InputRecord head;
    if (!tree->root.inputs.isEmpty())
        head.node = tree->root.inputs.first().node;
    processNodes(head, NoPosition, 0, 1);
    processSends();
    nestGroupBoxes(tree->groups.constData(), tree->groups.size());
    if (head.node)
        rememberLayoutSource();
}

// A target sends its groups packet apart from its DSP packet, each an
// update of the model. One that changed nothing the layout was made from
// (the same groups, read again) leaves it as it stands.
bool DSPNetGraph::layoutIsCurrent() const
{
    return layoutReusable && tree->getValueSerial() == laidValueSerial
           && tree->getShapeSerial() == laidShapeSerial && tree->isAsBuilt()
           && showExcessiveInputs == laidExcessiveInputs && showInactiveInputs == laidInactiveInputs
           && tree->groups.isSharedWith(laidGroups);
}

// Only an update the model made in place since this layout, with the same
// network, groups and input options, leaves the layout as it is. A model
// changed by hand reports no such update; a group list read anew or edited
// by hand no longer shares its data with the one laid out.
bool DSPNetGraph::canUpdateLayoutInPlace() const
{
    return layoutReusable && tree->getValueSerial() != laidValueSerial
           && tree->getShapeSerial() == laidShapeSerial
           && showExcessiveInputs == laidExcessiveInputs && showInactiveInputs == laidInactiveInputs
           && tree->groups.isSharedWith(laidGroups);
}

void DSPNetGraph::rememberLayoutSource()
{
    laidGroups = tree->groups;
    laidShapeSerial = tree->getShapeSerial();
    laidValueSerial = tree->getValueSerial();
    laidExcessiveInputs = showExcessiveInputs;
    laidInactiveInputs = showInactiveInputs;
    rememberSelection();
    layoutReusable = true;
}

void DSPNetGraph::updateLayoutInPlace()
{
    const int count = nodeList.size();
    for (int i = 0; i < count; ++i) {
        prefetchPlacedUnit(i + Prefetch::Distance);
        const DSPNode* node = placedSources.at(i);
        DSPNetGraphicalNode& graphical = nodeList[i];
        updateDisplayName(&graphical, node->name);
        graphical.bypass = node->bypass;
        graphical.inclusiveCPU = node->inclusiveCPU;
        graphical.exclusiveCPU = node->exclusiveCPU;
        graphical.levels.assign(node->levels);
    }
    findSelectedUnit();
    laidValueSerial = tree->getValueSerial();
}

// The unit and its level list are asked for ahead; the unit asked for half
// the distance ago has arrived, so the address of its level list can be
// read without waiting.
void DSPNetGraph::prefetchPlacedUnit(int i) const
{
    if (i >= nodeList.size())
        return;
    Prefetch::object(placedSources.at(i));
    Prefetch::block(placedSources.at(i - Prefetch::Distance / 2)->levels);
}

// The last unit reached that matches the selection, as a full layout pass
// would find it. The units reached are those of the last pass, so the same
// selection finds the same unit again without a search.
void DSPNetGraph::findSelectedUnit()
{
    if (laidSelection.id == selectedId && laidSelection.groupId == selectedGroupId) {
        selectedFound = laidSelection.found;
        if (selectedFound)
            selectedNewPosition = laidSelection.position;
        return;
    }
    selectedFound = nullptr;
    for (const FinishedUnit& unit : finishedUnits) {
        if (unit.node->id == selectedId && unit.node->groupId == selectedGroupId) {
            selectedFound = unit.node;
            selectedNewPosition = unit.position;
        }
    }
    rememberSelection();
}

void DSPNetGraph::rememberSelection()
{
    laidSelection = { selectedId, selectedGroupId, selectedFound, selectedNewPosition };
}

void DSPNetGraph::resetLayout()
{
    rowCounter = 0;
    maxX = 0;
    maxY = 0;
    // The placed units are overwritten one by one and the rest cut off at
    // the end: their names and meter lists are mostly the same again.
    placedCount = 0;
    standardLines.clear();
    sendLines.clear();
    sidechainLines.clear();
    sendSidechainLines.clear();
    ellipsisPoints.clear();
    placements.startPass(tree->nodesById.size());
    placedSources.clear();
    finishedUnits.clear();
    senders.clear();
    // Sized for the whole network up front instead of growing step by step.
    const int units = tree->nodesById.size();
    reserveForUnits(&nodeList, units);
    reserveForUnits(&placedSources, units);
    reserveForUnits(&finishedUnits, units);
    reserveForUnits(&standardLines, units);
    hiddenVisited.clear();
    staleSendPasses = 0;
    recordsAhead = tree->isAsBuilt();
}

void DSPNetGraph::processNodes(const DSPNode::InputRecord& record, QPoint parentPosition,
                               unsigned int index, unsigned int count)
{
    layoutReusable = false;
    paintIndexStale = true;
    if (!record.node)
        return;
    if (parentPosition == NoPosition)
        resetLayout();
    else
        placedCount = nodeList.size();

    indexGroupBoxes();

    // A standard vector: GCC 12 misreads QVector's growth of this struct.
    std::vector<LayoutFrame> stack;
    frameInputs.clear();
    QPoint placed;
    enterNode(stack, record, parentPosition, index, count,
              findPlaced(record.node, &placed) ? &placed : nullptr);
    while (!stack.empty()) {
        if (stack.back().next < stack.back().inputCount) {
            visitNextInput(stack);
            continue;
        }
        const LayoutFrame frame = stack.back();
        stack.pop_back();
        // Frames end in the reverse order they began, so their inputs are
        // the top of the shared list.
        frameInputs.resize(frame.inputStart);
        finishNode(frame.record, frame.position, frame.parentPosition, frame.index, frame.count,
                   true);
    }
    // Units of the last layout that were not overwritten go now.
    nodeList.resize(placedCount);
    groupIndexCurrent = true;
}

// A walk from the head places the units mostly in the order of the model's
// records, which is known ahead: the unit some records on is asked for, and
// of the one half as far, which has arrived, its lists and its group's cell.
// Only a table the model built itself has records that match its units.
void DSPNetGraph::prefetchByRecords(const DSPNode* node) const
{
    if (!recordsAhead)
        return;
    // Twice the usual distance: placing a unit takes little time once its
    // lists are there, and the lists can only be asked for once it is.
    const int record = node->recordIndex;
    if (const DSPNode* far = tree->getRecordUnit(record + 2 * Prefetch::Distance))
        Prefetch::object(far);
    if (const DSPNode* near = tree->getRecordUnit(record + Prefetch::Distance)) {
        Prefetch::block(near->inputs);
        Prefetch::block(near->levels);
        groupIndexById.prefetch(near->groupId);
    }
}

// Where the unit with that key was placed in this layout, if it was.
bool DSPNetGraph::findPlaced(const DSPNode* node, QPoint* position)
{
    return placements.find(node, position);
}

// Places a unit and prepares the walk over its inputs; a unit placed (or
// hidden) before, at `placed`, only gets its connection.
void DSPNetGraph::enterNode(std::vector<LayoutFrame>& stack, const DSPNode::InputRecord& record,
                            QPoint parentPosition, unsigned int index, unsigned int count,
                            const QPoint* placed)
{
    if (placed) {
        finishNode(record, *placed, parentPosition, index, count, false);
        return;
    }
    const DSPNode* node = record.node;
    LayoutFrame frame;
    frame.record = record;
    frame.parentPosition = parentPosition;
    frame.index = index;
    frame.count = count;
    frame.position = QPoint(node->depth * ColumnPitch + Margin, rowCounter * RowPitch + Margin);
    prefetchByRecords(node);
    placeNode(node, frame.position);

    bool allInputsNew = true;
    int shownCount = 0;
    frame.inputStart = int(frameInputs.size());
    frame.inputCount = drawnInputs(node, &allInputsNew, &shownCount);
    frame.excessive = allInputsNew && shownCount > 4;
    stack.push_back(frame);
}

void DSPNetGraph::visitNextInput(std::vector<LayoutFrame>& stack)
{
    LayoutFrame& frame = stack.back();
    const int i = frame.next++;
    if (!showExcessiveInputs && frame.excessive && i == 2) {
        ++rowCounter;
        // No +10 on this y: the marker sits a little higher than a unit
        // would, and that is the look the view has always had.
        ellipsisPoints.append(QPoint(frame.position.x() + ColumnPitch, rowCounter * RowPitch));
    }

    const DSPNode::InputRecord input = frameInputs.at(frame.inputStart + i);
    // The first new input shares its consumer's row; each further one opens a row.
    QPoint placed;
    const bool wasPlaced = findPlaced(input.node, &placed);
    if (!wasPlaced) {
        if (frame.newInputSeen)
            ++rowCounter;
        frame.newInputSeen = true;
    }
    const QPoint position = frame.position;
    const unsigned int count = static_cast<unsigned int>(frame.inputCount);
    enterNode(stack, input, position, static_cast<unsigned int>(i), count,
              wasPlaced ? &placed : nullptr);
}

void DSPNetGraph::finishNode(const DSPNode::InputRecord& record, QPoint position,
                             QPoint parentPosition, unsigned int index, unsigned int count,
                             bool placedHere)
{
    if (placedHere) {
        maxX = qMax(maxX, position.x());
        maxY = qMax(maxY, position.y());
    }
    if (parentPosition != NoPosition) {
        const QPoint end(parentPosition.x() + NodeWidth,
                         connectionEndY(parentPosition.y(), index, count));
        addConnection(record, QLine(position.x(), position.y() + 22, end.x(), end.y()));
    }
    finishedUnits.push_back({ record.node, position });
    if (record.node->id == selectedId && record.node->groupId == selectedGroupId) {
        selectedFound = record.node;
        selectedNewPosition = position;
    }
}

void DSPNetGraph::placeNode(const DSPNode* node, QPoint position)
{
    const int laid = placements.place(node, position, placedCount);
    if (placedCount == nodeList.size())
        nodeList.append(DSPNetGraphicalNode());
    DSPNetGraphicalNode& graphical = nodeList[placedCount];
    prefetchOverwrittenNames(placedCount + Prefetch::Distance);
    reclaimDisplayName(&graphical, node->name, laid);
    setGraphicalNode(&graphical, node, position);
    ++placedCount;
    placedSources.push_back(node);
    if (node->sendTargetId != 0)
        senders.push_back(placedCount - 1);
    if (node->groupId != 0) {
        addToGroupBox(node->groupId, QRect(position.x() - GroupInset, position.y() - GroupInset,
                                           NodeWidth + 2 * GroupInset,
                                           NodeHeight + 2 * GroupInset));
    }
}

// An entry left from the last layout whose unit moved holds names that are
// let go when the entry is overwritten, which reads their counts: those
// are asked for before the pass gets there.
void DSPNetGraph::prefetchOverwrittenNames(int entry) const
{
    if (entry >= nodeList.size())
        return;
    Prefetch::block(nodeList.at(entry).name);
    Prefetch::block(nodeList.at(entry).sourceName);
}

// A unit that moved down the list since the last layout finds its display
// name at its old entry, which this pass has not overwritten yet: the two
// entries swap names, so that the name is neither made nor copied again.
void DSPNetGraph::reclaimDisplayName(DSPNetGraphicalNode* graphical, const QString& name, int laid)
{
    if (graphical->sourceName.isSharedWith(name) || laid <= placedCount || laid >= nodeList.size())
        return;
    DSPNetGraphicalNode& before = nodeList[laid];
    if (!before.sourceName.isSharedWith(name))
        return;
    graphical->name.swap(before.name);
    graphical->sourceName.swap(before.sourceName);
}

// Appends the inputs of a unit that get drawn below it to frameInputs, in
// the model's order, and returns how many there are. allInputsNew tells
// whether none of them was placed or hidden before; shownCount is how many
// were left before the excessive ones went.
int DSPNetGraph::drawnInputs(const DSPNode* node, bool* allInputsNew, int* shownCount)
{
    const int start = int(frameInputs.size());
    *allInputsNew = true;
    for (const DSPNode::InputRecord& input : node->inputs) {
        if (!input.node)
            continue;
        QPoint placed;
        if (findPlaced(input.node, &placed)) {
            *allInputsNew = false;
            if (placed == NoPosition)
                continue;
        }
        if (!showInactiveInputs && !input.node->active)
            continue;
        frameInputs.push_back(input);
    }
    *shownCount = int(frameInputs.size()) - start;
    if (!showExcessiveInputs && *allInputsNew)
        hideExcessiveInputs(start);
    return int(frameInputs.size()) - start;
}

// Keeps the first two and the last two inputs from `start` on; the ones
// between and everything feeding them are marked hidden for the rest of
// the pass.
void DSPNetGraph::hideExcessiveInputs(int start)
{
    const int count = int(frameInputs.size()) - start;
    if (count <= 4)
        return;
    for (int i = 2; i < count - 2; ++i)
        hideSubtree(frameInputs.at(start + i).node);
    frameInputs.erase(frameInputs.begin() + start + 2, frameInputs.begin() + start + count - 2);
}

void DSPNetGraph::hideSubtree(const DSPNode* node)
{
    QVector<const DSPNode*> pending;
    pending.append(node);
    while (!pending.isEmpty()) {
        const DSPNode* unit = pending.takeLast();
        if (!unit || hiddenVisited.contains(unit))
            continue;
        hiddenVisited.insert(unit);
        placements.insert(unit, NoPosition);
        for (const DSPNode::InputRecord& input : unit->inputs)
            pending.append(input.node);
    }
}

void DSPNetGraph::addConnection(const DSPNode::InputRecord& record, const QLine& line)
{
    if (record.send && record.sidechain)
        sendSidechainLines.append(line);
    else if (record.send)
        sendLines.append(line);
    else if (record.sidechain)
        sidechainLines.append(line);
    else
        standardLines.append(line);
}

void DSPNetGraph::processSends()
{
    layoutReusable = false;
    if (staleSendPasses > MaxStaleSendPasses)
        return;
    ++staleSendPasses;
    if (sendsByEntry && tree->isAsBuilt()) {
        drawSendsByEntry();
        return;
    }

    // Few units send, so only the units sent to are looked up.
    QHash<unsigned long long, int> firstIndexById;
    for (const DSPNetGraphicalNode& node : qAsConst(nodeList)) {
        if (node.sendTargetId != 0)
            firstIndexById.insert(node.sendTargetId, -1);
    }
    if (firstIndexById.isEmpty())
        return;
    for (int i = 0; i < nodeList.size(); ++i) {
        const auto target = firstIndexById.find(nodeList.at(i).id);
        if (target != firstIndexById.end() && target.value() < 0)
            target.value() = i;
    }
    for (const DSPNetGraphicalNode& node : qAsConst(nodeList)) {
        if (node.sendTargetId == 0)
            continue;
        const int target = firstIndexById.value(node.sendTargetId, -1);
        if (target >= 0)
            sendLines.append(QLine(nodeCentre(node), nodeCentre(nodeList.at(target))));
    }
}

// The same lines without going through the whole list: the senders were
// noted as they were placed, and in a table the model built every id is
// one unit, placed at most once, so the entry noted for its placement is
// the only one with that id, if it is still that unit's.
void DSPNetGraph::drawSendsByEntry()
{
    for (int sender : senders) {
        const DSPNetGraphicalNode& node = nodeList.at(sender);
        const DSPNode* target = tree->nodesById.value(node.sendTargetId, nullptr);
        if (!target)
            continue;
        const int entry = placements.entryOf(target);
        if (entry >= 0 && entry < nodeList.size() && nodeList.at(entry).id == node.sendTargetId)
            sendLines.append(QLine(nodeCentre(node), nodeCentre(nodeList.at(entry))));
    }
}
