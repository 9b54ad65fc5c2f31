#include "DPackTree.h"

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>

bool TPackTreeScan::hasFile(const QString& relativePath) const
{
    for (const TPackTreeEntry& entry : entries) {
        if (!entry.bDir && entry.relativePath == relativePath)
            return true;
    }
    return false;
}

namespace {

QString joinRelative(const QString& strRelative, const QString& strName)
{
    return strRelative.isEmpty() ? strName : strRelative + QLatin1Char('/') + strName;
}

} // namespace

bool DPackTree::scan(const QString& strRoot, TPackTreeScan& scan)
{
    const QFileInfo fiRoot(strRoot);
    if (!fiRoot.isDir()) {
        scan.error = QStringLiteral("application tree %1 is not a directory").arg(strRoot);
        return false;
    }
    QStringList ancestors{fiRoot.canonicalFilePath()};
    return scanDir(fiRoot.absoluteFilePath(), QString(), ancestors, scan);
}

bool DPackTree::scanDir(const QString& strDir, const QString& strRelative, QStringList& ancestors, TPackTreeScan& scan)
{
    noteSkipped(strDir, strRelative, scan);
    // The copy's own listing: a fresh QDir's AllEntries, sorted by name ignoring case.
    const QDir dir(strDir);
    const QFileInfoList fileInfoList =
        dir.entryInfoList(QDir::AllEntries | QDir::NoDotAndDotDot, QDir::Name | QDir::IgnoreCase);
    for (const QFileInfo& fileInfo : fileInfoList) {
        const QString strChild = joinRelative(strRelative, fileInfo.fileName());
        if (!fileInfo.isDir()) {
            scan.entries.append({strChild, false});
            continue;
        }
        const QString strCanonical = fileInfo.canonicalFilePath();
        if (ancestors.contains(strCanonical)) {
            scan.error = QStringLiteral("directory link %1 loops back to %2").arg(strChild, strCanonical);
            return false;
        }
        scan.entries.append({strChild, true});
        ancestors.append(strCanonical);
        const bool bOk = scanDir(fileInfo.filePath(), strChild, ancestors, scan);
        ancestors.removeLast();
        if (!bOk)
            return false;
    }
    return true;
}

void DPackTree::noteSkipped(const QString& strDir, const QString& strRelative, TPackTreeScan& scan)
{
    const QDir dir(strDir);
    const QFileInfoList fileInfoList = dir.entryInfoList(
        QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot, QDir::Name);
    for (const QFileInfo& fileInfo : fileInfoList) {
        const QString strChild = joinRelative(strRelative, fileInfo.fileName());
        if (fileInfo.fileName().startsWith(QLatin1Char('.')))
            scan.warnings.append(QStringLiteral("hidden entry %1 will not be installed").arg(strChild));
        else if (fileInfo.isSymLink() && !fileInfo.exists())
            scan.warnings.append(QStringLiteral("dangling link %1 will not be installed").arg(strChild));
        else if (!fileInfo.isDir() && !fileInfo.isFile())
            scan.warnings.append(QStringLiteral("special file %1 will not be installed").arg(strChild));
    }
}

bool DPackTree::copy(const QString& strRoot, const TPackTreeScan& scan, const QString& strDst, QString& strError)
{
    const QDir dirSrc(strRoot);
    const QDir dirDst(strDst);
    if (!dirDst.mkpath(QStringLiteral("."))) {
        strError = QStringLiteral("cannot create %1").arg(strDst);
        return false;
    }
    for (const TPackTreeEntry& entry : scan.entries) {
        const QString strTarget = dirDst.filePath(entry.relativePath);
        const bool bOk = entry.bDir ? dirDst.mkdir(entry.relativePath)
                                    : QFile::copy(dirSrc.filePath(entry.relativePath), strTarget);
        if (!bOk) {
            strError = QStringLiteral("cannot copy %1 to %2").arg(entry.relativePath, strTarget);
            return false;
        }
    }
    return true;
}

QString DPackTree::outermostMissing(const QString& strPath)
{
    QString strMissing;
    QFileInfo fiPath(QFileInfo(strPath).absoluteFilePath());
    while (!fiPath.exists() && !fiPath.isSymLink() && !fiPath.isRoot()) {
        strMissing = fiPath.filePath();
        fiPath = QFileInfo(fiPath.path());
    }
    return strMissing;
}

qint64 DPackTree::fileBytes(const QString& strDir)
{
    qint64 bytes = 0;
    QDirIterator iterator(strDir, QDir::Files | QDir::Hidden | QDir::System, QDirIterator::Subdirectories);
    while (iterator.hasNext()) {
        iterator.next();
        bytes += iterator.fileInfo().size();
    }
    return bytes;
}
