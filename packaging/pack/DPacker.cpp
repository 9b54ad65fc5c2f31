#include "DPacker.h"

#include "DAppPackModel.h"
#include "DPackChecks.h"
#include "DPackTree.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

namespace {

std::string utf8(const QString& str)
{
    return str.toStdString();
}

} // namespace

bool DPacker::pack(const TPackRequest& request)
{
    strError.clear();
    warnings.clear();
    filesTotalCount = 0;
    TPackTreeScan scan;
    const bool bTreeOk = DPackTree::scan(request.appTree, scan);
    warnings += scan.warnings;
    if (!bTreeOk) {
        strError = scan.error;
        return false;
    }
    if (scan.count() == 0) {
        strError = QStringLiteral("application tree %1 is empty: the wizard would install nothing").arg(request.appTree);
        return false;
    }
    if (!DPackChecks::checkMainExe(request.localDir, request.mainExePath, scan, strError)
        || !DPackChecks::checkDesktopEntry(request.desktopEntry, strError, warnings)
        || !DPackChecks::checkIcon(request.icon, strError) || !checkOutputDir(request.outputDir))
        return false;
    warnIfNotExecutable(request);
    filesTotalCount = scan.count();
    return writePayload(request, scan);
}

void DPacker::warnIfNotExecutable(const TPackRequest& request)
{
    if (request.mainExePath.isEmpty())
        return;
    const QFileInfo fiMainExe(
        QDir(request.appTree).filePath(DPackChecks::mainExeInTree(request.localDir, request.mainExePath)));
    if (!fiMainExe.isExecutable())
        warnings.append(QStringLiteral("main program %1 is not executable").arg(request.mainExePath));
}

bool DPacker::checkOutputDir(const QString& strOutputDir)
{
    if (strOutputDir.isEmpty()) {
        strError = QStringLiteral("no output directory given");
        return false;
    }
    // Never write into, or over, anything the packager already has there.
    const QDir dirOutput(strOutputDir);
    if (dirOutput.exists() && !dirOutput.isEmpty(QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot)) {
        strError = QStringLiteral("output directory %1 is not empty").arg(strOutputDir);
        return false;
    }
    return true;
}

bool DPacker::writePayload(const TPackRequest& request, const TPackTreeScan& scan)
{
    const QDir dirSoft(QDir(request.outputDir).filePath(QStringLiteral("soft")));
    const QString strDesktopDir = dirSoft.filePath(QStringLiteral("desktop/share/applications"));
    const QString strImagesDir = dirSoft.filePath(QStringLiteral("images"));
    if (!QDir().mkpath(strDesktopDir) || !QDir().mkpath(strImagesDir)) {
        strError = QStringLiteral("cannot create %1").arg(dirSoft.path());
        return false;
    }
    return DPackTree::copy(request.appTree, scan, dirSoft.filePath(QStringLiteral("app")), strError)
        && copyFile(request.desktopEntry, QDir(strDesktopDir).filePath(QFileInfo(request.desktopEntry).fileName()))
        && copyFile(request.icon, QDir(strImagesDir).filePath(QFileInfo(request.icon).fileName()))
        && writeManifest(request, dirSoft.filePath(QStringLiteral("mainifest.json")));
}

bool DPacker::copyFile(const QString& strSrc, const QString& strDst)
{
    if (QFile::copy(strSrc, strDst))
        return true;
    strError = QStringLiteral("cannot copy %1 to %2").arg(strSrc, strDst);
    return false;
}

bool DPacker::writeManifest(const TPackRequest& request, const QString& strPath)
{
    TAppPackInfo info;
    info.base.nameEng = utf8(request.nameEng);
    info.base.nameChs = utf8(request.nameChs);
    info.base.version = utf8(request.version);
    info.base.publisher = utf8(request.publisher);
    info.base.website = utf8(request.website);
    info.base.author = utf8(request.author);
    info.base.email = utf8(request.email);
    info.install.defaultParentDir = utf8(request.defaultParentDir);
    info.install.dir = utf8(request.dir);
    info.install.appIcon = utf8(QFileInfo(request.icon).fileName());
    info.install.filesTotalCount = filesTotalCount;
    info.install.desktopFile = utf8(QFileInfo(request.desktopEntry).fileName());
    info.files.localDir = utf8(request.localDir);
    info.files.mainExePath = utf8(request.mainExePath);
    info.appearance.iconPath = utf8(QFileInfo(request.icon).absoluteFilePath());
    info.appearance.desktopPath = utf8(QFileInfo(request.desktopEntry).absoluteFilePath());
    info.appearance.shortcutOnStartMenu = 1;
    info.other.installPkgPath = utf8(QFileInfo(request.outputDir).absoluteFilePath());
    info.other.installPkgName = utf8(request.dir.isEmpty() ? request.nameEng : request.dir) + "-" + utf8(request.version);

    QFile file(strPath);
    const QByteArray baJson = info.toJsonString().toUtf8();
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate) || file.write(baJson) != baJson.size()) {
        strError = QStringLiteral("cannot write %1").arg(strPath);
        return false;
    }
    return true;
}
