#include "testsupport.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QRegularExpression>
#include <QStandardPaths>
#include <QtTest>

#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QApplication>
#include <QTest>
#include <QTimerEvent>

#include <cerrno>
#include <cstdlib>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
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

namespace TestSupport {

namespace {

const char* const kNamespaceVar = "TAVELIN_TEST_NAMESPACE";
const char* const kInsideNamespace = "inside";

} // namespace

void enterPrivateApplicationsDir(int argc, char** argv)
{
    if (geteuid() != 0 || qEnvironmentVariableIsSet(kNamespaceVar))
        return;
    if (!QFileInfo(QStringLiteral("/usr/share/applications")).isDir()) {
        qputenv(kNamespaceVar, "/usr/share/applications does not exist to be covered");
        return;
    }
    if (std::system("unshare -m true >/dev/null 2>&1") != 0) {
        qputenv(kNamespaceVar, "unshare -m is not possible here");
        return;
    }
    const QByteArray baSelf = QFile::encodeName(QFileInfo(QStringLiteral("/proc/self/exe")).canonicalFilePath());
    // A failed mount re-runs the binary outside, where the install cases skip.
    const char* script = "mount --make-rprivate / && mount -t tmpfs tavelin-test /usr/share/applications"
                         " && exec env TAVELIN_TEST_NAMESPACE=inside \"$0\" \"$@\";"
                         " exec env TAVELIN_TEST_NAMESPACE='mounting a tmpfs over /usr/share/applications failed'"
                         " \"$0\" \"$@\"";
    std::vector<char*> args = {const_cast<char*>("unshare"), const_cast<char*>("-m"), const_cast<char*>("sh"),
                               const_cast<char*>("-c"), const_cast<char*>(script),
                               const_cast<char*>(baSelf.constData())};
    for (int i = 1; i < argc; ++i)
        args.push_back(argv[i]);
    args.push_back(nullptr);
    execvp("unshare", args.data());
    qputenv(kNamespaceVar, "unshare could not be started");
}

QString applicationsDirUnavailable()
{
    if (geteuid() != 0)
        return QString();
    const QByteArray baState = qgetenv(kNamespaceVar);
    if (baState == kInsideNamespace)
        return QString();
    if (baState.isEmpty())
        return QStringLiteral("root run outside a private mount namespace (use TAVELIN_TEST_MAIN_ISOLATED)");
    return QStringLiteral("root run needs a private /usr/share/applications: ") + QString::fromLocal8Bit(baState);
}

QString applicationsDir()
{
    if (DTavelinUtil::getCurrentUser() == QLatin1String("root"))
        return QStringLiteral("/usr/share/applications");
    return QDir::homePath() + QStringLiteral("/.local/share/applications");
}

void loadPayload(const QString& strAppDir)
{
    qputenv("APPDIR", QFile::encodeName(strAppDir));
    DTavelinGuiConfig::getInstance().init();
}

bool writePayload(const QString& strAppDir, const QByteArray& baManifest, const QByteArray& baDesktop,
                  const QStringList& appFiles)
{
    bool bOk = writeFile(strAppDir + QStringLiteral("/soft/mainifest.json"), baManifest);
    const QJsonObject jsonInstall = QJsonDocument::fromJson(baManifest).object().value(QStringLiteral("install")).toObject();
    const QString strDesktopFile = jsonInstall.value(QStringLiteral("desktopFile")).toString();
    if (!strDesktopFile.isEmpty())
        bOk = bOk && writeFile(strAppDir + QStringLiteral("/soft/desktop/share/applications/") + strDesktopFile, baDesktop);
    bOk = bOk && QDir().mkpath(strAppDir + QStringLiteral("/soft/app"));
    for (const QString& strFile : appFiles)
        bOk = bOk && writeFile(strAppDir + QStringLiteral("/soft/app/") + strFile, strFile.toUtf8());
    return bOk;
}

QByteArray manifestJson(int filesTotalCount, const QString& strDesktopFile)
{
    QJsonObject jsonBase{{QStringLiteral("nameEng"), QStringLiteral("Probe")}};
    QJsonObject jsonInstall{{QStringLiteral("dir"), QStringLiteral("probe")},
                            {QStringLiteral("filesTotalCount"), filesTotalCount},
                            {QStringLiteral("desktopFile"), strDesktopFile}};
    QJsonObject jsonFiles{{QStringLiteral("localDir"), QString()}, {QStringLiteral("mainExePath"), QString()}};
    QJsonObject jsonRoot{{QStringLiteral("base"), jsonBase},
                         {QStringLiteral("install"), jsonInstall},
                         {QStringLiteral("files"), jsonFiles}};
    return QJsonDocument(jsonRoot).toJson();
}

DFifoGate::DFifoGate(const QString& strPath)
    : strPath(strPath)
{
    mkfifo(QFile::encodeName(strPath).constData(), 0600);
}

DFifoGate::~DFifoGate()
{
    releaseReader();
}

bool DFifoGate::waitForReader(int timeoutMs)
{
    const QByteArray baPath = QFile::encodeName(strPath);
    return QTest::qWaitFor([&]() {
        // Opening the write side without blocking succeeds only once a reader waits.
        if (fdWriter < 0)
            fdWriter = ::open(baPath.constData(), O_WRONLY | O_NONBLOCK);
        return fdWriter >= 0;
    }, timeoutMs);
}

void DFifoGate::releaseReader()
{
    if (fdWriter >= 0)
        ::close(fdWriter);
    fdWriter = -1;
}

QByteArray DFifoGate::drainWriter()
{
    const int fd = ::open(QFile::encodeName(strPath).constData(), O_RDONLY);
    if (fd < 0)
        return QByteArray();
    QByteArray baAll;
    char block[4096];
    ssize_t n;
    while ((n = ::read(fd, block, sizeof(block))) > 0 || (n < 0 && errno == EINTR)) {
        if (n > 0)
            baAll.append(block, int(n));
    }
    ::close(fd);
    return baAll;
}

DMessageBoxCloser::DMessageBoxCloser(TMessageBoxSeen* seen)
    : seen(seen)
{
    startTimer(10);
}

void DMessageBoxCloser::timerEvent(QTimerEvent* event)
{
    Q_UNUSED(event)
    auto* box = qobject_cast<QMessageBox*>(QApplication::activeModalWidget());
    if (!box || !box->isVisible())
        return;
    ++seen->count;
    seen->title = box->windowTitle();
    seen->text = box->text();
    seen->buttons = box->standardButtons();
    seen->icon = box->icon();
    box->done(QMessageBox::Ok);
}

} // namespace TestSupport
