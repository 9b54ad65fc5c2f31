#pragma once

#include <QString>
#include <QStringList>

/// One install through the real window, from the press of btnCreate to the
/// end of the worker thread.
struct TInstallRun
{
    bool bOk = false;
    double ms = 0.0;
    double maxGapMs = 0.0;        // longest gap between two 5 ms main-thread ticks
    double cancelToStopMs = -1.0; // cancel runs only
    QString strError;
};

/// cancelAtCount < 0: a full run; otherwise btnCancel is pressed at the first
/// 5 ms tick that sees the progress counter at or above it.
TInstallRun runEngineInstall(const QString& strDst, int cancelAtCount, int expectedFiles);
/// The same window and 5 ms tick with nothing running: the gaps that the
/// machine itself causes. Returns the longest gap in ms.
double runIdleGapMs(double durationMs);
double runCommandMs(const QStringList& itemsOfArg, bool& bOk);
double runPauseFloorMs(int count);
/// QFile::copy of every file of the tree, directories made on the way, with
/// no pause and no window: what the engine cannot do without.
double runQFileCopyWalkMs(const QString& strSrc, const QString& strDst, bool& bOk);
double runEngineCopyMs(const QString& strSrc, const QString& strDst, bool& bOk);

/// Removes what an earlier run left and flushes dirty pages, outside any timing.
void clearDestination(const QString& strDst);
int countRegularFiles(const QString& strDir);
