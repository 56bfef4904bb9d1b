#ifndef DSPNETGRAPH_H
#define DSPNETGRAPH_H

#include "dspnetgraphindex.h"
#include "dspnettree.h"
#include "dspplacements.h"
#include "passtable.h"

#include <QColor>
#include <QFont>
#include <QHash>
#include <QImage>
#include <QLine>
#include <QList>
#include <QPen>
#include <QPoint>
#include <QRectF>
#include <QSet>
#include <QString>
#include <QVarLengthArray>
#include <QVector>
#include <QWidget>

#include <vector>

class QMouseEvent;
class QPaintEvent;
class QPainter;
class QTimer;

// A unit's meter levels, held as the model's bytes (signed dB) and turned
// into meter heights (0 at -80 dB, 1 at full scale) only when read: a layout
// copies a few bytes per unit, and only the units painted pay for floats.
class DSPMeterLevels
{
public:
    int size() const { return bytes.size(); }
    float at(int i) const { return static_cast<signed char>(bytes.at(i)) / 80.0f + 1.0f; }
    QList<float> toList() const;
    void assign(const QVector<char>& levels);
    bool operator==(const QList<float>& values) const { return toList() == values; }

private:
    // Room for all the levels a record can carry, inside the unit.
    QVarLengthArray<char, 32> bytes;
};

// One placed unit, copied out of the model so that painting never touches it.
struct DSPNetGraphicalNode
{
    QString name;
    // The model's name `name` was made from: while the model keeps it, so
    // does the view, without looking at its characters again.
    QString sourceName;
    QPoint position;
    unsigned long long id = 0;
    unsigned long long groupId = 0;
    unsigned long long sendTargetId = 0;
    bool active = false;
    bool bypass = false;
    float inclusiveCPU = 0.0f;
    float exclusiveCPU = 0.0f;
    DSPMeterLevels levels;
};

// One channel-group box.
struct DSPGroupGraphicalNode
{
    QRectF rect;
    unsigned long long id = 0;
    unsigned long long parentId = 0;
    QString name;
    QString guidString;
    int level = 0;
};

int findOwnIndex(QVector<DSPGroupGraphicalNode>& groups, unsigned long long id);

// Lays the DSP network out as a tree from left to right, draws it on node
// faceplates and lets the user select units and send them commands.
class DSPNetGraph : public QWidget
{
    Q_OBJECT

public:
    static constexpr unsigned long long NoSelection = ~0ULL;

    explicit DSPNetGraph(DSPTree* tree, QWidget* parent = nullptr,
                         Qt::WindowFlags flags = Qt::WindowFlags());
    ~DSPNetGraph() override;

    void processNodes(const DSPNode::InputRecord& record, QPoint parentPosition,
                      unsigned int index, unsigned int count);
    void processSends();
    void processGroups(const GroupNode* const* groups, int count);
    void updateGraphicSize();
    // Returns whether the widget changed size.
    bool updateWidgetSize(bool force);
    void renderTree(QPainter* painter, bool forImage);
    void saveTree(QString fileName);
    void refresh();
    void refreshAfterResize(bool resized);

    bool getShowExcessiveInputs() const { return showExcessiveInputs; }
    void setShowExcessiveInputs(bool show);
    bool getShowInactiveInputs() const { return showInactiveInputs; }
    void setShowInactiveInputs(bool show);
    bool getShowCPUUsage() const { return showCPUUsage; }
    void setShowCPUUsage(bool show);
    bool getShowVolumeLevels() const { return showVolumeLevels; }
    void setShowVolumeLevels(bool show);
    bool getShowGroups() const { return showGroups; }
    void setShowGroups(bool show);
    bool getShowGuids() const { return showGuids; }
    void setShowGuids(bool show);
    bool getShowSends() const { return showSends; }
    void setShowSends(bool show);
    bool getShowLegend() const { return showLegend; }
    void setShowLegend(bool show);
    bool getInclusiveCPUUsage() const { return inclusiveCPUUsage; }
    void setInclusiveCPUUsage(bool inclusive);
    float getMinCPUUsage() const { return minCPUUsage; }
    void setMinCPUUsage(float usage);
    float getMaxCPUUsage() const { return maxCPUUsage; }
    void setMaxCPUUsage(float usage);
    QString getHighlightName() const { return highlightName; }
    void setHighlightName(QString name);
    float getScale() const { return scale; }
    void setScale(float newScale);

    // Where the last layout pass put each unit, by the low 32 bits of its id;
    // (-1, -1) for a unit hidden as an excessive input.
    QHash<int, QPoint> placedTable() const { return placements.toHash(); }

    bool getSelectedNodeRect(QRectF& rect) const;
    void updateSelectedNode();

    // The layout, rebuilt by slotProcessTree() and only read in between.
    // Contiguous vectors: a QList would allocate every element on its own.
    QVector<DSPNetGraphicalNode> nodeList;
    QVector<QLine> standardLines;
    QVector<QLine> sendLines;
    QVector<QLine> sidechainLines;
    QVector<QLine> sendSidechainLines;
    QList<QPoint> ellipsisPoints;
    QVector<DSPGroupGraphicalNode> groupList;
    int rowCounter = 0;
    int maxX = 0;
    int maxY = 0;
    int widgetWidth = 0;
    int widgetHeight = 0;

    unsigned long long selectedId = NoSelection;
    unsigned long long selectedGroupId = NoSelection;
    QPoint selectedPosition;
    const DSPNode* selectedFound = nullptr;
    QPoint selectedNewPosition;

signals:
    void selectedNodePositionChanged(const QPoint& position, const QPoint& previousPosition);

public slots:
    void slotProcessTree();
    void slotTreeUpdated();
    void slotDSPEnable();
    void slotDSPDisable();
    void slotDSPBypass();
    void slotDSPUnbypass();

protected:
    void paintEvent(QPaintEvent* event) override;
    void mousePressEvent(QMouseEvent* event) override;
    void mouseReleaseEvent(QMouseEvent* event) override;
    void mouseMoveEvent(QMouseEvent* event) override;

private:
    struct LayoutFrame;
    // A unit the layout reached, where it was drawn.
    struct FinishedUnit
    {
        const DSPNode* node;
        QPoint position;
    };

    // Layout (dspnetgraphlayout.cpp; group boxes in dspnetgraphgroups.cpp).
    void layOutTree();
    bool layoutIsCurrent() const;
    bool canUpdateLayoutInPlace() const;
    void rememberLayoutSource();
    void updateLayoutInPlace();
    void prefetchPlacedUnit(int i) const;
    void findSelectedUnit();
    void rememberSelection();
    void resetLayout();
    bool findPlaced(const DSPNode* node, QPoint* position);
    void prefetchByRecords(const DSPNode* node) const;
    void indexGroupBoxes();
    void enterNode(std::vector<LayoutFrame>& stack, const DSPNode::InputRecord& record,
                   QPoint parentPosition, unsigned int index, unsigned int count,
                   const QPoint* placed);
    void visitNextInput(std::vector<LayoutFrame>& stack);
    void finishNode(const DSPNode::InputRecord& record, QPoint position, QPoint parentPosition,
                    unsigned int index, unsigned int count, bool placedHere);
    void placeNode(const DSPNode* node, QPoint position);
    void drawSendsByEntry();
    void reclaimDisplayName(DSPNetGraphicalNode* graphical, const QString& name, int laid);
    void prefetchOverwrittenNames(int entry) const;
    void addToGroupBox(unsigned long long groupId, const QRect& extent);
    int drawnInputs(const DSPNode* node, bool* allInputsNew, int* shownCount);
    void hideExcessiveInputs(int start);
    void hideSubtree(const DSPNode* node);
    void addConnection(const DSPNode::InputRecord& record, const QLine& line);
    void nestGroupBoxes(const GroupNode* const* groups, int count);
    void nameGroupBoxes(const GroupNode* const* groups, int count, QVector<bool>* done);
    void addParentGroupBoxes(const GroupNode* const* groups, int count, QVector<bool>* done);
    void prefetchGroupAhead(const GroupNode* const* groups, int count, int i) const;
    void clearSelection();
    int nodeIndexAt(const QPoint& point) const;
    void runNodeMenu(const DSPNetGraphicalNode& node, const QPoint& screenPosition);

    // Painting (dspnetgraphrender.cpp).
    void createDrawingResources();
    void drawSendLines(QPainter* painter, const QRectF& visible);
    void drawNodes(QPainter* painter, const QRectF& visible);
    void drawNode(QPainter* painter, const DSPNetGraphicalNode& node);
    void drawLevelMeters(QPainter* painter, const DSPNetGraphicalNode& node, float x0, float y0);
    void drawGroupBoxes(QPainter* painter, bool forImage, const QRectF& visible);
    void drawGroupBox(QPainter* painter, const DSPGroupGraphicalNode& group, bool forImage);
    void drawNodeTexts(QPainter* painter, const QRectF& visible);
    void drawMarkers(QPainter* painter);
    void drawConnections(QPainter* painter, const QRectF& visible);
    void drawLegend(QPainter* painter);
    QRectF nodeBounds(const DSPNetGraphicalNode& node) const;
    bool matchesHighlight(const DSPNetGraphicalNode& node) const;
    QColor fillColour(const DSPNetGraphicalNode& node) const;
    QColor cpuColour(const DSPNetGraphicalNode& node) const;
    float nodeCPU(const DSPNetGraphicalNode& node) const;
    bool isSelected(const DSPNetGraphicalNode& node) const;

    DSPTree* tree;
    QTimer* refreshTimer;
    float scale = 1.0f;
    QString highlightName;
    bool mousePressed = false;
    bool showInactiveInputs = false;
    bool showExcessiveInputs = false;
    bool showCPUUsage = false;
    bool showVolumeLevels = false;
    bool showGroups = false;
    bool showGuids = false;
    bool showSends = false;
    bool showLegend = false;
    bool inclusiveCPUUsage = false;
    float minCPUUsage = 0.0f;
    float maxCPUUsage = 100.0f;
    unsigned long long menuTargetId = 0;

    // Where each group id first appears in groupList, kept beside it so that
    // a network with many groups lays out in linear time.
    PassTable<unsigned long long, int> groupIndexById;
    // Whether groupIndexById holds exactly the boxes of groupList.
    bool groupIndexCurrent = false;
    // The boxes of child groups summed up per parent, while parent boxes are made.
    struct ChildBoxes
    {
        QRectF rect;
        int level = 0;
    };
    PassTable<unsigned long long, int> childBoxIndex;
    QVector<ChildBoxes> childBoxes;
    // Units already marked as hidden in this pass; a unit is marked once
    // however many paths lead to it, and a cycle cannot loop.
    QSet<const DSPNode*> hiddenVisited;
    DSPPlacementTable placements;
    // Passes without a head unit append the old send lines again; counted so
    // that a target repeating such packets cannot grow the list forever.
    int staleSendPasses = 0;

    // What the layout was made from. When the model reports an update of
    // the same network and nothing else changed, the positions, lines and
    // boxes stand and only the figures of the placed units are copied. The
    // model itself refuses such an update once its table was edited by hand.
    // These lists of the layout's own are standard vectors: the layout
    // appends to them once per unit, and their append is inlined where
    // QVector's is a call.
    std::vector<const DSPNode*> placedSources;
    std::vector<FinishedUnit> finishedUnits;
    // The drawn inputs of every unit on the layout's path, one stack for
    // all of them instead of a list per unit.
    std::vector<DSPNode::InputRecord> frameInputs;
    // How many entries of nodeList the running layout has placed.
    int placedCount = 0;
    // Whether the units can be asked for ahead in the model's record order.
    bool recordsAhead = false;
    // Entries of nodeList whose units send, in order.
    std::vector<int> senders;
    // Off, send targets are found by going through the whole list: the
    // reference the lookup by entry must match.
    bool sendsByEntry = true;
    QVector<GroupNode*> laidGroups;
    quint64 laidShapeSerial = 0;
    quint64 laidValueSerial = 0;
    bool laidExcessiveInputs = false;
    bool laidInactiveInputs = false;
    bool layoutReusable = false;
    // A network this large takes tens of milliseconds to decode and as long
    // again to lay out; its layout waits for a later turn of the event loop,
    // so that the window answers input in between instead of freezing for
    // both.
    static constexpr int DeferredLayoutUnits = 20000;
    QTimer* layoutTimer;
    // Starts layoutTimer once the loop has come round (a zero timer).
    QTimer* layoutStartTimer;
    // The selection the layout last looked for, and what it found.
    struct SelectionSearch
    {
        unsigned long long id;
        unsigned long long groupId;
        const DSPNode* found;
        QPoint position;
    };
    SelectionSearch laidSelection = { NoSelection, NoSelection, nullptr, QPoint() };

    // Painting index (dspnetgraphrender.cpp): a paint looks up what meets
    // the exposed area instead of visiting the whole layout. Rebuilt after
    // every layout pass, in place or not, since an update in place may
    // change how many meters, and so how wide, a unit is; by the first
    // paint after it, so that an update's own turn of the event loop does
    // not wait for it.
    void indexForPainting();
    bool paintIndexStale = true;
    const std::vector<int>& paintCandidates(DSPNetGraphBoxIndex& index, int count,
                                            const QRectF& area);
    DSPNetGraphBoxIndex unitIndex;
    DSPNetGraphBoxIndex standardLineIndex;
    DSPNetGraphBoxIndex sidechainLineIndex;
    DSPNetGraphBoxIndex sendSidechainLineIndex;
    DSPNetGraphBoxIndex sendLineIndex;
    DSPNetGraphBoxIndex groupBoxIndex;
    DSPNetGraphBoxIndex markerIndex;
    // The most characters a group box's texts have: their width is known
    // only from the painter's font.
    int groupTextLength = 0;
    // The exposed area of the running paint in logical coordinates, with
    // room for the margins of every test; null when nothing is clipped.
    QRectF paintArea;
    std::vector<int> paintFound;
    // Off, every item is visited and tested: the reference the index must match.
    bool paintIndexed = true;
    friend class TestPerformanceEquivalence;

    QPen textPen;
    QPen greyPen;
    QPen textShadowPen;
    QPen standardPen;
    QPen sendPen;
    QPen sidechainPen;
    QPen sendSidechainPen;
    QPen ellipsisPen;
    QPen groupPen;
    QPen nestedGroupPen;
    QPen groupTextPen;
    QPen nestedGroupTextPen;
    QColor activeColour;
    QColor defaultColour;
    QColor bypassColour;
    QColor highlightColour;
    QColor meterBackgroundColour;
    QColor meterColour;
    QColor meterClipColour;
    QFont nodeFont;
    QFont markerFont;
    QImage faceplateImage;
    QImage faceplateHighlightImage;
};

#endif // DSPNETGRAPH_H
