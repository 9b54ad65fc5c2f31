#include "benchclock.h"
#include "benchinstall.h"
#include "benchtable.h"

#include <QDir>
#include <QFile>

#include <unistd.h>

// The large file alone: the engine's copy against cp, with the page cache
// dropped before each run where the kernel lets us, or warmed for both.

namespace {

bool dropCaches()
{
    sync();
    QFile fileDrop(QStringLiteral("/proc/sys/vm/drop_caches"));
    return fileDrop.open(QIODevice::WriteOnly) && fileDrop.write("3\n") == 2 && fileDrop.flush();
}

void readThrough(const QString& strPath)
{
    QFile file(strPath);
    if (!file.open(QIODevice::ReadOnly))
        return;
    while (!file.read(4 * 1024 * 1024).isEmpty()) {
    }
}

bool prepareLargeOnly(const TBenchTreeInfo& info, const QString& strLargeDir)
{
    QDir(strLargeDir).removeRecursively();
    const QString strLink = strLargeDir + QStringLiteral("/zz-large.bin");
    return QDir().mkpath(strLargeDir)
        && (link(QFile::encodeName(info.largeFile).constData(), QFile::encodeName(strLink).constData()) == 0
            || QFile::copy(info.largeFile, strLink));
}

// Puts the large file's cache in the same state before either side runs;
// a cold cache must not make cp pay for loading its own program.
void prepareCache(bool bCold, const QString& strFile)
{
    bool bOk = true;
    if (bCold) {
        dropCaches();
        runCommandMs({QStringLiteral("cp"), QStringLiteral("--version")}, bOk);
        runCommandMs({QStringLiteral("sync"), QStringLiteral("--version")}, bOk);
    } else {
        readThrough(strFile);
    }
}

enum ELargeSide { largeEngine, largeCp, largeCpSync, largeSides };

bool measureLargeSide(int side, const QString& strLargeDir, const QString& strDst, QVector<double>* itemsOfMs)
{
    bool bOk = true;
    if (side == largeEngine) {
        itemsOfMs[side] << runEngineCopyMs(strLargeDir, strDst, bOk);
        return bOk;
    }
    double value = runCommandMs({QStringLiteral("cp"), QStringLiteral("-r"), strLargeDir, strDst}, bOk);
    if (bOk && side == largeCpSync)
        value += runCommandMs({QStringLiteral("sync"), strDst + QStringLiteral("/zz-large.bin")}, bOk);
    itemsOfMs[side] << value;
    return bOk;
}

} // namespace

bool benchLarge(const TBenchOptions& options, const TBenchTreeInfo& info)
{
    const QString strLargeDir = options.strWorkDir + QStringLiteral("/large-only");
    const QString strDst = options.strWorkDir + QStringLiteral("/dst-large");
    if (!prepareLargeOnly(info, strLargeDir)) {
        err() << "large: cannot set up " << strLargeDir << "\n";
        return false;
    }
    const bool bCold = options.strCache == QLatin1String("cold")
        || (options.strCache == QLatin1String("auto") && dropCaches());
    const QString strSrcFile = strLargeDir + QStringLiteral("/zz-large.bin");
    QVector<double> itemsOfMs[largeSides];
    for (int rep = 0; rep < options.runs; ++rep) {
        for (int side : rotation(rep, largeSides)) {
            clearDestination(strDst);
            prepareCache(bCold, strSrcFile);
            if (!measureLargeSide(side, strLargeDir, strDst, itemsOfMs)) {
                err() << "large: a copy failed\n";
                return false;
            }
        }
        err() << "large: " << rep + 1 << "/" << options.runs << " engine " << itemsOfMs[largeEngine].last()
              << " ms, cp " << itemsOfMs[largeCp].last() << " ms, cp + sync " << itemsOfMs[largeCpSync].last()
              << " ms\n" << Qt::flush;
    }
    clearDestination(strDst);
    QDir(strLargeDir).removeRecursively();
    const double engine = medianOf(itemsOfMs[largeEngine]), cp = medianOf(itemsOfMs[largeCp]);
    const double cpSync = medianOf(itemsOfMs[largeCpSync]);
    const QString strName = QStringLiteral("Large file alone (%1 MiB, %2 cache)")
                                .arg(options.tree.largeBytes / 1024 / 1024)
                                .arg(bCold ? QStringLiteral("cold") : QStringLiteral("warm"));
    printRow({strName + QStringLiteral(" vs cp"), ms(engine), ms(cp), QString::number(engine / cp, 'f', 3),
              QStringLiteral("≤ 1.1"), metText(engine / cp <= 1.1)});
    printRow({strName + QStringLiteral(" vs cp + sync of the copy (diagnostic)"), ms(engine), ms(cpSync),
              QString::number(engine / cpSync, 'f', 3), QStringLiteral("—"), QStringLiteral("—")});
    return true;
}

