#include "mainwindow.h"

// The payload tree copy. Not built yet.
bool MainWindow::copyDirectory(const QString& srcPath, const QString& dstPath, bool coverFileIfExist,
                               std::atomic<int>& counter)
{
    Q_UNUSED(srcPath) Q_UNUSED(dstPath) Q_UNUSED(coverFileIfExist) Q_UNUSED(counter)
    return false;
}
