#include "mainwindow.h"

#include <QFile>
#include <QFileInfo>

namespace {

// Inside a double-quoted shell word only these four keep a meaning.
QString escapeInDoubleQuotes(const QString& strPath)
{
    QString strEscaped;
    strEscaped.reserve(strPath.size());
    for (const QChar ch : strPath) {
        if (ch == QLatin1Char('\\') || ch == QLatin1Char('"') || ch == QLatin1Char('$') || ch == QLatin1Char('`'))
            strEscaped += QLatin1Char('\\');
        strEscaped += ch;
    }
    return strEscaped;
}

} // namespace

void MainWindow::createUninstallFile()
{
    const DTavelinGuiConfig& config = DTavelinGuiConfig::getInstance();
    const QString strTargetInstallDir = config.getTargetInstallDir();
    const QString strUninstallFilename = QStringLiteral("uninstall.sh");
    const QString strUnistallFilePath = strTargetInstallDir + QLatin1Char('/') + strUninstallFilename;

    // A script the payload or an earlier install put there stays as it is.
    const QFileInfo fiUninstall(strUnistallFilePath);
    if (fiUninstall.isFile() || fiUninstall.isDir())
        return;
    QFile fileUninstall(strUnistallFilePath);
    if (!fileUninstall.open(QIODevice::ReadWrite | QIODevice::Text))
        return;

    const QString strDir = escapeInDoubleQuotes(strTargetInstallDir);
    const QString shHeader = QStringLiteral("#!/bin/sh\n\n");
    const QString strTipBegin = QStringLiteral(
        "echo -n \"\\033[31m将要卸载软件：输出Y或y继续卸载，输入其他值退出：\\033[0m\"\n\n"
        "read -r inputVal\n\n"
        "if [ \"$inputVal\" != \"y\" ]&&[ \"$inputVal\" != \"Y\" ]; then\n\n"
        "exit 0\n\n"
        "fi\n\n"
        "echo \"开始卸载\"\n\n");
    const QString cdInstallDirUp = QStringLiteral("cd \"%1/../\"\n\n").arg(strDir);
    const QString rmTargetInstallDir = QStringLiteral("rm -rf \"%1\"\n\n").arg(strDir);
    QString rmDesktop;
    const QFileInfo fiDesktop(config.getTargetDesktopFilePath());
    if (fiDesktop.isFile())
        rmDesktop = QStringLiteral("rm -f \"%1\"\n\n").arg(escapeInDoubleQuotes(config.getTargetDesktopFilePath()));
    const QString strTipEnd = QStringLiteral("echo \"完成卸载\"\n\n");

    for (const QString& strPiece : {shHeader, strTipBegin, cdInstallDirUp, rmTargetInstallDir, rmDesktop, strTipEnd})
        fileUninstall.write(strPiece.toLocal8Bit());
    fileUninstall.close();

    QFile::setPermissions(strUnistallFilePath, QFile::permissions(strUnistallFilePath) | QFileDevice::ExeOwner);
}
