#include "launch.h"

#include "mount.h"

#include <errno.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/signalfd.h>
#include <sys/wait.h>
#include <unistd.h>

static sigset_t g_held, g_before;

void launch_hold_signals(void)
{
    sigemptyset(&g_held);
    sigaddset(&g_held, SIGCHLD);
    sigaddset(&g_held, SIGINT);
    sigaddset(&g_held, SIGTERM);
    sigaddset(&g_held, SIGHUP);
    sigprocmask(SIG_BLOCK, &g_held, &g_before);
}

/* Every SIGCHLD may stand for several, so the child is asked for directly. */
static int ended(pid_t child, int* code)
{
    int status = 0;
    if (child < 0 || waitpid(child, &status, WNOHANG) != child)
        return 0;
    *code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return 1;
}

/* Serves mount and passes stop signals on to child, until it ends; without a child, until the first stop signal. */
static int serve_and_wait(pid_t child, struct mount* mount)
{
    int signals = signalfd(-1, &g_held, SFD_CLOEXEC), code = 1;
    struct pollfd waits[2] = {{.fd = signals, .events = POLLIN}, {.fd = mount ? mount_fd(mount) : -1, .events = POLLIN}};
    if (signals < 0)
        fprintf(stderr, "tavelin-runtime: cannot wait for signals: %s\n", strerror(errno));
    while (signals >= 0 && !ended(child, &code)) {
        if (poll(waits, 2, -1) < 0 && errno != EINTR)
            break;
        if (waits[1].revents && mount_serve(mount) != 0)
            waits[1].fd = -1; /* unmounted from outside: nothing more to serve */
        struct signalfd_siginfo info;
        if (!(waits[0].revents & POLLIN) || read(signals, &info, sizeof info) != sizeof info || info.ssi_signo == SIGCHLD)
            continue;
        if (child < 0) {
            code = 0;
            break;
        }
        kill(child, (int)info.ssi_signo);
    }
    if (signals >= 0)
        close(signals);
    return code;
}

int launch_run(char* const argv[], struct mount* mount)
{
    sigset_t stops = g_held;
    sigdelset(&stops, SIGCHLD);
    const struct timespec now = {0, 0};
    int early = sigtimedwait(&stops, NULL, &now);
    if (early > 0)
        return 128 + early;
    pid_t child = fork();
    if (child == 0) {
        sigprocmask(SIG_SETMASK, &g_before, NULL);
        execv(argv[0], argv);
        fprintf(stderr, "tavelin-runtime: cannot start %s: %s\n", argv[0], strerror(errno));
        _exit(127);
    }
    if (child < 0) {
        fprintf(stderr, "tavelin-runtime: cannot start %s: %s\n", argv[0], strerror(errno));
        return 1;
    }
    /* Only now: pages the read-ahead thread writes would otherwise be copied on
     * write, being shared with a child that was only going to exec. */
    if (mount)
        mount_read_ahead(mount);
    return serve_and_wait(child, mount);
}

void launch_serve_until_stopped(struct mount* mount)
{
    serve_and_wait(-1, mount);
}
