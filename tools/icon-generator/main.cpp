// Paints the application icon as PNGs. Every coordinate is the one in
// packaging/icons/tarn-profiler.svg (a 256 x 256 canvas), so the bitmaps and
// the scalable icon show the same picture; the painter scales to each size.

#include <QColor>
#include <QCoreApplication>
#include <QDir>
#include <QImage>
#include <QLinearGradient>
#include <QPainter>
#include <QPainterPath>
#include <QPen>
#include <QPolygonF>
#include <QString>
#include <QTextStream>

namespace
{

const qreal CanvasSize = 256.0;
const QColor BoxOutline(0x8f, 0xa3, 0xb8);
const QColor Green(0x34, 0xc7, 0x59);
const QColor Yellow(0xf2, 0xc9, 0x4c);
const QColor Red(0xeb, 0x4d, 0x3d);

// A unit box with the meter that shows its CPU use.
struct UnitBox
{
    QRectF frame;
    QRectF meter;
    QColor meterColour;
};

QLinearGradient levelGradient()
{
    QLinearGradient gradient(40, 0, 216, 0);
    gradient.setColorAt(0.0, Green);
    gradient.setColorAt(0.55, Yellow);
    gradient.setColorAt(1.0, Red);
    return gradient;
}

QPolygonF levelCurve()
{
    return QPolygonF({{40, 200}, {68, 186}, {96, 194}, {124, 160}, {152, 174}, {180, 138}, {216, 128}});
}

void paintPlate(QPainter& painter)
{
    QLinearGradient gradient(0, 8, 0, 248);
    gradient.setColorAt(0.0, QColor(0x2e, 0x35, 0x40));
    gradient.setColorAt(1.0, QColor(0x14, 0x17, 0x1c));
    painter.setPen(QPen(QColor(0x47, 0x50, 0x5e), 4));
    painter.setBrush(gradient);
    painter.drawRoundedRect(QRectF(8, 8, 240, 240), 44, 44);
}

void paintUnits(QPainter& painter)
{
    painter.setPen(QPen(BoxOutline, 5, Qt::SolidLine, Qt::RoundCap));
    painter.drawLine(QPointF(108, 78), QPointF(148, 52));
    painter.drawLine(QPointF(108, 78), QPointF(148, 104));

    const UnitBox boxes[] = {
        {QRectF(40, 60, 68, 36), QRectF(50, 80, 40, 8), Red},
        {QRectF(148, 34, 68, 36), QRectF(158, 54, 18, 8), Green},
        {QRectF(148, 86, 68, 36), QRectF(158, 106, 30, 8), Yellow},
    };
    for (const UnitBox& box : boxes) {
        painter.setPen(QPen(BoxOutline, 4));
        painter.setBrush(QColor(0x3a, 0x43, 0x52));
        painter.drawRoundedRect(box.frame, 6, 6);
        painter.setPen(Qt::NoPen);
        painter.setBrush(box.meterColour);
        painter.drawRect(box.meter);
    }
}

void paintLevelGraph(QPainter& painter)
{
    const QPolygonF curve = levelCurve();
    QPolygonF area = curve;
    area << QPointF(216, 216) << QPointF(40, 216);
    painter.setPen(Qt::NoPen);
    painter.setBrush(levelGradient());
    painter.setOpacity(0.25);
    painter.drawPolygon(area);

    painter.setOpacity(1.0);
    painter.setBrush(Qt::NoBrush);
    painter.setPen(QPen(QBrush(levelGradient()), 12, Qt::SolidLine, Qt::RoundCap, Qt::RoundJoin));
    painter.drawPolyline(curve);
}

QImage paintIcon(int size)
{
    QImage image(size, size, QImage::Format_ARGB32_Premultiplied);
    image.fill(Qt::transparent);
    QPainter painter(&image);
    painter.setRenderHint(QPainter::Antialiasing);
    painter.scale(size / CanvasSize, size / CanvasSize);
    paintPlate(painter);
    paintUnits(painter);
    paintLevelGraph(painter);
    return image;
}

} // namespace

int main(int argc, char* argv[])
{
    QCoreApplication app(argc, argv);
    QTextStream err(stderr);
    const QStringList arguments = app.arguments();
    if (arguments.size() != 2) {
        err << "usage: icon-generator <output directory>" << Qt::endl;
        return 2;
    }
    const QDir outputDir(arguments.at(1));
    for (int size : {48, 256}) {
        const QString fileName = outputDir.filePath(QStringLiteral("tarn-profiler-%1.png").arg(size));
        if (!paintIcon(size).save(fileName)) {
            err << "icon-generator: cannot write " << fileName << Qt::endl;
            return 1;
        }
    }
    return 0;
}
