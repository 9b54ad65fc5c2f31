#include "mainwindow.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QThread>

bool MainWindow::copyDirectory(const QString& srcPath, const QString& dstPath, bool coverFileIfExist,
                               std::atomic<int>& counter)
{
    // A directory link back to an ancestor would recurse without end.
    const QString strCanonicalSrc = QFileInfo(srcPath).canonicalFilePath();
    if (!strCanonicalSrc.isEmpty() && itemsOfCopyPath.contains(strCanonicalSrc)) {
        markInstallFailed();
        return false;
    }
    itemsOfCopyPath.append(strCanonicalSrc);
    const bool bRet = copyDirectoryEntries(srcPath, dstPath, coverFileIfExist, counter);
    itemsOfCopyPath.removeLast();
    return bRet;
}

bool MainWindow::copyDirectoryEntries(const QString& srcPath, const QString& dstPath, bool coverFileIfExist,
                                      std::atomic<int>& counter)
{
    QDir srcDir(srcPath);
    QDir dstDir(dstPath);
    if (!dstDir.exists()) {
        if (!dstDir.mkdir(dstDir.absolutePath())) {
            flagOfInstallState = failed;
            return false;
        }
        if (flagOfInstallState != installing)
            return false;
        ++counter;
    }

    // The default filter: no hidden entries, no special files, "." and ".." listed.
    const QFileInfoList fileInfoList = srcDir.entryInfoList(QDir::NoFilter, QDir::NoSort);
    for (const QFileInfo& fileInfo : fileInfoList) {
        if (flagOfInstallState != installing)
            return false;
        const QString strName = fileInfo.fileName();
        if (strName == QLatin1String(".") || strName == QLatin1String(".."))
            continue;
        if (fileInfo.isDir()) {
            if (!copyDirectory(fileInfo.filePath(), dstDir.filePath(strName), coverFileIfExist, counter)) {
                markInstallFailed();
                return false;
            }
            continue;
        }
        if (coverFileIfExist && dstDir.exists(strName) && !dstDir.remove(strName)) {
            markInstallFailed();
            return false;
        }
        if (!QFile::copy(fileInfo.filePath(), dstDir.filePath(strName))) {
            markInstallFailed();
            return false;
        }
        ++counter;
        QThread::msleep(1);
        QThread::yieldCurrentThread();
    }
    return true;
}

void MainWindow::markInstallFailed()
{
    EInstallState expected = installing;
    flagOfInstallState.compare_exchange_strong(expected, failed);
}
