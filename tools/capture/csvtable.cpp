#include "csvtable.h"

#include <charconv>

bool CsvTable::open(const QString& fileName, const QStringList& header)
{
    file.setFileName(fileName);
    if (!file.open(QIODevice::WriteOnly))
        return false;
    addRow(header);
    return true;
}

void CsvTable::addRow(const QStringList& cells)
{
    QString row;
    for (int i = 0; i < cells.size(); ++i) {
        if (i > 0)
            row += QLatin1Char(',');
        row += field(cells.at(i));
    }
    row += QLatin1Char('\n');
    // A failed write is remembered by the file and reported by commit().
    file.write(row.toUtf8());
}

bool CsvTable::commit()
{
    return file.commit();
}

QString CsvTable::errorString() const
{
    return QStringLiteral("%1: %2").arg(file.fileName(), file.errorString());
}

QString CsvTable::number(float value)
{
    char text[32];
    const std::to_chars_result result = std::to_chars(text, text + sizeof text, value);
    return QString::fromLatin1(text, int(result.ptr - text));
}

QString CsvTable::seconds(qint64 us)
{
    const QString sign = us < 0 ? QStringLiteral("-") : QString();
    const quint64 magnitude = us < 0 ? quint64(0) - quint64(us) : quint64(us);
    return sign + QString::number(magnitude / 1000000u) + QLatin1Char('.')
           + QString::number(magnitude % 1000000u).rightJustified(6, QLatin1Char('0'));
}

QString CsvTable::field(const QString& text)
{
    if (!text.contains(QLatin1Char(',')) && !text.contains(QLatin1Char('"')) && !text.contains(QLatin1Char('\n'))
        && !text.contains(QLatin1Char('\r')))
        return text;
    QString quoted = text;
    quoted.replace(QLatin1Char('"'), QStringLiteral("\"\""));
    return QLatin1Char('"') + quoted + QLatin1Char('"');
}
