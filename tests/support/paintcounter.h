#ifndef PAINTCOUNTER_H
#define PAINTCOUNTER_H

#include <QEvent>
#include <QObject>
#include <QWidget>

// Counts the paint events a widget receives: whether a view really painted
// after each update, or a busy event loop let repaints fold into one.
class PaintCounter : public QObject
{
public:
    explicit PaintCounter(QWidget* widget)
        : QObject(widget)
    {
        widget->installEventFilter(this);
    }

    int getCount() const { return count; }
    void setCount(int value) { count = value; }

protected:
    bool eventFilter(QObject* watched, QEvent* event) override
    {
        if (event->type() == QEvent::Paint)
            ++count;
        return QObject::eventFilter(watched, event);
    }

private:
    int count = 0;
};

#endif // PAINTCOUNTER_H
