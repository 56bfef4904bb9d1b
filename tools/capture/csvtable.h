#ifndef CSVTABLE_H
#define CSVTABLE_H

#include <QSaveFile>
#include <QString>
#include <QStringList>

// One CSV file written row by row. It appears under its name only when
// committed, so an export that fails half-way leaves no half file behind.
class CsvTable
{
public:
    bool open(const QString& fileName, const QStringList& header);
    void addRow(const QStringList& cells);
    bool commit();
    QString errorString() const;

    // The shortest text that reads back as the same float, with '.' as the
    // decimal point whatever the locale.
    static QString number(float value);
    // Microseconds as seconds with six decimals, exactly.
    static QString seconds(qint64 us);
    // Quoted when it holds a comma, a quote or a line break.
    static QString field(const QString& text);

private:
    QSaveFile file;
};

#endif // CSVTABLE_H
