#ifndef FLOWLAYOUT_H
#define FLOWLAYOUT_H

#include <QHBoxLayout>
#include <QVector>

#include <climits>

// A row of items that wraps onto further rows when it is too narrow. As
// wide as its items want, it is exactly a QHBoxLayout; narrower, items go
// on in order on the next row, each row laid out like the single one: a
// stretch takes a row's spare width, items keep their preferred widths and
// are centred in the row's height unless they can grow into it.
//
// The layout never asks for less width than its widest item, nor for less
// than lets its items fit in `maximumRows` rows, so a window can be made
// narrow without a row falling apart into a column.
class FlowLayout : public QHBoxLayout
{
public:
    explicit FlowLayout(int maximumRows = INT_MAX);

    int getMaximumRows() const { return maximumRows; }

    QSize minimumSize() const override;
    bool hasHeightForWidth() const override;
    int heightForWidth(int width) const override;
    int minimumHeightForWidth(int width) const override;
    void setGeometry(const QRect& rect) override;
    void invalidate() override;

private:
    struct Placement
    {
        QLayoutItem* item;
        int width;
        int row;
    };
    struct Row
    {
        int height = 0;
        int spareWidth = 0;
        int stretchItems = 0;
    };

    int gap() const;
    int singleRowWidth() const;
    int marginsWidth() const;
    int marginsHeight() const;
    bool fitsOneRow(int width) const;
    int minimumContentWidth() const;
    int widestItem() const;
    int itemHeight(QLayoutItem* item, int width) const;
    // Breaks the items into rows for a content width (margins excluded).
    QVector<Placement> wrap(int contentWidth, QVector<Row>* rows) const;
    QVector<Placement> breakRows(int contentWidth, bool preferredWidths) const;
    void fitRow(Placement* placements, int count, int contentWidth, Row* row) const;
    int extraWidth(QLayoutItem* item) const;
    int wrappedHeight(int contentWidth) const;
    int tallestWrap() const;
    int rowCount(int contentWidth) const;

    int maximumRows;
    mutable int cachedMinimumWidth = -1;
    mutable int cachedTallest = -1;
};

#endif // FLOWLAYOUT_H
