#include "mainwindow.h"

#include <QDateTime>
#include <QFile>
#include <QFileInfo>

namespace {

// The Exec value made to start the installed program, keeping the field-code tail.
QString rewriteExecLine(const QString& strLine, const QString& strTargetInstallDir, const TAppFiles& files)
{
    const QString strExec = strLine.mid(5).trimmed();
    if (files.mainExePath.empty())
        return QStringLiteral("Exec=%1/%2").arg(strTargetInstallDir, strExec);

    const QString strAppDir = QString::fromStdString(files.localDir);
    QString strMainExePath = QString::fromStdString(files.mainExePath);
    // Cut by length alone; a negative count keeps the whole path.
    strMainExePath = strMainExePath.right(strMainExePath.size() - strAppDir.size());
    QString strNewLine = QStringLiteral("Exec=\"%1/%2\" ").arg(strTargetInstallDir, strMainExePath);
    const int indexFileCodes = MainWindow::calcFieldCodesPos(strExec);
    if (indexFileCodes >= 0) {
        const QString strPara = strExec.right(strExec.size() - indexFileCodes);
        strNewLine += strPara;
    }
    return strNewLine;
}

} // namespace

bool MainWindow::copyDesktopFile(const QString& srcPath, const QString& dstPath)
{
    DTavelinGuiConfig& config = DTavelinGuiConfig::getInstance();
    QFile fileSrc(srcPath);
    QFile fileDst(dstPath);
    QFileInfo fiDst(dstPath);
    bool bNewDst = false;

    if (fiDst.isFile()) {
        // An entry of an earlier install into this same directory is kept as it is.
        if (config.getFlagOfOverrideTargetDir())
            return true;
        const QString strNewName = QStringLiteral("%1-%2.desktop")
                                       .arg(fiDst.completeBaseName(),
                                            QDateTime::currentDateTime().toString(QStringLiteral("yyyyMMdd-HHmmss")));
        const QString dstNewPath = QStringLiteral("%1/%2").arg(fiDst.canonicalPath(), strNewName);
        fiDst.setFile(dstNewPath);
        if (fiDst.isFile())
            return false;
        config.setTargetDesktopFilePath(dstNewPath);
        fileDst.setFileName(dstNewPath);
        bNewDst = true;
    } else {
        config.setTargetDesktopFilePath(dstPath);
    }

    // Without a source entry the run goes on without one.
    if (!fileSrc.open(QIODevice::ReadOnly | QIODevice::Text))
        return true;
    if (!fileDst.open(QIODevice::WriteOnly | QIODevice::Text)) {
        fileSrc.close();
        return false;
    }

    const QString strTargetInstallDir = config.getTargetInstallDir();
    const TAppFiles& files = config.getAppPackInfo()->files;
    while (!fileSrc.atEnd()) {
        const QByteArray baLine = fileSrc.readLine();
        QString strLine = QString::fromUtf8(baLine).trimmed();
        if (strLine.startsWith(QLatin1String("Exec="), Qt::CaseSensitive))
            strLine = rewriteExecLine(strLine, strTargetInstallDir, files);
        else if (bNewDst && strLine.startsWith(QLatin1String("Name"), Qt::CaseSensitive))
            strLine = QStringLiteral("%1(%2)").arg(strLine, strTargetInstallDir);
        fileDst.write(strLine.toLocal8Bit());
        fileDst.write("\n");
    }
    fileDst.close();
    fileSrc.close();
    return true;
}

int MainWindow::calcFieldCodesPos(const QString& pszExecValue)
{
    const int size = pszExecValue.size();
    for (int i = 0; i < size; ++i) {
        if (pszExecValue.at(i) == QLatin1Char('%'))
            return i;
        if (pszExecValue.at(i) == QLatin1Char('"') && i + 1 < size && pszExecValue.at(i + 1) == QLatin1Char('%'))
            return i;
    }
    return -1;
}
