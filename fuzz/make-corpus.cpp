// Writes the fuzzers' seed inputs from the simulated target's packets, so
// every fuzzer starts from well-formed data of every layout.
#include "dspshapes.h"
#include "packetencoder.h"
#include "simengine.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>

namespace
{

// The fuzzers take the version byte followed by the payload.
QByteArray asPacketInput(const QByteArray& packet)
{
    return packet.mid(10, 1) + packet.mid(12);
}

// The receive fuzzer takes pieces of at most 1 + 4 * 255 bytes, each
// behind a byte giving its length.
QByteArray asStreamInput(const QByteArray& stream, int pieceLength)
{
    QByteArray input;
    const int lengthByte = qBound(0, (pieceLength - 1) / 4, 255);
    const int length = 1 + lengthByte * 4;
    for (int offset = 0; offset < stream.size(); offset += length) {
        input.append(char(lengthByte));
        input.append(stream.mid(offset, length));
    }
    return input;
}

void write(const QString& folder, const QString& name, const QByteArray& bytes)
{
    QDir().mkpath(folder);
    QFile file(folder + QLatin1Char('/') + name);
    if (!file.open(QIODevice::WriteOnly) || file.write(bytes) != bytes.size())
        qFatal("cannot write %s", qPrintable(file.fileName()));
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication application(argc, argv);
    const QString root = argc > 1 ? QString::fromLocal8Bit(argv[1]) : QStringLiteral("fuzz/corpus");

    SimEngine engine(11, 24);
    for (int step = 0; step < 20; ++step)
        engine.step();
    const SimNetwork& network = engine.getNetwork();
    const SimFigures& figures = engine.getFigures();

    QByteArray stream;
    for (int version = 0; version <= PacketEncoder::NewestDSPVersion; ++version) {
        const QByteArray packet = PacketEncoder::encodeDSP(network, version);
        write(root + "/fuzz_dsp", QStringLiteral("v%1").arg(version), asPacketInput(packet));
        write(root + "/fuzz_dsp_render", QStringLiteral("v%1").arg(version), asPacketInput(packet));
        stream += packet;
    }
    const QByteArray shapes[] = { DSPShapes::makeDSPPacket(DSPShapes::DSPShape::DiamondLadder, 21),
                                  DSPShapes::makeDSPPacket(DSPShapes::DSPShape::Cycles, 21) };
    write(root + "/fuzz_dsp", "ladder", asPacketInput(shapes[0]));
    write(root + "/fuzz_dsp", "cycles", asPacketInput(shapes[1]));
    write(root + "/fuzz_dsp_render", "cycles", asPacketInput(shapes[1]));

    const QByteArray groups = PacketEncoder::encodeGroups(network);
    write(root + "/fuzz_groups", "groups", asPacketInput(groups));
    for (int version = 0; version <= PacketEncoder::NewestCPUVersion; ++version) {
        const QByteArray cpu = PacketEncoder::encodeCPU(figures, version);
        write(root + "/fuzz_cpu", QStringLiteral("v%1").arg(version), asPacketInput(cpu));
        stream += cpu;
    }
    const QByteArray channels = PacketEncoder::encodeChannels(figures);
    const QByteArray codecs = PacketEncoder::encodeCodecs(figures);
    const QByteArray stats = PacketEncoder::encodeStats(figures);
    write(root + "/fuzz_channels", "v0", asPacketInput(channels));
    write(root + "/fuzz_codecs", "v0", asPacketInput(codecs));
    write(root + "/fuzz_stats", "v0", asPacketInput(stats));
    stream += groups + channels + codecs + stats;

    write(root + "/fuzz_receive", "small-pieces", asStreamInput(stream, 9));
    write(root + "/fuzz_receive", "large-pieces", asStreamInput(stream, 1021));
    return 0;
}
