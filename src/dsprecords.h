#ifndef DSPRECORDS_H
#define DSPRECORDS_H

#include "passtable.h"

#include <QByteArray>
#include <QString>
#include <QVector>

struct DSPNode;

// The unit records of a DSP network packet in every layout a target may
// send (versions 0 to 6): their sizes and fields, and the walk that checks
// their tree structure before anything is built from them.
namespace DSPRecords
{

// What a record says about its place in the tree rather than about the unit.
struct RecordPlace
{
    int childCount = 0;
    bool send = false;
    bool sidechain = false;
};

// The ids the validation walk has met. The table keeps its room from packet
// to packet: a node-based set would allocate and free an entry per unit on
// every update.
using UnitIdSet = PassTable<unsigned long long, bool>;

int recordSize(int version);

// Decodes one record and moves the cursor past it; false when the record
// does not fit before `end`. The name is decoded only when asked for.
bool decodeRecord(const char** cursor, const char* end, int version, DSPNode* node, RecordPlace* place,
                  bool withName = true);
QString readRecordName(const char* record, int version);
// Two records that carry the same name bytes decode to the same name.
bool sameRecordName(const char* record, const char* other, int version);

// Whether the first `count` records of two packets (from `firstRecord` on)
// name the same units with the same child counts: then their tree walks
// are the same walk. False when either packet is shorter.
bool sameRecordTree(const QByteArray& packet, const QByteArray& other, int firstRecord, int version, int count);

// What a walk over the records has met: whether a unit id is met for the
// first time since start(), which gets the most units the walk can meet.
class UnitSightings
{
public:
    virtual ~UnitSightings() = default;
    virtual void start(int records) = 0;
    virtual bool firstSighting(unsigned long long id) = 0;
};

// The number of distinct units of the records from `firstRecord` on, or -1
// when the packet ends before its records do.
int countUnits(const QByteArray& packet, int firstRecord, int version, UnitSightings* sightings);
int countUnits(const QByteArray& packet, int firstRecord, int version, UnitIdSet* seen);

} // namespace DSPRecords

#endif // DSPRECORDS_H
