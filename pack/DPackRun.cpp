#include "DPackRun.h"

#include "DPackChecks.h"
#include "DPackTree.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QLocale>
#include <QProcess>
#include <QTemporaryDir>
#include <QTemporaryFile>

#include <memory>

namespace {

const QFileDevice::Permissions g_appImageMode = QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner
    | QFileDevice::ReadGroup | QFileDevice::ExeGroup | QFileDevice::ReadOther | QFileDevice::ExeOther;
const QFileDevice::Permissions g_zsyncMode =
    QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ReadGroup | QFileDevice::ReadOther;

// A short write gives no reason; writing the rest does.
bool writeAll(QFileDevice& file, const QByteArray& baData)
{
    for (qint64 done = 0; done < baData.size();) {
        const qint64 written = file.write(baData.constData() + done, baData.size() - done);
        if (written <= 0)
            return false;
        done += written;
    }
    return true;
}

QString dataSize(qint64 bytes)
{
    return QLocale::c().formattedDataSize(bytes, 1);
}

} // namespace

DPackRun::DPackRun(const TPackToolchain& toolchain, const ProgressSink& progress)
    : toolchain(toolchain)
    , progress(progress)
{
}

bool DPackRun::run(const TPackRequest& request)
{
    strAppImage = request.appImage;
    strZsync.clear();
    phaseCount = strAppImage.isEmpty() ? 2 : 4;
    timer.start();
    if (!checkAll(request))
        return false;
    report(QStringLiteral("%1 checks passed").arg(checksPassed.size()));

    std::unique_ptr<QTemporaryDir> workDir;
    strPayloadDir = request.outputDir;
    if (!strAppImage.isEmpty()) {
        workDir.reset(new QTemporaryDir(QDir::temp().filePath(QStringLiteral("tavelin-pack-XXXXXX"))));
        if (!workDir->isValid())
            return refuse(QStringLiteral("cannot create a work directory in %1").arg(QDir::tempPath()));
        if (strPayloadDir.isEmpty())
            strPayloadDir = workDir->filePath(QStringLiteral("payload"));
    }
    if (!packer.write(request, strPayloadDir))
        return refuse(packer.getError());
    report(QStringLiteral("payload written%1: %2 entries to install, %3")
               .arg(request.outputDir.isEmpty() ? QString() : QStringLiteral(" to %1/soft").arg(request.outputDir),
                    QString::number(packer.getFilesTotalCount()), dataSize(packer.getPayloadBytes())));
    if (strAppImage.isEmpty() || buildAppImage(request, strPayloadDir, workDir->path()))
        return true;
    packer.removePayload();
    return false;
}

bool DPackRun::checkAll(const TPackRequest& request)
{
    const QStringList machines = DPackToolchain::machines();
    if (!machines.contains(request.machine))
        return refuse(QStringLiteral("no AppImage for the machine \"%1\": tavelin-pack packs for %2")
                          .arg(request.machine, machines.join(QStringLiteral(" and "))));
    if (!packer.check(request))
        return refuse(packer.getError());
    checksPassed = packer.getChecksPassed();
    if (strAppImage.isEmpty())
        return true;
    QString strWhy;
    bool bZsync = false;
    if (!request.updateInformation.isEmpty()) {
        if (!DPackChecks::checkUpdateInformation(request.updateInformation, QFileInfo(strAppImage).fileName(), bZsync,
                                                 strWhy))
            return refuse(strWhy);
        if (bZsync) {
            strZsync = strAppImage + QLatin1String(".zsync");
            checksPassed << QStringLiteral("update information");
        }
    }
    if (!DPackToolchain::check(toolchain, strWhy))
        return refuse(strWhy);
    checksPassed << QStringLiteral("toolchain");
    if (!prepareAppImageDir(strAppImage))
        return false;
    checksPassed << QStringLiteral("AppImage location");
    return true;
}

bool DPackRun::prepareAppImageDir(const QString& strPath)
{
    const QFileInfo fiAppImage(strPath);
    if (fiAppImage.exists() || fiAppImage.isSymLink())
        return refuse(QStringLiteral("AppImage %1 exists already: remove it or name another file").arg(strPath));
    const QFileInfo fiZsync(strZsync);
    if (!strZsync.isEmpty() && (fiZsync.exists() || fiZsync.isSymLink()))
        return refuse(QStringLiteral("%1 exists already: remove it or name another AppImage").arg(strZsync));
    const QString strDir = fiAppImage.absolutePath();
    strCreatedDir = DPackTree::outermostMissing(strDir);
    if (!QDir().mkpath(strDir))
        return refuse(QStringLiteral("cannot create the directory %1").arg(strDir));
    if (!QFileInfo(strDir).isWritable())
        return refuse(QStringLiteral("cannot write into %1").arg(strDir));
    return true;
}

bool DPackRun::buildAppImage(const TPackRequest& request, const QString& strPayloadDir, const QString& strWorkDir)
{
    const QString strAppDir = QDir(strWorkDir).filePath(QStringLiteral("AppDir"));
    // The AppImage's own entry and icon are named as the manifest the packer just wrote.
    QProcessEnvironment appNames;
    appNames.insert(QStringLiteral("TAVELIN_APP_NAME"), request.nameEng);
    appNames.insert(QStringLiteral("TAVELIN_APP_ICON"), QFileInfo(request.icon).fileName());
    if (!runTool(toolchain.makeAppDir, {strPayloadDir, toolchain.wizardBundle, strAppDir}, appNames))
        return false;
    report(QStringLiteral("AppDir built with the wizard and its Qt"));

    QStringList arguments;
    if (!request.updateInformation.isEmpty())
        arguments << QStringLiteral("--update-information") << request.updateInformation;
    if (!request.signKey.isEmpty())
        arguments << QStringLiteral("--sign-key") << request.signKey;
    if (!strZsync.isEmpty())
        arguments << QStringLiteral("--zsync");
    // Built under its own file name, which the .zsync records.
    const QString strBuilt = QDir(strWorkDir).filePath(QFileInfo(strAppImage).fileName());
    if (!runTool(toolchain.makeAppImage, arguments << toolchain.runtime << strAppDir << strBuilt))
        return false;
    if (!strZsync.isEmpty() && !placeFile(strBuilt + QLatin1String(".zsync"), strZsync, g_zsyncMode))
        return false;
    if (!placeFile(strBuilt, strAppImage, g_appImageMode)) {
        // The two are uploaded together: no .zsync without its AppImage.
        if (!strZsync.isEmpty())
            QFile::remove(strZsync);
        return false;
    }
    appImageBytes = QFileInfo(strAppImage).size();
    report(QStringLiteral("AppImage written: %1, %2%3")
               .arg(strAppImage, dataSize(appImageBytes),
                    strZsync.isEmpty() ? QString() : QStringLiteral(", and %1 beside it").arg(strZsync)));
    return true;
}

bool DPackRun::runTool(const QString& strProgram, const QStringList& arguments, const QProcessEnvironment& extra)
{
    QProcess process;
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.setStandardInputFile(QProcess::nullDevice());
    // The AppDir script takes the payload's layout from here, not from a copy of its own.
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("TAVELIN_PAYLOAD_LAYOUT"), DPacker::payloadLayout());
    environment.insert(QStringLiteral("TAVELIN_HOST_LIBRARIES"), toolchain.hostLibraries);
    environment.insert(QStringLiteral("TAVELIN_MKSQUASHFS"), toolchain.squasher);
    environment.insert(extra);
    process.setProcessEnvironment(environment);
    process.start(strProgram, arguments);
    const bool bRan = process.waitForFinished(-1) && process.exitStatus() == QProcess::NormalExit;
    if (bRan && process.exitCode() == 0)
        return true;
    const QString strOutput = QString::fromLocal8Bit(process.readAll()).trimmed();
    return refuse(QStringLiteral("%1 failed%2%3")
                      .arg(QFileInfo(strProgram).fileName(),
                           bRan ? QStringLiteral(" with status %1").arg(process.exitCode())
                                : QStringLiteral(": ") + process.errorString(),
                           strOutput.isEmpty() ? QString() : QStringLiteral(":\n") + strOutput));
}

bool DPackRun::placeFile(const QString& strBuilt, const QString& strPath, QFileDevice::Permissions permissions)
{
    // Written beside its place and renamed there, so that no half a file
    // ever bears its name.
    const QFileInfo fiTarget(strPath);
    QFile fileBuilt(strBuilt);
    QTemporaryFile fileTemp(fiTarget.absoluteDir().filePath(QStringLiteral(".%1.XXXXXX").arg(fiTarget.fileName())));
    bool bOk = fileBuilt.open(QIODevice::ReadOnly) && fileTemp.open();
    while (bOk && !fileBuilt.atEnd()) {
        const QByteArray baChunk = fileBuilt.read(1 << 20);
        bOk = !baChunk.isEmpty() && writeAll(fileTemp, baChunk);
    }
    bOk = bOk && fileTemp.flush() && fileTemp.setPermissions(permissions);
    fileTemp.setAutoRemove(false);
    if (bOk && fileTemp.rename(strPath))
        return true;
    const QString strWhy = fileTemp.errorString();
    QFile::remove(fileTemp.fileName());
    return refuse(QStringLiteral("cannot write %1: %2").arg(strPath, strWhy));
}

void DPackRun::report(const QString& strText)
{
    progress(QStringLiteral("[%1/%2] %3 (%4 s)")
                 .arg(QString::number(++phase), QString::number(phaseCount), strText,
                      QString::number(timer.restart() / 1000.0, 'f', 1)));
}

bool DPackRun::refuse(const QString& strWhy)
{
    strError = strWhy;
    if (!strCreatedDir.isEmpty())
        QDir(strCreatedDir).removeRecursively();
    strCreatedDir.clear();
    return false;
}

QString DPackRun::summary() const
{
    const int dirCount = packer.getDirCount();
    const QString strWritten = strAppImage.isEmpty()
        ? QStringLiteral("payload %1/soft, %2").arg(strPayloadDir, dataSize(packer.getPayloadBytes()))
        : QStringLiteral("%1 for %2, %3, with a payload of %4%5")
              .arg(strAppImage, toolchain.machine, dataSize(appImageBytes), dataSize(packer.getPayloadBytes()),
                   strZsync.isEmpty() ? QString() : QStringLiteral(", and %1").arg(strZsync));
    return QStringLiteral("done: %1; installs %2 files and %3 directories; checks passed: %4")
        .arg(strWritten, QString::number(packer.getFilesTotalCount() - dirCount), QString::number(dirCount),
             checksPassed.join(QStringLiteral(", ")));
}
