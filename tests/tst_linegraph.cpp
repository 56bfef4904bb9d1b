#include "linegraph.h"
#include "profilersimplelabel.h"

#include <QImage>
#include <QPainter>
#include <QRandomGenerator>
#include <QSignalSpy>
#include <QtTest>

#include <tuple>

namespace {

void feed(LineValues* line, const QList<float>& samples)
{
    for (float sample : samples)
        line->addValue(sample);
}

QList<float> repeated(float value, int count)
{
    return QVector<float>(count, value).toList();
}

} // namespace

class TestLineGraph : public QObject
{
    Q_OBJECT

private slots:
    void lineWindowAndMaximum();
    void groupScale();
    void painting();
    void graphPaintsGroupsOverBackground();
};

// Random samples, with repeats, negatives and NaN, against the plain
// window of the last 500 and its largest value (never below 0).
void TestLineGraph::lineWindowAndMaximum()
{
    LineValues line;
    QCOMPARE(line.getValues(), repeated(0.0f, 500));
    QSignalSpy spy(&line, &LineValues::dataChanged);
    QList<float> window = line.getValues();
    QRandomGenerator random(7);
    for (int i = 0; i < 1500; ++i) {
        // The last 500 are never positive: the maximum must fall back to 0.
        const int pick = random.bounded(-3, 12);
        const float sample = i >= 1000 ? -float(qAbs(pick)) : pick == 11 ? float(qQNaN()) : float(pick);
        line.addValue(sample);
        window = window.mid(1) << sample;
        float maximum = 0.0f;
        for (float value : qAsConst(window))
            maximum = value > maximum ? value : maximum;
        QCOMPARE(line.getMaximum(), maximum);
    }
    QCOMPARE(line.getValues(), window);
    // Only a change of state is announced.
    for (bool active : {true, true, false})
        line.setActive(active);
    QCOMPARE(spy.count(), 1502);
}

void TestLineGraph::groupScale()
{
    LineValuesGroup group;
    LineValues* first = group.addLine("first", Qt::red);
    LineValues* second = group.addLine("second", Qt::green);
    feed(first, {1.0f, 3.0f, 2.0f});
    feed(second, {8.0f, 5.0f});
    // A sliding scale follows the active lines at once, without new data.
    const QList<std::tuple<bool, bool, float>> cases = {
        {true, true, 8.0f}, {true, false, 3.0f}, {false, true, 8.0f}, {false, false, 0.0f}, {true, false, 3.0f}};
    for (const auto& [firstActive, secondActive, maximum] : cases) {
        first->setActive(firstActive);
        second->setActive(secondActive);
        QCOMPARE(group.getMaximum(), maximum);
    }

    // A fixed scale keeps its maximum until it slides again; every change is announced once.
    QSignalSpy spy(&group, &LineValuesGroup::dataChanged);
    group.setMaximumSliding(true);
    group.setMaximumSliding(false);
    QCOMPARE(group.getMaximum(), 3.0f);
    group.setMaximum(3.0f);
    QCOMPARE(spy.count(), 1);
    group.setMaximum(50.0f);
    feed(first, {10.0f, 80.0f});
    group.recalculateMaximum();
    QCOMPARE(group.getMaximum(), 50.0f);
    group.setMaximumSliding(true);
    QCOMPARE(group.getMaximum(), 80.0f);
    QCOMPARE(spy.count(), 5);
}

// One sample step is 10 pixels wide; 5 of 20 sits at y = 150 with a 2-pixel
// pen. An inactive line, or a scale of 0, paints nothing.
void TestLineGraph::painting()
{
    const struct
    {
        float fixedMaximum; // NaN: sliding
        bool active;
        QList<float> samples;
        QList<QPoint> red; // empty: the whole image stays black
        QList<QPoint> black;
    } cases[] = {
        {20.0f, true, QList<float>{10.0f} + repeated(5.0f, 498) + QList<float>{10.0f},
         {{2500, 149}, {2500, 150}, {5, 125}, {4985, 125}}, {{2500, 148}, {2500, 151}, {15, 125}, {4975, 125}}},
        {20.0f, false, {10.0f, 15.0f}, {}, {}},
        {float(qQNaN()), true, {-5.0f, -2.0f}, {}, {}},
        {0.0f, true, {10.0f, 15.0f}, {}, {}},
    };
    for (const auto& c : cases) {
        LineValuesGroup group;
        LineValues* line = group.addLine("line", Qt::red);
        line->setActive(c.active);
        feed(line, c.samples);
        group.setMaximumSliding(qIsNaN(c.fixedMaximum));
        if (!qIsNaN(c.fixedMaximum))
            group.setMaximum(c.fixedMaximum);

        QImage image(4990, 200, QImage::Format_RGB32);
        image.fill(Qt::black);
        const QImage blank = image;
        QPainter painter(&image);
        group.paint(painter, image.size());
        painter.end();
        if (c.red.isEmpty())
            QCOMPARE(image, blank);
        for (const QPoint& point : c.red)
            QCOMPARE(image.pixel(point), qRgb(255, 0, 0));
        for (const QPoint& point : c.black)
            QCOMPARE(image.pixel(point), qRgb(0, 0, 0));
    }
}

// Each group has its own scale, and its own unit and precision in the labels: "other" is its group's maximum.
void TestLineGraph::graphPaintsGroupsOverBackground()
{
    LineGraph graph;
    graph.resize(499, 100);
    LineValuesGroup* first = graph.addGroup("first", "%", 1);
    LineValuesGroup* second = graph.addGroup("second", " channel(s)", 0);
    const QList<QPair<LineValues*, float>> lines = {{first->addLine("top", Qt::green), 10.0f},
                                                    {first->addLine("half", Qt::red), 5.0f},
                                                    {second->addLine("other", Qt::blue), 2.6f}};
    for (const auto& line : lines) {
        line.first->setActive(true);
        feed(line.first, repeated(line.second, 500));
    }

    // Background below and above "half", "half" at mid-height, "other" at the top, "half" at the right edge.
    const QImage image = graph.grab().toImage();
    const QRgb background = qRgb(49, 56, 64), red = qRgb(255, 0, 0);
    QCOMPARE((QList<QRgb> { image.pixel(250, 75), image.pixel(250, 30), image.pixel(250, 49), image.pixel(250, 50),
                            image.pixel(250, 0), image.pixel(498, 50) }),
             (QList<QRgb> { background, background, red, red, qRgb(0, 0, 255), red }));
    QCOMPARE(graph.getMaximumLabel()->getText(), QString("10.0% / 3 channel(s)"));
    QCOMPARE(graph.getMinimumLabel()->getText(), QString("0.0% / 0 channel(s)"));
}

QTEST_MAIN(TestLineGraph)
#include "tst_linegraph.moc"
