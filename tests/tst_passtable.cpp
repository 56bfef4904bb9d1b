#include "passtable.h"

#include "dspplacements.h"

#include <QPoint>
#include <QRandomGenerator>
#include <QtTest>

#include <memory>
#include <vector>

class TestPassTable : public QObject
{
    Q_OBJECT

private slots:
    void passesFindOnlyTheirOwnEntries();
    void placementsMatchAPlainHash();
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

// Two layouts share the model's units, units come and go or change ids, some share
// their low 32 bits, and passes sized far below the keys seen force the
// rows to be given up and numbered again: every answer must still be what
// a plain hash keyed by the low 32 bits gives.
void TestPassTable::placementsMatchAPlainHash()
{
    QRandomGenerator random(11);
    std::vector<std::unique_ptr<DSPNode>> units;
    DSPPlacementTable tables[2];
    QHash<int, QPoint> expected[2];
    for (int pass = 0; pass < 60; ++pass) {
        // New units, every fifth sharing the low bits of an earlier one.
        for (int i = 0; i < 40; ++i) {
            auto unit = std::make_unique<DSPNode>();
            const bool twin = !units.empty() && i % 5 == 0;
            const quint64 low = twin ? units[random.bounded(int(units.size()))]->id & 0xffffffffULL
                                     : random.generate();
            unit->id = (quint64(random.bounded(4)) << 32) | low;
            units.push_back(std::move(unit));
        }
        if (units.size() > 300)
            units.erase(units.begin(), units.begin() + 40);
        // A model edited by hand may give a unit another id.
        units[random.bounded(int(units.size()))]->id = random.generate64();

        const int t = pass % 2;
        tables[t].startPass(pass % 3 == 0 ? 0 : int(units.size()));
        expected[t].clear();
        for (int step = 0; step < 400; ++step) {
            const DSPNode* unit = units[random.bounded(int(units.size()))].get();
            const int key = DSPPlacementTable::keyOf(unit->id);
            if (random.bounded(2)) {
                const QPoint position(random.bounded(1000), random.bounded(1000));
                tables[t].insert(unit, position);
                expected[t].insert(key, position);
                continue;
            }
            QPoint found(-7, -7);
            QCOMPARE(tables[t].find(unit, &found), expected[t].contains(key));
            QCOMPARE(found, expected[t].value(key, QPoint(-7, -7)));
        }
        QCOMPARE(tables[t].toHash(), expected[t]);
        QCOMPARE(tables[1 - t].toHash(), expected[1 - t]);
    }

    // Units that come and go do not grow the table without bound.
    DSPPlacementTable churn;
    for (int pass = 0; pass < 100; ++pass) {
        churn.startPass(100);
        for (int i = 0; i < 100; ++i) {
            DSPNode unit;
            unit.id = quint64(pass) * 100 + i;
            churn.insert(&unit, QPoint());
        }
        QVERIFY(churn.rowCount() <= 2 * 100 + 1024 + 100);
    }
}

QTEST_GUILESS_MAIN(TestPassTable)
#include "tst_passtable.moc"
