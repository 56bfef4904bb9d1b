#ifndef PACKETENCODER_H
#define PACKETENCODER_H

#include "simnetwork.h"

#include <QByteArray>

// Turns the simulated state into whole packets, header included, exactly as
// a target sends them: little-endian, packed, the size field telling the
// whole length. Every DSP layout from version 0 to 6 can be produced.
class PacketEncoder
{
public:
    enum : int
    {
        NewestDSPVersion = 6,
        NewestCPUVersion = 1,
        GroupRecordSize = 296
    };

    // The head unit first, then each unit's inputs depth-first. A unit met a
    // second time (it feeds several consumers, or a cycle leads back to it)
    // is written again as a record with no children.
    static QByteArray encodeDSP(const SimNetwork& network, int version);
    static QByteArray encodeGroups(const SimNetwork& network);
    static QByteArray encodeCPU(const SimFigures& figures, int version);
    static QByteArray encodeChannels(const SimFigures& figures);
    static QByteArray encodeCodecs(const SimFigures& figures);
    static QByteArray encodeStats(const SimFigures& figures);

    // Bytes per unit record in a DSP packet of that version, 0 if unknown.
    static int getDSPRecordSize(int version);
    // Bytes between the header and the first unit record.
    static int getDSPPrologueSize(int version);
};

#endif // PACKETENCODER_H
