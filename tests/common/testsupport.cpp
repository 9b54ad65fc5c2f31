#include "testsupport.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QStandardPaths>

#include <unistd.h>

namespace TestSupport {

bool writeFile(const QString& path, const QByteArray& content)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate))
        return false;
    return file.write(content) == content.size();
}

QByteArray readFile(const QString& path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return QByteArray();
    return file.readAll();
}

bool canRunAsNobody(QString* why)
{
    QString strWhy;
    if (geteuid() != 0)
        strWhy = QStringLiteral("switching to user 65534 needs root");
    else if (QStandardPaths::findExecutable(QStringLiteral("setpriv")).isEmpty())
        strWhy = QStringLiteral("setpriv is not installed");
    if (why)
        *why = strWhy;
    return strWhy.isEmpty();
}

void openUpForOthers(const QString& dir)
{
    const QFileDevice::Permissions others = QFileDevice::ReadOther | QFileDevice::ExeOther;
    for (QString strDir = QFileInfo(dir).absoluteFilePath(); strDir.size() > 1;
         strDir = QFileInfo(strDir).absolutePath()) {
        QFile::setPermissions(strDir, QFile::permissions(strDir) | others);
    }
}

ProcessResult runTestFunctionAsNobody(const QString& testFunction, const EnvList& env,
                                      const QString& readableDir)
{
    ProcessResult result;
    QString strWhy;
    if (!canRunAsNobody(&strWhy)) {
        result.skipped = true;
        result.output = strWhy.toLocal8Bit();
        return result;
    }
    openUpForOthers(QCoreApplication::applicationDirPath());
    if (!readableDir.isEmpty())
        openUpForOthers(readableDir);

    QProcess process;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    for (const auto& entry : env)
        environment.insert(QString::fromLocal8Bit(entry.first), QString::fromLocal8Bit(entry.second));
    process.setProcessEnvironment(environment);
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.start(QStringLiteral("setpriv"),
                  {QStringLiteral("--reuid=65534"), QStringLiteral("--regid=65534"), QStringLiteral("--clear-groups"),
                   QCoreApplication::applicationFilePath(), testFunction});
    process.waitForFinished(60000);
    result.exitCode = process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
    result.output = process.readAll();
    return result;
}

} // namespace TestSupport
