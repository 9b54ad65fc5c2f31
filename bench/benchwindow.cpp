#include "benchwindow.h"

#include <QLineEdit>
#include <QPushButton>

bool DBenchWindow::setInstallDirText(const QString& strDir)
{
    auto* editInstallDir = findChild<QLineEdit*>(QStringLiteral("editInstallDir"));
    if (!editInstallDir)
        editInstallDir = findChild<QLineEdit*>();
    if (!editInstallDir)
        return false;
    editInstallDir->setText(strDir);
    return true;
}

void DBenchWindow::pressCreate()
{
    btnCreate->click();
}

void DBenchWindow::pressCancel()
{
    btnCancel->click();
}

bool DBenchWindow::copyTreeDirect(const QString& srcPath, const QString& dstPath)
{
    std::atomic<int> counter{0};
    flagOfInstallState = installing;
    const bool bRet = copyDirectory(srcPath, dstPath, true, counter);
    if (flagOfInstallState == installing)
        flagOfInstallState = bRet ? installed : failed;
    return bRet;
}
