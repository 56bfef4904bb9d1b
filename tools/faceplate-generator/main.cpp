// Draws the node faceplates: a bevelled frame around a transparent window.
// The view scales them down to the node box (120 x 45 at scale 1.0), so they
// are drawn at twice that size with every feature two pixels wide; at the
// common scale the frame then lands on whole pixels and stays crisp.

#include <QColor>
#include <QCoreApplication>
#include <QDir>
#include <QImage>
#include <QLinearGradient>
#include <QPainter>
#include <QPainterPath>
#include <QPolygonF>
#include <QString>
#include <QTextStream>

namespace
{

const int ImageWidth = 240;
const int ImageHeight = 90;
// The view fills the node from 3 logical pixels inside the box outwards of
// this, so the window must start no later than 6 image pixels in.
const int FrameWidth = 6;
const qreal CornerRadius = 6.0;

struct FaceplateColours
{
    QColor top;        // frame gradient, upper edge
    QColor bottom;     // frame gradient, lower edge
    QColor light;      // bevel facing the light
    QColor shadow;     // bevel facing away from it
    QColor windowEdge; // thin line that separates the frame from the window
};

QRectF imageRect()
{
    return QRectF(0, 0, ImageWidth, ImageHeight);
}

QRectF windowRect()
{
    return imageRect().adjusted(FrameWidth, FrameWidth, -FrameWidth, -FrameWidth);
}

QPainterPath roundedPath(const QRectF& rect, qreal radius)
{
    QPainterPath path;
    path.addRoundedRect(rect, radius, radius);
    return path;
}

QPainterPath rectPath(const QRectF& rect)
{
    QPainterPath path;
    path.addRect(rect);
    return path;
}

// The upper-left part of the plate, split from the lower-right part along
// 45 degree lines from the corners, as light falling from the upper left
// would split a bevel.
QPolygonF litHalf()
{
    const qreal half = ImageHeight / 2.0;
    QPolygonF polygon;
    polygon << QPointF(0, 0) << QPointF(ImageWidth, 0) << QPointF(ImageWidth - half, half)
            << QPointF(half, half) << QPointF(0, ImageHeight);
    return polygon;
}

QPainterPath shadedHalf()
{
    QPainterPath whole = rectPath(imageRect());
    QPainterPath lit;
    lit.addPolygon(litHalf());
    lit.closeSubpath();
    return whole.subtracted(lit);
}

QPainterPath litHalfPath()
{
    QPainterPath lit;
    lit.addPolygon(litHalf());
    lit.closeSubpath();
    return lit;
}

// Fills a band of the frame, lit and shaded parts in their own colours.
void fillBevel(QPainter& painter, const QPainterPath& band, const QColor& lit, const QColor& shaded)
{
    painter.fillPath(band.intersected(litHalfPath()), lit);
    painter.fillPath(band.intersected(shadedHalf()), shaded);
}

void drawFrame(QPainter& painter, const FaceplateColours& colours)
{
    const QPainterPath outer = roundedPath(imageRect(), CornerRadius);
    const QPainterPath window = rectPath(windowRect());

    QLinearGradient gradient(0, 0, 0, ImageHeight);
    gradient.setColorAt(0.0, colours.top);
    gradient.setColorAt(1.0, colours.bottom);
    painter.fillPath(outer.subtracted(window), gradient);

    // Raised outer rim, two pixels.
    const QPainterPath rimInner = roundedPath(imageRect().adjusted(2, 2, -2, -2), CornerRadius - 2);
    fillBevel(painter, outer.subtracted(rimInner), colours.light, colours.shadow);

    // Sunken inner edge, two pixels: the window looks set into the plate.
    const QPainterPath insetOuter = rectPath(windowRect().adjusted(-2, -2, 2, 2));
    fillBevel(painter, insetOuter.subtracted(window), colours.shadow, colours.light);

    // One dark pixel right at the window so the fill colour meets a clean edge.
    const QPainterPath edgeOuter = rectPath(windowRect().adjusted(-1, -1, 1, 1));
    painter.fillPath(edgeOuter.subtracted(window), colours.windowEdge);
}

QImage drawFaceplate(const FaceplateColours& colours)
{
    QImage image(ImageWidth, ImageHeight, QImage::Format_ARGB32);
    image.fill(Qt::transparent);
    QPainter painter(&image);
    painter.setRenderHint(QPainter::Antialiasing);
    drawFrame(painter, colours);
    painter.end();
    return image;
}

// Gunmetal: reads as a frame on the view's dark background without competing
// with the unit's fill colour.
FaceplateColours normalColours()
{
    return { QColor(132, 140, 150), QColor(78, 84, 94), QColor(200, 206, 214),
             QColor(40, 44, 50), QColor(20, 22, 26) };
}

// Amber: no fill colour the view uses is close to it, so a selected unit is
// found at a glance.
FaceplateColours highlightColours()
{
    return { QColor(255, 214, 64), QColor(240, 140, 0), QColor(255, 244, 190),
             QColor(150, 70, 0), QColor(70, 30, 0) };
}

bool writeImage(const QImage& image, const QString& fileName)
{
    if (image.save(fileName, "PNG"))
        return true;
    QTextStream(stderr) << "cannot write " << fileName << "\n";
    return false;
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    const QStringList arguments = app.arguments();
    if (arguments.size() != 2) {
        QTextStream(stderr) << "usage: faceplate-generator <output directory>\n";
        return 2;
    }
    const QDir outputDir(arguments.at(1));
    const bool normalWritten = writeImage(drawFaceplate(normalColours()),
                                          outputDir.filePath("node-faceplate.png"));
    const bool highlightWritten = writeImage(drawFaceplate(highlightColours()),
                                             outputDir.filePath("node-faceplate-highlight.png"));
    return normalWritten && highlightWritten ? 0 : 1;
}
