// A DSP packet decoded, laid out and drawn into a small image, with every
// display option on, as the profiler does with whatever the target sends.
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
    FuzzProfiler profiler;
    DSPNetGraph graph(profiler.dspTree.get());
    graph.setShowCPUUsage(true);
    graph.setShowVolumeLevels(true);
    graph.setShowGroups(true);
    graph.setShowGuids(true);
    graph.setShowSends(true);
    graph.setShowLegend(true);
    graph.setHighlightName(QStringLiteral("0x1"));
    profiler.network->receiveBytes(packetFromFuzzInput(1, data, size));

    QImage image(256, 192, QImage::Format_ARGB32);
    image.fill(Qt::transparent);
    QPainter painter(&image);
    graph.renderTree(&painter, true);
    return 0;
}
