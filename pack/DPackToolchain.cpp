#include "DPackToolchain.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

namespace {

const char* const g_buildTreeFile = "tavelin-pack-build-tree.txt";

// "key=path" lines, as CMake writes them beside the build tree's tavelin-pack.
QString buildTreeValue(const QByteArray& baText, const char* key)
{
    const QByteArray baPrefix = QByteArray(key) + '=';
    for (const QByteArray& baLine : baText.split('\n')) {
        if (baLine.startsWith(baPrefix))
            return QFile::decodeName(baLine.mid(baPrefix.size()));
    }
    return QString();
}

TPackToolchain fromBuildTree(const QByteArray& baText)
{
    return {buildTreeValue(baText, "wizard-bundle"), buildTreeValue(baText, "runtime"),
            buildTreeValue(baText, "make-appdir"), buildTreeValue(baText, "make-appimage"),
            buildTreeValue(baText, "host-libraries")};
}

TPackToolchain fromInstalled(const QString& strProgramDir)
{
    const QDir dirTools(QDir(strProgramDir).filePath(QStringLiteral(TAVELIN_TOOL_DIR_FROM_BIN)));
    const QDir dirData(QDir(strProgramDir).filePath(QStringLiteral(TAVELIN_DATA_DIR_FROM_BIN)));
    return {QDir::cleanPath(dirTools.filePath(QStringLiteral("wizard-bundle/" TAVELIN_MACHINE))),
            QDir::cleanPath(dirTools.filePath(QStringLiteral("tavelin-runtime"))),
            QDir::cleanPath(dirTools.filePath(QStringLiteral("make-appdir.sh"))),
            QDir::cleanPath(dirTools.filePath(QStringLiteral("make-appimage.sh"))),
            QDir::cleanPath(dirData.filePath(QStringLiteral("host-libraries.txt")))};
}

} // namespace

TPackToolchain DPackToolchain::locate(const QString& strProgramDir)
{
    QFile fileBuildTree(QDir(strProgramDir).filePath(QLatin1String(g_buildTreeFile)));
    TPackToolchain toolchain = fileBuildTree.open(QIODevice::ReadOnly) ? fromBuildTree(fileBuildTree.readAll())
                                                                        : fromInstalled(strProgramDir);
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
        if (strPath.isEmpty() || !fiTool.isFile() || !fiTool.isExecutable())
            return missing(strPath.isEmpty() ? QStringLiteral("tavelin-runtime") : strPath, strError);
    }
    if (!QFileInfo(toolchain.hostLibraries).isFile())
        return missing(toolchain.hostLibraries, strError);
    return true;
}

bool DPackToolchain::missing(const QString& strPiece, QString& strError)
{
    strError = QStringLiteral("%1 is missing: the toolchain is installed beside tavelin-pack by cmake --install "
                              "(the runtime is built only where libsquashfuse-dev is)")
                   .arg(strPiece);
    return false;
}
