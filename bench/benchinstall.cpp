#include "benchinstall.h"

#include "benchclock.h"
#include "benchwindow.h"

#include <QApplication>
#include <QDir>
#include <QDirIterator>
#include <QEventLoop>
#include <QThread>
#include <QTimer>
#include <QWidget>

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace {

const qint64 kRunLimitNs = 300LL * 1000 * 1000 * 1000;

double nsToMs(qint64 ns)
{
    return static_cast<double>(ns) / 1e6;
}

// What the 5 ms tick watches during one run.
struct TRunWatch
{
    qint64 startNs = 0;
    qint64 lastTickNs = 0;
    qint64 maxGapNs = 0;
    qint64 cancelNs = 0;
    int startedBefore = 0;
    int endedBefore = 0;
    bool bRefused = false;
};

bool runFinished(const TRunWatch& watch, DBenchWindow& window)
{
    if (benchWorkersEnded() > watch.endedBefore)
        return true;
    // Without a timed worker, only the state can tell.
    return benchWorkersStarted() == watch.startedBefore && window.installState() != MainWindow::installing;
}

void onTick(TRunWatch& watch, DBenchWindow& window, int cancelAtCount, QEventLoop& loop)
{
    const qint64 nowNs = benchNowNs();
    watch.maxGapNs = qMax(watch.maxGapNs, nowNs - watch.lastTickNs);
    watch.lastTickNs = nowNs;
    if (QWidget* modal = QApplication::activeModalWidget()) {
        // A refusal box would wait for a user who is not there.
        watch.bRefused = true;
        modal->close();
        return;
    }
    if (cancelAtCount >= 0 && watch.cancelNs == 0 && window.copiedCount() >= cancelAtCount) {
        watch.cancelNs = benchNowNs();
        window.pressCancel();
    }
    if (runFinished(watch, window) || nowNs - watch.startNs > kRunLimitNs)
        loop.quit();
}

TInstallRun summarise(const TRunWatch& watch, DBenchWindow& window, int cancelAtCount)
{
    TInstallRun run;
    const bool bTimed = benchWorkersEnded() > watch.endedBefore;
    const qint64 endNs = bTimed ? benchLastWorkerEndNs() : watch.lastTickNs;
    run.ms = nsToMs(endNs - watch.startNs);
    run.maxGapMs = nsToMs(watch.maxGapNs);
    if (watch.bRefused)
        run.strError = QStringLiteral("the window refused the location");
    else if (!bTimed)
        run.strError = QStringLiteral("no worker thread was seen ending");
    else if (cancelAtCount < 0 && window.installState() != MainWindow::installed)
        run.strError = QStringLiteral("the run ended in state %1").arg(window.installState());
    else if (cancelAtCount >= 0 && (watch.cancelNs == 0 || endNs < watch.cancelNs))
        run.strError = QStringLiteral("the run ended before the cancel");
    if (cancelAtCount >= 0 && watch.cancelNs != 0)
        run.cancelToStopMs = nsToMs(endNs - watch.cancelNs);
    run.bOk = run.strError.isEmpty();
    return run;
}

// Each run starts with no entry of an earlier one: beside an existing entry
// the run picks a time-stamped name, which is taken within the same second.
void clearDesktopEntries()
{
    const QString strAppsDir = geteuid() == 0 ? QStringLiteral("/usr/share/applications")
                                              : QDir::homePath() + QStringLiteral("/.local/share/applications");
    QDir dirApps(strAppsDir);
    for (const QString& strName : dirApps.entryList({QStringLiteral("tavelin-bench*.desktop")}, QDir::Files))
        dirApps.remove(strName);
}

} // namespace

TInstallRun runEngineInstall(const QString& strDst, int cancelAtCount, int expectedFiles)
{
    clearDesktopEntries();
    DBenchWindow window;
    window.init();
    window.show();
    if (!window.setInstallDirText(strDst)) {
        TInstallRun run;
        run.strError = QStringLiteral("no location field on the page");
        return run;
    }
    QApplication::processEvents();

    TRunWatch watch;
    QEventLoop loop;
    QTimer timerTick;
    timerTick.setTimerType(Qt::PreciseTimer);
    timerTick.setInterval(5);
    QObject::connect(&timerTick, &QTimer::timeout, [&] { onTick(watch, window, cancelAtCount, loop); });
    QTimer::singleShot(0, [&] {
        watch.startedBefore = benchWorkersStarted();
        watch.endedBefore = benchWorkersEnded();
        timerTick.start();
        watch.startNs = watch.lastTickNs = benchNowNs();
        window.pressCreate();
    });
    loop.exec();
    timerTick.stop();

    TInstallRun run = summarise(watch, window, cancelAtCount);
    const int copied = countRegularFiles(strDst) - (QFile::exists(strDst + QStringLiteral("/uninstall.sh")) ? 1 : 0);
    if (run.bOk && cancelAtCount < 0 && copied != expectedFiles) {
        run.bOk = false;
        run.strError = QStringLiteral("%1 of %2 files arrived").arg(copied).arg(expectedFiles);
    }
    return run;
}

double runIdleGapMs(double durationMs)
{
    DBenchWindow window;
    window.init();
    window.show();
    QApplication::processEvents();
    QEventLoop loop;
    QTimer timerTick;
    timerTick.setTimerType(Qt::PreciseTimer);
    timerTick.setInterval(5);
    const qint64 startNs = benchNowNs();
    qint64 lastTickNs = startNs;
    qint64 maxGapNs = 0;
    QObject::connect(&timerTick, &QTimer::timeout, [&] {
        const qint64 nowNs = benchNowNs();
        maxGapNs = qMax(maxGapNs, nowNs - lastTickNs);
        lastTickNs = nowNs;
        if (nowNs - startNs >= static_cast<qint64>(durationMs * 1e6))
            loop.quit();
    });
    timerTick.start();
    loop.exec();
    return nsToMs(maxGapNs);
}

double runCommandMs(const QStringList& itemsOfArg, bool& bOk)
{
    QVector<QByteArray> itemsOfBa;
    for (const QString& strArg : itemsOfArg)
        itemsOfBa << strArg.toLocal8Bit();
    QVector<char*> argv;
    for (QByteArray& baArg : itemsOfBa)
        argv << baArg.data();
    argv << nullptr;

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    // The table owns stdout.
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    const qint64 startNs = benchNowNs();
    pid_t pid = 0;
    int status = 0;
    bOk = posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(), environ) == 0
        && waitpid(pid, &status, 0) == pid && WIFEXITED(status) && WEXITSTATUS(status) == 0;
    const qint64 endNs = benchNowNs();
    posix_spawn_file_actions_destroy(&actions);
    return nsToMs(endNs - startNs);
}

double runPauseFloorMs(int count)
{
    const qint64 startNs = benchNowNs();
    for (int i = 0; i < count; ++i)
        QThread::msleep(1);
    return nsToMs(benchNowNs() - startNs);
}

double runQFileCopyWalkMs(const QString& strSrc, const QString& strDst, bool& bOk)
{
    const qint64 startNs = benchNowNs();
    const QDir dirSrc(strSrc);
    bOk = QDir().mkpath(strDst);
    QDirIterator it(strSrc, QDir::AllEntries | QDir::NoDotAndDotDot, QDirIterator::Subdirectories);
    while (bOk && it.hasNext()) {
        it.next();
        const QString strTarget = strDst + QLatin1Char('/') + dirSrc.relativeFilePath(it.filePath());
        bOk = it.fileInfo().isDir() ? QDir().mkdir(strTarget) : QFile::copy(it.filePath(), strTarget);
    }
    return nsToMs(benchNowNs() - startNs);
}

double runEngineCopyMs(const QString& strSrc, const QString& strDst, bool& bOk)
{
    DBenchWindow window;
    const qint64 startNs = benchNowNs();
    bOk = window.copyTreeDirect(strSrc, strDst);
    return nsToMs(benchNowNs() - startNs);
}

void clearDestination(const QString& strDst)
{
    QDir(strDst).removeRecursively();
    sync();
}

int countRegularFiles(const QString& strDir)
{
    int count = 0;
    QDirIterator it(strDir, QDir::Files | QDir::Hidden | QDir::System, QDirIterator::Subdirectories);
    while (it.hasNext()) {
        it.next();
        ++count;
    }
    return count;
}
