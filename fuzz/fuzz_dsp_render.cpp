// A DSP packet decoded, laid out and drawn into a small image, with every
// display option on, as the profiler does with whatever the target sends.
// The packet then comes again, as the next snapshot of the same network
// (updated in place), and once more with bytes changed here and there (the
// same network with new figures, or another one built from the units of
// the last), and is drawn once more.
#include "fuzzsupport.h"

#include "dspnetgraph.h"
#include "dspnettree.h"
#include "profilernetwork.h"

#include <QImage>
#include <QPainter>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size > 1024 * 1024)
        return -1;
    ProfilerChain profiler;
    DSPNetGraph graph(&profiler.dspTree);
    graph.setShowCPUUsage(true);
    graph.setShowVolumeLevels(true);
    graph.setShowGroups(true);
    graph.setShowGuids(true);
    graph.setShowSends(true);
    graph.setShowLegend(true);
    graph.setHighlightName(QStringLiteral("0x1"));
    const QByteArray packet = packetFromFuzzInput(1, data, size);
    profiler.network.receiveBytes(packet);

    QImage image(256, 192, QImage::Format_ARGB32);
    image.fill(Qt::transparent);
    QPainter painter(&image);
    graph.renderTree(&painter, true);

    profiler.network.receiveBytes(packet);
    QByteArray changed = packet;
    // Past the header, so the packet keeps its type and size.
    for (int i = 12; i < changed.size(); i += 7)
        changed[i] = static_cast<char>(changed.at(i) + 1);
    profiler.network.receiveBytes(changed);
    graph.renderTree(&painter, true);
    return 0;
}
