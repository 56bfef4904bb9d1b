#include "profilerpixmapbutton.h"

#include <QPainter>
#include <QPixmap>
#include <QPixmapCache>
#include <QPoint>
#include <QRectF>

ProfilerPixmapButton::ProfilerPixmapButton(QWidget* parent)
    : QAbstractButton(parent)
    , hovered(false)
{
}

void ProfilerPixmapButton::setResourceMap(const QMap<int, QString>& newResourceMap)
{
    resourceMap = newResourceMap;
    update();
}

QMap<int, QString> ProfilerPixmapButton::getResourceMap() const
{
    return resourceMap;
}

void ProfilerPixmapButton::setHitRect(const QRect& newHitRect)
{
    hitRect = newHitRect;
}

QRect ProfilerPixmapButton::getHitRect() const
{
    return hitRect;
}

void ProfilerPixmapButton::paintEvent(QPaintEvent*)
{
    QPainter painter(this);
    drawPixmap(&painter, QRect(0, 0, width(), height()), currentPixmapPath());
}

bool ProfilerPixmapButton::hitButton(const QPoint& pos) const
{
    if (hitRect.isValid())
        return hitRect.contains(pos);
    return rect().contains(pos);
}

void ProfilerPixmapButton::enterEvent(QEvent*)
{
    hovered = true;
    update();
}

void ProfilerPixmapButton::leaveEvent(QEvent*)
{
    hovered = false;
    update();
}

QString ProfilerPixmapButton::currentPixmapPath() const
{
    if (isDown() && isChecked())
        return firstPathOf({PixmapStateCheckedDown, PixmapStateDown, PixmapStateNormal});
    if (isDown())
        return firstPathOf({PixmapStateDown, PixmapStateNormal});
    // A checked button without its own image looks pressed before it looks
    // hovered, so the checked state stays visible under the mouse.
    if (isChecked() && hovered)
        return firstPathOf({PixmapStateChecked, PixmapStateDown, PixmapStateHover, PixmapStateNormal});
    if (isChecked())
        return firstPathOf({PixmapStateChecked, PixmapStateDown, PixmapStateNormal});
    if (hovered)
        return firstPathOf({PixmapStateHover, PixmapStateNormal});
    return firstPathOf({PixmapStateNormal});
}

QString ProfilerPixmapButton::firstPathOf(std::initializer_list<int> keys) const
{
    for (int key : keys) {
        const QString path = resourceMap.value(key);
        if (!path.isNull())
            return path;
    }
    return QString();
}

void ProfilerPixmapButton::drawPixmap(QPainter* painter, const QRect& rect, const QString& path)
{
    QPixmap pixmap;
    if (!QPixmapCache::find(path, &pixmap)) {
        pixmap.load(path);
        QPixmapCache::insert(path, pixmap);
    }

    painter->save();
    painter->setRenderHint(QPainter::SmoothPixmapTransform);
    painter->drawPixmap(QRectF(rect), pixmap, QRectF(pixmap.rect()));
    painter->restore();
}
