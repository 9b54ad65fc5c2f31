#pragma once

#include <QByteArray>
#include <QList>
#include <QString>
#include <QStringList>

#include <sys/types.h>

namespace TestSupport {

/// A real tavelin-gui started with the wizard probe preloaded (see
/// wizardprobe.cpp); any wizard that loads the probe can be talked to by pid.
class DWizardProbe
{
public:
    explicit DWizardProbe(const QString& probeDir);

    /// The environment entries that load the probe into a wizard.
    QStringList environment() const;
    /// Starts the program with exactly this environment, in workDir, with
    /// stdout and stderr appended to logPath. Returns the pid, or -1.
    pid_t start(const QString& program, const QStringList& env, const QString& workDir,
                const QString& logPath) const;
    /// Waits until the wizard runs its event loop.
    bool waitReady(pid_t pid) const;
    /// Pids of the wizards that have reported ready, in no order.
    QList<pid_t> readyWizards() const;
    /// Sends one command and waits for its answer; empty on timeout.
    QByteArray send(pid_t pid, const QByteArray& command) const;

private:
    QString strDir;
};

/// An Xvfb server of the test's own: the real wizard needs a display,
/// since its gtk3 platform theme will not start without one.
class DXvfbServer
{
public:
    DXvfbServer() = default;
    ~DXvfbServer();
    DXvfbServer(const DXvfbServer&) = delete;
    DXvfbServer& operator=(const DXvfbServer&) = delete;

    /// Starts the server; false when Xvfb cannot be run.
    bool start();
    pid_t pid() const { return pidServer; }
    /// The value for DISPLAY, such as ":3".
    QString display() const { return strDisplay; }

private:
    bool startOn(int display);

    pid_t pidServer = -1;
    QString strDisplay;
};

/// Makes orphans of our descendants come back to this process, to be reaped.
bool becomeChildSubreaper();
/// Children of a process, living or zombie, from /proc.
QList<pid_t> childrenOf(pid_t parent);
/// The state letter of a process in /proc (R, S, Z...), or 0 when gone.
char processState(pid_t pid);
/// Waits for a child of ours to end; fills the raw status.
bool waitChildEnd(pid_t pid, int& status);
/// Kills and reaps every child of this process but one: whatever a test started.
void killOwnChildren(pid_t except = -1);

} // namespace TestSupport
