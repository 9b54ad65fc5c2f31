#include "mainwindow.h"

// The desktop entry stage. Not built yet.
bool MainWindow::copyDesktopFile(const QString& srcPath, const QString& dstPath)
{
    Q_UNUSED(srcPath) Q_UNUSED(dstPath)
    return false;
}

int MainWindow::calcFieldCodesPos(const QString& pszExecValue)
{
    Q_UNUSED(pszExecValue)
    return -1;
}
