#include "DPacker.h"

#include "DAppPackModel.h"
#include "DPackChecks.h"
#include "DPackTree.h"
#include "mainwindow.h"

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
    return check(request) && write(request, request.outputDir);
}

bool DPacker::check(const TPackRequest& request)
{
    strError.clear();
    warnings.clear();
    checksPassed.clear();
    const bool bOk = passed(checkTree(request.appTree), QStringLiteral("application tree"))
        && passed(DPackChecks::checkMainExe(request.localDir, request.mainExePath, scan, strError),
                  request.mainExePath.isEmpty() ? QString() : QStringLiteral("main program"))
        && passed(DPackChecks::checkDesktopEntry(request.desktopEntry, strError, warnings), QStringLiteral("desktop entry"))
        && passed(DPackChecks::checkIcon(request.icon, strError), QStringLiteral("icon"))
        && (request.outputDir.isEmpty() || passed(checkOutputDir(request.outputDir), QStringLiteral("output directory")));
    if (bOk)
        warnIfNotExecutable(request);
    return bOk;
}

bool DPacker::passed(bool bOk, const QString& strCheck)
{
    if (bOk && !strCheck.isEmpty())
        checksPassed << strCheck;
    return bOk;
}

bool DPacker::checkTree(const QString& strAppTree)
{
    scan = TPackTreeScan();
    const bool bTreeOk = DPackTree::scan(strAppTree, scan);
    warnings += scan.warnings;
    if (!bTreeOk) {
        strError = scan.error;
        return false;
    }
    if (scan.count() == 0) {
        strError = QStringLiteral("application tree %1 is empty: the wizard would install nothing").arg(strAppTree);
        return false;
    }
    return true;
}

int DPacker::getDirCount() const
{
    int count = 0;
    for (const TPackTreeEntry& entry : scan.entries)
        count += entry.bDir ? 1 : 0;
    return count;
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
    // Never write into, or over, anything the packager already has there.
    const QDir dirOutput(strOutputDir);
    if (dirOutput.exists() && !dirOutput.isEmpty(QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot)) {
        strError = QStringLiteral("output directory %1 is not empty").arg(strOutputDir);
        return false;
    }
    return true;
}

QString DPacker::payloadLayout()
{
    return QStringLiteral("payload=%1\nmanifest=%2\napp=%3\ndesktop=%4\nimages=%5\n")
        .arg(DTavelinGuiConfig::getPayloadDir(), DTavelinGuiConfig::getManifestPath(),
             DTavelinGuiConfig::getAppFilesPath(), DTavelinGuiConfig::getDesktopDirPath(),
             DTavelinGuiConfig::getImagesDirPath());
}

bool DPacker::write(const TPackRequest& request, const QString& strOutputDir)
{
    if (strOutputDir.isEmpty()) {
        strError = QStringLiteral("no output directory given");
        return false;
    }
    strCreatedDir = DPackTree::outermostMissing(strOutputDir);
    strSoftDir = QDir(strOutputDir).filePath(DTavelinGuiConfig::getPayloadDir());
    if (!writePayload(request)) {
        removePayload();
        return false;
    }
    payloadBytes = DPackTree::fileBytes(strSoftDir);
    return true;
}

void DPacker::removePayload()
{
    if (strSoftDir.isEmpty())
        return;
    // The output directory was missing or empty before: all below is ours.
    QDir(strCreatedDir.isEmpty() ? strSoftDir : strCreatedDir).removeRecursively();
    strSoftDir.clear();
    strCreatedDir.clear();
}

bool DPacker::writePayload(const TPackRequest& request)
{
    const QDir dirOutput = QFileInfo(strSoftDir).dir();
    const QString strDesktopDir = dirOutput.filePath(DTavelinGuiConfig::getDesktopDirPath());
    const QString strImagesDir = dirOutput.filePath(DTavelinGuiConfig::getImagesDirPath());
    if (!QDir().mkpath(strDesktopDir) || !QDir().mkpath(strImagesDir)) {
        strError = QStringLiteral("cannot create %1").arg(strSoftDir);
        return false;
    }
    return DPackTree::copy(request.appTree, scan, dirOutput.filePath(DTavelinGuiConfig::getAppFilesPath()), strError)
        && copyFile(request.desktopEntry, QDir(strDesktopDir).filePath(QFileInfo(request.desktopEntry).fileName()))
        && copyFile(request.icon, QDir(strImagesDir).filePath(QFileInfo(request.icon).fileName()))
        && writeManifest(request, dirOutput.filePath(DTavelinGuiConfig::getManifestPath()));
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
    info.install.filesTotalCount = scan.count();
    info.install.desktopFile = utf8(QFileInfo(request.desktopEntry).fileName());
    info.files.localDir = utf8(request.localDir);
    info.files.mainExePath = utf8(request.mainExePath);
    // Carried only: paths inside the payload and the file's name, so that the
    // bytes do not depend on where the sources and the output lie.
    info.appearance.iconPath = utf8(DTavelinGuiConfig::getImagesDirPath() + QLatin1Char('/') + QFileInfo(request.icon).fileName());
    info.appearance.desktopPath =
        utf8(DTavelinGuiConfig::getDesktopDirPath() + QLatin1Char('/') + QFileInfo(request.desktopEntry).fileName());
    info.appearance.shortcutOnStartMenu = 1;
    info.other.installPkgPath = utf8(QFileInfo(request.appImage).fileName());
    info.other.installPkgName = utf8(request.dir.isEmpty() ? request.nameEng : request.dir) + "-" + utf8(request.version);

    QFile file(strPath);
    const QByteArray baJson = info.toJsonString().toUtf8();
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate) || file.write(baJson) != baJson.size()) {
        strError = QStringLiteral("cannot write %1").arg(strPath);
        return false;
    }
    return true;
}
