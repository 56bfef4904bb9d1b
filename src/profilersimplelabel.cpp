#include "profilersimplelabel.h"

#include <QEvent>
#include <QFontMetrics>
#include <QPainter>
#include <QPalette>

namespace
{

// A bound on the sizes kept: values that wander widely measure afresh.
const int MaxKeptSizes = 256;

} // namespace

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
    const QSize size = textSize();
    QSize smallest = size;
    if (elideMode != Qt::ElideNone) {
        const QString firstWord = text.section(QLatin1Char(' '), 0, 0, QString::SectionSkipEmpty);
        const int shortest = QFontMetrics(font()).horizontalAdvance(firstWord + QChar(0x2026));
        smallest.setWidth(qMin(size.width(), shortest));
    }
    setMinimumSize(smallest);
    setMaximumSize(size);
}

QSize ProfilerSimpleLabel::textSize() const
{
    const auto kept = textSizes.constFind(text);
    if (kept != textSizes.constEnd())
        return *kept;
    if (textSizes.size() >= MaxKeptSizes)
        textSizes.clear();
    const QSize size = QFontMetrics(font()).size(0, text);
    textSizes.insert(text, size);
    return size;
}

void ProfilerSimpleLabel::changeEvent(QEvent* event)
{
    if (event->type() == QEvent::FontChange)
        textSizes.clear();
    QFrame::changeEvent(event);
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
    if (elideMode != Qt::ElideNone && width() < textSize().width())
        shownText = QFontMetrics(font()).elidedText(text, elideMode, width());
    painter.setPen(color);
    painter.drawText(rect(), int(alignment), shownText);
    painter.end();

    QFrame::paintEvent(event);
}
