#include "DPackChecks.h"

#include "DPackTree.h"

#include <QFileInfo>
#include <QImageReader>
#include <QProcess>
#include <QStandardPaths>

namespace {

const char* const g_validator = "desktop-file-validate";

} // namespace

bool DPackChecks::checkDesktopEntry(const QString& strPath, QString& strError, QStringList& warnings)
{
    if (!QFileInfo(strPath).isFile()) {
        strError = QStringLiteral("desktop entry %1 is not a file").arg(strPath);
        return false;
    }
    const QString strValidator = QStandardPaths::findExecutable(QLatin1String(g_validator));
    if (strValidator.isEmpty()) {
        strError = QStringLiteral("%1 not found (Debian package desktop-file-utils)").arg(QLatin1String(g_validator));
        return false;
    }
    QProcess process;
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.start(strValidator, {strPath});
    if (!process.waitForFinished(60000)) {
        strError = QStringLiteral("%1 did not run: %2").arg(QLatin1String(g_validator), process.errorString());
        return false;
    }
    const QString strOutput = QString::fromLocal8Bit(process.readAll()).trimmed();
    if (process.exitStatus() != QProcess::NormalExit || process.exitCode() != 0) {
        strError = QStringLiteral("desktop entry %1 rejected by %2:\n%3").arg(strPath, QLatin1String(g_validator), strOutput);
        return false;
    }
    if (!strOutput.isEmpty())
        warnings.append(strOutput);
    return true;
}

bool DPackChecks::checkIcon(const QString& strPath, QString& strError)
{
    QImageReader reader(strPath);
    if (reader.read().isNull()) {
        strError = QStringLiteral("icon %1 does not load as an image: %2").arg(strPath, reader.errorString());
        return false;
    }
    return true;
}

QString DPackChecks::mainExeInTree(const QString& strLocalDir, const QString& strMainExePath)
{
    // The wizard keeps a leading slash as a doubled one, which still resolves.
    QString strRelative = strMainExePath.mid(strLocalDir.size());
    while (strRelative.startsWith(QLatin1Char('/')))
        strRelative.remove(0, 1);
    return strRelative;
}

bool DPackChecks::checkMainExe(const QString& strLocalDir, const QString& strMainExePath, const TPackTreeScan& scan,
                               QString& strError)
{
    if (strMainExePath.isEmpty())
        return true;
    if (!strMainExePath.startsWith(strLocalDir)) {
        strError = QStringLiteral("main program path %1 does not begin with the local dir %2").arg(strMainExePath, strLocalDir);
        return false;
    }
    const QString strRelative = mainExeInTree(strLocalDir, strMainExePath);
    if (!scan.hasFile(strRelative)) {
        strError = QStringLiteral("main program path %1 names no installed file of the tree (looked for %2)")
                       .arg(strMainExePath, strRelative);
        return false;
    }
    return true;
}
