#include "DPackToolchain.h"

#include <QDir>
#include <QFileInfo>

TPackToolchain DPackToolchain::locate(const QString& strProgramDir)
{
    const QString strBuildDir = QFileInfo(QStringLiteral(TAVELIN_PACK_BUILD_DIR)).canonicalFilePath();
    if (!strBuildDir.isEmpty() && QFileInfo(strProgramDir).canonicalFilePath() == strBuildDir) {
        const QDir dirPackaging(QStringLiteral(TAVELIN_PACKAGING_SOURCE_DIR));
        return {QStringLiteral(TAVELIN_BUILD_GUI), QStringLiteral(TAVELIN_BUILD_RUNTIME),
                dirPackaging.filePath(QStringLiteral("make-appdir.sh")),
                dirPackaging.filePath(QStringLiteral("make-appimage.sh"))};
    }
    const QDir dirTools(QDir(strProgramDir).filePath(QStringLiteral(TAVELIN_TOOL_DIR_FROM_BIN)));
    const QDir dirData(QDir(strProgramDir).filePath(QStringLiteral(TAVELIN_DATA_DIR_FROM_BIN)));
    return {QDir::cleanPath(dirTools.filePath(QStringLiteral("tavelin-gui"))),
            QDir::cleanPath(dirTools.filePath(QStringLiteral("tavelin-runtime"))),
            QDir::cleanPath(dirData.filePath(QStringLiteral("make-appdir.sh"))),
            QDir::cleanPath(dirData.filePath(QStringLiteral("make-appimage.sh")))};
}

bool DPackToolchain::check(const TPackToolchain& toolchain, QString& strError)
{
    for (const QString& strPath : {toolchain.gui, toolchain.runtime, toolchain.makeAppDir, toolchain.makeAppImage}) {
        const QFileInfo fiTool(strPath);
        if (strPath.isEmpty() || !fiTool.isFile() || !fiTool.isExecutable()) {
            strError = QStringLiteral("%1 is missing: the toolchain is installed beside tavelin-pack by cmake "
                                      "--install (the runtime is built only where libsquashfuse-dev is)")
                           .arg(strPath.isEmpty() ? QStringLiteral("tavelin-runtime") : strPath);
            return false;
        }
    }
    return true;
}
