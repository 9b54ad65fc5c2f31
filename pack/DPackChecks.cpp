#include "DPackChecks.h"

#include "DPackTree.h"

#include <QFileInfo>
#include <QImageReader>
#include <QProcess>
#include <QRegularExpression>
#include <QStandardPaths>
#include <QUrl>

namespace {

const char* const g_validator = "desktop-file-validate";

// As release updaters match asset names: '*' stands for any run, all else is literal.
bool globMatches(const QString& strPattern, const QString& strName)
{
    QStringList parts = strPattern.split(QLatin1Char('*'));
    for (QString& strPart : parts)
        strPart = QRegularExpression::escape(strPart);
    const QRegularExpression pattern(QRegularExpression::anchoredPattern(parts.join(QLatin1String(".*"))),
                                     QRegularExpression::DotMatchesEverythingOption);
    return pattern.match(strName).hasMatch();
}

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

bool DPackChecks::checkUpdateInformation(const QString& strUpdateInformation, const QString& strAppImageName,
                                         bool& bZsync, QString& strError)
{
    const QString strZsync = strAppImageName + QLatin1String(".zsync");
    const QStringList fields = strUpdateInformation.split(QLatin1Char('|'));
    const QString strForm = fields.first();
    bZsync = strForm == QLatin1String("zsync") || strForm == QLatin1String("gh-releases-zsync");
    if (strForm == QLatin1String("zsync")) {
        // The server's file name: the path's last segment, decoded, its query and fragment aside.
        const QString strNamed = QUrl(strUpdateInformation.section(QLatin1Char('|'), 1)).fileName();
        if (strNamed == strZsync)
            return true;
        strError = QStringLiteral("the update information names \"%1\", but the AppImage is \"%2\": its .zsync must be \"%3\"")
                       .arg(strNamed, strAppImageName, strZsync);
        return false;
    }
    if (strForm != QLatin1String("gh-releases-zsync"))
        return true;
    if (fields.size() != 5) {
        strError = QStringLiteral("the update information \"%1\" is not gh-releases-zsync|user|repo|tag|pattern")
                       .arg(strUpdateInformation);
        return false;
    }
    if (globMatches(fields.last(), strZsync))
        return true;
    strError = QStringLiteral("the update information names \"%1\", but the AppImage is \"%2\": its .zsync \"%3\" "
                              "must match that pattern")
                   .arg(fields.last(), strAppImageName, strZsync);
    return false;
}
