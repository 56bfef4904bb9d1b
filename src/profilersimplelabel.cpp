#include "profilersimplelabel.h"

#include <QFontMetrics>
#include <QPainter>
#include <QPalette>

ProfilerSimpleLabel::ProfilerSimpleLabel(QWidget* parent, Qt::WindowFlags flags)
    : QFrame(parent, flags)
    , color(palette().color(QPalette::Text))
    , alignment(Qt::AlignCenter)
    , elideMode(Qt::ElideNone)
{
    setFrameStyle(QFrame::NoFrame | QFrame::Plain);
}

QString ProfilerSimpleLabel::getText() const
{
    return text;
}

void ProfilerSimpleLabel::setText(const QString& newText)
{
    if (newText == text)
        return;
    text = newText;
    // Fixing both bounds keeps layouts from giving the label more or less
    // room than the text needs.
    const QSize textSize = QFontMetrics(font()).size(0, text);
    setMinimumSize(textSize);
    setMaximumSize(textSize);
    update();
}

QColor ProfilerSimpleLabel::getColor() const
{
    return color;
}

void ProfilerSimpleLabel::setColor(const QColor& newColor)
{
    if (newColor == color)
        return;
    color = newColor;
    update();
}

Qt::Alignment ProfilerSimpleLabel::getAlignment() const
{
    return alignment;
}

void ProfilerSimpleLabel::setAlignment(Qt::Alignment newAlignment)
{
    if (newAlignment == alignment)
        return;
    alignment = newAlignment;
    update();
}

Qt::TextElideMode ProfilerSimpleLabel::getElideMode() const
{
    return elideMode;
}

void ProfilerSimpleLabel::setElideMode(Qt::TextElideMode newElideMode)
{
    if (newElideMode == elideMode)
        return;
    elideMode = newElideMode;
    update();
}

void ProfilerSimpleLabel::paintEvent(QPaintEvent* event)
{
    QPainter painter(this);
    QString shownText = text;
    if (elideMode != Qt::ElideNone)
        shownText = QFontMetrics(font()).elidedText(text, elideMode, width());
    painter.setPen(color);
    painter.drawText(rect(), int(alignment), shownText);
    painter.end();

    QFrame::paintEvent(event);
}
