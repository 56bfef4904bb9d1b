#ifndef SIMNETWORK_H
#define SIMNETWORK_H

#include <QByteArray>
#include <QUuid>
#include <QVector>
#include <QtGlobal>

// The simulated target's state as it goes on the wire. The encoder turns these
// records into packets of any version; the engine and the shape generators
// only fill them in.

// One connection into a unit: `unit` is an index into SimNetwork::units.
struct SimInput
{
    int unit = 0;
    bool send = false;
    bool sidechain = false;
};

struct SimUnit
{
    quint64 id = 0;
    quint64 groupId = 0;
    quint64 sendTargetId = 0;
    QByteArray name; // UTF-8; the encoder cuts it to its field
    bool active = true;
    bool bypass = false;
    quint16 exclusiveUsage = 0; // microseconds per mix block
    QVector<qint8> levels; // dB per output channel, -80 to 10
    QVector<SimInput> inputs; // in the order the packet lists them
};

struct SimGroup
{
    quint64 id = 0;
    quint64 parentId = 0;
    QUuid guid;
    QByteArray name; // UTF-8
};

// A unit is on the wire when it can be reached from the head through inputs;
// units nobody lists (idle channel slots) are left out of the packet.
struct SimNetwork
{
    QVector<SimUnit> units;
    QVector<SimGroup> groups;
    int head = 0;
    float cpuUsage = 0.0f; // whole-network fraction, carried by versions 1 to 5
    qint32 timingRate = 48000; // samples per second, version 6
    qint32 timingLength = 1024; // samples per mix block, version 6
};

// Codec pools in the order the statistics packet carries them.
enum SimCodec
{
    CodecADPCM,
    CodecTADPCM,
    CodecMPEG,
    CodecVorbis,
    CodecXMA,
    CodecAT9,
    CodecPCM,
    NumCodecs
};

// The figures of the CPU, channel, codec and statistics streams.
struct SimFigures
{
    float dsp = 0.0f; // percent
    float stream = 0.0f;
    float update = 0.0f;
    float geometry = 0.0f;
    qint32 hardwareUsed = 0;
    qint32 hardwareCapacity = 0;
    qint32 softwareUsed = 0;
    qint32 softwareCapacity = 0;
    qint32 virtualUsed = 0;
    qint32 virtualCapacity = 0;
    qint32 codecUsed[NumCodecs] = {};
    qint32 codecCapacity[NumCodecs] = {};
    qint32 memoryUsed = 0; // bytes
    qint32 memoryCapacity = 0;
};

#endif // SIMNETWORK_H
