#pragma once

#include "gentree.h"

#include <QString>
#include <QTextStream>
#include <QVector>

// What the install benchmarks share: their options and the table they print.

struct TBenchOptions
{
    TBenchTreeSpec tree;
    int runs = 5;
    int cancelRuns = 9;
    QString strWorkDir;
    QString strCache = QStringLiteral("auto");
};

/// One row of the Markdown table; tools/bench.sh prints the head.
struct TBenchRow
{
    QString name;
    QString ours;
    QString reference;
    QString ratio;
    QString goal;
    QString met;
};

QTextStream& err();
void printRow(const TBenchRow& row);
QString ms(double value);
QString metText(bool bMet);
/// The order of `count` measurements in repetition `rep`, rotated so that
/// none always runs first.
QVector<int> rotation(int rep, int count);

bool benchTree(const TBenchOptions& options, const TBenchTreeInfo& info);
bool benchLarge(const TBenchOptions& options, const TBenchTreeInfo& info);
bool benchCancel(const TBenchOptions& options, const TBenchTreeInfo& info);
