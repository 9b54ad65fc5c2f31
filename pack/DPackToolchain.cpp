#include "DPackToolchain.h"

#include <QDir>
#include <QFileInfo>

namespace {

TPackToolchain locateFrom(const QString& strProgramDir)
{
    const QString strBuildDir = QFileInfo(QStringLiteral(TAVELIN_PACK_BUILD_DIR)).canonicalFilePath();
    if (!strBuildDir.isEmpty() && QFileInfo(strProgramDir).canonicalFilePath() == strBuildDir) {
        const QDir dirPackaging(QStringLiteral(TAVELIN_PACKAGING_SOURCE_DIR));
        return {QStringLiteral(TAVELIN_BUILD_WIZARD_BUNDLE), QStringLiteral(TAVELIN_BUILD_RUNTIME),
                dirPackaging.filePath(QStringLiteral("make-appdir.sh")),
                dirPackaging.filePath(QStringLiteral("make-appimage.sh"))};
    }
    const QDir dirTools(QDir(strProgramDir).filePath(QStringLiteral(TAVELIN_TOOL_DIR_FROM_BIN)));
    const QDir dirData(QDir(strProgramDir).filePath(QStringLiteral(TAVELIN_DATA_DIR_FROM_BIN)));
    return {QDir::cleanPath(dirTools.filePath(QStringLiteral("wizard-bundle/" TAVELIN_MACHINE))),
            QDir::cleanPath(dirTools.filePath(QStringLiteral("tavelin-runtime"))),
            QDir::cleanPath(dirData.filePath(QStringLiteral("make-appdir.sh"))),
            QDir::cleanPath(dirData.filePath(QStringLiteral("make-appimage.sh")))};
}

} // namespace

TPackToolchain DPackToolchain::locate(const QString& strProgramDir)
{
    TPackToolchain toolchain = locateFrom(strProgramDir);
    const QString strBundle = qEnvironmentVariable("TAVELIN_WIZARD_BUNDLE");
    if (!strBundle.isEmpty())
        toolchain.wizardBundle = strBundle;
    return toolchain;
}

bool DPackToolchain::check(const TPackToolchain& toolchain, QString& strError)
{
    const QFileInfo fiWizard(QDir(toolchain.wizardBundle).filePath(QStringLiteral("usr/bin/tavelin-gui")));
    if (!fiWizard.isFile() || !fiWizard.isExecutable()) {
        strError = QStringLiteral("the wizard bundle %1 is missing: build it with cmake --build BUILD --target "
                                  "tavelin-bundle before cmake --install (its first run makes a Debian 11 root "
                                  "with debootstrap, which needs root and Debian's archive)")
                       .arg(toolchain.wizardBundle);
        return false;
    }
    for (const QString& strPath : {toolchain.runtime, toolchain.makeAppDir, toolchain.makeAppImage}) {
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
