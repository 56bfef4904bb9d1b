#include "passtable.h"

#include <QPoint>
#include <QtTest>

class TestPassTable : public QObject
{
    Q_OBJECT

private slots:
    void passesFindOnlyTheirOwnEntries();
    void publishLeavesExactlyThePass();
};

void TestPassTable::passesFindOnlyTheirOwnEntries()
{
    PassTable<unsigned long long, int> table;
    int value = 0;
    QVERIFY(!table.find(1, &value));

    // Started for two keys, given far more: it grows and keeps them all.
    table.startPass(2);
    for (int i = 0; i < 1000; ++i)
        table.insert(0x100000000ULL * i + 7, i);
    table.insert(7, -5);
    QCOMPARE(table.size(), 1000);
    for (int i = 0; i < 1000; ++i) {
        QVERIFY(table.find(0x100000000ULL * i + 7, &value));
        QCOMPARE(value, i == 0 ? -5 : i);
    }
    QVERIFY(!table.find(8, &value));

    // A new pass starts empty, whatever the cells still hold.
    table.startPass(10);
    QCOMPARE(table.size(), 0);
    QVERIFY(!table.find(7, &value));
    table.insert(0x100000000ULL + 7, 42);
    QVERIFY(table.find(0x100000000ULL + 7, &value));
    QCOMPARE(value, 42);
    QVERIFY(!table.find(0x200000000ULL + 7, &value));
}

void TestPassTable::publishLeavesExactlyThePass()
{
    PassTable<int, QPoint> table;
    QHash<int, QPoint> published;

    table.startPass(3);
    for (int key : { 1, 2, 3, -4 })
        table.insert(key, QPoint(key, key));
    table.publish(&published);
    QCOMPARE(published, (QHash<int, QPoint> { { 1, QPoint(1, 1) }, { 2, QPoint(2, 2) },
                                               { 3, QPoint(3, 3) }, { -4, QPoint(-4, -4) } }));

    // Keys of the last pass that did not come again go; a key put in by
    // hand goes too; values are overwritten.
    published.insert(99, QPoint(9, 9));
    table.startPass(3);
    table.insert(2, QPoint(20, 20));
    table.insert(5, QPoint(5, 5));
    table.publish(&published);
    QCOMPARE(published, (QHash<int, QPoint> { { 2, QPoint(20, 20) }, { 5, QPoint(5, 5) } }));
}

QTEST_GUILESS_MAIN(TestPassTable)
#include "tst_passtable.moc"
