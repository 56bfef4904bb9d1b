#ifndef DSPNETTREE_H
#define DSPNETTREE_H

#include "dsprecords.h"

#include <QByteArray>
#include <QHash>
#include <QObject>
#include <QString>
#include <QUuid>
#include <QVector>

#include <vector>

class PacketReader;
class ProfilerNetwork;

// One DSP unit of the target's network.
struct DSPNode
{
    // One connection into a unit. The node is owned by DSPTree::nodesById.
    struct InputRecord
    {
        DSPNode* node = nullptr;
        bool sidechain = false;
        bool send = false;
    };

    DSPNode() = default;
    DSPNode(const DSPNode&) = delete;
    DSPNode& operator=(const DSPNode&) = delete;
    DSPNode& operator=(DSPNode&& other) noexcept;

    unsigned long long id = 0;
    unsigned long long groupId = 0;
    unsigned long long sendTargetId = 0;
    QString name;
    bool active = false;
    bool bypass = false;
    quint32 inclusiveUsage = 0;
    float inclusiveCPU = 0.0f;
    quint32 exclusiveUsage = 0;
    float exclusiveCPU = 0.0f;
    QVector<char> levels;
    QVector<InputRecord> inputs;
    int depth = -1;
    // Scratch number of the unit while its depths are computed; -1
    // otherwise.
    int walkIndex = -1;
    // The unit's first record in the packet it was last read from.
    int recordIndex = -1;
    // The last rebuild of the network that read this unit.
    quint64 readPass = 0;
    // The unit's row in a view's placement table, for the key and the
    // table generation it was given for; the model never reads these.
    mutable quint32 viewGeneration = 0;
    mutable int viewKey = 0;
    mutable int viewRow = -1;
};

// One channel group.
struct GroupNode
{
    unsigned long long id = 0;
    unsigned long long parentId = 0;
    QUuid guid;
    QString name;
};

// The target's DSP network and channel groups, rebuilt from each packet.
class DSPTree : public QObject
{
    Q_OBJECT

public:
    explicit DSPTree(ProfilerNetwork* network);
    ~DSPTree() override;

    bool readDSPData();
    bool readGroupData();
    void createDSPRecurse(const char** cursor, DSPNode* parent);
    void createDSPUsage();
    void createDSPDepthRecurse(QHash<DSPNode*, bool>* onPath, DSPNode* node);
    void createGroup(const char* records, int count);

    void sendDSPCommandString(QString text);
    void sendDSPCommandEnable(unsigned long long id, bool enable);
    void sendDSPCommandBypass(unsigned long long id, bool bypass);
    void sendGroupCommandString(QString text);

    QVector<GroupNode*> groups;
    QHash<unsigned long long, DSPNode*> nodesById;
    DSPNode root;
    ProfilerNetwork* network;
    int dspVersion = -1;
    int groupVersion = -1;
    float cpuUsage = 0.0f;
    int timingRate = 0;
    int timingLength = 0;

    // Counters a view compares to tell what the last update changed: the
    // shape counts rebuilt networks, the values count networks updated in
    // place (same units, inputs, flags, groups and send targets; only
    // names, costs, levels and bypass states new).
    quint64 getShapeSerial() const { return shapeSerial; }
    quint64 getValueSerial() const { return valueSerial; }
    // Whether the table is still the one the last packet built, not one
    // changed by hand since.
    bool isAsBuilt() const { return nodesById.isSharedWith(shapeNodes); }
    // The unit of a record of the last packet read, or null past its end:
    // the order in which a walk from the head meets the units.
    const DSPNode* getRecordUnit(int record) const
    {
        return record >= 0 && record < int(shapeRecords.size()) ? shapeRecords[size_t(record)].node : nullptr;
    }

signals:
    void dspNetTreeUpdated();
    void statusChanged(QString status);

public slots:
    void slotPacketArrived();

private:
    struct PendingUnit;
    class KnownUnitSightings;
    // One record of the packet the current network was built from, in
    // packet order: what a later packet must repeat to be the same network.
    // The unit's id and the index of its first record are kept here too, so
    // that the count of the next packet need not touch the unit.
    struct ShapeRecord
    {
        DSPNode* node;
        DSPNode* parent;
        unsigned long long id;
        int unitRecord;
        int childCount;
        bool first;
        bool send;
        bool sidechain;
    };
    // The new values of one unit, held until the whole packet has been
    // checked, so that a packet found different half-way changes nothing.
    struct StagedValues
    {
        DSPNode* node;
        const char* record;
        quint32 exclusiveUsage;
        int levelStart;
        int levelCount;
        bool bypass;
        bool nameChanged;
    };

    QByteArray takeNewestPacket(unsigned char type);
    void readDSPPrologue(PacketReader* in, int version);
    int countPacketUnits(const QByteArray& packet, int firstRecord, int version);
    void rebuildDSPGraph(const QByteArray& packet, int version, int firstRecord, int unitCount);
    bool readUnit(const char** cursor, DSPNode* parent, std::vector<PendingUnit>* pending);
    // Updates of the same network (dspnettreeupdate.cpp).
    bool updateInPlace(const QByteArray& packet, int version, int firstRecord);
    bool stageValues(const QByteArray& packet, int version, int firstRecord);
    void clearScratch();
    void stageLevels();
    void applyStagedValues(int version);
    void sumInclusiveUsage();
    template <typename Visit>
    void visitUnits(Visit visit);
    void takeRecord(DSPNode* node, const char* record, int childCount);
    void keepRecordsForReuse(int version);
    DSPNode* findUnit(unsigned long long id);
    void dropUnreadUnits();
    void noteRecordTopology(DSPNode* node, DSPNode* parent, bool first);
    void assignDepths();
    bool depthsFromRecords();
    void releaseUnits();
    bool groupsAsBuilt(const QByteArray& packet) const;
    void rememberGroups(const QByteArray& packet);
    void sendCommandString(unsigned char type, unsigned char version, const QString& text);
    void sendCommandUnitState(unsigned char subtype, unsigned long long id, bool state);

    // End of the packet that createDSPRecurse is walking; no record is read
    // past it.
    const char* recordsEnd = nullptr;

    // The network as last built, for recognising an update of the same
    // network. shapeNodes shares nodesById's data until someone changes
    // the table, which is how a table edited by hand is told apart.
    // Standard vectors here and for the walk's stack: a rebuild appends to
    // them once per record, and their append is inlined where QVector's is
    // a call.
    std::vector<ShapeRecord> shapeRecords;
    QHash<unsigned long long, DSPNode*> shapeNodes;
    QByteArray shapePacket;
    int shapeFirstRecord = 0;
    // The distinct units of shapePacket's records.
    int shapeUnitCount = 0;
    QVector<StagedValues> staged;
    QVector<char> stagedLevels;
    // How much of stagedLevels the packet being staged has filled.
    int stagedLevelCount = 0;
    DSPNode scratch;
    DSPRecords::UnitIdSet unitIds;
    quint64 lastCountPass = 0;
    // Per first record of shapeRecords: the last count that met its unit.
    QVector<quint64> countMarks;

    // The records of the network being replaced, while a rebuild runs, and
    // the one expected to come next.
    std::vector<ShapeRecord> previousRecords;
    int reuseCursor = 0;
    // Per record of previousRecords: whether the rebuild read its unit.
    QVector<bool> previousRead;
    quint64 rebuildPass = 0;
    bool previousNamesKnown = false;
    // Depths depend on nothing but which unit feeds which, so a rebuild whose
    // records link the same units in the same order as the last network's
    // keeps that network's depths, held here by record. sameTopology stays
    // true while the records read so far do.
    QVector<int> shapeDepths;
    bool sameTopology = false;
    // Off, depths always come from the walk: the reference the pass over
    // the records must match.
    bool fastDepths = true;
    friend class TestPerformanceEquivalence;

    // The groups packet the groups were last built from, the list built and
    // its values: a target repeats the same groups packet every update, and
    // an unchanged list keeps the view's layout reusable.
    QByteArray groupPacket;
    QVector<GroupNode*> builtGroups;
    QVector<GroupNode> builtGroupValues;

    quint64 shapeSerial = 0;
    quint64 valueSerial = 0;
};

#endif // DSPNETTREE_H
