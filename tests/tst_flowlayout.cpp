#include "flowlayout.h"

#include <QRandomGenerator>
#include <QTest>
#include <QWidget>

namespace
{

// A widget whose preferred and minimum widths the test chooses.
struct Block : QWidget
{
    Block(QSize preferred, int minimumWidth, bool expanding)
        : preferred(preferred)
        , minimumWidth(minimumWidth)
    {
        setSizePolicy(expanding ? QSizePolicy::Expanding : QSizePolicy::Preferred, QSizePolicy::Fixed);
    }
    QSize sizeHint() const override { return preferred; }
    QSize minimumSizeHint() const override { return QSize(minimumWidth, preferred.height()); }

    QSize preferred;
    int minimumWidth;
};

} // namespace

class TestFlowLayout : public QObject
{
    Q_OBJECT

private slots:
    void randomRowsKeepOrderAndBounds();
};

// Random rows of blocks, some that expand, a stretch somewhere, laid out at
// every width from the narrowest allowed to wider than one row needs.
void TestFlowLayout::randomRowsKeepOrderAndBounds()
{
    QRandomGenerator random(2026);
    for (int round = 0; round < 150; ++round) {
        const int maximumRows = 1 + random.bounded(4);
        QWidget host;
        auto* layout = new FlowLayout(maximumRows);
        layout->setContentsMargins(3, 2, 5, 4);
        layout->setSpacing(6);
        QWidget plainHost;
        auto* plain = new QHBoxLayout;
        plain->setContentsMargins(layout->contentsMargins());
        plain->setSpacing(6);
        QList<Block*> blocks, plainBlocks;
        const int count = 1 + random.bounded(9);
        const int stretchAt = random.bounded(count + 2);
        for (int i = 0; i < count; ++i) {
            if (i == stretchAt) {
                layout->addStretch();
                plain->addStretch();
            }
            const QSize preferred(20 + random.bounded(200), 10 + random.bounded(30));
            const int minimum = preferred.width() - random.bounded(preferred.width() / 2 + 1);
            const bool expanding = random.bounded(4) == 0;
            blocks << new Block(preferred, minimum, expanding);
            plainBlocks << new Block(preferred, minimum, expanding);
            layout->addWidget(blocks.last());
            plain->addWidget(plainBlocks.last());
        }
        host.setLayout(layout);
        plainHost.setLayout(plain);
        const int narrowest = layout->minimumSize().width();
        const int oneRow = layout->sizeHint().width();
        QVERIFY(narrowest <= oneRow);

        for (int width = narrowest; width <= oneRow + 40; width += 7) {
            const int height = layout->heightForWidth(width);
            QVERIFY2(height <= layout->minimumSize().height(), "the minimum height must hold every width's rows");
            layout->setGeometry(QRect(0, 0, width, height));
            const QRect content = QRect(0, 0, width, height).marginsRemoved(layout->contentsMargins());
            int rows = 1;
            for (int i = 0; i < blocks.size(); ++i) {
                const QRect box = blocks.at(i)->geometry();
                const QString where = QStringLiteral("round %1 width %2 block %3").arg(round).arg(width).arg(i);
                QVERIFY2(content.contains(box) && box.width() >= blocks.at(i)->minimumWidth, qPrintable(where));
                if (i == 0)
                    continue;
                const QRect previous = blocks.at(i - 1)->geometry();
                QVERIFY(!box.intersects(previous));
                // Reading order is insertion order: right of the previous block, or on a row wholly below it.
                const bool sameRow = box.left() >= previous.right() && box.top() < previous.bottom();
                // At least the spacing apart, across and down.
                QVERIFY(sameRow ? box.left() - previous.right() > 6 : box.top() - previous.bottom() > 6);
                rows += sameRow ? 0 : 1;
            }
            if (width == narrowest)
                QVERIFY(rows <= maximumRows);
            if (width >= oneRow) {
                // Wide enough, it is exactly the plain row.
                QCOMPARE(rows, 1);
                plain->setGeometry(QRect(0, 0, width, height));
                for (int i = 0; i < blocks.size(); ++i)
                    QCOMPARE(blocks.at(i)->geometry(), plainBlocks.at(i)->geometry());
            }
        }
    }
}

QTEST_MAIN(TestFlowLayout)
#include "tst_flowlayout.moc"
