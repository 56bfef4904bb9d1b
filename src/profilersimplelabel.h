#ifndef PROFILERSIMPLELABEL_H
#define PROFILERSIMPLELABEL_H

#include <QColor>
#include <QFrame>
#include <QHash>
#include <QSize>
#include <QString>

class QEvent;
class QPaintEvent;

// A light label: one line of text in a chosen colour, sized exactly to the
// text. The legend rows update many of these per snapshot, so it avoids the
// layout work of QLabel.
class ProfilerSimpleLabel : public QFrame
{
public:
    explicit ProfilerSimpleLabel(QWidget* parent = nullptr, Qt::WindowFlags flags = Qt::WindowFlags());

    QString getText() const;
    void setText(const QString& newText);
    QColor getColor() const;
    void setColor(const QColor& newColor);
    Qt::Alignment getAlignment() const;
    void setAlignment(Qt::Alignment newAlignment);
    Qt::TextElideMode getElideMode() const;
    void setElideMode(Qt::TextElideMode newElideMode);
    // The whole text's size, which an eliding label may be squeezed below.
    QSize sizeHint() const override;

protected:
    void paintEvent(QPaintEvent* event) override;
    void changeEvent(QEvent* event) override;

private:
    void updateSizeBounds();
    QSize textSize() const;

    QString text;
    QColor color;
    Qt::Alignment alignment;
    Qt::TextElideMode elideMode;
    // Sizes of texts shown before, in the current font: measuring a text
    // shapes it, and a legend value mostly comes back to one it had.
    mutable QHash<QString, QSize> textSizes;
};

#endif // PROFILERSIMPLELABEL_H
