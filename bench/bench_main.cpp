#include "benchclock.h"
#include "benchinstall.h"
#include "gentree.h"
#include "mainwindow.h"

#include <QApplication>
#include <QDir>
#include <QFile>
#include <QTextStream>

#include <pwd.h>
#include <unistd.h>

// Install benchmarks of the real engine, headless. Prints rows of a Markdown
// table; tools/bench.sh prints its head and runs this in a private mount
// namespace with a throw-away HOME.

namespace {

struct TBenchOptions
{
    TBenchTreeSpec tree;
    int runs = 5;
    int cancelRuns = 9;
    QString strWorkDir;
    QString strCache = QStringLiteral("auto");
};

struct TBenchRow
{
    QString name;
    QString ours;
    QString reference;
    QString ratio;
    QString goal;
    QString met;
};

QTextStream& err()
{
    static QTextStream stream(stderr);
    return stream;
}

void printRow(const TBenchRow& row)
{
    QTextStream out(stdout);
    out << "| " << row.name << " | " << row.ours << " | " << row.reference << " | " << row.ratio << " | "
        << row.goal << " | " << row.met << " |\n";
}

QString ms(double value)
{
    return QStringLiteral("%1 ms").arg(value, 0, 'f', value < 100 ? 1 : 0);
}

QString metText(bool bMet)
{
    return bMet ? QStringLiteral("yes") : QStringLiteral("**no**");
}

bool parseOptions(const QStringList& itemsOfArg, TBenchOptions& options)
{
    for (int i = 0; i + 1 < itemsOfArg.size(); i += 2) {
        const QString& strFlag = itemsOfArg.at(i);
        const QString& strValue = itemsOfArg.at(i + 1);
        if (strFlag == QLatin1String("--runs")) options.runs = qMax(1, strValue.toInt());
        else if (strFlag == QLatin1String("--cancel-runs")) options.cancelRuns = qMax(1, strValue.toInt());
        else if (strFlag == QLatin1String("--workdir")) options.strWorkDir = strValue;
        else if (strFlag == QLatin1String("--cache")) options.strCache = strValue;
        else if (!parseBenchTreeFlag(options.tree, strFlag, strValue)) return false;
    }
    return itemsOfArg.size() % 2 == 0 && !options.strWorkDir.isEmpty();
}

bool isMountPoint(const QString& strPath)
{
    QFile fileMountInfo(QStringLiteral("/proc/self/mountinfo"));
    if (!fileMountInfo.open(QIODevice::ReadOnly))
        return false;
    for (const QByteArray& baLine : fileMountInfo.readAll().split('\n')) {
        const QList<QByteArray> itemsOfField = baLine.split(' ');
        if (itemsOfField.size() > 4 && QString::fromLocal8Bit(itemsOfField.at(4)) == strPath)
            return true;
    }
    return false;
}

// The run writes a desktop entry: as root into /usr/share/applications,
// otherwise below HOME. Neither may be the real one.
QString unsafeReason()
{
    if (geteuid() == 0) {
        if (!isMountPoint(QStringLiteral("/usr/share/applications")))
            return QStringLiteral("as root, /usr/share/applications must be a private mount (see tools/bench.sh)");
        return QString();
    }
    const struct passwd* pw = getpwuid(geteuid());
    if (pw && QDir(QDir::homePath()) == QDir(QString::fromLocal8Bit(pw->pw_dir)))
        return QStringLiteral("HOME must point at a throw-away directory");
    return QString();
}

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

// Returns the order of three measurements for one repetition, rotated so
// that none always runs first.
QVector<int> rotation(int rep)
{
    QVector<int> itemsOfOrder{0, 1, 2};
    std::rotate(itemsOfOrder.begin(), itemsOfOrder.begin() + rep % 3, itemsOfOrder.end());
    return itemsOfOrder;
}

bool benchTree(const TBenchOptions& options, const TBenchTreeInfo& info)
{
    const QString strDst = options.strWorkDir + QStringLiteral("/dst-tree");
    QVector<double> itemsOfEngine, itemsOfCp, itemsOfFloor, itemsOfGap;
    err() << "tree: warm-up\n" << Qt::flush;
    bool bOk = true;
    clearDestination(strDst);
    runCommandMs({QStringLiteral("cp"), QStringLiteral("-r"), info.filesDir, strDst}, bOk);
    clearDestination(strDst);
    runEngineInstall(strDst, -1, info.fileCount);
    for (int rep = 0; rep < options.runs; ++rep) {
        for (int which : rotation(rep)) {
            clearDestination(strDst);
            if (which == 0) {
                const TInstallRun run = runEngineInstall(strDst, -1, info.fileCount);
                if (!run.bOk) {
                    err() << "tree: engine run failed: " << run.strError << "\n";
                    return false;
                }
                itemsOfEngine << run.ms;
                itemsOfGap << run.maxGapMs;
            } else if (which == 1) {
                itemsOfCp << runCommandMs({QStringLiteral("cp"), QStringLiteral("-r"), info.filesDir, strDst}, bOk);
                if (!bOk) {
                    err() << "tree: cp -r failed\n";
                    return false;
                }
            } else {
                itemsOfFloor << runPauseFloorMs(info.fileCount);
            }
        }
        err() << "tree: " << rep + 1 << "/" << options.runs << " engine " << itemsOfEngine.last() << " ms, cp "
              << itemsOfCp.last() << " ms, floor " << itemsOfFloor.last() << " ms\n" << Qt::flush;
    }
    clearDestination(strDst);

    const double engine = medianOf(itemsOfEngine), cp = medianOf(itemsOfCp), floor = medianOf(itemsOfFloor);
    const double ratio = engine / (cp + floor);
    printRow({QStringLiteral("Tree install (%1 files, %2 dirs) vs cp -r + pause floor").arg(info.fileCount).arg(info.dirCount),
              ms(engine), QStringLiteral("%1 + %2").arg(ms(cp), ms(floor)), QString::number(ratio, 'f', 3),
              QStringLiteral("≤ 1.05"), metText(ratio <= 1.05)});
    printRow({QStringLiteral("Tree install minus pause floor vs cp -r (diagnostic)"), ms(engine - floor), ms(cp),
              QString::number((engine - floor) / cp, 'f', 2), QStringLiteral("—"), QStringLiteral("—")});
    const double gapMedian = medianOf(itemsOfGap), gapWorst = maxOf(itemsOfGap);
    printRow({QStringLiteral("Longest main-thread gap, 5 ms timer, per run"),
              QStringLiteral("%1 median, %2 worst").arg(ms(gapMedian), ms(gapWorst)), QStringLiteral("—"),
              QStringLiteral("—"), QStringLiteral("≤ 20 ms"), metText(gapWorst <= 20.0)});
    return true;
}

bool prepareLargeOnly(const TBenchTreeInfo& info, const QString& strLargeDir)
{
    QDir(strLargeDir).removeRecursively();
    const QString strLink = strLargeDir + QStringLiteral("/zz-large.bin");
    return QDir().mkpath(strLargeDir)
        && (link(QFile::encodeName(info.largeFile).constData(), QFile::encodeName(strLink).constData()) == 0
            || QFile::copy(info.largeFile, strLink));
}

// Puts the large file's cache in the same state before either side runs.
void prepareCache(bool bCold, const QString& strFile)
{
    if (bCold)
        dropCaches();
    else
        readThrough(strFile);
}

bool benchLarge(const TBenchOptions& options, const TBenchTreeInfo& info)
{
    const QString strLargeDir = options.strWorkDir + QStringLiteral("/large-only");
    const QString strDst = options.strWorkDir + QStringLiteral("/dst-large");
    if (!prepareLargeOnly(info, strLargeDir)) {
        err() << "large: cannot set up " << strLargeDir << "\n";
        return false;
    }
    bool bCold = options.strCache == QLatin1String("cold")
        || (options.strCache == QLatin1String("auto") && dropCaches());
    const QString strSrcFile = strLargeDir + QStringLiteral("/zz-large.bin");
    QVector<double> itemsOfEngine, itemsOfCp;
    for (int rep = 0; rep < options.runs; ++rep) {
        for (int side = 0; side < 2; ++side) {
            bool bOk = true;
            clearDestination(strDst);
            prepareCache(bCold, strSrcFile);
            if ((side + rep) % 2 == 0)
                itemsOfEngine << runEngineCopyMs(strLargeDir, strDst, bOk);
            else
                itemsOfCp << runCommandMs({QStringLiteral("cp"), QStringLiteral("-r"), strLargeDir, strDst}, bOk);
            if (!bOk) {
                err() << "large: a copy failed\n";
                return false;
            }
        }
        err() << "large: " << rep + 1 << "/" << options.runs << " engine " << itemsOfEngine.last() << " ms, cp "
              << itemsOfCp.last() << " ms\n" << Qt::flush;
    }
    clearDestination(strDst);
    QDir(strLargeDir).removeRecursively();
    const double engine = medianOf(itemsOfEngine), cp = medianOf(itemsOfCp);
    printRow({QStringLiteral("Large file alone (%1 MiB, %2 cache) vs cp")
                  .arg(options.tree.largeBytes / 1024 / 1024)
                  .arg(bCold ? QStringLiteral("cold") : QStringLiteral("warm")),
              ms(engine), ms(cp), QString::number(engine / cp, 'f', 3), QStringLiteral("≤ 1.1"),
              metText(engine / cp <= 1.1)});
    return true;
}

double mediumCopyMs(const TBenchOptions& options, const TBenchTreeInfo& info)
{
    const QString strDst = options.strWorkDir + QStringLiteral("/medium-copy.bin");
    QVector<double> itemsOfMs;
    for (int rep = 0; rep < options.runs; ++rep) {
        QFile::remove(strDst);
        const qint64 startNs = benchNowNs();
        QFile::copy(info.mediumFile, strDst);
        itemsOfMs << static_cast<double>(benchNowNs() - startNs) / 1e6;
    }
    QFile::remove(strDst);
    return medianOf(itemsOfMs);
}

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
    const double bound = mediumCopyMs(options, info) + 5.0;
    const double worst = maxOf(itemsOfStop);
    printRow({QStringLiteral("Cancel press to worker's end (%1 runs)").arg(itemsOfStop.size()),
              QStringLiteral("%1 median, %2 worst").arg(ms(medianOf(itemsOfStop)), ms(worst)), QStringLiteral("—"),
              QStringLiteral("—"), QStringLiteral("≤ %1 (one %2 KiB file + 5 ms)").arg(ms(bound)).arg(options.tree.mediumBytes / 1024),
              metText(worst <= bound)});
    return true;
}

} // namespace

int main(int argc, char* argv[])
{
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", "offscreen");
    QApplication app(argc, argv);
    TBenchOptions options;
    if (!parseOptions(QApplication::arguments().mid(1), options)) {
        err() << "usage: tavelin-bench --workdir DIR [--runs R] [--cancel-runs C] [--cache auto|cold|warm]\n"
              << benchTreeFlagsHelp();
        return 2;
    }
    const QString strUnsafe = unsafeReason();
    if (!strUnsafe.isEmpty()) {
        err() << "tavelin-bench: refusing to run: " << strUnsafe << "\n";
        return 2;
    }

    TBenchTreeInfo info;
    err() << "generating the payload below " << options.strWorkDir << "\n" << Qt::flush;
    if (!generateBenchTree(options.tree, options.strWorkDir + QStringLiteral("/payload"), info)) {
        err() << "cannot generate the payload\n";
        return 1;
    }
    qputenv("APPDIR", QFile::encodeName(info.appDir));
    DTavelinGuiConfig::getInstance().init();

    const bool bOk = benchTree(options, info) && benchLarge(options, info) && benchCancel(options, info);
    QDir(info.appDir).removeRecursively();
    return bOk ? 0 : 1;
}
