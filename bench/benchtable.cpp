#include "benchtable.h"

#include <cstdio>

#include <unistd.h>

bool MinimumTimeReporter::ReportContext(const Context&)
{
    return true;
}

void MinimumTimeReporter::ReportRuns(const std::vector<Run>& runs)
{
    for (const Run& run : runs) {
        if (run.error_occurred)
            continue;
        // With repetitions only the "min" aggregate counts; without, the one run.
        const bool single = run.run_type == Run::RT_Iteration && run.repetitions <= 1;
        const bool minimum = run.run_type == Run::RT_Aggregate && run.aggregate_name == "min";
        if (!single && !minimum)
            continue;
        const double value = run.GetAdjustedCPUTime() / benchmark::GetTimeUnitMultiplier(run.time_unit);
        seconds[run.run_name.function_name] = value;
        // Progress on one line that the table then replaces.
        if (isatty(STDERR_FILENO)) {
            std::fprintf(stderr, "\r\033[K%s %s", run.run_name.function_name.c_str(),
                         qPrintable(formatDuration(value)));
        }
    }
}

void MinimumTimeReporter::Finalize()
{
    if (isatty(STDERR_FILENO))
        std::fputs("\r\033[K", stderr);
}

double MinimumTimeReporter::getSeconds(const std::string& name) const
{
    const auto found = seconds.find(name);
    return found == seconds.end() ? -1.0 : found->second;
}

TextTable::TextTable(const QStringList& header)
{
    rows.append(header);
}

void TextTable::addRow(const QStringList& cells)
{
    rows.append(cells);
}

QString TextTable::toString() const
{
    QVector<int> widths(rows.first().size(), 0);
    for (const QStringList& row : rows) {
        for (int i = 0; i < row.size() && i < widths.size(); ++i)
            widths[i] = qMax(widths[i], row.at(i).size());
    }
    const auto line = [&widths](const QStringList& cells) {
        QString text = QStringLiteral("|");
        for (int i = 0; i < widths.size(); ++i) {
            const QString cell = cells.value(i);
            // Names left, figures right.
            text += QLatin1Char(' ') + (i < 2 ? cell.leftJustified(widths[i]) : cell.rightJustified(widths[i]))
                    + QStringLiteral(" |");
        }
        return text + QLatin1Char('\n');
    };
    QString text = line(rows.first());
    QString separator = QStringLiteral("|");
    for (int i = 0; i < widths.size(); ++i) {
        separator += i < 2 ? QString(widths[i] + 2, QLatin1Char('-'))
                           : QString(widths[i] + 1, QLatin1Char('-')) + QLatin1Char(':');
        separator += QLatin1Char('|');
    }
    text += separator + QLatin1Char('\n');
    for (int i = 1; i < rows.size(); ++i)
        text += line(rows.at(i));
    return text;
}

QString formatDuration(double seconds)
{
    if (seconds < 0.0)
        return QStringLiteral("-");
    if (seconds < 1e-6)
        return QString::number(seconds * 1e9, 'f', 1) + QStringLiteral(" ns");
    if (seconds < 1e-3)
        return QString::number(seconds * 1e6, 'f', seconds < 1e-4 ? 2 : 1) + QStringLiteral(" us");
    if (seconds < 1.0)
        return QString::number(seconds * 1e3, 'f', seconds < 1e-2 ? 2 : 1) + QStringLiteral(" ms");
    return QString::number(seconds, 'f', 2) + QStringLiteral(" s");
}
