#include "testsupport.h"

#include <QCoreApplication>
#include <QDirIterator>
#include <QProcess>
#include <QRegularExpression>
#include <QStandardPaths>
#include <QtTest>

#include <cerrno>

#include <fcntl.h>
#include <sys/stat.h>

namespace TestSupport {

namespace {

const char* const kChildDirVar = "TAVELIN_TEST_CHILD_DIR";
const char* const kNamespaceVar = "TAVELIN_TEST_NAMESPACE";

QStringList asUser(int uid)
{
    return {QStringLiteral("--reuid=%1").arg(uid), QStringLiteral("--regid=%1").arg(uid),
            QStringLiteral("--clear-groups")};
}

// What a child of another user needs, copied into strDir: the binary, a
// runtime directory of its own and, under the leak checker, the suppressions.
QString prepareChild(int uid, const QString& strDir, QProcessEnvironment& env)
{
    const auto readable = QFileDevice::ReadOwner | QFileDevice::ExeOwner | QFileDevice::ReadOther
        | QFileDevice::ExeOther;
    QFile::setPermissions(strDir, QFile::permissions(strDir) | readable);
    const QString strExe = strDir + QStringLiteral("/tst-child");
    if (!QFile::exists(strExe) && !QFile::copy(QCoreApplication::applicationFilePath(), strExe))
        return QStringLiteral("cannot copy the test binary");
    QFile::setPermissions(strExe, readable);
    const QString strRuntime = strDir + QStringLiteral("/runtime");
    if (!QDir().mkpath(strRuntime) || ::chown(QFile::encodeName(strRuntime).constData(), uid, uid) != 0
        || ::chmod(QFile::encodeName(strRuntime).constData(), 0700) != 0)
        return QStringLiteral("cannot prepare a runtime directory for user %1").arg(uid);
    env = QProcessEnvironment::systemEnvironment();
    env.insert(QString::fromLatin1(kChildDirVar), strDir);
    env.insert(QStringLiteral("HOME"), strDir);
    env.insert(QStringLiteral("XDG_RUNTIME_DIR"), strRuntime);
    QString strLsan = env.value(QStringLiteral("LSAN_OPTIONS"));
    const QRegularExpressionMatch match = QRegularExpression(QStringLiteral("suppressions=([^:]+)")).match(strLsan);
    if (match.hasMatch()) {
        const QString strSupp = strDir + QStringLiteral("/lsan.supp");
        if (!QFile::exists(strSupp) && !QFile::copy(match.captured(1), strSupp))
            return QStringLiteral("cannot copy the leak suppressions");
        QFile::setPermissions(strSupp, readable);
        env.insert(QStringLiteral("LSAN_OPTIONS"), strLsan.replace(match.captured(1), strSupp));
    }
    return QString();
}

} // namespace

bool writeFile(const QString& path, const QByteArray& content)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    return file.open(QIODevice::WriteOnly | QIODevice::Truncate) && file.write(content) == content.size();
}

QByteArray readFile(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

QStringList treeOf(const QString& strRoot)
{
    QStringList paths;
    QDirIterator it(strRoot, QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot,
                    QDirIterator::Subdirectories);
    while (it.hasNext()) {
        const QString strPath = it.next().mid(strRoot.size() + 1);
        paths << strPath + (it.fileInfo().isDir() && !it.fileInfo().isSymLink() ? "/" : "");
    }
    paths.sort();
    return paths;
}

bool makeTree(const QString& strRoot, const QStringList& entries)
{
    bool bOk = QDir().mkpath(strRoot);
    for (const QString& strEntry : entries) {
        const QString strPath = strRoot + QLatin1Char('/') + strEntry.section(QStringLiteral("->"), 0, 0);
        QDir().mkpath(QFileInfo(strPath).absolutePath());
        if (strEntry.contains(QStringLiteral("->")))
            bOk = bOk && QFile::link(strEntry.section(QStringLiteral("->"), 1), strPath);
        else if (strEntry.endsWith(QLatin1Char('|')))
            bOk = bOk && mkfifo(QFile::encodeName(strPath.chopped(1)).constData(), 0600) == 0;
        else
            bOk = bOk && (strEntry.endsWith(QLatin1Char('/')) ? QDir().mkpath(strPath) : writeFile(strPath, strEntry.toUtf8()));
    }
    return bOk;
}

QString unprivilegedUnavailable()
{
    if (geteuid() != 0)
        return QStringLiteral("switching users needs root");
    if (QProcess::execute(QStringLiteral("setpriv"), asUser(65534) << QStringLiteral("true")) != 0)
        return QStringLiteral("setpriv cannot switch to user 65534");
    return QString();
}

QString unprivilegedChildDir()
{
    return qEnvironmentVariable(kChildDirVar);
}

QString runCurrentCaseAs(int uid, const QString& strDir, const QStringList& extraEnv)
{
    QProcessEnvironment env;
    const QString strFailure = prepareChild(uid, strDir, env);
    if (!strFailure.isEmpty())
        return strFailure;
    // "NAME=value" sets a variable, "NAME" alone removes it.
    for (const QString& strEntry : extraEnv) {
        if (strEntry.contains(QLatin1Char('=')))
            env.insert(strEntry.section(QLatin1Char('='), 0, 0), strEntry.section(QLatin1Char('='), 1));
        else
            env.remove(strEntry);
    }
    const QString strFunction = QString::fromLatin1(QTest::currentTestFunction());
    const QString strTag = QString::fromUtf8(QTest::currentDataTag());
    QProcess proc;
    proc.setProcessEnvironment(env);
    proc.setWorkingDirectory(strDir);
    proc.setProcessChannelMode(QProcess::MergedChannels);
    proc.start(QStringLiteral("setpriv"), asUser(uid) << strDir + QStringLiteral("/tst-child")
                                                      << (strTag.isEmpty() ? strFunction : strFunction + ':' + strTag));
    if (!proc.waitForFinished(120000))
        proc.kill();
    const QString strOut = QString::fromLocal8Bit(proc.readAll());
    // A skip in the child also exits with 0: only its PASS line counts.
    const QRegularExpression rePass(QStringLiteral("PASS   : \\w+")
                                    + QRegularExpression::escape(QStringLiteral("::%1(%2)").arg(strFunction, strTag)));
    if (proc.exitStatus() != QProcess::NormalExit || proc.exitCode() != 0 || !strOut.contains(rePass))
        return QStringLiteral("as user %1:\n").arg(uid) + strOut;
    return QString();
}

TScriptRun runUninstallScript(const QString& strShell, const QString& strScript, const QByteArray& answer,
                              const QString& workDir)
{
    TScriptRun run;
    QProcess process;
    process.setWorkingDirectory(workDir);
    process.start(strShell, {strScript});
    if (!process.waitForStarted())
        return run;
    process.write(answer);
    process.closeWriteChannel();
    run.bFinished = process.waitForFinished(20000) && process.exitStatus() == QProcess::NormalExit;
    run.exitCode = process.exitCode();
    run.strOut = QString::fromUtf8(process.readAllStandardOutput());
    run.strErr = QString::fromUtf8(process.readAllStandardError());
    return run;
}

QString applicationsDirUnavailable()
{
    if (geteuid() != 0 || qgetenv(kNamespaceVar) == "inside")
        return QString();
    return QStringLiteral("as root the install runs need a private /usr/share/applications: run the test "
                          "through tests/isolated.sh, as ctest does");
}

DFifoGate::DFifoGate(const QString& strPath)
    : strPath(strPath)
{
    mkfifo(QFile::encodeName(strPath).constData(), 0600);
}

bool DFifoGate::waitForReader()
{
    // Opening the write side without blocking succeeds only once a reader waits.
    return QTest::qWaitFor([&] {
        if (fdWriter < 0)
            fdWriter = ::open(QFile::encodeName(strPath).constData(), O_WRONLY | O_NONBLOCK);
        return fdWriter >= 0;
    }, 20000);
}

void DFifoGate::releaseReader()
{
    if (fdWriter >= 0)
        ::close(fdWriter);
    fdWriter = -1;
}

QByteArray DFifoGate::drainWriter()
{
    QFile file(strPath);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

} // namespace TestSupport
