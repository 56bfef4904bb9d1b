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
    updateSizeBounds();
    update();
}

// Fixing both bounds keeps layouts from giving the label more or less room
// than the text needs. A label that elides may shrink to its first word and
// an ellipsis.
void ProfilerSimpleLabel::updateSizeBounds()
{
    const QFontMetrics metrics(font());
    const QSize textSize = metrics.size(0, text);
    QSize smallest = textSize;
    if (elideMode != Qt::ElideNone) {
        const QString firstWord = text.section(QLatin1Char(' '), 0, 0, QString::SectionSkipEmpty);
        smallest.setWidth(qMin(textSize.width(), metrics.horizontalAdvance(firstWord + QChar(0x2026))));
    }
    setMinimumSize(smallest);
    setMaximumSize(textSize);
}

QSize ProfilerSimpleLabel::sizeHint() const
{
    return maximumSize();
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
    updateSizeBounds();
    update();
}

void ProfilerSimpleLabel::paintEvent(QPaintEvent* event)
{
    QPainter painter(this);
    QString shownText = text;
    // Only a label squeezed below its text's size elides: the eliding
    // measure rounds differently and would cut a text that fits exactly.
    const QFontMetrics metrics(font());
    if (elideMode != Qt::ElideNone && width() < metrics.size(0, text).width())
        shownText = metrics.elidedText(text, elideMode, width());
    painter.setPen(color);
    painter.drawText(rect(), int(alignment), shownText);
    painter.end();

    QFrame::paintEvent(event);
}
