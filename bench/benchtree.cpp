#include "benchclock.h"
#include "benchinstall.h"
#include "benchtable.h"

#include <QFile>

// The generated tree through the real window: the whole install against
// cp -r and the pause floor, and a cancel in the middle of it.

namespace {

enum ETreeSide { treeEngine, treeCp, treeFloor, treeWalk, treeSides };

bool measureTreeSide(int side, const TBenchTreeInfo& info, const QString& strDst, QVector<double>* itemsOfMs,
                     QVector<double>& itemsOfGap, QVector<double>& itemsOfIdleGap)
{
    bool bOk = true;
    clearDestination(strDst);
    if (side == treeEngine) {
        const TInstallRun run = runEngineInstall(strDst, -1, info.fileCount);
        if (!run.bOk)
            err() << "tree: engine run failed: " << run.strError << "\n";
        bOk = run.bOk;
        itemsOfMs[side] << run.ms;
        itemsOfGap << run.maxGapMs;
        itemsOfIdleGap << runIdleGapMs(qMin(run.ms, 5000.0));
    } else if (side == treeCp) {
        itemsOfMs[side] << runCommandMs({QStringLiteral("cp"), QStringLiteral("-r"), info.filesDir, strDst}, bOk);
    } else if (side == treeFloor) {
        itemsOfMs[side] << runPauseFloorMs(info.fileCount);
    } else {
        itemsOfMs[side] << runQFileCopyWalkMs(info.filesDir, strDst, bOk);
    }
    if (!bOk)
        err() << "tree: measurement " << side << " failed\n";
    return bOk;
}

} // namespace

bool benchTree(const TBenchOptions& options, const TBenchTreeInfo& info)
{
    const QString strDst = options.strWorkDir + QStringLiteral("/dst-tree");
    QVector<double> itemsOfMs[treeSides];
    QVector<double> itemsOfGap, itemsOfIdleGap;
    err() << "tree: warm-up\n" << Qt::flush;
    QVector<double> itemsOfWarmUp[treeSides];
    QVector<double> itemsOfWarmUpGap, itemsOfWarmUpIdleGap;
    measureTreeSide(treeCp, info, strDst, itemsOfWarmUp, itemsOfWarmUpGap, itemsOfWarmUpIdleGap);
    measureTreeSide(treeEngine, info, strDst, itemsOfWarmUp, itemsOfWarmUpGap, itemsOfWarmUpIdleGap);
    for (int rep = 0; rep < options.runs; ++rep) {
        for (int side : rotation(rep, treeSides))
            if (!measureTreeSide(side, info, strDst, itemsOfMs, itemsOfGap, itemsOfIdleGap))
                return false;
        err() << "tree: " << rep + 1 << "/" << options.runs << " engine " << itemsOfMs[treeEngine].last()
              << " ms, cp " << itemsOfMs[treeCp].last() << " ms, floor " << itemsOfMs[treeFloor].last()
              << " ms, QFile::copy walk " << itemsOfMs[treeWalk].last() << " ms\n" << Qt::flush;
    }
    clearDestination(strDst);

    const double engine = medianOf(itemsOfMs[treeEngine]), cp = medianOf(itemsOfMs[treeCp]);
    const double floor = medianOf(itemsOfMs[treeFloor]), walk = medianOf(itemsOfMs[treeWalk]);
    const double ratio = engine / (cp + floor);
    printRow({QStringLiteral("Tree install (%1 files, %2 dirs) vs cp -r + pause floor").arg(info.fileCount).arg(info.dirCount),
              ms(engine), QStringLiteral("%1 + %2").arg(ms(cp), ms(floor)), QString::number(ratio, 'f', 3),
              QStringLiteral("≤ 1.05"), metText(ratio <= 1.05)});
    printRow({QStringLiteral("Tree install vs bare QFile::copy walk + pause floor (diagnostic)"), ms(engine),
              QStringLiteral("%1 + %2").arg(ms(walk), ms(floor)), QString::number(engine / (walk + floor), 'f', 3),
              QStringLiteral("—"), QStringLiteral("—")});
    const double gapMedian = medianOf(itemsOfGap), gapWorst = maxOf(itemsOfGap);
    printRow({QStringLiteral("Longest main-thread gap, 5 ms timer, per run"),
              QStringLiteral("%1 median, %2 worst").arg(ms(gapMedian), ms(gapWorst)),
              QStringLiteral("idle window: %1 median, %2 worst").arg(ms(medianOf(itemsOfIdleGap)), ms(maxOf(itemsOfIdleGap))),
              QStringLiteral("—"), QStringLiteral("≤ 20 ms"), metText(gapWorst <= 20.0)});
    return true;
}

namespace {

// One copy of a file of the largest small size: the file that a cancel in
// the small files can find in flight.
double smallFileCopyMs(const TBenchOptions& options)
{
    const QString strSrc = options.strWorkDir + QStringLiteral("/small-src.bin");
    const QString strDst = options.strWorkDir + QStringLiteral("/small-dst.bin");
    QFile fileSrc(strSrc);
    if (!fileSrc.open(QIODevice::WriteOnly) || fileSrc.write(QByteArray(options.tree.smallMaxBytes, 'x')) < 0)
        return 0.0;
    fileSrc.close();
    QVector<double> itemsOfMs;
    for (int rep = 0; rep < options.runs; ++rep) {
        QFile::remove(strDst);
        const qint64 startNs = benchNowNs();
        QFile::copy(strSrc, strDst);
        itemsOfMs << static_cast<double>(benchNowNs() - startNs) / 1e6;
    }
    QFile::remove(strDst);
    QFile::remove(strSrc);
    return medianOf(itemsOfMs);
}

} // namespace

bool benchCancel(const TBenchOptions& options, const TBenchTreeInfo& info)
{
    const QString strDst = options.strWorkDir + QStringLiteral("/dst-cancel");
    QVector<double> itemsOfStop;
    const int steps = options.tree.smallCount + info.dirCount;
    for (int rep = 0; rep < options.cancelRuns; ++rep) {
        // Spread over the small files, before the medium and the large ones.
        const double share = 0.1 + 0.5 * rep / qMax(1, options.cancelRuns - 1);
        clearDestination(strDst);
        const TInstallRun run = runEngineInstall(strDst, qMax(1, static_cast<int>(steps * share)), info.fileCount);
        if (!run.bOk) {
            err() << "cancel: run skipped: " << run.strError << "\n";
            continue;
        }
        itemsOfStop << run.cancelToStopMs;
    }
    clearDestination(strDst);
    if (itemsOfStop.isEmpty())
        return false;
    const double bound = smallFileCopyMs(options) + 5.0;
    const double worst = maxOf(itemsOfStop);
    printRow({QStringLiteral("Cancel press to worker's end (%1 runs)").arg(itemsOfStop.size()),
              QStringLiteral("%1 median, %2 worst").arg(ms(medianOf(itemsOfStop)), ms(worst)), QStringLiteral("—"),
              QStringLiteral("—"), QStringLiteral("≤ %1 (one copy of %2 bytes + 5 ms)").arg(ms(bound)).arg(options.tree.smallMaxBytes),
              metText(worst <= bound)});
    return true;
}

