#ifndef BENCHTABLE_H
#define BENCHTABLE_H

#include <benchmark/benchmark.h>

#include <QString>
#include <QStringList>
#include <QVector>

#include <map>
#include <string>

// Keeps the fastest repetition of each benchmark (CPU time per iteration)
// instead of printing Google Benchmark's own report: on a shared machine the
// minimum is the figure least disturbed by other work.
class MinimumTimeReporter : public benchmark::BenchmarkReporter
{
public:
    bool ReportContext(const Context& context) override;
    void ReportRuns(const std::vector<Run>& runs) override;
    void Finalize() override;

    // Seconds per iteration, or a negative value when the benchmark did not run.
    double getSeconds(const std::string& name) const;

private:
    std::map<std::string, double> seconds;
};

// A Markdown table, columns padded so that it also reads well in a terminal.
class TextTable
{
public:
    explicit TextTable(const QStringList& header);

    void addRow(const QStringList& cells);
    QString toString() const;

private:
    QVector<QStringList> rows;
};

QString formatDuration(double seconds);

#endif // BENCHTABLE_H
