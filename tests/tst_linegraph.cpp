#include "linegraph.h"
#include "profilersimplelabel.h"

#include <QImage>
#include <QPainter>
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
    void lineBasics();
    void lineMaximum_data();
    void lineMaximum();
    void groupMaximum();
    void fixedAndSlidingScale();
    void painting_data();
    void painting();
    void scaleLabels_data();
    void scaleLabels();
    void graphPaintsGroupsOverBackground();
};

void TestLineGraph::lineBasics()
{
    LineValuesGroup group;
    LineValues* line = group.addLine("DSP", QColor("red"));
    QCOMPARE(line->getColor(), QColor("red"));
    QCOMPARE(line->getValues(), repeated(0.0f, 500));

    QSignalSpy spy(line, &LineValues::dataChanged);
    feed(line, QList<float>{1.0f, 2.0f, 3.0f} + repeated(4.0f, 498));
    QCOMPARE(line->getValues().size(), 500);
    QCOMPARE(line->getValues().mid(0, 3), (QList<float>{2.0f, 3.0f, 4.0f}));
    line->setActive(false);
    QCOMPARE(spy.count(), 501);
    line->setActive(true);
    line->setActive(true);
    QCOMPARE(spy.count(), 502);
}

void TestLineGraph::lineMaximum_data()
{
    QTest::addColumn<QList<float>>("samples");
    QTest::addColumn<float>("maximum");

    QTest::newRow("nothing fed") << QList<float>() << 0.0f;
    QTest::newRow("7.0 twice, first left") << (QList<float>{7.0f, 7.0f} + repeated(0.0f, 499)) << 7.0f;
    QTest::newRow("7.0 twice, both left") << (QList<float>{7.0f, 7.0f} + repeated(0.0f, 500)) << 0.0f;
    QTest::newRow("rescan finds next") << (QList<float>{9.0f, 4.0f} + repeated(1.0f, 499)) << 4.0f;
    QTest::newRow("never negative") << QList<float>{-3.0f, -1.0f} << 0.0f;
    QTest::newRow("negative after peak left") << (QList<float>{2.0f} + repeated(-1.0f, 500)) << 0.0f;
    QTest::newRow("NaN ignored") << QList<float>{float(qQNaN()), 2.0f, float(qQNaN())} << 2.0f;
}

void TestLineGraph::lineMaximum()
{
    QFETCH(QList<float>, samples);
    QFETCH(float, maximum);

    LineValues line;
    feed(&line, samples);
    QCOMPARE(line.getMaximum(), maximum);
}

void TestLineGraph::groupMaximum()
{
    LineValuesGroup group;
    LineValues* first = group.addLine("first", Qt::red);
    LineValues* second = group.addLine("second", Qt::green);
    feed(first, {1.0f, 3.0f, 2.0f});
    feed(second, {8.0f, 5.0f});
    // Switching a line takes effect at once, without new data.
    const QList<std::tuple<bool, bool, float>> cases = {
        {true, true, 8.0f}, {true, false, 3.0f}, {false, true, 8.0f}, {false, false, 0.0f}};
    for (const auto& [firstActive, secondActive, maximum] : cases) {
        first->setActive(firstActive);
        second->setActive(secondActive);
        QCOMPARE(group.getMaximum(), maximum);
    }
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
    group.setMaximumSliding(false);
    QCOMPARE(spy.count(), 1);
    QCOMPARE(group.getMaximum(), 6.0f);
    group.setMaximum(6.0f);
    QCOMPARE(spy.count(), 1);
    group.setMaximum(qQNaN());
    group.setMaximum(qQNaN());
    QCOMPARE(spy.count(), 3);

    group.setMaximum(50.0f);
    feed(line, {10.0f, 80.0f});
    group.recalculateMaximum();
    QCOMPARE(group.getMaximum(), 50.0f);
    QCOMPARE(spy.count(), 6);

    group.setMaximumSliding(true);
    QCOMPARE(spy.count(), 7);
    QCOMPARE(group.getMaximum(), 80.0f);
}

void TestLineGraph::painting_data()
{
    QTest::addColumn<float>("fixedMaximum");
    QTest::addColumn<bool>("active");
    QTest::addColumn<QList<float>>("samples");
    QTest::addColumn<QList<QPoint>>("red"); // empty: the whole image stays black
    QTest::addColumn<QList<QPoint>>("black");

    const QList<QPoint> none;
    const float sliding = float(qQNaN());
    // One sample step is 10 pixels wide; 5 of 20 sits at y = 150 with a 2-pixel pen.
    QTest::newRow("sample to pixel") << 20.0f << true
                                     << (QList<float>{10.0f} + repeated(5.0f, 498) + QList<float>{10.0f})
                                     << QList<QPoint>{{2500, 149}, {2500, 150}, {5, 125}, {4985, 125}}
                                     << QList<QPoint>{{2500, 148}, {2500, 151}, {15, 125}, {4975, 125}};
    QTest::newRow("new line") << sliding << false << QList<float>() << none << none;
    QTest::newRow("inactive, fixed") << 20.0f << false << QList<float>{10.0f, 15.0f} << none << none;
    QTest::newRow("only negative") << sliding << true << QList<float>{-5.0f, -2.0f} << none << none;
    QTest::newRow("fixed maximum 0") << 0.0f << true << QList<float>{10.0f, 15.0f} << none << none;
}

void TestLineGraph::painting()
{
    QFETCH(float, fixedMaximum);
    QFETCH(bool, active);
    QFETCH(QList<float>, samples);
    QFETCH(QList<QPoint>, red);
    QFETCH(QList<QPoint>, black);

    LineValuesGroup group;
    LineValues* line = group.addLine("line", Qt::red);
    line->setActive(active);
    feed(line, samples);
    group.setMaximumSliding(qIsNaN(fixedMaximum));
    if (!qIsNaN(fixedMaximum))
        group.setMaximum(fixedMaximum);

    QImage image(4990, 200, QImage::Format_RGB32);
    image.fill(Qt::black);
    const QImage blank = image;
    QPainter painter(&image);
    group.paint(painter, image.size());
    painter.end();
    if (red.isEmpty())
        QCOMPARE(image, blank);
    for (const QPoint& point : red)
        QCOMPARE(image.pixel(point), qRgb(255, 0, 0));
    for (const QPoint& point : black)
        QCOMPARE(image.pixel(point), qRgb(0, 0, 0));
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
    QTest::newRow("zero maximum, rounded") << QStringList{" channel(s)", ""} << QList<int>{0, 0}
                                           << QList<float>{0.0f, 63.6f} << "0 channel(s) / 64" << "0 channel(s) / 0";
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
    const QList<QPair<LineValues*, float>> lines = {{first->addLine("top", Qt::green), 10.0f},
                                                    {first->addLine("half", Qt::red), 5.0f},
                                                    {second->addLine("other", Qt::blue), 3.0f}};
    for (const auto& line : lines) {
        line.first->setActive(true);
        feed(line.first, repeated(line.second, 500));
    }

    // Each group has its own scale: "other" is its group's maximum.
    const QImage image = graph.grab().toImage();
    QCOMPARE(image.pixel(250, 75), qRgb(49, 56, 64));
    QCOMPARE(image.pixel(250, 30), qRgb(49, 56, 64));
    QCOMPARE(image.pixel(250, 49), qRgb(255, 0, 0));
    QCOMPARE(image.pixel(250, 50), qRgb(255, 0, 0));
    QCOMPARE(image.pixel(250, 0), qRgb(0, 0, 255));
    QCOMPARE(image.pixel(498, 50), qRgb(255, 0, 0));
}

QTEST_MAIN(TestLineGraph)
#include "tst_linegraph.moc"
