#ifndef PROFILERPIXMAPBUTTON_H
#define PROFILERPIXMAPBUTTON_H

#include <QAbstractButton>
#include <QMap>
#include <QRect>
#include <QString>

#include <initializer_list>

class QEvent;
class QPaintEvent;
class QPainter;
class QPoint;

// A button drawn entirely from images, one per state. Missing states fall
// back to other images, ending with the normal one.
class ProfilerPixmapButton : public QAbstractButton
{
public:
    enum PixmapState
    {
        PixmapStateNormal = 0,
        PixmapStateDown = 1,
        PixmapStateChecked = 2,
        PixmapStateCheckedDown = 3,
        PixmapStateHover = 4
    };

    explicit ProfilerPixmapButton(QWidget* parent = nullptr);

    void setResourceMap(const QMap<int, QString>& newResourceMap);
    QMap<int, QString> getResourceMap() const;
    // An invalid rectangle (the default) makes the whole widget clickable.
    void setHitRect(const QRect& newHitRect);
    QRect getHitRect() const;

protected:
    void paintEvent(QPaintEvent* event) override;
    bool hitButton(const QPoint& pos) const override;
    void enterEvent(QEvent* event) override;
    void leaveEvent(QEvent* event) override;

private:
    QString currentPixmapPath() const;
    QString firstPathOf(std::initializer_list<int> keys) const;
    void drawPixmap(QPainter* painter, const QRect& rect, const QString& path);

    QMap<int, QString> resourceMap;
    QRect hitRect;
    bool hovered;
};

#endif // PROFILERPIXMAPBUTTON_H
