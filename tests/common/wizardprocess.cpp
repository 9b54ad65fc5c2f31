#include "wizardprocess.h"

#include <QDir>
#include <QFile>
#include <QTest>

#include <atomic>
#include <vector>

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace TestSupport {

namespace {

const int kWaitMs = 20000;

std::vector<char*> toArgv(QList<QByteArray>& storage)
{
    std::vector<char*> pointers;
    for (QByteArray& item : storage)
        pointers.push_back(item.data());
    pointers.push_back(nullptr);
    return pointers;
}

// The fields after "pid (comm)" of /proc/<pid>/stat; comm may hold blanks.
QList<QByteArray> statFields(const QString& strPid)
{
    const QByteArray baStat = [&] {
        QFile file(QStringLiteral("/proc/%1/stat").arg(strPid));
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
    }();
    const int end = baStat.lastIndexOf(')');
    if (end < 0)
        return {};
    return baStat.mid(end + 2).split(' ');
}

} // namespace

DWizardProbe::DWizardProbe(const QString& probeDir)
    : strDir(probeDir)
{
}

QStringList DWizardProbe::environment() const
{
    // A sanitizer runtime would refuse to come second behind the preloaded probe.
    QByteArray baAsan = qgetenv("ASAN_OPTIONS");
    baAsan += baAsan.isEmpty() ? "verify_asan_link_order=0" : ":verify_asan_link_order=0";
    return {QStringLiteral("LD_PRELOAD=" TAVELIN_WIZARD_PROBE), QStringLiteral("TAVELIN_PROBE_DIR=") + strDir,
            QStringLiteral("ASAN_OPTIONS=") + QString::fromLocal8Bit(baAsan)};
}

pid_t DWizardProbe::start(const QString& program, const QStringList& env, const QString& workDir,
                          const QString& logPath) const
{
    QList<QByteArray> args{program.toLocal8Bit()};
    QList<QByteArray> envs;
    for (const QString& entry : env)
        envs.append(entry.toLocal8Bit());
    std::vector<char*> argv = toArgv(args);
    std::vector<char*> envp = toArgv(envs);
    const QByteArray baDir = workDir.toLocal8Bit();
    const QByteArray baLog = logPath.toLocal8Bit();

    const pid_t pid = fork();
    if (pid != 0)
        return pid;
    const int fdLog = open(baLog.constData(), O_WRONLY | O_CREAT | O_APPEND, 0644);
    const int fdNull = open("/dev/null", O_RDONLY);
    if (fdLog < 0 || fdNull < 0 || chdir(baDir.constData()) != 0)
        _exit(120);
    dup2(fdNull, 0);
    dup2(fdLog, 1);
    dup2(fdLog, 2);
    execve(argv[0], argv.data(), envp.data());
    _exit(121);
}

bool DWizardProbe::waitReady(pid_t pid) const
{
    return QTest::qWaitFor([&] { return readyWizards().contains(pid); }, kWaitMs);
}

QList<pid_t> DWizardProbe::readyWizards() const
{
    QList<pid_t> pids;
    const QStringList outFiles = QDir(strDir).entryList({QStringLiteral("*.out")}, QDir::Files);
    for (const QString& name : outFiles) {
        QFile file(QDir(strDir).filePath(name));
        if (file.open(QIODevice::ReadOnly) && file.readAll().startsWith("0 ready\n"))
            pids.append(static_cast<pid_t>(name.section(QLatin1Char('.'), 0, 0).toInt()));
    }
    return pids;
}

QByteArray DWizardProbe::send(pid_t pid, const QByteArray& command) const
{
    static std::atomic<int> s_seq{0};
    const QByteArray baSeq = QByteArray::number(++s_seq);
    const QByteArray baFifo = QDir(strDir).filePath(QStringLiteral("%1.in").arg(pid)).toLocal8Bit();
    const int fd = open(baFifo.constData(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0)
        return QByteArray();
    const QByteArray baLine = baSeq + ' ' + command + '\n';
    const bool bSent = write(fd, baLine.constData(), static_cast<size_t>(baLine.size())) == baLine.size();
    close(fd);
    if (!bSent)
        return QByteArray();

    QByteArray baAnswer;
    const QString strOut = QDir(strDir).filePath(QStringLiteral("%1.out").arg(pid));
    const bool bAnswered = QTest::qWaitFor(
        [&] {
            QFile file(strOut);
            if (!file.open(QIODevice::ReadOnly))
                return false;
            for (const QByteArray& line : file.readAll().split('\n')) {
                if (line.startsWith(baSeq + ' ')) {
                    baAnswer = line.mid(baSeq.size() + 1);
                    return true;
                }
            }
            return false;
        },
        kWaitMs);
    return bAnswered ? baAnswer : QByteArray();
}

DXvfbServer::~DXvfbServer()
{
    if (pidServer > 0) {
        kill(pidServer, SIGKILL);
        waitpid(pidServer, nullptr, 0);
    }
}

bool DXvfbServer::start()
{
    // Display numbers of our own, away from the low ones that others pick first.
    const int firstDisplay = 400 + getpid() % 500;
    for (int display = firstDisplay; display < firstDisplay + 20; ++display) {
        if (startOn(display))
            return true;
    }
    return false;
}

bool DXvfbServer::startOn(int display)
{
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0)
        return false;
    const QByteArray baFd = QByteArray::number(fds[1]);
    const QByteArray baDisplay = ':' + QByteArray::number(display);
    pidServer = fork();
    if (pidServer == 0) {
        // The write end must survive exec: Xvfb reports there once it is ready.
        fcntl(fds[1], F_SETFD, 0);
        const int fdNull = open("/dev/null", O_RDWR);
        dup2(fdNull, 0);
        dup2(fdNull, 1);
        dup2(fdNull, 2);
        // No reset when the last client goes: a killed wizard is the last one
        // just as its successor connects.
        execlp("Xvfb", "Xvfb", baDisplay.constData(), "-displayfd", baFd.constData(), "-noreset", "-nolisten", "tcp",
               "-screen", "0", "800x600x24", static_cast<char*>(nullptr));
        _exit(127);
    }
    close(fds[1]);
    QByteArray baNumber;
    char c;
    while (pidServer > 0 && read(fds[0], &c, 1) == 1 && c != '\n')
        baNumber.append(c);
    close(fds[0]);
    if (baNumber.isEmpty()) {
        // Taken by another server, or no Xvfb at all.
        if (pidServer > 0) {
            kill(pidServer, SIGKILL);
            waitpid(pidServer, nullptr, 0);
        }
        pidServer = -1;
        return false;
    }
    strDisplay = QStringLiteral(":") + QString::fromLatin1(baNumber);
    return true;
}

bool becomeChildSubreaper()
{
    return prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0) == 0;
}

QList<pid_t> childrenOf(pid_t parent)
{
    QList<pid_t> pids;
    const QStringList entries = QDir(QStringLiteral("/proc")).entryList(QDir::Dirs | QDir::NoDotAndDotDot);
    for (const QString& entry : entries) {
        bool bNumber = false;
        const pid_t pid = static_cast<pid_t>(entry.toInt(&bNumber));
        if (!bNumber)
            continue;
        const QList<QByteArray> fields = statFields(entry);
        if (fields.size() > 1 && fields.at(1).toInt() == parent)
            pids.append(pid);
    }
    return pids;
}

char processState(pid_t pid)
{
    const QList<QByteArray> fields = statFields(QString::number(pid));
    return fields.isEmpty() || fields.at(0).isEmpty() ? 0 : fields.at(0).at(0);
}

bool waitChildEnd(pid_t pid, int& status)
{
    return QTest::qWaitFor(
        [&] {
            pid_t reaped;
            do {
                reaped = waitpid(pid, &status, WNOHANG);
            } while (reaped == -1 && errno == EINTR);
            return reaped == pid;
        },
        kWaitMs);
}

void killOwnChildren(pid_t except)
{
    // Killing a child can hand its own children over to us: repeat.
    for (int round = 0; round < 10; ++round) {
        QList<pid_t> pids = childrenOf(getpid());
        pids.removeAll(except);
        if (pids.isEmpty())
            return;
        for (pid_t pid : pids) {
            kill(pid, SIGKILL);
            waitpid(pid, nullptr, 0);
        }
    }
}

} // namespace TestSupport
