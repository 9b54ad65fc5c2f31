#include "testsupport.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QRegularExpression>
#include <QStandardPaths>
#include <QtTest>

#include <unistd.h>

namespace TestSupport {

namespace {

const char* const kChildDirVar = "TAVELIN_TEST_UNPRIVILEGED_DIR";
const QStringList kAsNobody{QStringLiteral("--reuid=65534"), QStringLiteral("--regid=65534"),
                            QStringLiteral("--clear-groups")};
const QFileDevice::Permissions kReadableByAll = QFileDevice::ReadOwner | QFileDevice::ExeOwner
    | QFileDevice::ReadGroup | QFileDevice::ExeGroup | QFileDevice::ReadOther | QFileDevice::ExeOther;

// What the child needs, copied into strDir.
QString prepareChild(const QString& strDir, QProcessEnvironment& env)
{
    openForOthers(strDir);
    const QString strExe = strDir + QStringLiteral("/tst-child");
    if (!QFile::exists(strExe) && !QFile::copy(QCoreApplication::applicationFilePath(), strExe))
        return QStringLiteral("cannot copy the test binary");
    QFile::setPermissions(strExe, kReadableByAll);

    // Qt wants a runtime directory of the user's own; without one it makes one in /tmp.
    const QString strRuntime = strDir + QStringLiteral("/runtime");
    if (!QDir().mkpath(strRuntime) || ::chown(QFile::encodeName(strRuntime).constData(), 65534, 65534) != 0
        || !QFile::setPermissions(strRuntime, QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner))
        return QStringLiteral("cannot prepare a runtime directory for user 65534");

    env = QProcessEnvironment::systemEnvironment();
    env.insert(QString::fromLatin1(kChildDirVar), strDir);
    env.insert(QStringLiteral("HOME"), strDir);
    env.insert(QStringLiteral("XDG_RUNTIME_DIR"), strRuntime);

    // Under the leak checker the child needs the suppressions too.
    QString strLsan = env.value(QStringLiteral("LSAN_OPTIONS"));
    const QRegularExpressionMatch match = QRegularExpression(QStringLiteral("suppressions=([^:]+)")).match(strLsan);
    if (match.hasMatch()) {
        const QString strSupp = strDir + QStringLiteral("/lsan.supp");
        if (!QFile::exists(strSupp) && !QFile::copy(match.captured(1), strSupp))
            return QStringLiteral("cannot copy the leak suppressions");
        QFile::setPermissions(strSupp, QFileDevice::ReadOwner | QFileDevice::ReadOther);
        env.insert(QStringLiteral("LSAN_OPTIONS"), strLsan.replace(match.captured(1), strSupp));
    }
    return QString();
}

} // namespace

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

void openForOthers(const QString& strDir)
{
    QFile::setPermissions(strDir, QFile::permissions(strDir) | QFileDevice::ReadOther | QFileDevice::ExeOther);
}

QString unprivilegedUnavailable()
{
    if (geteuid() != 0)
        return QStringLiteral("switching to user 65534 needs root");
    if (QStandardPaths::findExecutable(QStringLiteral("setpriv")).isEmpty())
        return QStringLiteral("setpriv is not installed");
    QProcess proc;
    proc.start(QStringLiteral("setpriv"), QStringList(kAsNobody) << QStringLiteral("true"));
    if (!proc.waitForFinished(30000) || proc.exitStatus() != QProcess::NormalExit || proc.exitCode() != 0)
        return QStringLiteral("cannot switch to user 65534: ") + QString::fromLocal8Bit(proc.readAllStandardError());
    return QString();
}

bool isUnprivilegedChild()
{
    return qEnvironmentVariableIsSet(kChildDirVar);
}

QString unprivilegedChildDir()
{
    return qEnvironmentVariable(kChildDirVar);
}

QString runCurrentCaseAsNobody(const QString& strDir, const EnvList& extraEnv)
{
    QProcessEnvironment env;
    const QString strFailure = prepareChild(strDir, env);
    if (!strFailure.isEmpty())
        return strFailure;
    for (const auto& entry : extraEnv)
        env.insert(QString::fromLocal8Bit(entry.first), QString::fromLocal8Bit(entry.second));

    const QString strFunction = QString::fromLatin1(QTest::currentTestFunction());
    const QString strTag = QString::fromUtf8(QTest::currentDataTag());
    QStringList args = QStringList(kAsNobody) << strDir + QStringLiteral("/tst-child");
    args << (strTag.isEmpty() ? strFunction : strFunction + QLatin1Char(':') + strTag);
    QProcess proc;
    proc.setProcessEnvironment(env);
    proc.setWorkingDirectory(strDir);
    proc.setProcessChannelMode(QProcess::MergedChannels);
    proc.start(QStringLiteral("setpriv"), args);
    if (!proc.waitForFinished(120000)) {
        proc.kill();
        proc.waitForFinished();
        return QStringLiteral("the child did not finish");
    }
    const QString strOut = QString::fromLocal8Bit(proc.readAll());
    // A skip in the child also exits with 0: only its PASS line counts.
    const QString strPass = strTag.isEmpty() ? QStringLiteral("::%1()").arg(strFunction)
                                             : QStringLiteral("::%1(%2)").arg(strFunction, strTag);
    const bool bPassed = strOut.contains(QRegularExpression(QStringLiteral("PASS   : \\w+")
                                                            + QRegularExpression::escape(strPass)));
    if (proc.exitStatus() != QProcess::NormalExit || proc.exitCode() != 0 || !bPassed)
        return QStringLiteral("as user 65534:\n") + strOut;
    return QString();
}

} // namespace TestSupport
