#include "profilerpixmapbutton.h"
#include "profilersimplelabel.h"

#include <QColor>
#include <QEvent>
#include <QFont>
#include <QFontMetrics>
#include <QImage>
#include <QTemporaryDir>
#include <QtTest>

namespace {

bool containsColour(const QImage& image, QColor colour)
{
    for (int i = 0; i < image.width() * image.height(); ++i) {
        const QColor pixel = image.pixelColor(i % image.width(), i / image.width());
        if (qAbs(pixel.red() - colour.red()) < 40 && qAbs(pixel.green() - colour.green()) < 40
            && qAbs(pixel.blue() - colour.blue()) < 40)
            return true;
    }
    return false;
}

QColor centreColour(QWidget& widget)
{
    const QImage image = widget.grab().toImage();
    return image.pixelColor(image.width() / 2, image.height() / 2);
}

} // namespace

class TestCustomWidgets : public QObject
{
    Q_OBJECT

private slots:
    void label();
    void elidingLabel();
    void buttonPicksImageForState_data();
    void buttonPicksImageForState();

private:
    QTemporaryDir imageDir;
    const QList<QColor> stateColours{Qt::red, Qt::green, Qt::blue, Qt::yellow, Qt::magenta};
};

void TestCustomWidgets::label()
{
    ProfilerSimpleLabel label;
    label.setText("Other text"); // measured in the small font, before the big one
    label.setText("MMMM");
    label.setColor(QColor(Qt::red));
    QVERIFY(containsColour(label.grab().toImage(), Qt::red));
    label.setColor(QColor(Qt::blue));
    const QImage blueImage = label.grab().toImage();
    QVERIFY(containsColour(blueImage, Qt::blue) && !containsColour(blueImage, Qt::red));

    QFont bigFont = label.font();
    bigFont.setPointSize(bigFont.pointSize() * 3);
    label.setFont(bigFont);
    label.setText("Other text");
    const QSize expected = QFontMetrics(bigFont).size(0, "Other text");
    QCOMPARE(label.minimumSize(), expected);
    QCOMPARE(label.maximumSize(), expected);
}

// An eliding label may be squeezed to its first word, and cuts its text only
// when it has less room than the whole text needs.
void TestCustomWidgets::elidingLabel()
{
    const QString text = QStringLiteral("37.73% / 87 channel(s) / 47 codec(s) / 66.5 MB");
    ProfilerSimpleLabel plain;
    plain.setText(text);
    ProfilerSimpleLabel eliding;
    eliding.setElideMode(Qt::ElideRight);
    eliding.setText(text);
    const QFontMetrics metrics(eliding.font());
    QCOMPARE(eliding.maximumSize(), plain.maximumSize());
    QCOMPARE(eliding.sizeHint(), metrics.size(0, text));
    QCOMPARE(eliding.minimumWidth(), metrics.horizontalAdvance(QStringLiteral("37.73%") + QChar(0x2026)));

    eliding.resize(plain.size());
    QCOMPARE(eliding.grab().toImage(), plain.grab().toImage());
    eliding.resize(plain.width() / 2, plain.height());
    plain.setMinimumWidth(0); // else the plain label keeps its width and differs by size alone
    plain.resize(eliding.size());
    QVERIFY(eliding.grab().toImage() != plain.grab().toImage());
}

void TestCustomWidgets::buttonPicksImageForState_data()
{
    QTest::addColumn<QString>("state");
    QTest::addColumn<QList<int>>("keys");
    QTest::addColumn<int>("shownKey");

    const QList<int> all = {0, 1, 2, 3, 4};
    QTest::newRow("idle") << "" << all << 0;
    QTest::newRow("hovered") << "hovered" << all << 4;
    QTest::newRow("pressed") << "down" << all << 1;
    QTest::newRow("checked") << "checked" << all << 2;
    QTest::newRow("checked and hovered") << "checked hovered" << all << 2;
    QTest::newRow("checked and pressed") << "checked down" << all << 3;
    QTest::newRow("only normal, every state") << "checked down hovered" << QList<int>{0} << 0;
    QTest::newRow("checked, keys 0 1 4") << "checked" << QList<int>{0, 1, 4} << 1;
    QTest::newRow("checked hovered, keys 0 1 4") << "checked hovered" << QList<int>{0, 1, 4} << 1;
    QTest::newRow("checked hovered, keys 0 4") << "checked hovered" << QList<int>{0, 4} << 4;
    QTest::newRow("checked pressed, keys 0 2") << "checked down" << QList<int>{0, 2} << 0;
    QTest::newRow("pressed, keys 0 3") << "down" << QList<int>{0, 3} << 0;
    QTest::newRow("pressed and hovered, keys 0 4") << "down hovered" << QList<int>{0, 4} << 0;
}

void TestCustomWidgets::buttonPicksImageForState()
{
    QFETCH(QString, state);
    QFETCH(QList<int>, keys);
    QFETCH(int, shownKey);
    const bool down = state.contains("down"), checked = state.contains("checked"), hovered = state.contains("hovered");

    QMap<int, QString> resourceMap;
    for (int key : keys) {
        QImage image(8, 8, QImage::Format_ARGB32);
        image.fill(stateColours.at(key));
        resourceMap.insert(key, imageDir.filePath(QString("state%1.png").arg(key)));
        QVERIFY(image.save(resourceMap[key], "PNG"));
    }

    ProfilerPixmapButton button;
    button.resize(20, 20);
    button.setCheckable(true);
    button.setChecked(checked);
    button.setDown(down);
    button.setResourceMap(resourceMap);
    QEvent enter(QEvent::Enter), leave(QEvent::Leave);
    if (hovered)
        QCoreApplication::sendEvent(&button, &enter);
    QCOMPARE(centreColour(button), stateColours.at(shownKey));

    // Leaving takes the hover image away again.
    if (hovered && !down && !checked) {
        QCoreApplication::sendEvent(&button, &leave);
        QCOMPARE(centreColour(button), stateColours.at(0));
    }
}

QTEST_MAIN(TestCustomWidgets)
#include "tst_customwidgets.moc"
