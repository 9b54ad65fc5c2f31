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

TPackToolchain fromBuildTree(const QByteArray& baText, const QString& strMachine)
{
    const QByteArray baMachine = strMachine.toLatin1();
    return {buildTreeValue(baText, "wizard-bundle-" + baMachine), buildTreeValue(baText, "runtime-" + baMachine),
            buildTreeValue(baText, "make-appdir"), buildTreeValue(baText, "make-appimage"),
            buildTreeValue(baText, "squasher"), buildTreeValue(baText, "host-libraries"), strMachine};
}

TPackToolchain fromInstalled(const QString& strProgramDir, const QString& strMachine)
{
    const QDir dirTools(QDir(strProgramDir).filePath(QStringLiteral(TAVELIN_TOOL_DIR_FROM_BIN)));
    const QDir dirData(QDir(strProgramDir).filePath(QStringLiteral(TAVELIN_DATA_DIR_FROM_BIN)));
    return {QDir::cleanPath(dirTools.filePath(QStringLiteral("wizard-bundle/") + strMachine)),
            QDir::cleanPath(dirTools.filePath(QStringLiteral("runtime/%1/tavelin-runtime").arg(strMachine))),
            QDir::cleanPath(dirTools.filePath(QStringLiteral("make-appdir.sh"))),
            QDir::cleanPath(dirTools.filePath(QStringLiteral("make-appimage.sh"))),
            QDir::cleanPath(dirTools.filePath(QStringLiteral("squasher/usr/bin/mksquashfs"))),
            QDir::cleanPath(dirData.filePath(QStringLiteral("host-libraries.txt"))), strMachine};
}

} // namespace

QStringList DPackToolchain::machines()
{
    return QStringLiteral(TAVELIN_MACHINES).split(QLatin1Char(' '), Qt::SkipEmptyParts);
}

TPackToolchain DPackToolchain::locate(const QString& strProgramDir, const QString& strMachine)
{
    QFile fileBuildTree(QDir(strProgramDir).filePath(QLatin1String(g_buildTreeFile)));
    TPackToolchain toolchain = fileBuildTree.open(QIODevice::ReadOnly)
        ? fromBuildTree(fileBuildTree.readAll(), strMachine)
        : fromInstalled(strProgramDir, strMachine);
    const QString strBundle = qEnvironmentVariable("TAVELIN_WIZARD_BUNDLE");
    if (!strBundle.isEmpty())
        toolchain.wizardBundle = strBundle;
    const QString strSquasher = qEnvironmentVariable("TAVELIN_MKSQUASHFS");
    if (!strSquasher.isEmpty())
        toolchain.squasher = strSquasher;
    return toolchain;
}

bool DPackToolchain::check(const TPackToolchain& toolchain, QString& strError)
{
    const QFileInfo fiWizard(QDir(toolchain.wizardBundle).filePath(QStringLiteral("usr/bin/tavelin-gui")));
    if (!fiWizard.isFile() || !fiWizard.isExecutable()) {
        strError = QStringLiteral("the wizard bundle %1 is missing: build it with cmake --build BUILD --target "
                                  "tavelin-bundle-%2 before cmake --install (its first run makes a Debian 11 root "
                                  "with debootstrap, which needs root and Debian's archive)")
                       .arg(toolchain.wizardBundle, toolchain.machine);
        return false;
    }
    const QFileInfo fiRuntime(toolchain.runtime);
    if (toolchain.machine != QLatin1String(TAVELIN_MACHINE) && !fiRuntime.isFile()) {
        strError = QStringLiteral("the %1 runtime %2 is missing: build it with cmake --build BUILD --target "
                                  "tavelin-bundle-%1 before cmake --install")
                       .arg(toolchain.machine, toolchain.runtime);
        return false;
    }
    const QFileInfo fiSquasher(toolchain.squasher);
    if (!fiSquasher.isFile() || !fiSquasher.isExecutable()) {
        strError = QStringLiteral("the squasher %1 is missing: build it with cmake --build BUILD --target "
                                  "tavelin-squasher (the tavelin-bundle targets make it too) before cmake --install")
                       .arg(toolchain.squasher);
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
