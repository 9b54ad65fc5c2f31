// Loaded with LD_PRELOAD into a real tavelin-gui under test, so that a test
// can press its buttons and look at its window from outside. Commands come
// one per line, "<seq> <verb> [argument]", through the FIFO <dir>/<pid>.in;
// each answer is appended to <dir>/<pid>.out as "<seq> <answer>". The line
// "0 ready" appears once the event loop runs. <dir> is TAVELIN_PROBE_DIR.

#include <QApplication>
#include <QByteArray>
#include <QCoreApplication>
#include <QFile>
#include <QPushButton>
#include <QSocketNotifier>
#include <QTimer>
#include <QWizard>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

QByteArray g_baProbeDir;
QByteArray g_baPendingInput;

void appendAnswer(const QByteArray& seq, const QByteArray& answer)
{
    QFile file(QString::fromLocal8Bit(g_baProbeDir + '/' + QByteArray::number(getpid()) + ".out"));
    if (file.open(QIODevice::WriteOnly | QIODevice::Append))
        file.write(seq + ' ' + answer + '\n');
}

QWizard* findWizard()
{
    for (QWidget* widget : QApplication::topLevelWidgets()) {
        if (auto* wizard = qobject_cast<QWizard*>(widget))
            return wizard;
    }
    return nullptr;
}

QByteArray clickButton(const QByteArray& name)
{
    QWizard* wizard = findWizard();
    auto* button = wizard ? wizard->findChild<QPushButton*>(QString::fromLatin1(name)) : nullptr;
    if (!button)
        return "missing";
    button->click();
    return "ok";
}

QByteArray forkStray(int exitCode)
{
    const pid_t pid = fork();
    if (pid == 0)
        _exit(exitCode);
    return QByteArray::number(pid);
}

QByteArray reapStray(pid_t pid)
{
    int status = 0;
    const pid_t reaped = waitpid(pid, &status, WNOHANG);
    return "reaped=" + QByteArray::number(reaped) + " status=" + QByteArray::number(status);
}

QByteArray runCommand(const QByteArray& verb, const QByteArray& argument)
{
    QWizard* wizard = findWizard();
    if (verb == "ping")
        return "pong";
    if (verb == "click")
        return clickButton(argument);
    if (verb == "minimize" && wizard) {
        wizard->showMinimized();
        return "ok";
    }
    if (verb == "state" && wizard)
        return "minimized=" + QByteArray::number(wizard->isMinimized() ? 1 : 0);
    if (verb == "stray")
        return forkStray(argument.toInt());
    if (verb == "reap")
        return reapStray(static_cast<pid_t>(argument.toInt()));
    return "unknown";
}

void readCommands(int fd)
{
    char buffer[256];
    ssize_t count;
    while ((count = read(fd, buffer, sizeof(buffer))) > 0)
        g_baPendingInput.append(buffer, static_cast<int>(count));
    int end;
    while ((end = g_baPendingInput.indexOf('\n')) >= 0) {
        const QList<QByteArray> words = g_baPendingInput.left(end).split(' ');
        g_baPendingInput.remove(0, end + 1);
        if (words.size() >= 2)
            appendAnswer(words.at(0), runCommand(words.at(1), words.value(2)));
    }
}

void startProbe()
{
    g_baProbeDir = qgetenv("TAVELIN_PROBE_DIR");
    if (g_baProbeDir.isEmpty())
        return;
    // The wizard's own children (bash, pkexec) must not load the probe.
    qunsetenv("LD_PRELOAD");

    const QByteArray baFifo = g_baProbeDir + '/' + QByteArray::number(getpid()) + ".in";
    mkfifo(baFifo.constData(), 0600);
    // Opened for writing too, so that a closing writer never signals end of file.
    const int fd = open(baFifo.constData(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0)
        return;
    auto* notifier = new QSocketNotifier(fd, QSocketNotifier::Read, QCoreApplication::instance());
    QObject::connect(notifier, &QSocketNotifier::activated, notifier, [fd] { readCommands(fd); });
    QTimer::singleShot(0, QCoreApplication::instance(), [] { appendAnswer("0", "ready"); });
}

} // namespace

Q_COREAPP_STARTUP_FUNCTION(startProbe)
