#include "linegraph.h"
#include "profilersimplelabel.h"

#include <QImage>
#include <QPainter>
#include <QSignalSpy>
#include <QtTest>

#include <limits>

namespace {

void feed(LineValues* line, const QList<float>& samples)
{
    for (float sample : samples)
        line->addValue(sample);
}

QList<float> repeated(float value, int count)
{
    QList<float> samples;
    for (int i = 0; i < count; ++i)
        samples.append(value);
    return samples;
}

bool isBlank(const QImage& image, QRgb background)
{
    for (int y = 0; y < image.height(); ++y) {
        for (int x = 0; x < image.width(); ++x) {
            if (image.pixel(x, y) != background)
                return false;
        }
    }
    return true;
}

} // namespace

class TestLineGraph : public QObject
{
    Q_OBJECT

private slots:
    void lineKeepsNewestSamples();
    void lineMaximum_data();
    void lineMaximum();
    void lineSignals();
    void groupMaximum_data();
    void groupMaximum();
    void fixedAndSlidingScale();
    void sampleToPixelMapping();
    void paintsNothing_data();
    void paintsNothing();
    void scaleLabels_data();
    void scaleLabels();
    void graphPaintsGroupsOverBackground();
};

void TestLineGraph::lineKeepsNewestSamples()
{
    LineValuesGroup group;
    LineValues* line = group.addLine("DSP", QColor("red"));
    QCOMPARE(line->getColor(), QColor("red"));
    QCOMPARE(line->getActive(), false);
    QCOMPARE(line->getValues(), repeated(0.0f, 500));

    feed(line, QList<float>{1.0f, 2.0f, 3.0f} + repeated(4.0f, 498));
    QCOMPARE(line->getValues().size(), 500);
    QCOMPARE(line->getValues().mid(0, 3), (QList<float>{2.0f, 3.0f, 4.0f}));
}

void TestLineGraph::lineMaximum_data()
{
    QTest::addColumn<QList<float>>("samples");
    QTest::addColumn<float>("maximum");

    const float nan = std::numeric_limits<float>::quiet_NaN();
    QTest::newRow("nothing fed") << QList<float>() << 0.0f;
    QTest::newRow("follows a rise at once") << QList<float>{1.0f, 2.0f, 3.0f} << 3.0f;
    QTest::newRow("peak is the oldest sample") << (QList<float>{5.0f} + repeated(0.0f, 499)) << 5.0f;
    QTest::newRow("peak has left") << (QList<float>{5.0f} + repeated(0.0f, 500)) << 0.0f;
    QTest::newRow("7.0 held twice, first left")
        << (QList<float>{7.0f, 7.0f} + repeated(0.0f, 499)) << 7.0f;
    QTest::newRow("7.0 held twice, both left")
        << (QList<float>{7.0f, 7.0f} + repeated(0.0f, 500)) << 0.0f;
    QTest::newRow("rescan finds next highest")
        << (QList<float>{9.0f, 4.0f} + repeated(1.0f, 499)) << 4.0f;
    QTest::newRow("never negative") << QList<float>{-3.0f, -1.0f} << 0.0f;
    QTest::newRow("negative data after a peak left")
        << (QList<float>{2.0f} + repeated(-1.0f, 500)) << 0.0f;
    QTest::newRow("NaN never becomes the maximum") << QList<float>{nan, 2.0f, nan} << 2.0f;
}

void TestLineGraph::lineMaximum()
{
    QFETCH(QList<float>, samples);
    QFETCH(float, maximum);

    LineValues line;
    feed(&line, samples);
    QCOMPARE(line.getMaximum(), maximum);
}

void TestLineGraph::lineSignals()
{
    LineValues line;
    QSignalSpy spy(&line, &LineValues::dataChanged);
    feed(&line, {0.0f, 0.0f, 1.0f});
    QCOMPARE(spy.count(), 3);

    line.setActive(false);
    QCOMPARE(spy.count(), 3);
    line.setActive(true);
    QCOMPARE(spy.count(), 4);
    line.setActive(true);
    QCOMPARE(spy.count(), 4);
}

void TestLineGraph::groupMaximum_data()
{
    QTest::addColumn<bool>("firstActive");
    QTest::addColumn<bool>("secondActive");
    QTest::addColumn<float>("maximum");

    QTest::newRow("both active") << true << true << 8.0f;
    QTest::newRow("only the smaller") << true << false << 3.0f;
    QTest::newRow("only the larger") << false << true << 8.0f;
    QTest::newRow("none active") << false << false << 0.0f;
}

void TestLineGraph::groupMaximum()
{
    QFETCH(bool, firstActive);
    QFETCH(bool, secondActive);
    QFETCH(float, maximum);

    LineValuesGroup group;
    LineValues* first = group.addLine("first", Qt::red);
    LineValues* second = group.addLine("second", Qt::green);
    first->setActive(true);
    second->setActive(true);
    feed(first, {1.0f, 3.0f, 2.0f});
    feed(second, {8.0f, 5.0f});
    QCOMPARE(group.getMaximum(), 8.0f);

    // Switching a line takes effect at once, without new data.
    first->setActive(firstActive);
    second->setActive(secondActive);
    QCOMPARE(group.getMaximum(), maximum);
}

void TestLineGraph::fixedAndSlidingScale()
{
    LineValuesGroup group;
    LineValues* line = group.addLine("line", Qt::red);
    line->setActive(true);
    feed(line, {6.0f});
    QSignalSpy spy(&group, &LineValuesGroup::dataChanged);

    group.setMaximumSliding(true);
    QCOMPARE(spy.count(), 0);
    // Fixing keeps the current maximum; the switch alone repaints.
    group.setMaximumSliding(false);
    QCOMPARE(spy.count(), 1);
    QCOMPARE(group.getMaximum(), 6.0f);
    group.setMaximum(6.0f);
    QCOMPARE(spy.count(), 1);
    const float nan = std::numeric_limits<float>::quiet_NaN();
    group.setMaximum(nan);
    group.setMaximum(nan);
    QCOMPARE(spy.count(), 3);

    group.setMaximum(50.0f);
    feed(line, {10.0f, 80.0f});
    group.recalculateMaximum();
    QCOMPARE(group.getMaximum(), 50.0f);
    // A fixed group still forwards every change so the graph repaints.
    QCOMPARE(spy.count(), 6);

    group.setMaximumSliding(true);
    QCOMPARE(spy.count(), 7);
    QCOMPARE(group.getMaximum(), 80.0f);
}

void TestLineGraph::sampleToPixelMapping()
{
    // 4990 pixels wide makes one sample step 10 pixels, so an off-by-one in
    // the horizontal scale moves the newest sample by a visible amount.
    const QSize size(4990, 200);
    LineValuesGroup group;
    group.setMaximumSliding(false);
    group.setMaximum(20.0f);
    LineValues* line = group.addLine("line", Qt::red);
    line->setActive(true);
    feed(line, QList<float>{10.0f} + repeated(5.0f, 498) + QList<float>{10.0f});

    QImage image(size, QImage::Format_RGB32);
    image.fill(Qt::black);
    QPainter painter(&image);
    group.paint(painter, size);
    painter.end();

    const QRgb red = qRgb(255, 0, 0);
    const QRgb black = qRgb(0, 0, 0);
    // Value 5 of 20 sits at y = 200 * (1 - 5/20) = 150; the pen is 2 pixels.
    QCOMPARE(image.pixel(2500, 148), black);
    QCOMPARE(image.pixel(2500, 149), red);
    QCOMPARE(image.pixel(2500, 150), red);
    QCOMPARE(image.pixel(2500, 151), black);
    QCOMPARE(image.pixel(2500, 100), black);
    // The oldest sample (10, y = 100) is at x = 0 and falls to 5 at x = 10.
    QCOMPARE(image.pixel(5, 125), red);
    QCOMPARE(image.pixel(15, 125), black);
    // The newest sample is at the right edge, x = 4990; the step up starts at 4980.
    QCOMPARE(image.pixel(4985, 125), red);
    QCOMPARE(image.pixel(4975, 125), black);
}

void TestLineGraph::paintsNothing_data()
{
    QTest::addColumn<bool>("sliding");
    QTest::addColumn<float>("fixedMaximum");
    QTest::addColumn<bool>("active");
    QTest::addColumn<QList<float>>("samples");

    QTest::newRow("new line") << true << 0.0f << false << QList<float>();
    QTest::newRow("inactive line, fixed scale") << false << 20.0f << false << QList<float>{10.0f, 15.0f};
    QTest::newRow("active line, only negative samples") << true << 0.0f << true << QList<float>{-5.0f, -2.0f};
    QTest::newRow("active line, fixed maximum 0") << false << 0.0f << true << QList<float>{10.0f, 15.0f};
}

void TestLineGraph::paintsNothing()
{
    QFETCH(bool, sliding);
    QFETCH(float, fixedMaximum);
    QFETCH(bool, active);
    QFETCH(QList<float>, samples);

    LineValuesGroup group;
    LineValues* line = group.addLine("line", Qt::red);
    line->setActive(active);
    feed(line, samples);
    group.setMaximumSliding(sliding);
    if (!sliding)
        group.setMaximum(fixedMaximum);

    QImage image(100, 50, QImage::Format_RGB32);
    image.fill(Qt::black);
    QPainter painter(&image);
    group.paint(painter, image.size());
    painter.end();
    QVERIFY(isBlank(image, qRgb(0, 0, 0)));
}

void TestLineGraph::scaleLabels_data()
{
    QTest::addColumn<QStringList>("units");
    QTest::addColumn<QList<int>>("precisions");
    QTest::addColumn<QList<float>>("maxima");
    QTest::addColumn<QString>("top");
    QTest::addColumn<QString>("bottom");

    QTest::newRow("no groups") << QStringList() << QList<int>() << QList<float>() << QString() << QString();
    QTest::newRow("one group") << QStringList{"%"} << QList<int>{2} << QList<float>{12.5f} << "12.50%" << "0.00%";
    QTest::newRow("two groups") << QStringList{"%", ""} << QList<int>{1, 0} << QList<float>{37.5f, 64.0f}
                                << "37.5% / 64" << "0.0% / 0";
    QTest::newRow("zero maximum is still listed")
        << QStringList{" channel(s)"} << QList<int>{0} << QList<float>{0.0f} << "0 channel(s)" << "0 channel(s)";
    QTest::newRow("rounded to the precision")
        << QStringList{" codec(s)"} << QList<int>{0} << QList<float>{63.6f} << "64 codec(s)" << "0 codec(s)";
    QTest::newRow("three groups")
        << QStringList{"%", " MB", " codec(s)"} << QList<int>{2, 3, 0} << QList<float>{100.0f, 1.5f, 7.0f}
        << "100.00% / 1.500 MB / 7 codec(s)" << "0.00% / 0.000 MB / 0 codec(s)";
}

void TestLineGraph::scaleLabels()
{
    QFETCH(QStringList, units);
    QFETCH(QList<int>, precisions);
    QFETCH(QList<float>, maxima);
    QFETCH(QString, top);
    QFETCH(QString, bottom);

    LineGraph graph;
    graph.resize(300, 100);
    for (int i = 0; i < units.size(); ++i) {
        LineValuesGroup* group = graph.addGroup(QString("group %1").arg(i), units.at(i), precisions.at(i));
        group->setMaximumSliding(false);
        group->setMaximum(maxima.at(i));
    }
    graph.grab();
    QCOMPARE(graph.getMaximumLabel()->getText(), top);
    QCOMPARE(graph.getMinimumLabel()->getText(), bottom);
}

void TestLineGraph::graphPaintsGroupsOverBackground()
{
    LineGraph graph;
    graph.resize(499, 100);
    LineValuesGroup* first = graph.addGroup("first", "", 0);
    LineValuesGroup* second = graph.addGroup("second", "", 0);
    LineValues* top = first->addLine("top", Qt::green);
    LineValues* half = first->addLine("half", Qt::red);
    LineValues* other = second->addLine("other", Qt::blue);
    top->setActive(true);
    half->setActive(true);
    other->setActive(true);
    feed(top, repeated(10.0f, 500));
    feed(half, repeated(5.0f, 500));
    // The second group has its own scale: its only line is its maximum.
    feed(other, repeated(3.0f, 500));

    const QImage image = graph.grab().toImage();
    const QRgb background = qRgb(49, 56, 64);
    QCOMPARE(image.pixel(250, 75), background);
    QCOMPARE(image.pixel(250, 30), background);
    QCOMPARE(image.pixel(250, 49), qRgb(255, 0, 0));
    QCOMPARE(image.pixel(250, 50), qRgb(255, 0, 0));
    QCOMPARE(image.pixel(250, 0), qRgb(0, 0, 255));
    QCOMPARE(image.pixel(498, 50), qRgb(255, 0, 0));
}

QTEST_MAIN(TestLineGraph)
#include "tst_linegraph.moc"
