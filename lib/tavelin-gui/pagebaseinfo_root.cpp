#include "mainwindow.h"

#include <QCoreApplication>
#include <QSocketNotifier>

#include <cerrno>
#include <fcntl.h>
#include <signal.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

// The child that runs pkexec, while one runs; -1 when there is none.
static int g_pidRootApp = -1;
// The window to bring back after a refused try.
static MainWindow* g_objMainWindow = nullptr;

// Self-pipe from the SIGCHLD handler to the main thread: [0] read, [1] write.
static int g_fdChildEnd[2] = {-1, -1};

namespace {

void sigintClose(int signal)
{
    if (signal != SIGCHLD)
        return;
    // Only async-signal-safe work here; the main thread does the rest.
    const int savedErrno = errno;
    const char byte = 0;
    const ssize_t written = write(g_fdChildEnd[1], &byte, 1);
    Q_UNUSED(written) // a full pipe already holds a wake-up
    errno = savedErrno;
}

void drainChildEndPipe()
{
    char buffer[64];
    while (read(g_fdChildEnd[0], buffer, sizeof(buffer)) > 0) {
    }
}

// Returns true once the launched child is collected, with its raw status.
bool collectRootApp(int& status)
{
    pid_t pid;
    do {
        pid = waitpid(g_pidRootApp, &status, WNOHANG);
    } while (pid == -1 && errno == EINTR);
    if (pid == 0)
        return false; // another child ended; ours still runs
    if (pid == -1)
        status = -1; // gone without a status: count it as refused
    return true;
}

void onChildEnd()
{
    drainChildEndPipe();
    if (g_pidRootApp == -1)
        return;
    int status = 0;
    if (!collectRootApp(status))
        return;
    g_pidRootApp = -1;
    if (status == 0) {
        QCoreApplication::exit(0);
        return;
    }
    if (g_objMainWindow) {
        g_objMainWindow->activateWindow();
        g_objMainWindow->showNormal();
        g_objMainWindow = nullptr;
    }
}

bool openChildEndChannel()
{
    if (g_fdChildEnd[0] != -1)
        return true;
    if (pipe2(g_fdChildEnd, O_NONBLOCK | O_CLOEXEC) != 0) {
        g_fdChildEnd[0] = g_fdChildEnd[1] = -1;
        return false;
    }
    auto* notifier = new QSocketNotifier(g_fdChildEnd[0], QSocketNotifier::Read, QCoreApplication::instance());
    QObject::connect(notifier, &QSocketNotifier::activated, notifier, [] { onChildEnd(); });
    return true;
}

// In place before fork, so that no end of a launched child passes unseen.
void installChildEndHandler()
{
    struct sigaction action = {};
    action.sa_handler = sigintClose;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART | SA_NOCLDSTOP;
    sigaction(SIGCHLD, &action, nullptr);
}

} // namespace

void DPageBaseInfo::onclickChange2Root()
{
    const QString strEnvUser = QStringLiteral("SUDO_USERID=%1 ").arg(DTavelinUtil::getCurrentUserId(), 0, 10)
                               + QStringLiteral("SUDO_USERNAME=%2").arg(DTavelinUtil::getCurrentUser());
    QString strAppPath = QString::fromLocal8Bit(qgetenv("APPIMAGE"));
    if (strAppPath.isEmpty())
        strAppPath = QCoreApplication::applicationFilePath();
    const QString strEnvForkPid = QStringLiteral("FORKPID=%1").arg(getpid(), 0, 10);

    if (g_pidRootApp != -1)
        return;

    const QString strCmdChildProc = QStringLiteral("pkexec env DISPLAY=$DISPLAY XAUTHORITY=$XAUTHORITY %1 %2 %3")
                                        .arg(strEnvUser, strEnvForkPid, strAppPath);
    // Encoded before fork: the child of a threaded process may not allocate.
    const QByteArray baCmdChildProc = strCmdChildProc.toLocal8Bit();

    // Without the channel the end of the child could not be seen.
    if (!openChildEndChannel())
        return;
    installChildEndHandler();

    g_pidRootApp = fork();
    if (g_pidRootApp == 0) {
        execlp("bash", "bash", "-c", baCmdChildProc.constData(), static_cast<char*>(nullptr));
        _exit(127);
    }
    if (g_pidRootApp > 0)
        g_objMainWindow = qobject_cast<MainWindow*>(wizard());
}
