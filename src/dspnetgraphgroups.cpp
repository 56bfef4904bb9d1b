#include "dspnetgraph.h"

#include "dspnetgraphgeometry.h"
#include "prefetch.h"

#include <set>

using namespace DSPNetGraphGeometry;

namespace
{

// The bounding box of both. Boxes here are never empty, so the general
// union's care for null and negative rectangles (and its call) is not
// needed; with whole-pixel edges the result is the same to the bit.
QRectF enclose(const QRectF& box, const QRectF& other)
{
    return QRectF(QPointF(qMin(box.left(), other.left()), qMin(box.top(), other.top())),
                  QPointF(qMax(box.right(), other.right()), qMax(box.bottom(), other.bottom())));
}

} // namespace

// Group boxes: one around the units of each group, found while the units
// are placed, then named from the model's groups, and boxes around the
// boxes of child groups for groups without units of their own.

void DSPNetGraph::indexGroupBoxes()
{
    groupIndexById.startPass(groupList.size() + tree->groups.size());
    // The first box of a group is the one it keeps.
    for (int i = 0; i < groupList.size(); ++i)
        groupIndexById.insertNew(groupList.at(i).id, i);
}

void DSPNetGraph::addToGroupBox(unsigned long long groupId, const QRect& extent)
{
    int index;
    if (groupIndexById.find(groupId, &index)) {
        DSPGroupGraphicalNode& group = groupList[index];
        group.rect = enclose(group.rect, QRectF(extent));
        return;
    }
    DSPGroupGraphicalNode group;
    group.rect = QRectF(extent);
    group.id = groupId;
    groupIndexById.insert(groupId, groupList.size());
    groupList.append(group);
}

void DSPNetGraph::processGroups(const GroupNode* const* groups, int count)
{
    // The boxes may have been changed since the last walk indexed them.
    groupIndexCurrent = false;
    nestGroupBoxes(groups, count);
}

void DSPNetGraph::nestGroupBoxes(const GroupNode* const* groups, int count)
{
    layoutReusable = false;
    if (!groups || count <= 0)
        return;
    QVector<bool> done(count, false);
    nameGroupBoxes(groups, count, &done);
    addParentGroupBoxes(groups, count, &done);
    groupIndexCurrent = false;
}

// Boxes made from units learn their group's name and parent.
void DSPNetGraph::nameGroupBoxes(const GroupNode* const* groups, int count, QVector<bool>* done)
{
    // A walk that has just placed the units indexed every box as it made it.
    if (!groupIndexCurrent)
        indexGroupBoxes();
    for (int i = 0; i < count; ++i) {
        prefetchGroupAhead(groups, count, i + Prefetch::Distance);
        const GroupNode* group = groups[i];
        if (!group) {
            (*done)[i] = true;
            continue;
        }
        int index;
        if (!groupIndexById.find(group->id, &index))
            continue;
        groupList[index].name = group->name;
        groupList[index].parentId = group->parentId;
        (*done)[i] = true;
    }
}

// With thousands of groups their records, names and the index's cells lie
// out of the cache: the group some steps on is asked for, and of the one
// half as far, which has arrived, its name (copying it writes its count)
// and the cell its box is looked up in.
void DSPNetGraph::prefetchGroupAhead(const GroupNode* const* groups, int count, int i) const
{
    if (i + Prefetch::Distance < count)
        Prefetch::object(groups[i + Prefetch::Distance]);
    if (i < count && groups[i]) {
        Prefetch::block(groups[i]->name);
        groupIndexById.prefetch(groups[i]->id);
    }
}

// A group without units of its own gets a box around the boxes of its
// children, once it has any. The groups are visited in passes over the model
// order, each pass seeing the boxes added before it in the same pass, until a
// pass adds nothing. Instead of rescanning every box on each pass, the boxes
// are summed up per parent as they are added and only the groups that have
// children are visited, in the order the passes would reach them.
void DSPNetGraph::addParentGroupBoxes(const GroupNode* const* groups, int count,
                                      QVector<bool>* done)
{
    // The children's boxes summed up per parent id, in a flat table: one
    // lookup per box, and a graph has thousands of them.
    childBoxIndex.startPass(groupList.size() + count);
    childBoxes.clear();
    auto addChild = [this](const DSPGroupGraphicalNode& box) {
        const QRectF grown = box.rect.adjusted(-ParentGroupMargin, -ParentGroupMargin,
                                               ParentGroupMargin, ParentGroupMargin);
        int index;
        if (!childBoxIndex.find(box.parentId, &index)) {
            childBoxIndex.insert(box.parentId, childBoxes.size());
            childBoxes.append(ChildBoxes { grown, box.level });
            return true;
        }
        ChildBoxes& found = childBoxes[index];
        found.rect = enclose(found.rect, grown);
        found.level = qMax(found.level, box.level);
        return false;
    };
    auto childrenOf = [this](unsigned long long id, ChildBoxes* children) {
        int index;
        if (!childBoxIndex.find(id, &index))
            return false;
        *children = childBoxes.at(index);
        return true;
    };
    const int boxes = groupList.size();
    for (int i = 0; i < boxes; ++i) {
        // The sums are looked up by parent in no particular order.
        if (i + Prefetch::Distance < boxes)
            childBoxIndex.prefetch(groupList.at(i + Prefetch::Distance).parentId);
        addChild(groupList.at(i));
    }

    QHash<unsigned long long, QVector<int>> waitingById;
    std::set<int> thisPass;
    for (int i = 0; i < count; ++i) {
        if ((*done)[i])
            continue;
        waitingById[groups[i]->id].append(i);
        ChildBoxes children;
        if (childrenOf(groups[i]->id, &children))
            thisPass.insert(i);
    }

    std::set<int> nextPass;
    while (!thisPass.empty()) {
        const int i = *thisPass.begin();
        thisPass.erase(thisPass.begin());
        const GroupNode* group = groups[i];
        ChildBoxes children;
        childrenOf(group->id, &children);

        DSPGroupGraphicalNode box;
        box.rect = children.rect;
        box.id = group->id;
        box.parentId = group->parentId;
        box.name = group->name;
        box.guidString = group->guid.isNull() ? QString() : group->guid.toString();
        box.level = children.level + 1;
        groupList.append(box);
        (*done)[i] = true;

        // The parent has its first child now: later groups in the model
        // order see it in this pass, earlier ones in the next.
        if (addChild(box)) {
            for (int waiting : waitingById.value(box.parentId)) {
                if (!(*done)[waiting])
                    (waiting > i ? thisPass : nextPass).insert(waiting);
            }
        }
        if (thisPass.empty())
            thisPass.swap(nextPass);
    }
}

